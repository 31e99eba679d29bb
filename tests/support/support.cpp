#include "support/support.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace hxtest {

std::vector<TextLine>& textLines() {
  static std::vector<TextLine> lines;
  return lines;
}

void captureText(const char* format, ...) {
  // The host's controls go before the text proper, as the host takes them.
  const char* body = format;
  std::string prefix;
  if (strncmp(body, "%7hTRACE: %m", 12) == 0) {
    body += 12;
    prefix = "TRACE: ";
  } else if (body[0] == '%' && body[1] >= '0' && body[1] <= '9' && body[2] == 'z') {
    body += 3;
  }
  char buffer[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, body, args);
  va_end(args);
  textLines().push_back({format, prefix + buffer});
}

bool logged(const std::string& part) {
  for (const TextLine& line : textLines())
    if (line.text.find(part) != std::string::npos) return true;
  return false;
}

}  // namespace hxtest
