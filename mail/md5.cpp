// MD5 as RFC 1321 defines it, on a caller-owned context. Block words are
// assembled byte by byte, so the digest is the same on any host.

#include <string.h>

#include "mail_internal.h"

namespace {

const unsigned char kPadding[64] = {0x80};

inline uint32_t rotl(uint32_t x, unsigned n) { return x << n | x >> (32 - n); }

// The four rounds: per step the function, message word, shift and constant.
void transform(uint32_t state[4], const unsigned char block[64]) {
  static const uint32_t kConst[64] = {
      0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a,
      0xa8304613, 0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be,
      0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340,
      0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
      0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8,
      0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c,
      0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
      0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
      0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92,
      0xffeff47d, 0x85845dd1, 0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
      0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
  static const unsigned char kShift[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  uint32_t x[16];
  for (int i = 0; i < 16; i++)
    x[i] = (uint32_t)block[4 * i] | (uint32_t)block[4 * i + 1] << 8 |
           (uint32_t)block[4 * i + 2] << 16 | (uint32_t)block[4 * i + 3] << 24;
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; i++) {
    int round = i / 16;
    uint32_t f;
    int k;
    if (round == 0) {
      f = (b & c) | (~b & d);
      k = i;
    } else if (round == 1) {
      f = (b & d) | (c & ~d);
      k = (5 * i + 1) % 16;
    } else if (round == 2) {
      f = b ^ c ^ d;
      k = (3 * i + 5) % 16;
    } else {
      f = c ^ (b | ~d);
      k = (7 * i) % 16;
    }
    uint32_t t = d;
    d = c;
    c = b;
    b = b + rotl(a + f + kConst[i] + x[k], kShift[round][i % 4]);
    a = t;
  }
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
