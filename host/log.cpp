// Text log and message log of the reference host.
//
// The text call-back has no context argument, so it goes to one host: the
// most recently constructed Host that is still alive.  A program that runs
// two hosts at once gets all text lines on the newer one; messages carry
// their host in the message object and are not affected.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "host/internal.h"

namespace hxhost {
namespace {

// Recursive, because a sink may itself log through the text call-back.
std::recursive_mutex gLiveMu;
std::vector<HostImpl*> gLive;

void defaultSink(int kind, const std::string& line) {
  if (kind == 1 || kind == 3 || kind == 4) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", line.c_str());
  } else if (kind == 7) {
    std::fprintf(stdout, "TRACE: %s\n", line.c_str());
  } else {
    std::fprintf(stdout, "%s\n", line.c_str());
  }
}

// Host controls at the start of a format: "%<d>z" gives the line kind d;
// "%7h" marks a trace line, whose "TRACE: %m" lead-in the sink's kind
// replaces (and whose %m would otherwise print errno's text).
const char* stripControl(const char* format, int* kind) {
  *kind = 0;
  if (format[0] == '%' && format[1] >= '0' && format[1] <= '9' && format[2] == 'z') {
    *kind = format[1] - '0';
    return format + 3;
  }
  if (format[0] == '%' && format[1] >= '0' && format[1] <= '9' && format[2] == 'h') {
    *kind = format[1] - '0';
    const char* rest = format + 3;
    if (std::strncmp(rest, "TRACE: ", 7) == 0) rest += 7;
    if (std::strncmp(rest, "%m", 2) == 0) rest += 2;
    return rest;
  }
  return format;
}

void messageEntry(MessageLog* self, int32_t severity, int64_t code, ...) {
  if (!self) return;
  HostImpl* h = reinterpret_cast<HostMessageLog*>(self)->host;
  // Codes are 32-bit values sign-extended to 64 bits.  A host that looks
  // codes up by all 64 bits finds nothing for a code that came zero-extended.
  if (code != (int64_t)(int32_t)code) {
    char text[96];
    std::snprintf(text, sizeof text, "message code 0x%016llx is not sign-extended",
                  (unsigned long long)code);
    {
      std::lock_guard<std::mutex> g(h->poolMu);
      h->misuse++;
    }
    h->report(text);
  }
  const char* signature = messageSignature(code);
  int64_t ints[16];
  double reals[16];
  int ni = 0, nr = 0;
  va_list ap;
  va_start(ap, code);
  for (const char* s = signature ? signature : ""; *s; ++s) {
    if (*s == 'i' && ni < 16)
      ints[ni++] = va_arg(ap, int);
    else if (*s == 'd' && nr < 16)
      reals[nr++] = va_arg(ap, double);
  }
  va_end(ap);
  h->emit(severity, formatMessage(severity, code, ints, ni, reals, nr));
}

}  // namespace

void registerLiveHost(HostImpl* host) {
  std::lock_guard<std::recursive_mutex> g(gLiveMu);
  gLive.push_back(host);
}

void unregisterLiveHost(HostImpl* host) {
  std::lock_guard<std::recursive_mutex> g(gLiveMu);
  for (size_t i = gLive.size(); i-- > 0;)
    if (gLive[i] == host) {
      gLive.erase(gLive.begin() + (long)i);
      break;
    }
}

void textLogEntry(const char* format, ...) {
  if (!format) return;
  int kind;
  const char* rest = stripControl(format, &kind);
  va_list ap;
  va_start(ap, format);
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(small, sizeof small, rest, copy);
  va_end(copy);
  std::string line;
  if (n < 0) {
    line = rest;
  } else if ((size_t)n < sizeof small) {
    line.assign(small, (size_t)n);
  } else {
    line.resize((size_t)n + 1);
    std::vsnprintf(&line[0], line.size(), rest, ap);
    line.resize((size_t)n);
  }
  va_end(ap);
  while (!line.empty() && line.back() == '\n') line.pop_back();
  std::lock_guard<std::recursive_mutex> g(gLiveMu);
  if (gLive.empty()) return;
  gLive.back()->emit(kind, line);
}

void HostImpl::emit(int kind, const std::string& line) {
  std::lock_guard<std::recursive_mutex> g(sinkMu);
  if (quiet) return;
  if (sink)
    sink(kind, line);
  else
    defaultSink(kind, line);
}

void HostImpl::installLogs() {
  messageLog.slots.log = messageEntry;
  messageLog.host = this;
}

void Host::setSink(LineSink sink) {
  std::lock_guard<std::recursive_mutex> g(impl_->sinkMu);
  impl_->sink = std::move(sink);
}

void Host::silence(bool quiet) {
  std::lock_guard<std::recursive_mutex> g(impl_->sinkMu);
  impl_->quiet = quiet;
}

TextLogFn Host::textLog() { return textLogEntry; }

MessageLog* Host::messageLog() { return &impl_->messageLog.slots; }

}  // namespace hxhost
