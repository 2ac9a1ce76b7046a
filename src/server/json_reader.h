// Takes a JSON text apart into the exact text of its parts, with every byte checked against RFC 8259.
//
// It differs from a JSON library in what it hands out, text instead of values: what arrives here is stored
// and passed on as it stands, so a number of any length and an escape of any form is right as long as the
// grammar allows it. (A library's parser refuses numbers beyond 64 bits, and a lazy one leaves what isn't
// asked for unchecked.) Not for reading values.
//
// All functions: a text is one JSON value with blanks around it at most; views point into the text that was
// given; they throw JsonError, and std::bad_alloc. Threads: any.
#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::server {

// A text that isn't what it should be. what() is the end of a sentence that names the text: "isn't valid JSON
// at byte 7: ...", bytes counted from 0.
class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct JsonMember {
  std::string key;         // unescaped where that gives valid text, else as it stands
  std::string_view value;  // the exact text, without blanks around it
};

// The most objects and arrays within one another that the server takes in a payload.
inline constexpr std::size_t maxJsonDepth = 1000;

// The most members of an object that is read by them: more than any object of the format has, and few enough
// that a text can't make a list of them that is many times its size.
inline constexpr std::size_t maxJsonMembers = 16;

// The members of an object in their order; a key that stands twice comes twice.
std::vector<JsonMember> ReadJsonObject(std::string_view text, std::size_t maxDepth = maxJsonDepth);
// Hands out the elements of an array one by one, each the exact text without blanks around it. What is wrong
// behind an element shows after it was handed out.
void ReadJsonArray(std::string_view text, const std::function<void(std::string_view)>& onElement,
                   std::size_t maxDepth = maxJsonDepth);
// The unescaped text of a string. Half of a surrogate pair on its own stands for no text and is refused.
std::string ReadJsonString(std::string_view text);

}  // namespace veld_report::server
