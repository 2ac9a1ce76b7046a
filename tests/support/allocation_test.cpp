// Every allocation of every operation of the support library fails: the caller gets the stated code or
// exception, nothing leaks, and what the operation worked on is as it was.

#include "tests/support/allocation_sweep.h"

#include <functional>
#include <iostream>
#include <sstream>

#include "formats/base64.h"
#include "formats/message_descriptors.h"
#include "formats/payload_text.h"
#include "gmock/gmock.h"
#include "memory_io/memory_io.h"
#include "tests/fakes/fake_tracer.h"
#include "trace/trace_stream.h"
#include "types/format.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exception_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::Message;
using orvel::veld_report::Signature;
using zel::ResultCode;

constexpr std::string_view longText = "a text that is too long for the buffer inside";
constexpr std::u16string_view longWide = u"a text that is too long for the buffer inside";

// One object of each type, made anew for every run, with memory from the host's allocator or the process
// heap.
struct Subjects {
  explicit Subjects(bool ofHeap)
      : service(ofHeap ? nullptr : allocator.Get()),
        text(longText, service),
        brief("brief", service),
        foreign(longText, other.Get()),
        wide(longWide, service),
        texts(service),
        numbers(service),
        streamText(longText, service) {
    for (int i = 0; i < 2; ++i) texts.push_back(text);
    numbers.push_back(7);
    source.payload = text;
    source.signatures = zel::vector_t<Signature>(service);
    source.signatures.push_back({text});
    target.payload = foreign;
    target.signatures.push_back({foreign});
    EXPECT_EQ(zel::memory_io::CreateIOFromBuffer(&streamText, stream.Out()), zel::sOk);
    EXPECT_EQ(zel::memory_io::CreateIOFromBuffer(text, copyStream.Out()), zel::sOk);
  }
  // All contents, room and owners.
  std::string Image() {
    std::ostringstream image;
    const auto put = [&](const zel::string& one) {
      image << one.View() << '/' << one.capacity << '/' << one.allocator.Service() << ' ';
    };
    for (const zel::string* one : {&text, &brief, &foreign, &streamText, &source.payload, &target.payload})
      put(*one);
    for (const zel::string& one : texts) put(one);
    for (const Message* one : {&source, &target}) {
      for (const Signature& signature : one->signatures) put(signature.protected_);
      image << one->signatures.capacity() << '/' << one->signatures.allocator.Service() << ' ';
    }
    image << wide.size << '/' << wide.capacity << (wide.View() == longWide) << texts.capacity() << ' '
          << numbers.size() << '/' << numbers.capacity() << numbers[0];
    for (zel::IIO* one : {stream.Get(), copyStream.Get()}) {
      std::uint64_t size = 0, position = 0;
      one->GetSize(&size);
      one->GetPosition(&position);
      image << ' ' << size << '@' << position;
    }
    return image.str();
  }

  fakes::FakeWorld world;
  zel::Ref<fakes::FakeAllocator> allocator = fakes::MakeFake<fakes::FakeAllocator>(world);
  zel::Ref<fakes::FakeAllocator> other = fakes::MakeFake<fakes::FakeAllocator>(world);
  zel::Ref<fakes::FakeTracer> tracer = fakes::MakeFake<fakes::FakeTracer>(world);
  zel::IAllocator* const service;
  zel::string text, brief, foreign;
  zel::wstring wide;
  zel::vector_t<zel::string> texts;
  zel::vector_t<int> numbers;
  Message source, target;
  zel::string streamText;
  zel::Ref<zel::IIO> stream, copyStream;
  const zel::SystemException exception{{"a/source/path", 7}, zel::eNotFound, zel::wstring(longWide)};
};

enum class Allocates { always, fromHeapAlone, never };

// `run` gives the code of the operation; std::bad_alloc counts as 0x80000041. `changes`: a failure may leave
// a part of the work done, as told.
struct Operation {
  const char* name;
  std::function<ResultCode(Subjects&)> run;
  Allocates allocates = Allocates::always;
  bool changes = false;
};

ResultCode Write(zel::IIO& stream, std::int64_t gap) {
  std::uint64_t size = 0, position = 0;
  std::uint32_t written = 77;
  stream.GetSize(&size);
  stream.GetPosition(&position);
  stream.Seek(2, gap, nullptr);
  const ResultCode code = stream.Write(longText.data(), longText.size(), &written);
  EXPECT_EQ(written, zel::Failed(code) ? 0u : longText.size());
  if (zel::Failed(code)) stream.Seek(0, static_cast<std::int64_t>(position), nullptr);
  return code;
}

template <class Source>
ResultCode MakeStream(Source&& source) {
  zel::Ref<zel::IIO> made;
  return zel::memory_io::CreateIOFromBuffer(source, made.Out());
}

zel::SerObjDescriptorHelper& Helper() { return *zel::StaticDescriptor<Message>::pointer->helper; }
zel::SerVectorHelper& VectorHelper() {
  return *zel::StaticDescriptor<Message>::pointer->fields[1].vectorHelper;
}

template <class Put>
ResultCode Line(Subjects& s, Put&& put) {
  zel::TraceLine(s.tracer.Get(), zel::normalLevel, put);
  return s.tracer->OpenBuffers() == 0 ? zel::sOk : zel::eUnexpected;
}

// clang-format off
const Operation operations[] = {
    {"string: append", [](Subjects& s) { s.text.append(longText); return zel::sOk; }},
    {"string: append, wide", [](Subjects& s) { s.wide.append(longWide); return zel::sOk; }},
    {"string: append itself", [](Subjects& s) { s.text.append(s.text.data, s.text.size); return zel::sOk; }},
    {"string: insert", [](Subjects& s) { s.text.insert(longText.data(), longText.size()); return zel::sOk; }},
    {"string: insert itself", [](Subjects& s) { s.text.insert(s.text.data + 1, 40); return zel::sOk; }},
    {"string: reserve_extra", [](Subjects& s) { s.brief.reserve_extra(500); return zel::sOk; }},
    {"string: resize_extra_at", [](Subjects& s) { s.text.resize_extra_at(0, 500); return zel::sOk; }},
    {"string: assign", [](Subjects& s) { s.brief.assign(longText.data(), longText.size()); return zel::sOk; }},
    {"string: construct", [](Subjects& s) { zel::string made(longText, s.service); return zel::sOk; }},
    {"string: construct with room",
     [](Subjects& s) { zel::string made(zel::types::WithCapacity{90}, s.service); return zel::sOk; }},
    {"string: copy", [](Subjects& s) { zel::string made(s.text); return zel::sOk; }},
    {"string: assign a copy, one allocator", [](Subjects& s) { s.brief = s.text; return zel::sOk; }},
    {"string: assign a copy to another allocator's", [](Subjects& s) { s.foreign = s.text; return zel::sOk; }},
    {"string: prepend", [](Subjects& s) { zel::types::Prepend("in front of ", zel::string(s.text)); return zel::sOk; }},
    {"string: move and swap",
     [](Subjects& s) {
       zel::string moved(std::move(s.text));
       moved.swap(s.brief);
       s.foreign = std::move(moved);
       return zel::sOk;
     }, Allocates::never},
    {"WideToUtf8", [](Subjects& s) { return zel::WideToUtf8(longWide, &s.brief); }},
    {"WideToNarrow", [](Subjects& s) { return zel::WideToNarrow(longWide, &s.brief); }},
    {"NarrowToWide", [](Subjects& s) { zel::NarrowToWide(s.text); return zel::sOk; }, Allocates::fromHeapAlone},
    {"NarrowToWide, text", [](Subjects&) { zel::NarrowToWide(longText.data()); return zel::sOk; }, Allocates::fromHeapAlone},
    {"HexText",
     [](Subjects& s) { zel::HexText(reinterpret_cast<const std::uint8_t*>(s.text.data), 16); return zel::sOk; },
     Allocates::fromHeapAlone},
    {"AppendFill", [](Subjects& s) { zel::AppendFill(&s.wide, 300, '.'); return zel::sOk; }},
    {"AppendAligned", [](Subjects& s) { zel::AppendAligned(&s.wide, {.width = 200}, longWide, longWide); return zel::sOk; },
     Allocates::always, true},
    {"AppendNarrowAligned", [](Subjects& s) { zel::AppendNarrowAligned(&s.wide, {.width = 200}, longText.data()); return zel::sOk; },
     Allocates::always, true},
    {"AppendNumber", [](Subjects& s) { zel::AppendNumber(&s.wide, {.width = 200}, 77); return zel::sOk; },
     Allocates::always, true},
    {"vector: push_back", [](Subjects& s) { s.texts.push_back(s.text); return zel::sOk; }},
    {"vector: push_back of an element of its own", [](Subjects& s) { s.texts.push_back(s.texts[0]); return zel::sOk; }},
    {"vector: push_back, moved", [](Subjects& s) { s.texts.push_back(zel::string("x")); return zel::sOk; }},
    {"vector: append", [](Subjects& s) { s.texts.append(3); return zel::sOk; }},
    {"vector: copy", [](Subjects& s) { zel::vector_t<zel::string> made(s.texts); return zel::sOk; }},
    {"vector: assign a copy", [](Subjects& s) { s.texts = zel::vector_t<zel::string>(s.texts); return zel::sOk; }},
    {"vector: assign numbers", [](Subjects& s) { const int many[9] = {}; s.numbers.assign(many, 9); return zel::sOk; }},
    {"vector: move, swap, truncate",
     [](Subjects& s) {
       zel::vector_t<zel::string> moved(std::move(s.texts));
       moved.Truncate(1);
       moved.swap(s.texts);
       return zel::sOk;
     }, Allocates::never},
    {"stream: make over a string", [](Subjects& s) { return MakeStream(&s.text); }, Allocates::fromHeapAlone},
    {"stream: make with a copy", [](Subjects& s) { return MakeStream(std::as_const(s.text)); }},
    {"stream: write", [](Subjects& s) { return Write(*s.stream, 0); }},
    {"stream: write behind a gap", [](Subjects& s) { return Write(*s.stream, 500); }},
    {"stream: write, own copy", [](Subjects& s) { return Write(*s.copyStream, 500); }},
    {"stream: set size", [](Subjects& s) { return s.stream->SetSize(500); }},
    {"stream: set size, own copy", [](Subjects& s) { return s.copyStream->SetSize(500); }},
    {"stream: read, seek, shrink, overwrite",
     [](Subjects& s) {
       char buffer[20];
       std::uint32_t count = 0;
       s.stream->Read(buffer, sizeof buffer, &count);
       s.stream->SetSize(9);
       s.stream->Seek(0, 0, nullptr);
       return s.stream->Write("overwrite", 9, &count);
     }, Allocates::never},
    {"descriptor: CreateAt",
     [](Subjects& s) {
       alignas(Message) unsigned char place[sizeof(Message)];
       Helper().CreateAt(place, &s.source);
       Helper().DestroyAt(place);
       return zel::sOk;
     }},
    {"descriptor: CreateNew",
     [](Subjects& s) {
       void* made = Helper().CreateNew(&s.source, s.allocator.Get());
       if (!made) return zel::eOutOfMemory;
       Helper().DestroyAt(made);
       s.allocator->Free(made);
       return zel::sOk;
     }},
    {"descriptor: Assign", [](Subjects& s) { Helper().Assign(&s.source, &s.target); return zel::sOk; },
     Allocates::always, true},
    {"descriptor: Resize", [](Subjects& s) { return VectorHelper().Resize(&s.source.signatures, 9); }},
    {"descriptor: Resize to less", [](Subjects& s) { return VectorHelper().Resize(&s.source.signatures, 0); },
     Allocates::never},
    {"Base64Encode",
     [](Subjects& s) {
       orvel::veld_report::Base64Encode(reinterpret_cast<const std::uint8_t*>(s.text.data), s.text.size, &s.brief);
       return zel::sOk;
     }, Allocates::always, true},
    {"BuildPayloadText", [](Subjects& s) { orvel::veld_report::BuildPayloadText(s.texts); return zel::sOk; },
     Allocates::fromHeapAlone},
    {"exception: copy", [](Subjects& s) { const zel::SystemException made(s.exception); return zel::sOk; },
     Allocates::fromHeapAlone},
    {"exception: Clone", [](Subjects& s) { delete s.exception.Clone(); return zel::sOk; }, Allocates::fromHeapAlone},
    {"exception: ThrowSystemException",
     [](Subjects&) -> ResultCode {
       try {
         zel::ThrowSystemException("p", 1, zel::eNotFound, longWide.data());
       } catch (const zel::SystemException&) {
         return zel::sOk;
       }
     }, Allocates::fromHeapAlone},
    {"exception: GetDescription", [](Subjects& s) { s.exception.GetDescription(); return zel::sOk; },
     Allocates::fromHeapAlone},
    {"exception: GetDisplayText",
     [](Subjects& s) {
       // Empty without memory, and otherwise whole.
       const zel::wstring text = s.exception.GetDisplayText();
       EXPECT_TRUE(text.empty() || text.View().ends_with(u"). At a/source/path(7) "));
       return text.empty() ? zel::eOutOfMemory : zel::sOk;
     }, Allocates::fromHeapAlone},
    {"trace: PutException",
     [](Subjects& s) {
       // The line goes on without the text.
       Line(s, [&](zel::TraceStream& line) { zel::PutException(line.PutText("["), s.exception).PutText("]"); });
       const std::string line = s.tracer->TakeLines().at(0);
       EXPECT_TRUE(line.starts_with("700 veld_rep\t[") && line.ends_with("]")) << line;
       return line.find("SystemException - ") == std::string::npos ? zel::eOutOfMemory : zel::sOk;
     }, Allocates::fromHeapAlone},
};
// clang-format on

class SupportAllocation : public testing::TestWithParam<OutOfMemoryMode> {};

TEST_P(SupportAllocation, FailsWithItsCodeAndChangesNothing) {
  const OutOfMemoryMode mode = GetParam();
  if (mode.ofHeap && !ModuleHeap::Available()) GTEST_SKIP() << "the sanitizer has a heap of its own";
  static const char here = 0;
  int sum = 0;
  for (const Operation& operation : operations) {
    SCOPED_TRACE(operation.name);
    const int failed = SweepAllocations(mode, &here, [&](FailingAllocation& failing) {
      Subjects subjects(mode.ofHeap);
      const std::string before = subjects.Image();
      const std::uint64_t blocks = subjects.allocator->LiveBlocks();
      ResultCode code = zel::eUnexpected;
      failing.Start(*subjects.allocator);
      try {
        code = operation.run(subjects);
      } catch (const std::bad_alloc&) {
        code = zel::eOutOfMemory;
      }
      const bool hasFailed = failing.Stop(*subjects.allocator);
      EXPECT_EQ(code, hasFailed ? zel::eOutOfMemory : zel::sOk);
      if (hasFailed && !operation.changes) {
        EXPECT_EQ(subjects.Image(), before);
        EXPECT_EQ(subjects.allocator->LiveBlocks(), blocks);
      }
      return hasFailed;
    });
    const bool allocates = operation.allocates == Allocates::always ||
                           (mode.ofHeap && operation.allocates == Allocates::fromHeapAlone);
    EXPECT_EQ(failed > 0, allocates);
    sum += failed;
  }
  std::cout << std::size(operations) << " operations, " << sum << " allocations failed" << std::endl;
  RecordProperty("allocations_failed", sum);
}

INSTANTIATE_TEST_SUITE_P(, SupportAllocation, testing::ValuesIn(outOfMemoryModes),
                         [](const auto& mode) { return mode.param.name; });

}  // namespace
}  // namespace veld_report::tests
