// Base64 and MD5: published vectors, a reference on random data, the
// decoder's rules for malformed text, block boundaries and the digest text.

#include <stdlib.h>
#include <string.h>

#include "mail_test.h"

namespace {

class Codec : public mt::Mail {};

// The whole block that decoding text gives (its size is the text's, at least 1).
std::string decode(const std::string &text) {
  char *out = kelMAILDecodeBase64(text.data(), static_cast<uint32_t>(text.size()));
  std::string bytes = out ? std::string(out, text.empty() ? 1 : text.size()) : "(null)";
  orvOSWOrgFreeMemPart(0, out);
  return bytes;
}

// A plain encoder, written apart from the library's.
std::string reference(const std::string &in) {
  static const char *abc = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < in.size(); i += 3) {
    unsigned v = 0;
    for (size_t k = 0; k < 3; k++) v = v << 8 | (i + k < in.size() ? static_cast<unsigned char>(in[i + k]) : 0);
    for (size_t k = 0, n = std::min<size_t>(3, in.size() - i); k < 4; k++)
      out += k <= n ? abc[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

TEST_F(Codec, Base64) {
  const char *vectors[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  std::string all = "foobar";
  srand(7);
  while (all.size() < 300) all += static_cast<char>(rand() & 255);
  for (uint32_t n = 0; n <= 300; n++) {
    std::string data = all.substr(0, n);
    size_t before = kelHostPoolBytesInUse();
    char *text = kelMAILEncodeBase64(data.data(), n);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(kelHostPoolBytesInUse() - before, n * 4 / 3 + 4);  // the documented block
    std::string encoded = text;
    orvOSWOrgFreeMemPart(0, text);
    EXPECT_EQ(encoded, n < 7 ? vectors[n] : reference(data)) << n;
    EXPECT_EQ(decode(encoded), data + std::string(encoded.size() - n + (n == 0), '\0')) << n;
  }
  // Malformed text: trailing characters dropped, "=" ends everything, spare
  // bits stay, "=" first reads as 63, any byte outside the alphabet as "/".
  using S = std::string;
  const S rows[][2] = {
      {"Zm9", S(3, '\0')}, {"Zm9vYg", S("foo\0\0\0", 6)}, {"Zg==Zm9v", S("f\0\0\0\0\0\0\0", 8)},
      {"Zm8=Zm9v", S("fo\0\0\0\0\0\0", 8)}, {"Zh==", S("f\x10\0\0", 4)}, {"=Zm9", S("\xfd\x99\xbd\0", 4)},
      {"Zm9*", S("fo\x7f\0", 4)}, {S("A\0AA", 4), S("\x03\xf0\0\0", 4)},
      {"Zm9v\r\nYmFy", S("foo\xff\xf6\x26\0\0\0\0", 10)}};
  for (auto &row : rows) EXPECT_EQ(decode(row[0]), row[1]) << row[0];
  kelHostPoolFailAt(1);
  EXPECT_EQ(kelMAILEncodeBase64("x", 1), nullptr);
  kelHostPoolFailAt(1);
  EXPECT_EQ(decode("Zm9v"), "(null)");
}

// The digest text of data fed in pieces; the context must be wiped.
std::string md5(const std::string &data, size_t piece) {
  kelMAILMD5Context context, zero = {};
  kelMAILInitializeMD5(&context);
  for (size_t at = 0; at < data.size(); at += piece)
    kelMAILUpdateMD5(&context, data.data() + at, static_cast<uint32_t>(std::min(piece, data.size() - at)));
  unsigned char digest[16];
  kelMAILFinishMD5(digest, &context);
  EXPECT_EQ(memcmp(&context, &zero, sizeof zero), 0) << "context not wiped";
  char text[40] = "not written";
  kelMAILDigestText(digest, text);
  return std::string(text, 33);
}

TEST_F(Codec, Md5InAnyPiecesAcrossBlocks) {
  std::string fill;  // a length field right behind the padding, and whole blocks
  for (size_t i = 0; i < 1024; i++) fill += static_cast<char>((i * 7 + 3) & 255);
  const std::pair<std::string, const char *> rows[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"}, {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"}, {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {fill.substr(0, 56), "46c9907fc908ee68b1e7b8e71286a518"}, {fill, "a66351d9c8f941b70a02eaf9c41e69c3"}};
  for (auto &row : rows)
    for (size_t piece : {1, 3, 55, 56, 63, 64, 65, 200, 2000})
      EXPECT_EQ(md5(row.first, piece), std::string(row.second, 33)) << row.first.size() << "/" << piece;
  kelMAILMD5Context c = {};  // the bit count carries into its high word
  c.count[0] = 0xfffffff8u;
  kelMAILUpdateMD5(&c, "a", 1);
  EXPECT_EQ(c.count[1], 1u);
}

}  // namespace
