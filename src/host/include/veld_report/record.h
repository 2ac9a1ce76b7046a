// VELD_RECORD turns a plain struct into a record that a reporter can send.
//
//   struct AppStarted {
//     std::string version;
//     std::int64_t startupMs;
//     std::optional<bool> firstRun;
//   };
//   VELD_RECORD(AppStarted, 0x5a17c0de, version, (startupMs, "startup_ms"), firstRun)
//
// Put the macro at namespace scope, in the struct's own namespace, after the struct and after the macros of
// the structs that are its members. It builds the constant table of veld_report/field_kinds.h at compile
// time: nothing is registered, allocated or looked up at run time. The JSON object has a member for each
// field that is named, in that order, under the field's name or the name given with it.
//
// A field may be a bool; a number of any width except long double, or an enumeration, which is sent as its
// number; text (std::string, std::string_view and zel::string in UTF-8, std::u16string and zel::wstring in
// UTF-16); Json; a record; a std::vector or zel::vector_t of these; or a std::optional of these, which is
// left out if it is empty. Anything else is a compile error with a sentence. Not for classes with private
// members, bases or virtual functions; for those, and for fields that are only known at run time, use
// RecordBuilder (record_builder.h).
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "contract/descriptor.h"
#include "types/basic_string.h"
#include "types/vector.h"
#include "veld_report/field_helpers.h"
#include "veld_report/field_kinds.h"

namespace veld_report {

// Text that already is JSON, exactly one value. It is checked when the record is sent.
struct Json {
  std::string text{};
};

// A struct that has a VELD_RECORD.
template <class T>
concept DescribedRecord = requires(const T* record) {
  { VeldRecordDescriptor(record) } -> std::same_as<const zel::SerObjDescriptor*>;
};

namespace record_detail {

namespace kinds = field_kinds;

template <DescribedRecord T>
struct DescriptorSource {
  static const zel::SerObjDescriptor* Get() { return VeldRecordDescriptor(static_cast<const T*>(nullptr)); }
};

template <class T>
inline constexpr bool isCharacter =
    std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
    std::same_as<T, char16_t> || std::same_as<T, char32_t>;

// The kind of a plain value; 0 for any other type.
template <class T>
consteval std::uint32_t PlainKind() {
  if constexpr (std::is_enum_v<T>) {
    return PlainKind<std::underlying_type_t<T>>();
  } else if constexpr (std::same_as<T, bool>) {
    return kinds::boolean;
  } else if constexpr (std::integral<T> && !isCharacter<T>) {
    return std::is_signed_v<T> ? kinds::signedInteger : kinds::unsignedInteger;
  } else if constexpr (std::same_as<T, float> || std::same_as<T, double>) {
    return kinds::floatingPoint;
  } else if constexpr (std::same_as<T, zel::string>) {
    return kinds::narrowString;
  } else if constexpr (std::same_as<T, zel::wstring>) {
    return kinds::wideString;
  } else if constexpr (std::same_as<T, std::string>) {
    return kinds::standardString;
  } else if constexpr (std::same_as<T, std::u16string>) {
    return kinds::standardWideString;
  } else if constexpr (std::same_as<T, std::string_view>) {
    return kinds::stringView;
  } else if constexpr (std::same_as<T, Json>) {
    return kinds::standardJsonText;
  } else {
    return 0;
  }
}

template <class T>
inline constexpr bool isElement = PlainKind<T>() != 0 || DescribedRecord<T>;

// What a field holds: its element, and its container.
template <class T>
struct Shape {
  using Element = T;
  static constexpr std::uint32_t flags = 0;
  template <class Source>
  using Helper = NestedHelper<T, Source>;
};
template <class T, class A>
struct Shape<std::vector<T, A>> {
  using Element = T;
  static constexpr std::uint32_t flags = kinds::vectorFlag;
  template <class Source>
  using Helper = VectorHelper<std::vector<T, A>, Source>;
};
template <class T, class A>
struct Shape<zel::types::vector_t<T, A>> {
  using Element = T;
  static constexpr std::uint32_t flags = kinds::vectorFlag;
  template <class Source>
  using Helper = VectorHelper<zel::types::vector_t<T, A>, Source>;
};
template <class T>
struct Shape<std::optional<T>> {
  using Element = T;
  static constexpr std::uint32_t flags = kinds::optionalFlag;
  template <class Source>
  using Helper = OptionalHelper<T, Source>;
};

// `member` isn't used: it makes the compiler name the member in its error.
template <class Field, auto member>
consteval zel::SerFieldDescriptor DescribeField(const char* name, std::size_t offset) {
  using FieldShape = Shape<Field>;
  using Element = typename FieldShape::Element;
  static_assert(
      isElement<Element>,
      "this field can't go into a record: its type, or the type of its elements, is neither a kind that "
      "record.h names nor a struct with a VELD_RECORD above this one");
  zel::SerFieldDescriptor row;
  row.name = name;
  row.flags = FieldShape::flags;
  row.offset = static_cast<std::uint32_t>(offset);
  row.size = sizeof(Field);
  if constexpr (PlainKind<Element>() != 0) {
    row.typeId = PlainKind<Element>();
    if constexpr (FieldShape::flags != 0) {
      row.vectorHelper = &fieldHelper<typename FieldShape::template Helper<NoDescriptor>>;
    }
  } else if constexpr (DescribedRecord<Element>) {
    row.typeId = VeldRecordSerId(static_cast<const Element*>(nullptr));
    row.flags |= kinds::recordFlag;
    row.vectorHelper = &fieldHelper<typename FieldShape::template Helper<DescriptorSource<Element>>>;
  }
  return row;
}

// Without bases, virtual functions and private members.
#if defined(_GLIBCXX_DEBUG)
// Here a vector isn't of standard layout, nor is a struct with one, but its offset is as constant as ever.
template <class T>
inline constexpr bool isPlain = std::is_aggregate_v<T> && !std::is_polymorphic_v<T>;
#define VELD_RECORD_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")
#define VELD_RECORD_END _Pragma("GCC diagnostic pop")
#else
template <class T>
inline constexpr bool isPlain = std::is_standard_layout_v<T>;
#define VELD_RECORD_BEGIN
#define VELD_RECORD_END
#endif

consteval zel::SerFieldDescriptor EndOfTable() {
  zel::SerFieldDescriptor row;
  row.flags = zel::SerFieldDescriptor::endOfTable;
  return row;
}

}  // namespace record_detail
}  // namespace veld_report

// `Type`: the struct's name. `serId`: a number that the application chooses, different for each of its
// structs. Then up to 256 fields, each as NAME or as (NAME, "member name").
#define VELD_RECORD(Type, serId, ...)                                                                        \
  VELD_RECORD_BEGIN                                                                                          \
  [[maybe_unused]] inline consteval std::uint32_t VeldRecordSerId(const Type*) { return (serId); }           \
  [[maybe_unused]] inline const ::zel::SerObjDescriptor* VeldRecordDescriptor(const Type*) {                 \
    static_assert(::veld_report::record_detail::isPlain<Type>,                                               \
                  "VELD_RECORD is for plain structs: " #Type " isn't one");                                  \
    static constexpr ::zel::SerFieldDescriptor fields[] = {__VA_OPT__(                                       \
        VELD_RECORD_EXPAND(VELD_RECORD_EACH(Type, __VA_ARGS__)))::veld_report::record_detail::EndOfTable()}; \
    static constexpr ::zel::SerObjDescriptor descriptor = {                                                  \
        (serId), #Type, sizeof(Type), fields,                                                                \
        &::veld_report::fieldHelper<::veld_report::RecordHelper<Type>>};                                     \
    return &descriptor;                                                                                      \
  }                                                                                                          \
  VELD_RECORD_END

// One row of the table.
#define VELD_RECORD_ROW(Type, field, name)                                               \
  ::veld_report::record_detail::DescribeField<decltype(Type::field), &Type::field>(name, \
                                                                                   offsetof(Type, field)),
#define VELD_RECORD_NAMED(Type, field) VELD_RECORD_ROW(Type, field, #field)
#define VELD_RECORD_RENAMED(Type, pair) VELD_RECORD_RENAMED_PAIR(Type, VELD_RECORD_UNWRAP pair)
#define VELD_RECORD_RENAMED_PAIR(Type, ...) VELD_RECORD_ROW(Type, __VA_ARGS__)
#define VELD_RECORD_UNWRAP(...) __VA_ARGS__

// Tests whether an argument starts with a parenthesis: the probe then becomes two arguments, the second of
// them 1.
#define VELD_RECORD_PROBE(...) ~, VELD_RECORD_RENAMED,
#define VELD_RECORD_SECOND(first, second, ...) second
#define VELD_RECORD_CHOOSE(...) VELD_RECORD_SECOND(__VA_ARGS__)
#define VELD_RECORD_FIELD(Type, item) \
  VELD_RECORD_CHOOSE(VELD_RECORD_PROBE item, VELD_RECORD_NAMED, ~)(Type, item)

// A macro can't call itself, but its result can be rescanned: 256 times here.
#define VELD_RECORD_EACH(Type, item, ...) \
  VELD_RECORD_FIELD(Type, item) __VA_OPT__(VELD_RECORD_AGAIN VELD_RECORD_PARENTHESES(Type, __VA_ARGS__))
#define VELD_RECORD_AGAIN() VELD_RECORD_EACH
#define VELD_RECORD_PARENTHESES ()
#define VELD_RECORD_EXPAND(...) \
  VELD_RECORD_EXPAND4(VELD_RECORD_EXPAND4(VELD_RECORD_EXPAND4(VELD_RECORD_EXPAND4(__VA_ARGS__))))
#define VELD_RECORD_EXPAND4(...) \
  VELD_RECORD_EXPAND3(VELD_RECORD_EXPAND3(VELD_RECORD_EXPAND3(VELD_RECORD_EXPAND3(__VA_ARGS__))))
#define VELD_RECORD_EXPAND3(...) \
  VELD_RECORD_EXPAND2(VELD_RECORD_EXPAND2(VELD_RECORD_EXPAND2(VELD_RECORD_EXPAND2(__VA_ARGS__))))
#define VELD_RECORD_EXPAND2(...) \
  VELD_RECORD_EXPAND1(VELD_RECORD_EXPAND1(VELD_RECORD_EXPAND1(VELD_RECORD_EXPAND1(__VA_ARGS__))))
#define VELD_RECORD_EXPAND1(...) __VA_ARGS__
