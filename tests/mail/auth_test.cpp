// The SMTP client's authentication arithmetic on plain buffers: HMAC-MD5,
// the DIGEST-MD5 challenge parse and the reply computation.

#include <string.h>

#include <string>

#include "mail_test.h"

namespace {

TEST(HmacMd5, PublishedVectors) {
  const std::string rows[][3] = {  // key, text, digest
      // RFC 2202 cases 1, 2, 3 (RFC 2104's), 4 and 6 (a key longer than a block is hashed first).
      {std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
      {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6"},
      {kt::unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), std::string(50, '\xcd'),
       "697eaf0aca3a3aea3a75164746ffaa79"},
      {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {std::string(64, 'k'), "x", "f38420ee2e6c7cd5d9977bffba49d984"},  // exactly one block: as it is
      // RFC 2195's CRAM-MD5 example.
      {"tanstaaftanstaaf", "<1896.697170952@postoffice.reston.mci.net>", "b913a602c7eda7a495b4e6e7334d3890"},
  };
  for (const auto &row : rows) {
    unsigned char digest[16];
    char text[33];
    kelMAILHmacMd5(row[0].data(), uint32_t(row[0].size()), row[1].data(), uint32_t(row[1].size()), digest);
    kelMAILDigestText(digest, text);
    EXPECT_EQ(text, row[2]) << row[1];
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
      {"realm=\"r\",nonce=\"n\",qop=auth,x", "r|n|uth"},  // unquoted: the fixed offset eats a letter
      // Quotes that never close, a key at the very end.
      {"qop=\"auth\",nonce=\"n\",realm=\"open", "open"},
      {"qop=\"auth\",nonce=\"n\",realm=", "at the end"},
      {"realm=\"r\",nonce=\"n\",qop=\"auth", "open qop"},
      // A value fills its buffer with 255 bytes; one more doesn't fit.
      {"realm=\"r\",qop=\"auth\",nonce=\"" + big + "\"", "r|" + big + "|auth"},
      {"realm=\"r\",qop=\"auth\",nonce=\"" + big + "n\"", "too long"},
  };
  for (const auto &row : rows) {
    char realm[KEL_MAIL_DIGEST_VALUE_SIZE], nonce[sizeof realm], qop[sizeof realm];
    kelResult result = kelMAILDigestParseChallenge(row.first.c_str(), realm, nonce, qop);
    bool good = row.second.find('|') != std::string::npos;
    EXPECT_EQ(result, good ? KEL_OK : KEL_MAIL_ERR_UNSUPPORTED) << row.first;
    EXPECT_EQ(result ? row.second : std::string(realm) + "|" + nonce + "|" + qop, row.second);
  }
}

TEST(DigestMd5, Reply) {
  const std::string u(40, 'u'), r(20, 'r'), n29(29, 'n'), n30(30, 'n');
  const char *cnonce = "OA6MHXh6VqTrRk", *uri = "imap/elwood.innosoft.com", *h = "smtp/h";
  const struct {
    const char *user;
    kelMAILDigestValues values;
    const char *reply;  // a part of the reply; null: refused
  } rows[] = {
      // RFC 2831's worked example, with its digest URI and cnonce.
      {"chris", {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "auth", cnonce, uri},
       "charset=utf-8,username=\"chris\",realm=\"elwood.innosoft.com\",nonce=\"OA6MG9tEQGm2hh\",nc=00000001,"
       "cnonce=\"OA6MHXh6VqTrRk\",digest-uri=\"imap/elwood.innosoft.com\","
       "response=d388dad90d4bbd760a152321f2143af7,qop=\"auth\""},
      // auth-int and auth-conf put 32 zeros behind the URI in A2.
      {"chris", {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "auth-int", cnonce, uri},
       "response=89fdc8198a2499ec4b6d0045c00ae24a,"},
      {"chris", {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "auth-conf", cnonce, uri},
       "response=c7d2efa41f50398d289b732a0c09f381,"},
      {"chris", {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "uth", cnonce, uri}, nullptr},
      {"chris", {"elwood.innosoft.com", "OA6MG9tEQGm2hh", "AUTH", cnonce, uri}, nullptr},
      // 161 bytes plus user, realm, nonce, server name and qop: 255 fit, 256 don't.
      {u.c_str(), {r.c_str(), n29.c_str(), "auth", "bm9ydGhxdWFycnk1ZjVlMTAwMA==", h}, "qop=\"auth\""},
      {u.c_str(), {r.c_str(), n30.c_str(), "auth", "bm9ydGhxdWFycnk1ZjVlMTAwMA==", h}, nullptr},
  };
  for (const auto &row : rows) {
    char work[KEL_MAIL_DIGEST_VALUE_SIZE];
    kelResult result = kelMAILDigestReply(work, row.user, "secret", &row.values);
    EXPECT_EQ(result, row.reply ? KEL_OK : KEL_MAIL_ERR_UNSUPPORTED) << row.values.qop;
    EXPECT_TRUE(row.reply == nullptr || strstr(work, row.reply) != nullptr) << work;
  }
}

}  // namespace
