#include "memory_io/memory_io.h"

#include <algorithm>
#include <string>

#include "gtest/gtest.h"

namespace veld_report::tests {
namespace {

using zel::IIO;
using zel::ResultCode;
using zel::memory_io::CreateIOFromBuffer;

// One of the two kinds of stream over a text.
class MemoryStream : public testing::TestWithParam<bool> {
 protected:
  void Open(std::string_view content) {
    stream.Reset();
    text = zel::string(content);
    const ResultCode code =
        GetParam() ? CreateIOFromBuffer(text, stream.Out()) : CreateIOFromBuffer(&text, stream.Out());
    ASSERT_EQ(code, zel::sOk);
  }
  std::string Read(std::uint32_t count) {
    std::string bytes(count, '?');
    std::uint32_t bytesRead = 77;
    EXPECT_EQ(stream->Read(bytes.data(), count, &bytesRead), zel::sOk);
    return bytes.substr(0, bytesRead);
  }
  ResultCode Write(std::string_view bytes) {
    written = 77;
    return stream->Write(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &written);
  }
  std::uint64_t Seek(std::uint32_t origin, std::int64_t offset) {
    std::uint64_t position = 77;
    EXPECT_EQ(stream->Seek(origin, offset, &position), zel::sOk);
    EXPECT_EQ(Position(), position);
    return position;
  }
  std::uint64_t Position() {
    std::uint64_t position = 77;
    EXPECT_EQ(stream->GetPosition(&position), zel::sOk);
    return position;
  }
  // The whole content, read through the stream; the position is put back.
  std::string Content() {
    const std::uint64_t position = Position();
    std::uint64_t size = 77;
    EXPECT_EQ(stream->GetSize(&size), zel::sOk);
    Seek(0, 0);
    const std::string content = Read(static_cast<std::uint32_t>(size) + 10);
    EXPECT_EQ(content.size(), size);
    Seek(0, static_cast<std::int64_t>(position));
    EXPECT_TRUE(GetParam() || text.View() == content) << "the caller's string is the stream";
    return content;
  }

  zel::string text;
  zel::Ref<IIO> stream;
  std::uint32_t written = 0;
};
INSTANTIATE_TEST_SUITE_P(, MemoryStream, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "OwnCopy" : "Pointer"; });

TEST_P(MemoryStream, SeeksFromThreeOrigins) {
  struct Case {
    std::uint64_t start;
    std::uint32_t origin;
    std::int64_t offset;
    std::uint64_t position;
  };
  for (const Case& c : {Case{2, 0, 4, 4}, Case{2, 1, 3, 5}, Case{5, 1, -2, 3}, Case{5, 1, -9, 0},
                        Case{0, 2, 0, 6}, Case{0, 2, -1, 5}, Case{0, 2, 100, 106}, Case{3, 7, 1, 1},
                        Case{3, 0, -1, 0}, Case{0, 0, INT64_MAX, INT64_MAX}, Case{0, 2, INT64_MAX, 0},
                        Case{INT64_MAX, 1, INT64_MAX, 0}, Case{INT64_MAX, 1, INT64_MIN, 0}}) {
    Open("abcdef");
    Seek(0, static_cast<std::int64_t>(c.start));
    EXPECT_EQ(Seek(c.origin, c.offset), c.position) << c.start << " " << c.origin << " " << c.offset;
    EXPECT_EQ(Content(), "abcdef");
  }
}

// The room behind the end holds what stood there before.
TEST_P(MemoryStream, AGapIsFilledWithZeros) {
  Open("abcdefgh");
  ASSERT_EQ(stream->SetSize(2), zel::sOk);
  Seek(0, 5);
  ASSERT_EQ(Write("X"), zel::sOk);
  EXPECT_EQ(Content(), std::string_view("ab\0\0\0X", 6));
  ASSERT_EQ(stream->SetSize(3), zel::sOk);
  Seek(0, 5);
  ASSERT_EQ(Write(""), zel::sOk);
  EXPECT_EQ(Content(), std::string_view("ab\0\0\0", 5));
  ASSERT_EQ(stream->SetSize(7), zel::sOk);
  EXPECT_EQ(Content(), std::string_view("ab\0\0\0\0\0", 7));
}

TEST_P(MemoryStream, SizeBeyondMemoryIsACodeAndChangesNothing) {
  Open("abcdef");
  for (const std::uint64_t size : {std::uint64_t{1} << 62, std::uint64_t{1} << 63, UINT64_MAX}) {
    EXPECT_EQ(stream->SetSize(size), zel::eOutOfMemory) << size;
  }
  Seek(0, INT64_MAX);
  EXPECT_EQ(Write("XY"), zel::eOutOfMemory);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(Position(), std::uint64_t{INT64_MAX});
  EXPECT_EQ(Content(), "abcdef");
}

}  // namespace
}  // namespace veld_report::tests
