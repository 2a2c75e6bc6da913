// The SMTP client's authentication arithmetic on plain buffers: HMAC-MD5,
// the DIGEST-MD5 challenge parse and the reply computation.

#include <string.h>

#include <string>

#include "mail_test.h"

namespace {

std::string hex(const unsigned char *digest) {
  char text[33];
  kelMAILDigestText(digest, text);
  return text;
}

TEST(HmacMd5, PublishedVectors) {
  struct Row {
    std::string key, text, digest;
  };
  const Row rows[] = {
      // RFC 2202 test cases 1 to 7 (the first three are RFC 2104's).
      {std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
      {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6"},
      {kt::unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), std::string(50, '\xcd'),
       "697eaf0aca3a3aea3a75164746ffaa79"},
      {std::string(16, '\x0c'), "Test With Truncation", "56461ef2342edc00f9bab995690efd4c"},
      {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {std::string(80, '\xaa'),
       "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
       "6f630fad67cda0ee1fb1f562db3aa53e"},
      // A key of exactly one block is used as it is (cases 6 and 7 hash theirs).
      {std::string(64, 'k'), "x", "f38420ee2e6c7cd5d9977bffba49d984"},
      // RFC 2195's CRAM-MD5 example.
      {"tanstaaftanstaaf", "<1896.697170952@postoffice.reston.mci.net>",
       "b913a602c7eda7a495b4e6e7334d3890"},
  };
  for (const Row &row : rows) {
    unsigned char digest[16];
    kelMAILHmacMd5(row.key.data(), static_cast<uint32_t>(row.key.size()), row.text.data(),
                   static_cast<uint32_t>(row.text.size()), digest);
    EXPECT_EQ(hex(digest), row.digest) << row.text;
  }
}

TEST(DigestMd5, ChallengeParse) {
  const std::string big(255, 'n');
  const std::pair<std::string, std::string> rows[] = {  // challenge, "realm|nonce|qop" or a failure
      {"realm=\"r\",nonce=\"n\",qop=\"auth\"", "r|n|auth"},
      // Any order; of a qop list the first option; other directives unread.
      {"qop=\"auth-int,auth\",charset=utf-8,nonce=\"a,b\",realm=\"\"", "|a,b|auth-int"},
      {"nonce=\"n\",qop=\"auth\"", "no realm"},
      {"realm=\"r\",qop=\"auth\"", "no nonce"},
      {"realm=\"r\",nonce=\"n\"", "no qop"},
      // An unquoted qop loses its first letter to the fixed offset.
      {"realm=\"r\",nonce=\"n\",qop=auth,x", "r|n|uth"},
      // Quotes that never close, a key at the very end.
      {"qop=\"auth\",nonce=\"n\",realm=\"open", "open"},
      {"qop=\"auth\",nonce=\"n\",realm=", "at the end"},
      {"realm=\"r\",nonce=\"n\",qop=\"auth", "open qop"},
      // A value fills its buffer with 255 bytes; one more doesn't fit.
      {"realm=\"r\",qop=\"auth\",nonce=\"" + big + "\"", "r|" + big + "|auth"},
      {"realm=\"r\",qop=\"auth\",nonce=\"" + big + "n\"", "too long"},
  };
  for (const auto &row : rows) {
    char realm[KEL_MAIL_DIGEST_VALUE_SIZE], nonce[KEL_MAIL_DIGEST_VALUE_SIZE], qop[KEL_MAIL_DIGEST_VALUE_SIZE];
    kelResult result = kelMAILDigestParseChallenge(row.first.c_str(), realm, nonce, qop);
    bool good = row.second.find('|') != std::string::npos;
    EXPECT_EQ(result, good ? KEL_OK : KEL_MAIL_ERR_UNSUPPORTED) << row.first;
    EXPECT_EQ(result ? row.second : std::string(realm) + "|" + nonce + "|" + qop, row.second);
  }
}

TEST(DigestMd5, ReplyOfThePublishedExample) {
  // RFC 2831's worked example, with its digest URI and cnonce.
  kelMAILDigestValues values = {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "auth",
                                "OA6MHXh6VqTrRk", "imap/elwood.innosoft.com"};
  char work[KEL_MAIL_DIGEST_VALUE_SIZE];
  ASSERT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_OK);
  EXPECT_STREQ(work,
               "charset=utf-8,username=\"chris\",realm=\"elwood.innosoft.com\","
               "nonce=\"OA6MG9tEQGm2hh\",nc=00000001,cnonce=\"OA6MHXh6VqTrRk\","
               "digest-uri=\"imap/elwood.innosoft.com\","
               "response=d388dad90d4bbd760a152321f2143af7,qop=\"auth\"");
  // auth-int and auth-conf put 32 zeros behind the URI in A2.
  const char *withZeros[][2] = {{"auth-int", "response=89fdc8198a2499ec4b6d0045c00ae24a,"},
                                {"auth-conf", "response=c7d2efa41f50398d289b732a0c09f381,"}};
  for (auto &row : withZeros) {
    values.qop = row[0];
    ASSERT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_OK);
    EXPECT_NE(strstr(work, row[1]), nullptr) << work;
  }
  values.qop = "uth";
  EXPECT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_MAIL_ERR_UNSUPPORTED);
  values.qop = "AUTH";
  EXPECT_EQ(kelMAILDigestReply(work, "chris", "secret", &values), KEL_MAIL_ERR_UNSUPPORTED);
}

TEST(DigestMd5, ReplyThatWouldNotFitIsRefused) {
  // The reply is 161 bytes plus user, realm, nonce, server name and qop:
  // with qop "auth" and the server name "h" 89 bytes are left for the rest.
  const std::string user(40, 'u'), realm(20, 'r');
  for (size_t nonce : {29u, 30u}) {
    const std::string n(nonce, 'n');
    kelMAILDigestValues values = {realm.c_str(), n.c_str(), "auth", "bm9ydGhxdWFycnk1ZjVlMTAwMA==",
                                  "smtp/h"};
    char work[KEL_MAIL_DIGEST_VALUE_SIZE];
    EXPECT_EQ(kelMAILDigestReply(work, user.c_str(), "pw", &values),
              nonce == 29 ? KEL_OK : KEL_MAIL_ERR_UNSUPPORTED);
    if (nonce == 29) {
      EXPECT_EQ(strlen(work), 255u);
    }
  }
}

}  // namespace
