// Base64 with the RFC 4648 alphabet. The encoder indexes the alphabet; the
// decoder a table of all byte values made from it at compile time.

#include <string.h>

#include "mail_internal.h"

namespace {

constexpr char kTable[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
constexpr char kPad = '=';

// Position 0 to 62 of the first equal table byte; anything else is 63, so
// "/" and every character outside the alphabet decode alike. Kept as a
// table of all 256 byte values, made once from the alphabet.
struct DecodeTable {
  unsigned char value[256];
  constexpr DecodeTable() : value() {
    for (unsigned c = 0; c < 256; c++) value[c] = 63;
    for (unsigned i = 63; i-- > 0;) value[static_cast<unsigned char>(kTable[i])] = static_cast<unsigned char>(i);
  }
};
constexpr DecodeTable kDecode;

// The encoder's table of character pairs: 12 bits give two characters, so
// three bytes take two look-ups.
struct PairTable {
  char pair[4096][2];
  constexpr PairTable() : pair() {
    for (unsigned v = 0; v < 4096; v++) {
      pair[v][0] = kTable[v >> 6];
      pair[v][1] = kTable[v & 63];
    }
  }
};
constexpr PairTable kPairs;

unsigned decodeChar(char c) { return kDecode.value[static_cast<unsigned char>(c)]; }

}  // namespace

char *kelMAILEncodeBase64(const void *data, uint32_t length) {
  const unsigned char *in = static_cast<const unsigned char *>(data);
  // From 2^30 bytes on the size of the block no longer fits 32 bits: such a
  // block can't be had, as if the allocator had failed.
  if (length >= 0x40000000u) return nullptr;
  char *out = static_cast<char *>(kelMAILAlloc(length * 4 / 3 + 4));
  if (out == nullptr) return nullptr;
  char *p = out;
  uint32_t i = 0;
  for (; i + 3 <= length; i += 3) {
    uint32_t v = (uint32_t)in[i] << 16 | (uint32_t)in[i + 1] << 8 | in[i + 2];
    memcpy(p, kPairs.pair[v >> 12], 2);
    memcpy(p + 2, kPairs.pair[v & 4095], 2);
    p += 4;
  }
  if (length - i == 1) {
    *p++ = kTable[in[i] >> 2];
    *p++ = kTable[(in[i] & 3) << 4];
    *p++ = kPad;
    *p++ = kPad;
  } else if (length - i == 2) {
    *p++ = kTable[in[i] >> 2];
    *p++ = kTable[((in[i] & 3) << 4) | (in[i + 1] >> 4)];
    *p++ = kTable[(in[i + 1] & 15) << 2];
    *p++ = kPad;
  }
  *p = '\0';
  return out;
}

char *kelMAILDecodeBase64(const char *text, uint32_t length) {
  // A length of 0 would give a block with no room for a terminator; one
  // byte more than the text in that case makes it the empty string.
  uint32_t size = length == 0 ? 1 : length;
  unsigned char *out = static_cast<unsigned char *>(kelMAILAlloc(size));
  if (out == nullptr) return nullptr;
  // Every byte that no group sets is zero; the decoded ones are written
  // whole, and the rest of the block is cleared once at the end.
  unsigned char *p = out;
  for (uint32_t g = 0; g < length / 4; g++) {
    const char *c = text + g * 4;
    unsigned a = decodeChar(c[0]), b = decodeChar(c[1]);
    unsigned v = decodeChar(c[2]), w = decodeChar(c[3]);
    if (c[2] == kPad || c[3] == kPad) {  // the last group
      p[0] = static_cast<unsigned char>(a << 2 | b >> 4);
      p[1] = static_cast<unsigned char>(b << 4);
      p += 2;
      if (c[2] != kPad) {
        p[-1] = static_cast<unsigned char>(p[-1] | v >> 2);
        *p++ = static_cast<unsigned char>(v << 6);
      }
      break;
    }
    uint32_t bits = a << 18 | b << 12 | v << 6 | w;
    p[0] = static_cast<unsigned char>(bits >> 16);
    p[1] = static_cast<unsigned char>(bits >> 8);
    p[2] = static_cast<unsigned char>(bits);
    p += 3;
  }
  memset(p, 0, size - static_cast<uint32_t>(p - out));
  return reinterpret_cast<char *>(out);
}
