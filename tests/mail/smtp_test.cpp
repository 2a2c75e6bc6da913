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
    // realm="r",nonce="n",qop="auth", and success right after the response, without
    // the rspauth step that real servers send (see the Exim test).
    {"DigestMd5", true, EHLO("DIGEST-MD5") "C: AUTH DIGEST-MD5\n"
     "S: 334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\n"
     "C: Y2hhcnNldD11dGYtOCx1c2VybmFtZT0ia2VsIixyZWFsbT0iciIsbm9uY2U9Im4iLG5jPTAwMDAwMDAxLGNub25jZT0iYm05"
     "eWRHaHhkV0Z5Y25rMVpqVmxNVEF3TUE9PSIsZGlnZXN0LXVyaT0ic210cC8xMjcuMC4wLjEiLHJlc3BvbnNlPWY0ZGZkZjMxNmFh"
     "MTdmNGUxYWI3MjJjODhjOWQ1ZDBlLHFvcD0iYXV0aCI=\nS: 235 ok\n" SENT},
    // Abort sends nothing; a refused message gets no QUIT.
    {"Abort", false, HELO DATA "eof", KEL_OK, "kel", true},
    {"MessageRefused", false, HELO MESSAGE "S: 554 rejected\neof", KEL_MAIL_ERR_REPLY},
    // From here the start fails: the socket closes without QUIT, the pool is back
    // at zero and the caller's cell keeps the freed record's address.
    {"Greeting4xx", false, "S: 421 busy\neof", KEL_MAIL_ERR_REPLY},
    {"ClosedMidLine", false, "S- 220 x\nclose", KEL_MAIL_ERR_IO},  // an I/O failure, never SIGPIPE
    // The first refusal ends the envelope: no Cc or Bcc is tried.
    {"RecipientRefused", false, HELO RCPT "C: RCPT TO:<c@kel.test>\nS: 550 unknown\neof", KEL_MAIL_ERR_REPLY},
    {"DataAnsweredWith2xx", false, HELO ALL "S: 250 ok\neof", KEL_MAIL_ERR_REPLY},
    {"AuthWithoutUser", true, EHLO("PLAIN") "eof", KEL_MAIL_ERR_REPLY, ""},
    // Names are case-sensitive.
    {"LowerCaseNames", true, EHLO("cram-md5 plain login digest-md5") "eof", KEL_MAIL_ERR_UNSUPPORTED},
    {"CramMd5Refused", true, EHLO("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 504 no\neof", KEL_MAIL_ERR_REPLY},
    // A 3xx with no text is an empty prompt.
    {"LoginEmptyPrompt", true, EHLO("LOGIN") "C: AUTH LOGIN\nS: 334\neof", KEL_MAIL_ERR_UNSUPPORTED},
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

// Then, on a road that succeeds, its nth allocation fails, for every n: the
// start or the end fails on memory and gives everything back.
TEST_P(Roads, ExactBytesFromGreetingToClose) {
  kt::TcpPeer peer;
  EXPECT_EQ(send(peer, GetParam()), GetParam().result);
  EXPECT_NE(session, nullptr);
  EXPECT_TRUE(peer.finish()) << peer.failure();
  for (size_t n = 1, done = GetParam().result != KEL_OK || GetParam().abort; !done; n++) {
    kt::TcpPeer again;
    size_t before = kelHostPoolAllocations();
    kelHostPoolFailAt(n);
    kelResult result = send(again, GetParam());
    done = kelHostPoolAllocations() - before < n;
    EXPECT_EQ(result, done ? KEL_OK : KEL_MAIL_ERR_MEMORY) << n;
    EXPECT_EQ(kelHostPoolBlocksInUse(), 0u) << n;
    int32_t idle = -1;  // a run that ended before it connected leaves the peer waiting
    EXPECT_EQ(kelMAILConnect(&idle, "127.0.0.1", again.port()), KEL_OK);
    kelMAILCloseSocket(idle);
    again.finish();
  }
}

INSTANTIATE_TEST_SUITE_P(Smtp, Roads, ::testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<Road> &i) { return i.param.name; });

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
