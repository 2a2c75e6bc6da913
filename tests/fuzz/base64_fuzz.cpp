// The Base64 decoder on any text (challenges come from the server), and the
// encoder and decoder as a round trip of the same bytes.
#include "feed.h"
#include "mail/mail_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // libFuzzer's copy of the input has exactly its size: a read past the
  // length is caught.
  kelMAILFree(kelMAILDecodeBase64(reinterpret_cast<const char *>(data), static_cast<uint32_t>(size)));
  char *encoded = kelMAILEncodeBase64(data, static_cast<uint32_t>(size));
  if (encoded == nullptr) return 0;  // beyond the pool
  char *decoded = kelMAILDecodeBase64(encoded, static_cast<uint32_t>(strlen(encoded)));
  if (decoded == nullptr || memcmp(decoded, data, size) != 0) abort();
  kelMAILFree(decoded);
  kelMAILFree(encoded);
  if (kelHostPoolBlocksInUse() != 0) abort();
  return 0;
}
