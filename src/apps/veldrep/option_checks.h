// What the values of options must be, with the sentences that say so.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace veld_report::app {

// Both limits are allowed.
CLI::Validator NumberFrom(std::int64_t min, std::int64_t max);
CLI::Validator OneOf(std::vector<std::string> words);

// Lets every option of the app and of its commands refuse an empty value, which is what an unset variable of
// a script gives. Call it once all of them are declared.
void RefuseEmptyValues(CLI::App& app);

// Throws CLI::ValidationError for an empty value that the parser takes for none: "--option=", for which it
// would take the next argument, and that of an option that may stand alone.
void RequireValues(const CLI::App& program, const std::vector<std::string>& arguments);

}  // namespace veld_report::app
