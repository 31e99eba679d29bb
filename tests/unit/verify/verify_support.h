// Reading the shared text log as the checks' tests want it: formatted lines,
// and the ones that begin with "Error".
#ifndef HALVEX_TESTS_VERIFY_SUPPORT_H
#define HALVEX_TESTS_VERIFY_SUPPORT_H

#include <string>
#include <vector>

#include "support/support.h"

namespace verifytest {

inline std::vector<std::string> lines() {
  std::vector<std::string> texts;
  for (const hxtest::TextLine& line : hxtest::textLines()) texts.push_back(line.text);
  return texts;
}
inline void clear() { hxtest::textLines().clear(); }
inline int count(const std::string& text) {
  int n = 0;
  for (const hxtest::TextLine& line : hxtest::textLines())
    n += line.text.find(text) != std::string::npos;
  return n;
}
inline bool logged(const std::string& text) { return count(text) > 0; }
inline int errors() {
  int n = 0;
  for (const hxtest::TextLine& line : hxtest::textLines())
    n += line.text.compare(0, 5, "Error") == 0;
  return n;
}
inline std::string firstError() {
  for (const hxtest::TextLine& line : hxtest::textLines())
    if (line.text.compare(0, 5, "Error") == 0) return line.text;
  return "";
}

// A host whose checks write to the captured text log, empty at the start.
class LoggedTest : public HostTest {
 protected:
  LoggedTest() {
    env.textLog = hxtest::captureText;
    clear();
  }
};

}  // namespace verifytest

#endif
