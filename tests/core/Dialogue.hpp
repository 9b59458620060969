// A test as a dialogue: every line an event, and behind the colon all that was decided on it.
#pragma once

#include <gmock/gmock.h>

#include <sstream>
#include <string>

namespace vorlinkit::test {

/// Plays `script`, line by line: `said(words)` is told the event and yields the decisions as text.
template <typename Said> void play(const std::string& script, Said&& said) {
  std::istringstream lines(script);
  for (std::string line; std::getline(lines, line);) {
    const auto trim = [](std::string text) {
      text.erase(0, text.find_first_not_of(' '));
      return text.erase(text.find_last_not_of(' ') + 1);
    };
    line = trim(line);
    if (line.empty()) continue;
    const auto colon = line.find(" :");
    ASSERT_NE(colon, std::string::npos) << line;
    std::istringstream words(line.substr(0, colon));
    ASSERT_EQ(trim(said(words)), trim(line.substr(colon + 2))) << line << "\nin" << script;
  }
}

} // namespace vorlinkit::test
