// MD5 as RFC 1321 defines it, on a caller-owned context. Block words are
// assembled byte by byte, so the digest is the same on any host.

#include <string.h>

#include "mail_internal.h"

namespace {

const unsigned char kPadding[64] = {0x80};

inline uint32_t rotl(uint32_t x, unsigned n) { return x << n | x >> (32 - n); }

// The four round functions of RFC 1321.
struct F { static uint32_t f(uint32_t b, uint32_t c, uint32_t d) { return d ^ (b & (c ^ d)); } };
struct G { static uint32_t f(uint32_t b, uint32_t c, uint32_t d) { return c ^ (d & (b ^ c)); } };
struct H { static uint32_t f(uint32_t b, uint32_t c, uint32_t d) { return b ^ c ^ d; } };
struct I { static uint32_t f(uint32_t b, uint32_t c, uint32_t d) { return c ^ (b | ~d); } };

// The word and the constant don't wait for the previous step; adding them
// first keeps them off the chain of dependent operations.
template <typename R>
inline void step(uint32_t &a, uint32_t b, uint32_t c, uint32_t d, uint32_t x,
                 unsigned shift, uint32_t constant) {
  a = b + rotl((a + x + constant) + R::f(b, c, d), shift);
}

// G's two terms never share a bit, so their sum is their union, and the
// term without b can start before b is known.
template <>
inline void step<G>(uint32_t &a, uint32_t b, uint32_t c, uint32_t d,
                    uint32_t x, unsigned shift, uint32_t constant) {
  a = b + rotl((a + x + constant + (c & ~d)) + (b & d), shift);
}

// The 64 steps written out, each with its message word, shift and constant,
// so that all of them are constants to the compiler.
void transform(uint32_t state[4], const unsigned char block[64]) {
  uint32_t x[16];
  for (int i = 0; i < 16; i++)
    x[i] = (uint32_t)block[4 * i] | (uint32_t)block[4 * i + 1] << 8 |
           (uint32_t)block[4 * i + 2] << 16 | (uint32_t)block[4 * i + 3] << 24;
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  step<F>(a, b, c, d, x[0], 7, 0xd76aa478);
  step<F>(d, a, b, c, x[1], 12, 0xe8c7b756);
  step<F>(c, d, a, b, x[2], 17, 0x242070db);
  step<F>(b, c, d, a, x[3], 22, 0xc1bdceee);
  step<F>(a, b, c, d, x[4], 7, 0xf57c0faf);
  step<F>(d, a, b, c, x[5], 12, 0x4787c62a);
  step<F>(c, d, a, b, x[6], 17, 0xa8304613);
  step<F>(b, c, d, a, x[7], 22, 0xfd469501);
  step<F>(a, b, c, d, x[8], 7, 0x698098d8);
  step<F>(d, a, b, c, x[9], 12, 0x8b44f7af);
  step<F>(c, d, a, b, x[10], 17, 0xffff5bb1);
  step<F>(b, c, d, a, x[11], 22, 0x895cd7be);
  step<F>(a, b, c, d, x[12], 7, 0x6b901122);
  step<F>(d, a, b, c, x[13], 12, 0xfd987193);
  step<F>(c, d, a, b, x[14], 17, 0xa679438e);
  step<F>(b, c, d, a, x[15], 22, 0x49b40821);
  step<G>(a, b, c, d, x[1], 5, 0xf61e2562);
  step<G>(d, a, b, c, x[6], 9, 0xc040b340);
  step<G>(c, d, a, b, x[11], 14, 0x265e5a51);
  step<G>(b, c, d, a, x[0], 20, 0xe9b6c7aa);
  step<G>(a, b, c, d, x[5], 5, 0xd62f105d);
  step<G>(d, a, b, c, x[10], 9, 0x02441453);
  step<G>(c, d, a, b, x[15], 14, 0xd8a1e681);
  step<G>(b, c, d, a, x[4], 20, 0xe7d3fbc8);
  step<G>(a, b, c, d, x[9], 5, 0x21e1cde6);
  step<G>(d, a, b, c, x[14], 9, 0xc33707d6);
  step<G>(c, d, a, b, x[3], 14, 0xf4d50d87);
  step<G>(b, c, d, a, x[8], 20, 0x455a14ed);
  step<G>(a, b, c, d, x[13], 5, 0xa9e3e905);
  step<G>(d, a, b, c, x[2], 9, 0xfcefa3f8);
  step<G>(c, d, a, b, x[7], 14, 0x676f02d9);
  step<G>(b, c, d, a, x[12], 20, 0x8d2a4c8a);
  step<H>(a, b, c, d, x[5], 4, 0xfffa3942);
  step<H>(d, a, b, c, x[8], 11, 0x8771f681);
  step<H>(c, d, a, b, x[11], 16, 0x6d9d6122);
  step<H>(b, c, d, a, x[14], 23, 0xfde5380c);
  step<H>(a, b, c, d, x[1], 4, 0xa4beea44);
  step<H>(d, a, b, c, x[4], 11, 0x4bdecfa9);
  step<H>(c, d, a, b, x[7], 16, 0xf6bb4b60);
  step<H>(b, c, d, a, x[10], 23, 0xbebfbc70);
  step<H>(a, b, c, d, x[13], 4, 0x289b7ec6);
  step<H>(d, a, b, c, x[0], 11, 0xeaa127fa);
  step<H>(c, d, a, b, x[3], 16, 0xd4ef3085);
  step<H>(b, c, d, a, x[6], 23, 0x04881d05);
  step<H>(a, b, c, d, x[9], 4, 0xd9d4d039);
  step<H>(d, a, b, c, x[12], 11, 0xe6db99e5);
  step<H>(c, d, a, b, x[15], 16, 0x1fa27cf8);
  step<H>(b, c, d, a, x[2], 23, 0xc4ac5665);
  step<I>(a, b, c, d, x[0], 6, 0xf4292244);
  step<I>(d, a, b, c, x[7], 10, 0x432aff97);
  step<I>(c, d, a, b, x[14], 15, 0xab9423a7);
  step<I>(b, c, d, a, x[5], 21, 0xfc93a039);
  step<I>(a, b, c, d, x[12], 6, 0x655b59c3);
  step<I>(d, a, b, c, x[3], 10, 0x8f0ccc92);
  step<I>(c, d, a, b, x[10], 15, 0xffeff47d);
  step<I>(b, c, d, a, x[1], 21, 0x85845dd1);
  step<I>(a, b, c, d, x[8], 6, 0x6fa87e4f);
  step<I>(d, a, b, c, x[15], 10, 0xfe2ce6e0);
  step<I>(c, d, a, b, x[6], 15, 0xa3014314);
  step<I>(b, c, d, a, x[13], 21, 0x4e0811a1);
  step<I>(a, b, c, d, x[4], 6, 0xf7537e82);
  step<I>(d, a, b, c, x[11], 10, 0xbd3af235);
  step<I>(c, d, a, b, x[2], 15, 0x2ad7d2bb);
  step<I>(b, c, d, a, x[9], 21, 0xeb86d391);
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void putWordLE(unsigned char *out, uint32_t v) {
  out[0] = static_cast<unsigned char>(v);
  out[1] = static_cast<unsigned char>(v >> 8);
  out[2] = static_cast<unsigned char>(v >> 16);
  out[3] = static_cast<unsigned char>(v >> 24);
}

}  // namespace

void kelMAILInitializeMD5(kelMAILMD5Context *context) {
  context->state[0] = 0x67452301;
  context->state[1] = 0xefcdab89;
  context->state[2] = 0x98badcfe;
  context->state[3] = 0x10325476;
  context->count[0] = context->count[1] = 0;
}

void kelMAILUpdateMD5(kelMAILMD5Context *context, const void *input,
                      uint32_t length) {
  const unsigned char *in = static_cast<const unsigned char *>(input);
  uint32_t fill = (context->count[0] >> 3) & 63;
  uint32_t bits = length << 3;
  context->count[0] += bits;
  if (context->count[0] < bits) context->count[1]++;
  context->count[1] += length >> 29;
  uint32_t room = 64 - fill, i = 0;
  if (length >= room) {
    memcpy(context->buffer + fill, in, room);
    transform(context->state, context->buffer);
    for (i = room; i + 63 < length; i += 64) transform(context->state, in + i);
    fill = 0;
  }
  if (length > i) memcpy(context->buffer + fill, in + i, length - i);
}

void kelMAILFinishMD5(unsigned char *digest, kelMAILMD5Context *context) {
  unsigned char bits[8];
  putWordLE(bits, context->count[0]);
  putWordLE(bits + 4, context->count[1]);
  uint32_t fill = (context->count[0] >> 3) & 63;
  kelMAILUpdateMD5(context, kPadding, fill < 56 ? 56 - fill : 120 - fill);
  kelMAILUpdateMD5(context, bits, 8);
  for (int i = 0; i < 4; i++) putWordLE(digest + 4 * i, context->state[i]);
  memset(context, 0, sizeof *context);
}

void kelMAILDigestText(const unsigned char *digest, char *text) {
  static const char kHex[] = "0123456789abcdef";
  for (int i = 0; i < 16; i++) {
    text[2 * i] = kHex[digest[i] >> 4];
    text[2 * i + 1] = kHex[digest[i] & 15];
  }
  text[32] = '\0';
}
