#include "apps/veldrep/option_checks.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <utility>

#include "host/base/printable.h"

namespace veld_report::app {
namespace {

constexpr const char* whyEmpty = "is empty (a variable that isn't set?); ";

// `shown`: in the help, after the option's type.
CLI::Validator Check(std::function<std::string(const std::string&)> whyNot, const std::string& shown = "") {
  // The parser hands out the text to be changed.
  return {[whyNot = std::move(whyNot)](std::string& text) { return whyNot(text); }, shown};
}

}  // namespace

CLI::Validator NumberFrom(std::int64_t min, std::int64_t max) {
  const std::string range = std::to_string(min) + ".." + std::to_string(max);
  const auto whyNot = [min, max](const std::string& text) -> std::string {
    std::int64_t number = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (error == std::errc() && end == last && number >= min && number <= max) return {};
    return "expected a number from " + std::to_string(min) + " to " + std::to_string(max) + " in place of " +
           host::Printable(text);
  };
  return Check(whyNot, range);
}

CLI::Validator OneOf(std::vector<std::string> words) {
  return Check([words = std::move(words)](const std::string& text) -> std::string {
    if (std::ranges::find(words, text) != words.end()) return {};
    std::string all;
    for (const std::string& each : words)
      all += (all.empty() ? "" : &each == &words.back() ? " or " : ", ") + each;
    return "expected " + all + " in place of " + host::Printable(text);
  });
}

void RefuseEmptyValues(CLI::App& app) {
  for (CLI::Option* const option : app.get_options()) {
    if (option->get_items_expected_max() == 0) continue;
    const char* const remedy = option->get_required() ? "give it a value" : "leave the option out instead";
    // Unlike a check, this comes before the option's other checks.
    option->transform(Check(
        [remedy](const std::string& text) { return text.empty() ? whyEmpty + std::string(remedy) : ""; }));
  }
  for (CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; }))
    RefuseEmptyValues(*command);
}

void RequireValues(const CLI::App& program, const std::vector<std::string>& arguments) {
  const auto mayStandAlone = [&](const std::string& name) {
    const auto commands = program.get_subcommands([](const CLI::App*) { return true; });
    return std::ranges::any_of(commands, [&](const CLI::App* command) {
      const CLI::Option* const option = command->get_option_no_throw(name);
      return option && option->get_expected_min() == 0 && option->get_items_expected_max() != 0;
    });
  };
  std::string previous;
  for (const std::string& each : arguments) {
    if (each == "--") return;
    const bool isOption = each.starts_with("--");
    if (isOption && each.find('=') == each.size() - 1) {
      throw CLI::ValidationError(each.substr(0, each.size() - 1), whyEmpty + std::string("give it a value"));
    }
    if (each.empty() && mayStandAlone(previous))
      throw CLI::ValidationError(previous, whyEmpty + std::string("leave the option out instead"));
    previous = isOption ? each : "";
  }
}

}  // namespace veld_report::app
