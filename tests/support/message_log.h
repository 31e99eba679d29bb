// A message log that keeps what it was given: the severity, the low half of
// the code (after checking that all 64 bits came sign-extended), and for the codes named in `valued` the first integer argument
// (0 for the others).
#ifndef HALVEX_TESTS_SUPPORT_MESSAGE_LOG_H
#define HALVEX_TESTS_SUPPORT_MESSAGE_LOG_H

#include <stdarg.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "records/env.h"

namespace hxtest {

struct RecordingLog {
  MessageLog base{&RecordingLog::log};
  std::vector<int64_t> valued;
  std::vector<int64_t> codes;
  std::vector<int32_t> severities, values;

  explicit RecordingLog(std::vector<int64_t> valuedCodes = {}) : valued(std::move(valuedCodes)) {}
  static void log(MessageLog* self, int32_t severity, int64_t code, ...) {
    RecordingLog* r = reinterpret_cast<RecordingLog*>(self);
    // Hosts look codes up by all 64 bits: every code comes sign-extended.
    EXPECT_EQ(code, (int64_t)(int32_t)code) << std::hex << "code 0x" << code;
    const int64_t low = code & 0xFFFFFFFF;
    int32_t value = 0;
    if (std::find(r->valued.begin(), r->valued.end(), low) != r->valued.end()) {
      va_list args;
      va_start(args, code);
      value = va_arg(args, int32_t);
      va_end(args);
    }
    r->codes.push_back(low);
    r->severities.push_back(severity);
    r->values.push_back(value);
  }
  void clear() { codes.clear(), severities.clear(), values.clear(); }
  // Severity of the first message with the code, or 0 when it never came.
  int32_t severityOf(int64_t code) const {
    for (size_t k = 0; k < codes.size(); k++)
      if (codes[k] == code) return severities[k];
    return 0;
  }
  bool saw(int64_t code) const { return severityOf(code) != 0; }
};

}  // namespace hxtest

#endif
