// Strings, narrow and wide, and vectors, compared with the standard containers under the same operations. The
// first byte of an input chooses the type. Sometimes the allocator fails; then nothing may have changed.
#include <array>
#include <new>
#include <vector>

#include "fuzz/failing_allocator.h"
#include "types/basic_string.h"
#include "types/vector.h"

namespace {

using veld_report::fuzz::FailingAllocator;
using veld_report::fuzz::Input;
using veld_report::fuzz::Require;

struct Allocators {
  std::array<zel::Ref<FailingAllocator>, 2> both{veld_report::host::MakeObject<FailingAllocator>(),
                                                 veld_report::host::MakeObject<FailingAllocator>()};

  // Null for the process heap.
  zel::IAllocator* Choose(Input& in) {
    const std::size_t choice = in.Below(3);
    return choice == 2 ? nullptr : both[choice].Get();
  }
  // Runs `body`, with the allocators failing or not. False if that made it fail.
  template <class Body>
  bool Try(Input& in, Body&& body) {
    // A vector may have memory where its elements have none, and fail half-way.
    for (const auto& one : both) one->fail = in.OneIn(8);
    bool done = true;
    try {
      body();
    } catch (const std::bad_alloc&) {
      Require(both[0]->fail || both[1]->fail, "out of memory without a reason");
      done = false;
    }
    for (const auto& one : both) one->fail = false;
    return done;
  }
};

template <class C>
class StringRun {
 public:
  using String = zel::basic_string_t<C>;
  using Model = std::basic_string<C>;

  explicit StringRun(Input& in) : in_(in) {}

  void Step() {
    const std::size_t which = in_.Below(slots), from = in_.Below(slots);
    String& text = strings_[which];
    Model& model = models_[which];
    const std::uint64_t before = text.capacity;
    Model wanted = model;
    const std::size_t operation = in_.Below(8);
    const std::size_t at = model.empty() ? 0 : in_.Below(model.size());
    const bool own = in_.OneIn(3);  // a piece of the text itself
    const Model piece = own ? model.substr(at, in_.Below(40)) : in_.template Characters<C>(in_.Below(50));
    const C* const source = own ? text.data + at : piece.data();
    const bool done = allocators_.Try(in_, [&] {
      if (operation == 0) {
        wanted += piece;
        text.append(source, piece.size());
        Require(text.capacity == Grown(before, wanted.size()), "append grows to another capacity");
      } else if (operation == 1) {
        wanted.insert(0, piece);
        text.insert(source, piece.size());
      } else if (operation == 2) {
        wanted = piece;
        text.assign(source, piece.size());
      } else if (operation == 3) {
        wanted.insert(at, piece);
        text.resize_extra_at(at, piece.size());
        std::copy(piece.begin(), piece.end(), text.data + at);
      } else if (operation == 4) {
        text.reserve_extra(piece.size());
        text.data[text.size] = C();  // as the caller must
      } else if (operation == 5) {
        wanted = models_[from];
        text = strings_[from];
        Require(text.allocator == strings_[from].allocator, "a copy keeps its allocator");
      } else if (operation == 6) {
        String made(std::basic_string_view<C>(piece), allocators_.Choose(in_));
        wanted = piece;
        text = std::move(made);
        Require(made.empty() && made.IsInline(), "what was moved away isn't empty");
      } else {
        String copy(strings_[from]);
        copy.swap(text);
        wanted = models_[from];
        Require(copy.View() == model, "swap loses a text");
      }
    });
    if (done) model = wanted;
    Check();
  }

 private:
  static constexpr std::size_t slots = 3;

  static std::uint64_t Grown(std::uint64_t capacity, std::uint64_t needed) {
    return needed <= capacity ? capacity : std::max(needed, 2 * capacity);
  }

  void Check() {
    for (std::size_t i = 0; i < slots; ++i) {
      const String& text = strings_[i];
      Require(text.View() == models_[i], "the text is another");
      Require(text.data[text.size] == C() && text.size <= text.capacity, "no room for the end");
      Require(text.IsInline() == (text.capacity == String::inlineCapacity), "inline with a block's capacity");
      if (models_[i].size() > 4000) strings_[i] = String(), models_[i].clear();
    }
    if constexpr (sizeof(C) == 1) {
      const auto below = [](char left, char right) {
        return static_cast<signed char>(left) < static_cast<signed char>(right);
      };
      Require(
          (strings_[0] < strings_[1]) == std::ranges::lexicographical_compare(models_[0], models_[1], below),
          "the order is another");
    }
    Require((strings_[0] == strings_[1]) == (models_[0] == models_[1]), "equality is another");
  }

  Input& in_;
  Allocators allocators_;
  std::array<String, slots> strings_;
  std::array<Model, slots> models_;
};

class VectorRun {
 public:
  explicit VectorRun(Input& in) : in_(in) {
    for (const auto& one : allocators_.both) {
      one->onFree = [this](const void* memory) {
        for (const Vector& vector : vectors_) Require(vector.first != memory, "a vector holds a freed block");
      };
    }
  }
  ~VectorRun() {
    for (const auto& one : allocators_.both) one->onFree = [](const void*) {};
  }

  void Step() {
    const std::size_t which = in_.Below(2);
    Vector& vector = vectors_[which];
    Model& model = models_[which];
    Model wanted = model;
    const std::size_t operation = in_.Below(7);
    const std::string text(in_.Bytes(in_.Below(40)));
    zel::string element(std::string_view(text), allocators_.Choose(in_));
    const std::size_t at = model.empty() ? 0 : in_.Below(model.size());
    const std::uint64_t oldSize = vector.size(), oldCapacity = vector.capacity();
    const auto grown = [&](std::uint64_t count) {
      const std::uint64_t needed = oldSize + count;
      Require(vector.capacity() == (needed <= oldCapacity ? oldCapacity : std::max(2 * oldSize, needed)),
              "growth has another capacity");
    };
    const bool done = allocators_.Try(in_, [&] {
      if (operation == 0) {
        wanted.push_back(text);
        in_.OneIn(2) ? vector.push_back(element) : vector.push_back(std::move(element));
        grown(1);
      } else if (operation == 1) {
        if (model.empty()) return;
        wanted.push_back(model[at]);
        vector.push_back(vector[at]);
        grown(1);
      } else if (operation == 2) {
        wanted.resize(model.size() + text.size());
        vector.append(text.size());
        grown(text.size());
      } else if (operation == 3) {
        wanted.resize(at);
        vector.Truncate(at);
      } else if (operation == 4) {
        wanted = models_[1 - which];
        vector = vectors_[1 - which];
        Require(vector.capacity() == vector.size(), "a copy has room to spare");
      } else if (operation == 5) {
        vector = Vector(allocators_.Choose(in_));
        wanted.clear();
      } else {
        Vector moved(std::move(vector));
        Require(vector.empty() && !vector.first, "what was moved away isn't empty");
        vector.swap(moved);
      }
    });
    if (done) model = wanted;
    Check();
  }

 private:
  using Vector = zel::vector_t<zel::string>;
  using Model = std::vector<std::string>;

  void Check() {
    for (std::size_t i = 0; i < 2; ++i) {
      Require(vectors_[i].size() == models_[i].size(), "the count is another");
      for (std::size_t k = 0; k < models_[i].size(); ++k)
        Require(vectors_[i][k].View() == models_[i][k], "an element is another");
      if (models_[i].size() > 300) vectors_[i].clear(), models_[i].clear();
    }
  }

  Input& in_;
  Allocators allocators_;
  std::array<Vector, 2> vectors_;
  std::array<Model, 2> models_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  const auto all = [&](auto&& run) {
    while (!in.Empty()) run.Step();
  };
  const std::size_t type = in.Below(3);
  if (type == 0) all(StringRun<char>(in));
  if (type == 1) all(StringRun<char16_t>(in));
  if (type == 2) all(VectorRun(in));
  return 0;
}
