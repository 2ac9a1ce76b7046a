// Every allocation of the support library's operations fails: the caller gets the stated code or exception,
// nothing leaks, and what the operation worked on is as it was. Strings, vectors and streams fail in the fuzz
// targets.

#include <functional>
#include <new>

#include "formats/base64.h"
#include "formats/message_descriptors.h"
#include "formats/payload_text.h"
#include "memory_io/memory_io.h"
#include "tests/support/support_host.h"
#include "tests/world/heap.h"
#include "trace/trace_stream.h"
#include "types/format.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A size that no heap has must give null here too.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace veld_report::tests {
namespace {

using orvel::veld_report::Message;
using orvel::veld_report::Signature;
using world::Heap;
using zel::ResultCode;

constexpr std::string_view longText = "a text that is too long for the buffer inside";
constexpr std::u16string_view longWide = u"a text that is too long for the buffer inside";

// One object of each type, made anew for every run, with memory from the host's allocator or the process
// heap.
struct Subjects {
  explicit Subjects(zel::IAllocator* service)
      : text(longText, service), brief("brief", service), wide(longWide, service) {
    texts = zel::vector_t<zel::string>(service);
    for (int i = 0; i < 2; ++i) texts.push_back(text);
    source.payload = text;
    source.signatures = zel::vector_t<Signature>(service);
    source.signatures.push_back({text});
    target.signatures.push_back({text});
  }
  std::string Image() const {
    std::string image;
    for (const zel::string* one :
         {&text, &brief, &source.payload, &source.signatures[0].protected_, &texts[1]})
      image += std::string(one->View()) + "/" + std::to_string(one->capacity) + " ";
    return image + std::to_string(wide.size) + "/" + std::to_string(wide.capacity) + " " +
           std::to_string(texts.size()) + "/" + std::to_string(source.signatures.size());
  }

  zel::string text, brief;
  zel::wstring wide;
  zel::vector_t<zel::string> texts;
  Message source, target;
  const zel::SystemException exception{{"a/source/path", 7}, zel::eNotFound, zel::wstring(longWide)};
};

// `run` gives the code of the operation; std::bad_alloc counts as 0x80000041. `changes`: a failure may leave
// a part of the work done.
struct Operation {
  const char* name;
  std::function<ResultCode(Subjects&, TestAllocator&)> run;
  bool changes = false;
};

template <class Work>
auto Ok(Work work) {
  return [work](Subjects& s, TestAllocator&) {
    work(s);
    return zel::sOk;
  };
}
zel::SerObjDescriptorHelper& Helper() { return *zel::StaticDescriptor<Message>::pointer->helper; }

const Operation operations[] = {
    {"prepend", Ok([](Subjects& s) { zel::types::Prepend("in front of ", zel::string(s.text)); })},
    {"WideToUtf8", [](Subjects& s, TestAllocator&) { return zel::WideToUtf8(longWide, &s.brief); }},
    {"WideToNarrow", [](Subjects& s, TestAllocator&) { return zel::WideToNarrow(longWide, &s.brief); }},
    {"NarrowToWide", Ok([](Subjects& s) { zel::NarrowToWide(s.text); })},
    {"AppendFill", Ok([](Subjects& s) { zel::AppendFill(&s.wide, 300, '.'); })},
    {"AppendNumber", Ok([](Subjects& s) { zel::AppendNumber(&s.wide, {.width = 200}, 77); }), true},
    {"a stream over a string",
     [](Subjects& s, TestAllocator&) {
       zel::Ref<zel::IIO> made;
       return zel::memory_io::CreateIOFromBuffer(&s.text, made.Out());
     }},
    {"a record's CreateAt", Ok([](Subjects& s) {
       alignas(Message) unsigned char place[sizeof(Message)];
       Helper().CreateAt(place, &s.source);
       Helper().DestroyAt(place);
     })},
    {"a record's CreateNew",
     [](Subjects& s, TestAllocator& allocator) {
       void* made = Helper().CreateNew(&s.source, &allocator);
       if (!made) return zel::eOutOfMemory;
       Helper().DestroyAt(made);
       allocator.Free(made);
       return zel::sOk;
     }},
    {"a record's Assign", Ok([](Subjects& s) { Helper().Assign(&s.source, &s.target); }), true},
    {"a field's Resize",
     [](Subjects& s, TestAllocator&) {
       return zel::StaticDescriptor<Message>::pointer->fields[1].vectorHelper->Resize(&s.source.signatures,
                                                                                      9);
     }},
    {"Base64Encode", Ok([](Subjects& s) {
       const auto* bytes = reinterpret_cast<const std::uint8_t*>(s.text.data);
       orvel::veld_report::Base64Encode(bytes, s.text.size, &s.brief);
     }),
     true},
    {"BuildPayloadText", Ok([](Subjects& s) { orvel::veld_report::BuildPayloadText(s.texts); })},
    {"an exception's copy", Ok([](Subjects& s) { const zel::SystemException made(s.exception); })},
    {"an exception's Clone", Ok([](Subjects& s) { delete s.exception.Clone(); })},
    {"an exception's display text",
     [](Subjects& s, TestAllocator&) {
       // Empty without memory, and otherwise whole.
       const zel::wstring text = s.exception.GetDisplayText();
       EXPECT_TRUE(text.empty() || text.View().ends_with(u"). At a/source/path(7) "));
       return text.empty() ? zel::eOutOfMemory : zel::sOk;
     }},
    {"ThrowSystemException",
     [](Subjects&, TestAllocator&) -> ResultCode {
       try {
         zel::ThrowSystemException("p", 1, zel::eNotFound, longWide.data());
       } catch (const zel::SystemException&) {
         return zel::sOk;
       }
     }},
};

// Returns whether the nth allocation was reached, which then failed.
bool RunFailing(const Operation& operation, bool ofHeap, int nth) {
  const auto allocator = MakeObject<TestAllocator>();
  const std::int64_t before = Heap::LiveBlocks();
  bool failed = false;
  {
    Subjects subjects(ofHeap ? nullptr : allocator.Get());
    const std::string image = subjects.Image();
    const std::uint64_t blocks = allocator->LiveBlocks();
    ResultCode code = zel::eUnexpected;
    if (ofHeap)
      Heap::FailNth(
          nth, [](void* reached) { *static_cast<bool*>(reached) = true; }, &failed);
    allocator->failAt = ofHeap ? 0 : nth;
    try {
      const world::Inside inside;
      code = operation.run(subjects, *allocator);
    } catch (const std::bad_alloc&) {
      code = zel::eOutOfMemory;
    }
    Heap::FailNth(0, nullptr, nullptr);
    if (!ofHeap) failed = allocator->failAt == 0;
    allocator->failAt = 0;
    EXPECT_EQ(code, failed ? zel::eOutOfMemory : zel::sOk);
    if (failed && !operation.changes) {
      EXPECT_EQ(subjects.Image(), image);
      EXPECT_EQ(allocator->LiveBlocks(), blocks);
    }
  }
  EXPECT_EQ(Heap::LiveBlocks(), before) << "a leak";
  return failed;
}

TEST(SupportAllocation, FailsWithItsCodeAndChangesNothing) {
  for (const bool ofHeap : {false, true}) {
    if (ofHeap && !Heap::Counts()) continue;
    for (const Operation& operation : operations) {
      SCOPED_TRACE(operation.name);
      int nth = 1;
      while (RunFailing(operation, ofHeap, nth) && !HasFailure()) ++nth;
      EXPECT_TRUE(nth > 1 || !ofHeap) << "allocates nothing";
    }
  }
}

}  // namespace
}  // namespace veld_report::tests
