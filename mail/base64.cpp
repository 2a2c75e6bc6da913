// Base64 with the RFC 4648 alphabet. The encoder indexes the alphabet; the
// decoder a table of all byte values made from it at compile time.

#include <string.h>

#include "mail_internal.h"

namespace {

const char kTable[] =
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
    *p++ = kTable[v >> 18];
    *p++ = kTable[(v >> 12) & 63];
    *p++ = kTable[(v >> 6) & 63];
    *p++ = kTable[v & 63];
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
  memset(out, 0, size);
  unsigned char *p = out;
  for (uint32_t g = 0; g < length / 4; g++, p += 3) {
    const char *c = text + g * 4;
    unsigned a = decodeChar(c[0]), b = decodeChar(c[1]);
    p[0] = static_cast<unsigned char>(a << 2 | b >> 4);
    p[1] = static_cast<unsigned char>(b << 4);
    if (c[2] == kPad) break;
    unsigned v = decodeChar(c[2]);
    p[1] = static_cast<unsigned char>(p[1] | v >> 2);
    p[2] = static_cast<unsigned char>(v << 6);
    if (c[3] == kPad) break;
    p[2] = static_cast<unsigned char>(p[2] | decodeChar(c[3]));
  }
  return reinterpret_cast<char *>(out);
}
