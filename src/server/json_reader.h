// Splits a JSON text into the exact text of its parts, and checks every byte against RFC 8259.
//
// It differs from a JSON library in that it returns text, not values. What arrives here is stored and passed
// on unchanged, so numbers of any length and escapes of any form are fine as long as the grammar allows them.
// (An ordinary parser rejects numbers beyond 64 bits; a lazy one leaves unchecked what isn't asked for.) It
// isn't for reading values.
//
// All functions: a text is one JSON value, with whitespace around it at most. Views point into the given
// text. They throw JsonError and std::bad_alloc. Threads: any.
#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::server {

// The text isn't what was expected. what() is the end of a sentence that names the text: "isn't valid JSON at
// byte 7: ...", bytes counted from 0.
class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct JsonMember {
  std::string key;         // unescaped if that gives valid text, otherwise unchanged
  std::string_view value;  // the exact text, without whitespace around it
};

// The maximum nesting depth of a payload.
inline constexpr std::size_t maxJsonDepth = 1000;

// The maximum number of members that an object may have here. More than any object of the format has, and few
// enough that the list stays small compared with the text.
inline constexpr std::size_t maxJsonMembers = 16;

// The members of an object in order. Duplicate keys are kept.
std::vector<JsonMember> ReadJsonObject(std::string_view text, std::size_t maxDepth = maxJsonDepth);
// Checks that the text is an object, with any number of members.
void CheckJsonObject(std::string_view text, std::size_t maxDepth = maxJsonDepth);
// The same in one go with the elements of a member: if `list` is an array, `onElement` gets the exact text of
// each of its elements. An error behind an element is thrown once that element has been handed out.
std::vector<JsonMember> ReadJsonObject(std::string_view text, std::string_view list,
                                       const std::function<void(std::string_view)>& onElement);
// Calls `onElement` for each element of an array with its exact text, without the whitespace around it. An
// error after an element is thrown once that element has been handed out.
void ReadJsonArray(std::string_view text, const std::function<void(std::string_view)>& onElement,
                   std::size_t maxDepth = maxJsonDepth);
// The unescaped text of a string. A lone surrogate is an error.
std::string ReadJsonString(std::string_view text);

}  // namespace veld_report::server
