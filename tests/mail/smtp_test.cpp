// The SMTP session against scripted servers: whole conversations byte by byte
// for HELO and each mechanism, each failure with what it leaves behind, the
// recipient lists, and allocation failures.

#include <time.h>

#include <vector>

#include "mail_test.h"

// A fixed clock makes the boundary and the DIGEST-MD5 cnonce known.
extern "C" time_t time(time_t *out) {
  if (out != nullptr) *out = 0x5F5E1000;
  return 0x5F5E1000;
}

namespace {

#define B "(T_T)boundary_5F5E1000(T_T)"
#define OK(command) "C: " command "\nS: 250 ok\n"
#define HELO "S: 220 x\n" OK("HELO kel-device")
#define EHLO(auth) "S: 220 x\nC: EHLO kel-device\nS: 250-kel.test\nS: 250 AUTH " auth "\n"
#define RCPT OK("MAIL FROM:<dev@kel.test>") OK("RCPT TO:<a@kel.test>") OK("RCPT TO:<b@kel.test>")
#define ALL RCPT OK("RCPT TO:<c@kel.test>") OK("RCPT TO:<d@kel.test>") "C: DATA\n"
#define DATA ALL "S: 354 go\n"                                                                      \
  "C- From: dev@kel.test\\r\\nTo: a@kel.test,\\r\\n    b@kel.test\\r\\nCc: c@kel.test\\r\\n"           \
  "Subject: =?utf-8?B?U3ViamVjdCBsaW5l?=\\r\\nMIME-version: 1.0\\r\\nContent-type: multipart/mixed; " \
  "boundary=\\\"" B "\\\"\\r\\nContent-transfer-encoding: 8bit\\r\\n\n"
#define MESSAGE DATA "C- \\r\\n--" B "\\r\\nContent-Type: text/plain; charset=\\\"utf-8\\\"\\r\\n"        \
  "Content-Transfer-Encoding: 8bit\\r\\n\\r\\nHi\\r\\n\nC- \\r\\n--" B "--\\r\\n\\r\\n.\\r\\n\n"
#define SENT MESSAGE "S: 250 queued\nC: QUIT\nS: 221 bye\neof"

const kelMAILSmtpRequest kRequest = {"a@kel.test;;b@kel.test;", "c@kel.test", ";d@kel.test", "Subject line"};

struct Road {
  const char *name;
  bool ehlo;
  const char *script;  // from the greeting to the client's close
  kelResult result = KEL_OK;
  const char *user = "kel";
  bool abort = false;  // abort right after the start
};

const Road kRoads[] = {
    {"Helo", false, HELO SENT},
    // No AUTH line: no authentication, whatever the device's user.
    {"EhloWithoutAuth", true, "S: 220 x\nC: EHLO kel-device\nS: 250-kel.test\nS: 250 HELP\n" SENT},
    // CRAM-MD5 first, whatever the server's order.
    {"CramMd5", true, EHLO("LOGIN CRAM-MD5 PLAIN") "C: AUTH CRAM-MD5\n"
     "S: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\n"
     "C: a2VsIDczM2JhODdlNjRlZDdlNDQxZjA2MmM0YWM2ZGIwMTAz\nS: 235 ok\n" SENT},
    {"Plain", true, "S: 220 x\nC: EHLO kel-device\nS: 250-AUTH=DIGEST-MD5 PLAIN\nS: 250 HELP\n"
     "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 235 ok\n" SENT},
    // Of several AUTH lines the last counts; prompts in any order.
    {"Login", true, "S: 220 x\nC: EHLO kel-device\nS: 250-AUTH PLAIN\nS: 250 AUTH LOGIN\nC: AUTH LOGIN\n"
     "S: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\nS: 334 VXNlcm5hbWU6\nC: a2Vs\nS: 235 ok\n" SENT},
    {"DigestMd5", true, EHLO("DIGEST-MD5") "C: AUTH DIGEST-MD5\n"
     "S: 334 bm9uY2U9Im4wbmNlIixyZWFsbT0ia2VsLnRlc3QiLHFvcD0iYXV0aCxhdXRoLWludCIsY2hhcnNldD11dGYt"
     "OCxhbGdvcml0aG09bWQ1LXNlc3M=\n"
     "C: Y2hhcnNldD11dGYtOCx1c2VybmFtZT0ia2VsIixyZWFsbT0ia2VsLnRlc3QiLG5vbmNlPSJuMG5jZSIsbmM9MD"
     "AwMDAwMDEsY25vbmNlPSJibTl5ZEdoeGRXRnljbmsxWmpWbE1UQXdNQT09IixkaWdlc3QtdXJpPSJzbXRwLzEyNy4w"
     "LjAuMSIscmVzcG9uc2U9MzdiYWM2MTIxM2JhNGE2MzhhYjJiNTJmYzQxZDNjOTgscW9wPSJhdXRoIg==\n"
     "S: 334 cnNwYXV0aD0wMTIz\nC: \nS: 235 ok\n" SENT},
    // realm="r",nonce="n",qop="auth", and success without a rspauth step.
    {"DigestMd5WithoutRspauth", true, EHLO("DIGEST-MD5") "C: AUTH DIGEST-MD5\n"
     "S: 334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\n"
     "C: Y2hhcnNldD11dGYtOCx1c2VybmFtZT0ia2VsIixyZWFsbT0iciIsbm9uY2U9Im4iLG5jPTAwMDAwMDAxLGNub25jZT0iYm05"
     "eWRHaHhkV0Z5Y25rMVpqVmxNVEF3TUE9PSIsZGlnZXN0LXVyaT0ic210cC8xMjcuMC4wLjEiLHJlc3BvbnNlPWY0ZGZkZjMxNmFh"
     "MTdmNGUxYWI3MjJjODhjOWQ1ZDBlLHFvcD0iYXV0aCI=\nS: 235 ok\n" SENT},
    // Abort sends nothing; a refused message gets no QUIT, a refused QUIT fails the end.
    {"Abort", false, HELO DATA "eof", KEL_OK, "kel", true},
    {"MessageRefused", false, HELO MESSAGE "S: 554 rejected\neof", KEL_MAIL_ERR_REPLY},
    {"QuitRefused", false, HELO MESSAGE "S: 250 queued\nC: QUIT\nS: 500 what\neof", KEL_MAIL_ERR_REPLY},
    // From here the start fails: the socket closes without QUIT, the pool is back
    // at zero and the caller's cell keeps the freed record's address.
    {"Greeting4xx", false, "S: 421 busy\neof", KEL_MAIL_ERR_REPLY},
    // The first refusal ends the envelope: no Cc or Bcc is tried.
    {"RecipientRefused", false, HELO RCPT "C: RCPT TO:<c@kel.test>\nS: 550 unknown\neof", KEL_MAIL_ERR_REPLY},
    {"DataAnsweredWith2xx", false, HELO ALL "S: 250 ok\neof", KEL_MAIL_ERR_REPLY},
    {"AuthWithoutUser", true, EHLO("PLAIN") "eof", KEL_MAIL_ERR_REPLY, ""},
    // Names are case-sensitive.
    {"LowerCaseNames", true, EHLO("cram-md5 plain login digest-md5") "eof", KEL_MAIL_ERR_UNSUPPORTED},
    {"CramMd5Refused", true, EHLO("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 504 no\neof", KEL_MAIL_ERR_REPLY},
    {"PlainAnsweredWith3xx", true, EHLO("PLAIN") "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 334 \neof",
     KEL_MAIL_ERR_REPLY},
    // "User" is shorter than its word; a 3xx with no text is an empty prompt.
    {"LoginShortPrompt", true, EHLO("LOGIN") "C: AUTH LOGIN\nS: 334 VXNlcg==\neof", KEL_MAIL_ERR_UNSUPPORTED},
    {"LoginEmptyPrompt", true, EHLO("LOGIN") "C: AUTH LOGIN\nS: 334\neof", KEL_MAIL_ERR_UNSUPPORTED},
    {"DigestRefused", true, EHLO("DIGEST-MD5") "C: AUTH DIGEST-MD5\nS: 235 ok\neof", KEL_MAIL_ERR_REPLY},
    // nonce="n",qop="auth" without a realm.
    {"DigestWithoutRealm", true, EHLO("DIGEST-MD5") "C: AUTH DIGEST-MD5\nS: 334 bm9uY2U9Im4iLHFvcD0iYXV0aCI=\neof",
     KEL_MAIL_ERR_UNSUPPORTED},
};

class Smtp : public mt::Mail {
 protected:
  void SetUp() override {
    mt::Mail::SetUp();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, 1);
    const std::pair<uint32_t, const char *> texts[] = {
        {KEL_STATUS_SMTP_SERVER, "127.0.0.1"}, {KEL_STATUS_HELO_NAME, "kel-device"},
        {KEL_STATUS_MAIL_SENDER, "dev@kel.test"}, {KEL_STATUS_SMTP_AUTH_PASSWORD, "secret"}};
    for (auto &t : texts) kelHostStatusSetText(t.first, t.second);
  }
  // Plays road and sends one text part through it; the first failure counts.
  kelMAILSession *session = nullptr;
  kelResult send(kt::TcpPeer &peer, const Road &road) {
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, peer.port());
    kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, road.ehlo);
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_USER, road.user);
    kt::play(peer, road.script).start();
    session = nullptr;
    kelResult r = kelMAILStartSmtp(&kRequest, &session);
    const kelMAILSmtpPart text = {nullptr, KEL_MAIL_PART_KIND_TEXT};
    if (r != KEL_OK) return r;
    if (road.abort) return kelMAILAbortEndSmtp(session);
    if ((r = kelMAILOpenSmtp(session, &text)) == KEL_OK) r = kelMAILWriteSmtp(session, "Hi\n", 3);
    if (r == KEL_OK) r = kelMAILCloseSmtp(session);
    return r == KEL_OK ? kelMAILEndSmtp(session) : (kelMAILAbortEndSmtp(session), r);
  }
};

class Roads : public Smtp, public ::testing::WithParamInterface<Road> {};

TEST_P(Roads, ExactBytesFromGreetingToClose) {
  kt::TcpPeer peer;
  EXPECT_EQ(send(peer, GetParam()), GetParam().result);
  EXPECT_NE(session, nullptr);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

INSTANTIATE_TEST_SUITE_P(Smtp, Roads, ::testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<Road> &i) { return i.param.name; });

// Every road that succeeds, with its nth allocation failing, for every n.
TEST_F(Smtp, EveryAllocationMayFail) {
  for (const Road &road : kRoads) {
    bool done = road.result != KEL_OK || road.abort;
    for (size_t n = 1; !done && n < 100; n++) {
      SCOPED_TRACE(std::string(road.name) + " allocation " + std::to_string(n));
      kt::TcpPeer peer;
      size_t before = kelHostPoolAllocations();
      kelHostPoolFailAt(n);
      kelResult result = send(peer, road);
      done = kelHostPoolAllocations() - before < n;
      EXPECT_EQ(result, done ? KEL_OK : KEL_MAIL_ERR_MEMORY);
      kelHostPoolFailAt(0);
      EXPECT_EQ(kelHostPoolBlocksInUse(), 0u);
      // A run that ended before it connected leaves the peer waiting.
      int32_t idle = -1;
      EXPECT_EQ(kelMAILConnect(&idle, "127.0.0.1", peer.port()), KEL_OK);
      kelMAILCloseSocket(idle);
      peer.finish();
    }
    EXPECT_TRUE(done);
  }
}

TEST_F(Smtp, RefusalsBeforeAnyTraffic) {
  const std::string tooLong(128, 'x');
  const kelMAILSmtpRequest none = {";;", nullptr, nullptr, ""}, null = {nullptr, nullptr, nullptr, nullptr},
                           longCc = {"a", tooLong.c_str(), nullptr, ""};  // a Cc too long for its entry
  const std::pair<kelMAILSmtpRequest, kelResult> rows[] = {
      {kRequest, KEL_MAIL_ERR_DISABLED}, {kRequest, KEL_MAIL_ERR_STATUS}, {none, KEL_MAIL_ERR_NO_RECIPIENT},
      {null, KEL_MAIL_ERR_NO_RECIPIENT}, {longCc, KEL_MAIL_ERR_NO_RECIPIENT}};
  for (const auto &row : rows) {
    bool early = row.second != KEL_MAIL_ERR_NO_RECIPIENT;  // the flag's failures leave the cell null
    kelHostStatusReset();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, row.second != KEL_MAIL_ERR_DISABLED);
    if (row.second == KEL_MAIL_ERR_STATUS) kelHostStatusFail(KEL_STATUS_SMTP_ENABLED, 5);
    session = reinterpret_cast<kelMAILSession *>(this);
    EXPECT_EQ(kelMAILStartSmtp(&row.first, &session), row.second);
    EXPECT_EQ(session == nullptr, early);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_SMTP_SERVER), 0u);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_POP_BEFORE_SMTP), early ? 0u : 1u);  // read before the lists
  }
}

TEST_F(Smtp, AddressLists) {
  const std::string longest(127, 'x');
  const std::pair<std::string, std::vector<std::string>> rows[] = {  // none: KEL_MAIL_ERR_NO_RECIPIENT
      {"a@kel.test;;b@kel.test;", {"a@kel.test", "b@kel.test"}}, {longest + ";x", {longest, "x"}},
      {";; ;a, b", {" ", "a, b"}},  // nothing is trimmed, no comma separates
      {"", {}}, {";;;", {}}, {"a;" + longest + "x", {}}};  // the last: too long for its entry
  for (const auto &row : rows) {
    kelMAILAddress *list = nullptr;
    int32_t count = -1;
    EXPECT_EQ(kelMAILParseAddressList(&list, &count, row.first.c_str()),
              row.second.empty() ? KEL_MAIL_ERR_NO_RECIPIENT : KEL_OK) << row.first;
    EXPECT_EQ(std::vector<std::string>(list, list + count), row.second) << row.first;
    kelMAILFree(list);
  }
}

}  // namespace
