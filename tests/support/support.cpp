#include "support/support.h"

#include <stdarg.h>
#include <stdio.h>

namespace hxtest {

std::vector<TextLine>& textLines() {
  static std::vector<TextLine> lines;
  return lines;
}

void captureText(const char* format, ...) {
  char buffer[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  textLines().push_back({format, buffer});
}

bool logged(const std::string& part) {
  for (const TextLine& line : textLines())
    if (line.text.find(part) != std::string::npos) return true;
  return false;
}

}  // namespace hxtest
