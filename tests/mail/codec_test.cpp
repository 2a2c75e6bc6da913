// Base64 and MD5: published vectors, a reference on random data, the
// decoder's rules for malformed text, block boundaries and the digest text.

#include <stdlib.h>
#include <string.h>

#include <string>

#include "mail_test.h"

namespace {

class Codec : public mt::Mail {};

std::string freed(char *block, size_t size) {
  std::string bytes(block, size);
  orvOSWOrgFreeMemPart(0, block);
  return bytes;
}

std::string decode(const std::string &text) {
  size_t size = text.empty() ? 1 : text.size();
  char *out = kelMAILDecodeBase64(text.data(), static_cast<uint32_t>(text.size()));
  return out ? freed(out, size) : "(null)";
}

// A plain encoder, written apart from the library's.
std::string reference(const std::string &in) {
  static const char *abc = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < in.size(); i += 3) {
    unsigned v = 0, n = static_cast<unsigned>(std::min<size_t>(3, in.size() - i));
    for (unsigned k = 0; k < 3; k++)
      v = v << 8 | (k < n ? static_cast<unsigned char>(in[i + k]) : 0);
    for (unsigned k = 0; k < 4; k++) out += k <= n ? abc[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

TEST_F(Codec, Base64AgreesWithTheStandardAndAReference) {
  const char *vectors[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                              {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"}};
  for (auto &v : vectors) {
    char *text = kelMAILEncodeBase64(v[0], static_cast<uint32_t>(strlen(v[0])));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, v[1]);
    orvOSWOrgFreeMemPart(0, text);
    EXPECT_STREQ(decode(v[1]).c_str(), v[0]);
  }
  srand(7);
  for (uint32_t n = 0; n <= 300; n++) {
    std::string data;
    for (uint32_t i = 0; i < n; i++) data += static_cast<char>(rand() & 255);
    size_t before = kelHostPoolBytesInUse();
    char *text = kelMAILEncodeBase64(data.data(), n);
    ASSERT_NE(text, nullptr);
    // The block is floor(n * 4 / 3) + 4 bytes, never smaller than the text.
    EXPECT_EQ(kelHostPoolBytesInUse() - before, n * 4 / 3 + 4);
    std::string encoded = freed(text, strlen(text));
    EXPECT_EQ(encoded, reference(data)) << n;
    std::string back = decode(encoded);
    EXPECT_EQ(back.substr(0, n), data) << n;
    // The rest of the block is zero, so the result ends as a string.
    EXPECT_EQ(back.substr(n), std::string(back.size() - n, '\0')) << n;
  }
}

TEST_F(Codec, Base64DecoderRules) {
  using std::string;
  // Exact blocks: trailing characters dropped, "=" ends everything, spare
  // bits stay, "=" in the first place reads as 63.
  const string exact[][2] = {
      {"", string(1, '\0')},
      {"Zm9", string(3, '\0')},
      {"Zm9vYg", string("foo") + string(3, '\0')},
      {"Zg==Zm9v", string("f") + string(7, '\0')},
      {"Zm8=Zm9v", string("fo") + string(6, '\0')},
      {"Zh==", string("f\x10\0\0", 4)},
      {"=Zm9", string("\xfd\x99\xbd\0", 4)},
  };
  for (auto &row : exact) EXPECT_EQ(decode(row[0]), row[1]) << row[0];
  // Characters outside the alphabet, line breaks and NUL read as "/".
  const string same[][2] = {
      {"Zm9*", "Zm9/"},
      {string("A\0AA", 4), "A/AA"},
      {"Zm9v\r\nYmFy", "Zm9v//YmFy"},
      {"Zm9 ", "Zm9/"},
  };
  for (auto &row : same) EXPECT_EQ(decode(row[0]), decode(row[1])) << row[1];
  kelHostPoolFailAt(1);
  EXPECT_EQ(kelMAILEncodeBase64("x", 1), nullptr);
  kelHostPoolFailAt(1);
  EXPECT_EQ(kelMAILDecodeBase64("Zm9v", 4), nullptr);
}

std::string md5(const std::string &data, size_t piece) {
  kelMAILMD5Context context;
  kelMAILInitializeMD5(&context);
  for (size_t at = 0; at < data.size(); at += piece)
    kelMAILUpdateMD5(&context, data.data() + at,
                     static_cast<uint32_t>(std::min(piece, data.size() - at)));
  unsigned char digest[16];
  kelMAILFinishMD5(digest, &context);
  const kelMAILMD5Context zero = {};
  EXPECT_EQ(memcmp(&context, &zero, sizeof zero), 0) << "context not wiped";
  char text[40];
  memset(text, 'x', sizeof text);
  kelMAILDigestText(digest, text);
  EXPECT_EQ(strlen(text), 32u);
  return text;
}

TEST_F(Codec, Md5SuiteInAnyPiecesAcrossBlocks) {
  const char *suite[][2] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890123456789012345678901234567890"
       "1234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (auto &row : suite)
    for (size_t piece : {1, 3, 64, 1000}) EXPECT_EQ(md5(row[0], piece), row[1]);
  // Fills of 55 and 56 around the length field, whole blocks, and more.
  const std::pair<size_t, const char *> lengths[] = {{55, "52c0e574e1198de5fe3f8f11440dcb1b"},
                                                     {56, "46c9907fc908ee68b1e7b8e71286a518"},
                                                     {64, "7160b8fb5e9e4023d549c3971fbaeead"},
                                                     {120, "e3eb5a6c8669ea01a8c185b8abc8a5dc"}};
  for (auto &row : lengths) {
    std::string data;
    for (size_t i = 0; i < row.first; i++) data += static_cast<char>((i * 7 + 3) & 255);
    for (size_t piece : {1, 7, 55, 56, 63, 64, 65, 200})
      EXPECT_EQ(md5(data, piece), row.second) << row.first << " in pieces of " << piece;
  }
  std::string kib;
  for (int i = 0; i < 1024; i++) kib += static_cast<char>(i & 255);
  EXPECT_EQ(md5(kib, 130), "b2ea9f7fcea831a4a63b213f41a8855b");
  // The bit count carries into its high word.
  kelMAILMD5Context c = {};
  kelMAILInitializeMD5(&c);
  c.count[0] = 0xfffffff8u;
  kelMAILUpdateMD5(&c, "a", 1);
  EXPECT_EQ(c.count[0], 0u);
  EXPECT_EQ(c.count[1], 1u);
}

}  // namespace
