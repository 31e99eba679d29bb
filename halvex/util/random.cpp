#include "util/random.h"

namespace {

const uint32_t kModulus = 2147483647u;  // 2^31 - 1
const uint32_t kMultHigh = 397204094u >> 16;
const uint32_t kMultLow = 397204094u & 0xFFFFu;

// Reduces any 32-bit value: 2^31 is 1 modulo 2^31 - 1.
inline uint32_t fold(uint32_t u) {
  u = (u & kModulus) + (u >> 31);
  return u >= kModulus ? u - kModulus : u;
}
inline uint32_t addMod(uint32_t a, uint32_t b) {
  uint32_t s = a + b;  // both below 2^31, so no wrap
  return s >= kModulus ? s - kModulus : s;
}
// v * 2^16: the bits that pass 2^31 come back in at the bottom.
inline uint32_t shift16Mod(uint32_t v) {
  return addMod(v >> 15, (v & 0x7FFFu) << 16);
}

}  // namespace

double zranuni(int64_t* seed) {
  // Left to the implementer: a seed that is 0 modulo 2^31 - 1 would stick at
  // 0 for ever, so it starts the stream at 1 instead; negative seeds count
  // from the other end.
  int64_t s = *seed % (int64_t)kModulus;
  if (s < 0) s += kModulus;
  if (s == 0) s = 1;
  // The product from 16-bit halves, every partial product within 32 bits.
  const uint32_t x = (uint32_t)s, xh = x >> 16, xl = x & 0xFFFFu;
  const uint32_t top = fold(2u * fold(xh * kMultHigh));  // 2^32 is 2 modulo 2^31 - 1
  const uint32_t mid = shift16Mod(addMod(fold(xh * kMultLow), fold(xl * kMultHigh)));
  const uint32_t low = fold(xl * kMultLow);
  const uint32_t next = addMod(addMod(top, mid), low);
  *seed = next;
  return next / 2147483647.0;
}
