// Sets the locale of the program for the length of a scope. The code under test only ever reads it.
#pragma once

#include <clocale>
#include <string>

#include "gtest/gtest.h"

namespace veld_report::tests {

class LocaleScope {
 public:
  explicit LocaleScope(const char* name) : old_(std::setlocale(LC_ALL, nullptr)) {
    EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << "this machine lacks the locale " << name;
  }
  LocaleScope(const LocaleScope&) = delete;
  LocaleScope& operator=(const LocaleScope&) = delete;
  ~LocaleScope() { std::setlocale(LC_ALL, old_.c_str()); }

 private:
  std::string old_;
};

}  // namespace veld_report::tests
