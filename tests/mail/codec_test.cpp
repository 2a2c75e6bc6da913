// The mail client's arithmetic on plain buffers: Base64 against published
// vectors and a reference on random data, the decoder's rules for malformed
// text; MD5 across block boundaries and in pieces; HMAC-MD5; the DIGEST-MD5
// challenge parse and reply.

#include <stdlib.h>
#include <string.h>

#include "mail_test.h"

namespace {

class Codec : public Mail {};

// The bytes of a block from the pool, which goes back.
std::string take(char *block, size_t size) {
  std::string bytes(block, size);
  orvOSWOrgFreeMemPart(0, block);
  return bytes;
}

// The whole block that decoding text gives (its size is the text's, at least 1).
std::string decode(const std::string &text) {
  return take(kelMAILDecodeBase64(text.data(), uint32_t(text.size())), text.empty() ? 1 : text.size());
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
  for (srand(7); all.size() < 300;) all += static_cast<char>(rand() & 255);
  for (uint32_t n = 0; n <= 300; n++) {
    std::string data = all.substr(0, n);
    std::string encoded = take(kelMAILEncodeBase64(data.data(), n), n * 4 / 3 + 4);  // the documented block
    encoded.resize(strlen(encoded.c_str()));
    EXPECT_EQ(encoded, n < 7 ? vectors[n] : reference(data)) << n;
    EXPECT_EQ(decode(encoded), data + std::string(encoded.size() - n + (n == 0), '\0')) << n;
  }
  // Malformed text: trailing characters dropped, "=" ends everything, spare
  // bits stay, "=" first reads as 63, any byte outside the alphabet as "/".
  using S = std::string;
  const S rows[][2] = {
      {"Zm9vYg", S("foo\0\0\0", 6)}, {"Zg==Zm9v", S("f\0\0\0\0\0\0\0", 8)}, {"Zm8=Zm9v", S("fo\0\0\0\0\0\0", 8)},
      {"Zh==", S("f\x10\0\0", 4)}, {"=Zm9", S("\xfd\x99\xbd\0", 4)}, {"Zm9*", S("fo\x7f\0", 4)},
      {S("A\0AA", 4), S("\x03\xf0\0\0", 4)}, {"Zm9v\r\nYmFy", S("foo\xff\xf6\x26\0\0\0\0", 10)}};
  for (auto &row : rows) EXPECT_EQ(decode(row[0]), row[1]) << row[0];
}

std::string text(const unsigned char *digest) {
  char out[40] = "not written";
  kelMAILDigestText(digest, out);
  return std::string(out, 33);
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
  return text(digest);
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
    for (size_t piece : {1, 55, 64, 65, 2000})
      EXPECT_EQ(md5(row.first, piece), std::string(row.second, 33)) << row.first.size() << "/" << piece;
}

TEST(HmacMd5, PublishedVectors) {
  const std::string rows[][3] = {  // key, text, digest
      // RFC 2202 cases 1 and 2 (RFC 2104's), and 6: a key longer than a block is hashed first.
      {std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
      {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      // RFC 2195's CRAM-MD5 example.
      {"tanstaaftanstaaf", "<1896.697170952@postoffice.reston.mci.net>", "b913a602c7eda7a495b4e6e7334d3890"},
  };
  for (const auto &row : rows) {
    unsigned char digest[16];
    kelMAILHmacMd5(row[0].data(), uint32_t(row[0].size()), row[1].data(), uint32_t(row[1].size()), digest);
    EXPECT_EQ(text(digest), row[2] + '\0') << row[1];
  }
}

TEST(DigestMd5, ChallengeParse) {
  const std::pair<std::string, std::string> rows[] = {  // challenge, "realm|nonce|qop" or a failure
      // Any order; of a qop list the first option; other directives unread.
      {"qop=\"auth-int,auth\",charset=utf-8,nonce=\"a,b\",realm=\"\"", "|a,b|auth-int"},
      {"nonce=\"n\",qop=\"auth\"", "no realm"},
      {"realm=\"r\",nonce=\"n\",qop=auth,x", "r|n|uth"},  // unquoted: the fixed offset eats a letter
      // A key at the very end, a value too long for its buffer.
      {"qop=\"auth\",nonce=\"n\",realm=", "at the end"},
      {"realm=\"r\",qop=\"auth\",nonce=\"" + std::string(256, 'n') + "\"", "too long for its buffer"},
  };
  for (const auto &row : rows) {
    char realm[KEL_MAIL_DIGEST_VALUE_SIZE], nonce[sizeof realm], qop[sizeof realm];
    kelResult result = kelMAILDigestParseChallenge(row.first.c_str(), realm, nonce, qop);
    EXPECT_EQ(result, row.second.find('|') != row.second.npos ? KEL_OK : KEL_MAIL_ERR_UNSUPPORTED) << row.first;
    EXPECT_EQ(result ? row.second : std::string(realm) + "|" + nonce + "|" + qop, row.second);
  }
}

// RFC 2831's worked example, with its digest URI and cnonce; auth-int (and
// auth-conf) put 32 zeros behind the URI in A2; other options are refused.
TEST(DigestMd5, Reply) {
  kelMAILDigestValues values = {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "auth", "OA6MHXh6VqTrRk",
                                "imap/elwood.innosoft.com"};
  char work[KEL_MAIL_DIGEST_VALUE_SIZE];
  ASSERT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_OK);
  EXPECT_STREQ(work, "charset=utf-8,username=\"chris\",realm=\"elwood.innosoft.com\",nonce=\"OA6MG9tEQGm2hh\","
                     "nc=00000001,cnonce=\"OA6MHXh6VqTrRk\",digest-uri=\"imap/elwood.innosoft.com\","
                     "response=d388dad90d4bbd760a152321f2143af7,qop=\"auth\"");
  values.qop = "auth-int";
  ASSERT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_OK);
  EXPECT_NE(strstr(work, "response=89fdc8198a2499ec4b6d0045c00ae24a,"), nullptr) << work;
  values.qop = "uth";
  EXPECT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_MAIL_ERR_UNSUPPORTED);
}

}  // namespace
