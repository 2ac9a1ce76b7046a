#include "apps/veldrep/config_option.h"

#include <toml++/toml.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "apps/veldrep/command.h"
#include "apps/veldrep/suggestion.h"

namespace veld_report::app {
namespace {

constexpr std::size_t limitBytes = std::size_t{1} << 20;

using Mistake = std::invalid_argument;  // its sentence has no place in front

std::string Place(const std::string& path, toml::source_index line) {
  return path + " line " + std::to_string(line) + ": ";
}

toml::table Parse(const std::string& path, const std::string& text) {
  try {
    return toml::parse(std::string_view(text));
  } catch (const toml::parse_error& error) {
    throw WrongCommandLine(Place(path, error.source().begin.line) + std::string(error.description()) +
                           "; expected NAME = NUMBER, NAME = \"TEXT\" or NAME = [\"TEXT\", \"TEXT\"]");
  }
}

std::vector<std::string> ConfigurableNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_configurable())
      names.insert(names.end(), option->get_lnames().begin(), option->get_lnames().end());
  }
  return names;
}

std::string TextOf(const toml::node& value) {
  std::string text;
  if (const auto* const string = value.as_string()) {
    text = string->get();
  } else if (const auto* const number = value.as_integer()) {
    text = std::to_string(number->get());
  } else {
    throw Mistake("expected a text in quotes or a whole number");
  }
  if (text.empty()) throw Mistake("is empty; leave the line out instead");
  if (text.find('\0') != std::string::npos) throw Mistake("has a character U+0000");
  return text;
}

std::vector<std::string> TextsOf(const CLI::Option& option, const toml::node& value) {
  const toml::array* const list = value.as_array();
  if (!list) return {TextOf(value)};
  if (option.get_multi_option_policy() != CLI::MultiOptionPolicy::TakeAll)
    throw Mistake("takes one value and no list");
  if (list->empty()) throw Mistake("the list is empty; leave the line out instead");
  std::vector<std::string> texts;
  for (const toml::node& each : *list) texts.push_back(TextOf(each));
  return texts;
}

void Apply(CLI::App* command, const std::string& name, const toml::node& value) {
  if (value.is_table() || value.is_array_of_tables())
    throw Mistake("there are no sections; all options stand at the top of the file");
  CLI::Option* const option = command->get_option_no_throw("--" + name);
  if (!option || !option->get_configurable())
    throw Mistake("there is no option of this name" + Suggestion(name, ConfigurableNames(*command)));
  const std::vector<std::string> texts = TextsOf(*option, value);
  if (option->count() != 0) return;  // the command line wins
  for (const std::string& text : texts) option->add_result(text);
  try {
    option->run_callback();
  } catch (const CLI::ParseError& error) {
    std::string what = error.what();
    if (what.starts_with("--" + name + ": ")) what.erase(0, name.size() + 4);
    throw Mistake(what);
  }
}

void ReadConfig(CLI::App* command, const std::string& path) {
  const toml::table table = Parse(path, ReadWhole(path, limitBytes));
  std::multimap<toml::source_index, std::string> mistakes;  // by line; the table is sorted by name
  for (const auto& [key, value] : table) {
    const std::string name(key.str());
    const toml::source_index line = key.source().begin.line;
    try {
      Apply(command, name, value);
    } catch (const Mistake& mistake) {
      mistakes.emplace(line, Place(path, line).append(name).append(": ").append(mistake.what()));
    }
  }
  if (mistakes.empty()) return;
  const auto last = std::prev(mistakes.end());
  for (auto each = mistakes.begin(); each != last; ++each) Complain(each->second);
  throw WrongCommandLine(last->second);
}

}  // namespace

void AddConfigOption(CLI::App* command) {
  const auto read = [command](const std::string& path) {
    if (command->get_help_ptr()->count() == 0) ReadConfig(command, path);
  };
  CLI::Option* const option = command->add_option_function<std::string>(
      "--config", read, "TOML file with these options, named without dashes; those given here win");
  option->type_name("FILE")->configurable(false);
}

}  // namespace veld_report::app
