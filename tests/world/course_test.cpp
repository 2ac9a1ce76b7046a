// Courses: scripts with all that the host sees of them, compared whole. In a file of golden/ the lines of the
// head say what it is for, those with the mark are the script's steps, and what is under a step came of it.
// With VELD_RECORD set the files are written anew, for a look at the difference. VELD_COURSES names another
// folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/common/files.h"
#include "tests/world/heap.h"
#include "tests/world/world.h"

namespace veld_report::world {
namespace {

std::string FirstDifference(const std::vector<std::string>& written, const std::vector<std::string>& is) {
  const auto [there, here] = std::ranges::mismatch(written, is);
  if (there == written.end() && here == is.end()) return "";
  const auto show = [](auto line, const auto& lines) { return line == lines.end() ? "(the end)" : *line; };
  return "line " + std::to_string(there - written.begin() + 1) + "\n  written: " + show(there, written) +
         "\n  is:      " + show(here, is);
}

TEST(CourseTest, EachScriptTakesItsCourse) {
  const char* const folder = std::getenv("VELD_COURSES");
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder ? folder : VELD_GOLDEN)) {
    if (entry.path().extension() != ".course") continue;
    SCOPED_TRACE(entry.path());
    const std::string written = tests::ReadFile(entry.path());
    std::string steps, head, course;
    for (const std::string& line : tests::Lines(written)) {
      if (line.starts_with(courseMark)) steps += line.substr(std::size(courseMark) - 1) + "\n";
      if (steps.empty()) head += line + "\n";
    }
    if (steps.find("memory 1") != steps.npos && !Heap::Counts()) continue;
#if defined(_WIN32)
    if (head.find("# Needs glibc") != head.npos) continue;
#endif
    const Outcome outcome = RunScript(FromText(steps), &course);
    EXPECT_EQ(outcome.failure.invariant + outcome.failure.text, "");
    if (std::getenv("VELD_RECORD")) {
      tests::WriteFile(entry.path(), head + course);
    } else {
      EXPECT_EQ(FirstDifference(tests::Lines(written), tests::Lines(head + course)), "")
          << "VELD_RECORD=1 writes it anew, and git shows the whole difference";
    }
    ++count;
  }
  EXPECT_GT(count, 0);
}

}  // namespace
}  // namespace veld_report::world
