// A text log that keeps its lines, with the host's control prefixes taken
// off as the host would, for the tests of the checks.
#ifndef HALVEX_TESTS_VERIFY_SUPPORT_H
#define HALVEX_TESTS_VERIFY_SUPPORT_H

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

namespace verifytest {

inline std::vector<std::string>& lines() {
  static std::vector<std::string> l;
  return l;
}

inline void captureLog(const char* format, ...) {
  std::string prefix;
  if (strncmp(format, "%7hTRACE: %m", 12) == 0) {
    format += 12;
    prefix = "TRACE: ";
  } else if (format[0] == '%' && format[1] >= '0' && format[1] <= '9' && format[2] == 'z') {
    format += 3;
  }
  char buffer[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  lines().push_back(prefix + buffer);
}

inline int count(const std::string& text) {
  int n = 0;
  for (const std::string& line : lines()) n += line.find(text) != std::string::npos;
  return n;
}
inline bool logged(const std::string& text) { return count(text) > 0; }
inline int errors() {
  int n = 0;
  for (const std::string& line : lines()) n += line.compare(0, 5, "Error") == 0;
  return n;
}
inline std::string firstError() {
  for (const std::string& line : lines())
    if (line.compare(0, 5, "Error") == 0) return line;
  return "";
}

}  // namespace verifytest

#endif
