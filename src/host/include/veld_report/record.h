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
// A field may be
// - a bool, a number of any width except long double, or a std::chrono duration, which is sent as its count;
//   put the unit into the name
// - an enumeration, which is sent under its name if it has a VELD_ENUM, otherwise as its number
// - text: std::string, std::string_view and zel::string in UTF-8, std::u16string and zel::wstring in UTF-16
// - a std::chrono::sys_time in ns, µs, ms, s or days, which is sent as text (RFC 3339, UTC)
// - Json, or a record
// - a std::variant of records, which is sent as an object with one member, named as the record's struct
// - a std::optional, std::vector, std::array or zel::vector_t of these and of each other, or a map with keys
//   of text, such as std::map<std::string, int>. An empty optional is left out, and null in a vector, a map
//   or another optional.
// Anything else is a compile error with a sentence. Not for classes with private members or virtual
// functions; for those, and for fields that are only known at run time, use RecordBuilder (record_builder.h).
#pragma once

#include <array>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
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

// An enumeration that has a VELD_ENUM.
template <class T>
concept NamedEnum = std::is_enum_v<T> && requires(const T* value) {
  VeldEnumNames(value);
};

template <NamedEnum T>
inline constexpr auto enumNames = VeldEnumNames(static_cast<const T*>(nullptr));

// A map with keys of text. Known by its members, so that nobody has to include <map> for this header.
template <class T>
concept TextMap = requires(T& map, const typename T::key_type& key) {
  { map.at(key) } -> std::same_as<typename T::mapped_type&>;
  { map.begin()->second } -> std::same_as<typename T::mapped_type&>;
  map.size();
}
&&std::convertible_to<const typename T::key_type&, std::string_view> &&
    !std::is_pointer_v<typename T::key_type>;

template <class T>
inline constexpr bool isCharacter =
    std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
    std::same_as<T, char16_t> || std::same_as<T, char32_t>;

template <class T>
inline constexpr bool isDuration = false;
template <class Rep, class Period>
inline constexpr bool isDuration<std::chrono::duration<Rep, Period>> = true;

// 0 for what isn't a sys_time of 8 bytes in one of these units.
template <class T>
inline constexpr std::uint32_t timeKind = 0;
template <std::signed_integral Rep, class Period>
requires(sizeof(Rep) == 8) inline constexpr std::uint32_t
    timeKind<std::chrono::time_point<std::chrono::system_clock, std::chrono::duration<Rep, Period>>> =
        std::same_as<Period, std::nano>                   ? kinds::timeNanoseconds
        : std::same_as<Period, std::micro>                ? kinds::timeMicroseconds
        : std::same_as<Period, std::milli>                ? kinds::timeMilliseconds
        : std::same_as<Period, std::ratio<1>>             ? kinds::timeSeconds
        : std::same_as<Period, std::chrono::days::period> ? kinds::timeDays
                                                          : 0;

// The kind of a plain value; 0 for any other type.
template <class T>
consteval std::uint32_t PlainKind() {
  if constexpr (NamedEnum<T>) {  // NOLINT(bugprone-branch-clone): the last branch gives 0 too
    return 0;
  } else if constexpr (std::is_enum_v<T>) {
    return PlainKind<std::underlying_type_t<T>>();
  } else if constexpr (isDuration<T>) {
    return PlainKind<typename T::rep>();
  } else if constexpr (timeKind<T> != 0) {
    return timeKind<T>;
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

// The alternatives of a variant, known by its members. `known` is false for any other type, and if one of
// them isn't a record.
template <class T>
struct Alternatives {
  static constexpr bool known = false;
};

// What a field holds: its element, and its container.
template <class T>
struct Shape {
  using Element = T;
  static constexpr std::uint32_t flags = 0;
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
template <class T, std::size_t count>
struct Shape<std::array<T, count>> {
  using Element = T;
  static constexpr std::uint32_t flags = kinds::vectorFlag;
  template <class Source>
  using Helper = VectorHelper<std::array<T, count>, Source>;
};
template <class T>
struct Shape<std::optional<T>> {
  using Element = T;
  static constexpr std::uint32_t flags = kinds::optionalFlag;
  template <class Source>
  using Helper = OptionalHelper<T, Source>;
};
template <TextMap T>
struct Shape<T> {
  using Element = typename T::mapped_type;
  static constexpr std::uint32_t flags = kinds::mapFlag;
  template <class Source>
  using Helper = MapHelper<T, Source>;
};

template <class T>
consteval bool IsField() {
  if constexpr (PlainKind<T>() != 0 || DescribedRecord<T> || NamedEnum<T> || Alternatives<T>::known) {
    return true;
  } else if constexpr (Shape<T>::flags != 0) {
    return IsField<typename Shape<T>::Element>();
  } else {
    return false;
  }
}

template <class T>
struct DescriptorSource;

template <class T>
consteval std::uint32_t SerIdOf() {
  if constexpr (DescribedRecord<T>) {
    return VeldRecordSerId(static_cast<const T*>(nullptr));
  } else {
    return 0;
  }
}

// Describes a field of a type for which IsField is true.
template <class Field>
consteval zel::SerFieldDescriptor DescribeField(const char* name, std::size_t offset) {
  using FieldShape = Shape<Field>;
  using Element = typename FieldShape::Element;
  zel::SerFieldDescriptor row;
  row.name = name;
  row.flags = FieldShape::flags;
  row.offset = static_cast<std::uint32_t>(offset);
  row.size = sizeof(Field);
  if constexpr (NamedEnum<Field>) {
    row.typeId = kinds::stringView;
    row.flags = kinds::optionalFlag;
    row.vectorHelper = &fieldHelper<EnumHelper<Field, enumNames<Field>>>;
  } else if constexpr (PlainKind<Element>() != 0) {
    row.typeId = PlainKind<Element>();
    if constexpr (FieldShape::flags != 0) {
      row.vectorHelper = &fieldHelper<typename FieldShape::template Helper<NoDescriptor>>;
    }
  } else {
    row.typeId = SerIdOf<Element>();
    row.flags |= kinds::recordFlag;
    if constexpr (FieldShape::flags != 0) {
      row.vectorHelper = &fieldHelper<typename FieldShape::template Helper<DescriptorSource<Element>>>;
    } else {
      row.vectorHelper = &fieldHelper<NestedHelper<Field, DescriptorSource<Field>>>;
    }
  }
  return row;
}

// `member` is there for the compiler's message, which names it.
template <class Field, auto member>
consteval zel::SerFieldDescriptor DescribeMember(const char* name, std::size_t offset) {
  static_assert(IsField<Field>(),
                "this member can't go into a record: its type, or the type of its elements, is neither a "
                "kind that record.h names nor a struct with a VELD_RECORD above this one");
  if constexpr (IsField<Field>()) return DescribeField<Field>(name, offset);
  return {};
}

consteval zel::SerFieldDescriptor EndOfTable() {
  zel::SerFieldDescriptor row;
  row.flags = zel::SerFieldDescriptor::endOfTable;
  return row;
}

// A row for each alternative, as an optional under the name of its struct; they all begin where the variant
// does.
template <class V, class... T>
struct AlternativesOf {
  static constexpr bool known = (DescribedRecord<T> && ...);

  template <std::size_t... index>
  static consteval auto Rows(std::index_sequence<index...>) {
    return std::array{
        zel::SerFieldDescriptor{
            .typeId = SerIdOf<T>(),
            .name = VeldRecordName(static_cast<const T*>(nullptr)),
            .flags = kinds::optionalFlag | kinds::recordFlag,
            .size = sizeof(V),
            .vectorHelper = &fieldHelper<AlternativeHelper<V, index, T, DescriptorSource<T>>>}...,
        EndOfTable()};
  }
  static consteval auto Rows() { return Rows(std::index_sequence_for<T...>()); }
};
template <template <class...> class V, class... T>
requires requires(const V<T...>& variant) {
  variant.valueless_by_exception();
  variant.index();
}
struct Alternatives<V<T...>> : AlternativesOf<V<T...>, T...> {};

// Supplies the descriptor of an element. Whatever is neither a plain value nor a record gets one here: a
// variant one with its alternatives, anything else one with a single field without a name.
template <class T>
struct DescriptorSource {
  static const zel::SerObjDescriptor* Get() {
    if constexpr (DescribedRecord<T>) {
      return VeldRecordDescriptor(static_cast<const T*>(nullptr));
    } else if constexpr (Alternatives<T>::known) {
      static constexpr auto rows = Alternatives<T>::Rows();
      static constexpr zel::SerObjDescriptor descriptor = {0, "", sizeof(T), rows.data()};
      return &descriptor;
    } else {
      static constexpr zel::SerFieldDescriptor rows[] = {DescribeField<T>("", 0), EndOfTable()};
      static constexpr zel::SerObjDescriptor descriptor = {0, "", sizeof(T), rows};
      return &descriptor;
    }
  }
};

// Without virtual functions and private members. Maps aren't of standard layout, and in libstdc++'s debug
// mode vectors aren't either, nor are structs with one, but the offset of a member is constant in them too.
template <class T>
inline constexpr bool isPlain = std::is_standard_layout_v<T> ||
                                (std::is_aggregate_v<T> && !std::is_polymorphic_v<T>);
#define VELD_RECORD_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")
#define VELD_RECORD_END _Pragma("GCC diagnostic pop")

}  // namespace record_detail
}  // namespace veld_report

// `Type`: the struct's name. `serId`: a number that the application chooses, different for each of its
// structs. Then up to 256 fields, each as NAME or as (NAME, "member name").
#define VELD_RECORD(Type, serId, ...)                                                                      \
  VELD_RECORD_BEGIN                                                                                        \
  [[maybe_unused]] inline consteval std::uint32_t VeldRecordSerId(const Type*) { return (serId); }         \
  [[maybe_unused]] inline consteval const char* VeldRecordName(const Type*) { return #Type; }              \
  [[maybe_unused]] inline const ::zel::SerObjDescriptor* VeldRecordDescriptor(const Type*) {               \
    static_assert(::veld_report::record_detail::isPlain<Type>,                                             \
                  "VELD_RECORD is for plain structs: " #Type " isn't one");                                \
    static constexpr ::zel::SerFieldDescriptor fields[] = {__VA_OPT__(VELD_RECORD_EXPAND(                  \
        VELD_RECORD_EACH(VELD_RECORD_ROW, Type, __VA_ARGS__)))::veld_report::record_detail::EndOfTable()}; \
    static constexpr ::zel::SerObjDescriptor descriptor = {                                                \
        (serId), #Type, sizeof(Type), fields,                                                              \
        &::veld_report::fieldHelper<::veld_report::RecordHelper<Type>>};                                   \
    return &descriptor;                                                                                    \
  }                                                                                                        \
  VELD_RECORD_END

// Has an enumeration sent by name. Put it at namespace scope, after the enumeration and before the records
// with it. Then up to 256 values, each as NAME or as (NAME, "text"). A value that isn't listed is left out of
// a record, like an empty optional.
#define VELD_ENUM(Type, ...)                                                           \
  [[maybe_unused]] inline constexpr auto VeldEnumNames(const Type*) {                  \
    return ::std::to_array<::std::pair<Type, ::std::string_view>>(                     \
        {VELD_RECORD_EXPAND(VELD_RECORD_EACH(VELD_RECORD_VALUE, Type, __VA_ARGS__))}); \
  }
#define VELD_RECORD_VALUE(Type, value, name) {Type::value, name},

// One row of the table.
#define VELD_RECORD_ROW(Type, field, name)                                                \
  ::veld_report::record_detail::DescribeMember<decltype(Type::field), &Type::field>(name, \
                                                                                    offsetof(Type, field)),
#define VELD_RECORD_NAMED(Row, Type, field) Row(Type, field, #field)
#define VELD_RECORD_RENAMED(Row, Type, pair) VELD_RECORD_RENAMED_PAIR(Row, Type, VELD_RECORD_UNWRAP pair)
#define VELD_RECORD_RENAMED_PAIR(Row, Type, ...) Row(Type, __VA_ARGS__)
#define VELD_RECORD_UNWRAP(...) __VA_ARGS__

// Tests whether an argument starts with a parenthesis: the probe then becomes two arguments, the second of
// them 1.
#define VELD_RECORD_PROBE(...) ~, VELD_RECORD_RENAMED,
#define VELD_RECORD_SECOND(first, second, ...) second
#define VELD_RECORD_CHOOSE(...) VELD_RECORD_SECOND(__VA_ARGS__)
#define VELD_RECORD_FIELD(Row, Type, item) \
  VELD_RECORD_CHOOSE(VELD_RECORD_PROBE item, VELD_RECORD_NAMED, ~)(Row, Type, item)

// A macro can't call itself, but its result can be rescanned: 256 times here.
#define VELD_RECORD_EACH(Row, Type, item, ...) \
  VELD_RECORD_FIELD(Row, Type, item)           \
  __VA_OPT__(VELD_RECORD_AGAIN VELD_RECORD_PARENTHESES(Row, Type, __VA_ARGS__))
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
