// The SMTP session against scripted servers: the whole conversation byte by
// byte for HELO and each mechanism, the failure of each step with what it
// leaves behind, the recipient lists, and allocation failures.

#include <sys/socket.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mail_test.h"
#include "sockets.h"

// A fixed clock makes the boundary and the DIGEST-MD5 cnonce known.
extern "C" time_t time(time_t *out) {
  if (out != nullptr) *out = 0x5F5E1000;
  return 0x5F5E1000;
}

namespace {

#define BOUNDARY "(T_T)boundary_5F5E1000(T_T)"
#define HEADER(cc)                                                                                    \
  "C- From: dev@kel.test\\r\\nTo: a@kel.test,\\r\\n    b@kel.test\\r\\n" cc                            \
  "Subject: =?utf-8?B?U3ViamVjdCBsaW5l?=\\r\\nMIME-version: 1.0\\r\\nContent-type: multipart/mixed; " \
  "boundary=\\\"" BOUNDARY "\\\"\\r\\nContent-transfer-encoding: 8bit\\r\\n\n"
#define END "C- \\r\\n--" BOUNDARY "--\\r\\n\\r\\n.\\r\\n\n"
#define OK(command) "C: " command "\nS: 250 ok\n"
#define EHLO_AUTH(mechanisms) "C: EHLO kel-device\nS: 250-kel.test\nS: 250 AUTH " mechanisms "\n"
#define ENVELOPE OK("MAIL FROM:<dev@kel.test>") OK("RCPT TO:<a@kel.test>") OK("RCPT TO:<b@kel.test>")
#define X64 "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX"

const kelMAILSmtpRequest kRequest = {"a@kel.test;;b@kel.test;", "c@kel.test", ";d@kel.test",
                                     "Subject line"};

class Smtp : public mt::Mail {
 protected:
  kelMAILSession *session = nullptr;
  void SetUp() override {
    mt::Mail::SetUp();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, 1);
    kelHostStatusSetText(KEL_STATUS_SMTP_SERVER, "127.0.0.1");
    kelHostStatusSetText(KEL_STATUS_HELO_NAME, "kel-device");
    kelHostStatusSetText(KEL_STATUS_MAIL_SENDER, "dev@kel.test");
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_USER, "kel");
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_PASSWORD, "secret");
  }
  kelResult start(kt::TcpPeer &peer, const std::string &script, bool ehlo,
                  const kelMAILSmtpRequest &request = kRequest) {
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, peer.port());
    kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, ehlo ? 1 : 0);
    kt::play(peer, script);
    peer.start();
    return kelMAILStartSmtp(&request, &session);
  }
};

struct Script {
  const char *name;
  bool ehlo;
  const char *script;
  kelResult result = KEL_OK;
  const char *user = "kel";
};

const Script kHellos[] = {
    {"Helo", false, OK("HELO kel-device")},
    // No AUTH line: no authentication, whatever the device's user.
    {"EhloWithoutAuth", true, "C: EHLO kel-device\nS: 250-kel.test\nS: 250-SIZE 1000\nS: 250 HELP\n"},
    // CRAM-MD5 first, whatever the server's order.
    {"CramMd5", true,
     EHLO_AUTH("LOGIN CRAM-MD5 PLAIN") "C: AUTH CRAM-MD5\n"
     "S: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\n"
     "C: a2VsIDczM2JhODdlNjRlZDdlNDQxZjA2MmM0YWM2ZGIwMTAz\nS: 235 ok\n"},
    {"Plain", true,
     "C: EHLO kel-device\nS: 250-AUTH=DIGEST-MD5 PLAIN\nS: 250 HELP\n"
     "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 235 ok\n"},
    // Of several AUTH lines the last counts; prompts in any order.
    {"Login", true,
     "C: EHLO kel-device\nS: 250-AUTH PLAIN\nS: 250 AUTH LOGIN\nC: AUTH LOGIN\n"
     "S: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\nS: 334 VXNlcm5hbWU6\nC: a2Vs\nS: 235 ok\n"},
    {"DigestMd5", true,
     EHLO_AUTH("DIGEST-MD5") "C: AUTH DIGEST-MD5\n"
     "S: 334 bm9uY2U9Im4wbmNlIixyZWFsbT0ia2VsLnRlc3QiLHFvcD0iYXV0aCxhdXRoLWludCIsY2hhcnNldD11dGYt"
     "OCxhbGdvcml0aG09bWQ1LXNlc3M=\n"
     "C: Y2hhcnNldD11dGYtOCx1c2VybmFtZT0ia2VsIixyZWFsbT0ia2VsLnRlc3QiLG5vbmNlPSJuMG5jZSIsbmM9MD"
     "AwMDAwMDEsY25vbmNlPSJibTl5ZEdoeGRXRnljbmsxWmpWbE1UQXdNQT09IixkaWdlc3QtdXJpPSJzbXRwLzEyNy4w"
     "LjAuMSIscmVzcG9uc2U9MzdiYWM2MTIxM2JhNGE2MzhhYjJiNTJmYzQxZDNjOTgscW9wPSJhdXRoIg==\n"
     "S: 334 cnNwYXV0aD0wMTIz\nC: \nS: 235 ok\n"},
};

class Conversation : public Smtp, public ::testing::WithParamInterface<Script> {};

TEST_P(Conversation, FromGreetingToQuit) {
  kt::TcpPeer peer;
  ASSERT_EQ(start(peer,
                  std::string("S: 220 kel.test ESMTP\n") + GetParam().script + ENVELOPE +
                      OK("RCPT TO:<c@kel.test>") OK("RCPT TO:<d@kel.test>") "C: DATA\nS: 354 go\n" HEADER(
                          "Cc: c@kel.test\\r\\n") END "S: 250 queued\nC: QUIT\nS: 221 bye\neof",
                  GetParam().ehlo),
            KEL_OK);
  EXPECT_EQ(kelMAILEndSmtp(session), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

INSTANTIATE_TEST_SUITE_P(Smtp, Conversation, ::testing::ValuesIn(kHellos),
                         [](const testing::TestParamInfo<Script> &i) { return i.param.name; });

// Each failure closes the socket without QUIT and frees all memory (the
// fixture's pool check); the cell keeps the freed record's address.
const Script kFailures[] = {
    {"Greeting4xx", false, "S: 421 busy\n", KEL_MAIL_ERR_REPLY},
    {"Greeting5xx", false, "S: 554 go away\n", KEL_MAIL_ERR_REPLY},
    {"HeloRefused", false, "S: 220 x\nC: HELO kel-device\nS: 501 no\n", KEL_MAIL_ERR_REPLY},
    {"SenderRefused", false, "S: 220 x\n" OK("HELO kel-device") "C: MAIL FROM:<dev@kel.test>\nS: 451 later\n",
     KEL_MAIL_ERR_REPLY},
    // The first refusal ends the envelope: no Cc or Bcc is tried.
    {"SecondRecipientRefused", false,
     "S: 220 x\n" OK("HELO kel-device") OK("MAIL FROM:<dev@kel.test>") OK("RCPT TO:<a@kel.test>")
     "C: RCPT TO:<b@kel.test>\nS: 550 unknown\n", KEL_MAIL_ERR_REPLY},
    {"DataAnsweredWith2xx", false,
     "S: 220 x\n" OK("HELO kel-device") ENVELOPE OK("RCPT TO:<c@kel.test>") OK("RCPT TO:<d@kel.test>")
     "C: DATA\nS: 250 ok\n", KEL_MAIL_ERR_REPLY},
    {"EhloRefusedAtALaterLine", true, "S: 220 x\nC: EHLO kel-device\nS: 250-kel.test\nS: 421 going\n",
     KEL_MAIL_ERR_REPLY},
    {"AuthWithoutUser", true, "S: 220 x\n" EHLO_AUTH("PLAIN"), KEL_MAIL_ERR_REPLY, ""},
    // Names are case-sensitive; a name beyond 255 bytes of the line is lost.
    {"OnlyLowerCaseNames", true, "S: 220 x\n" EHLO_AUTH("cram-md5 plain login digest-md5"),
     KEL_MAIL_ERR_UNSUPPORTED},
    {"NameBehindTheLimit", true, "S: 220 x\n" EHLO_AUTH(X64 X64 X64 X64 " PLAIN"), KEL_MAIL_ERR_UNSUPPORTED},
    {"CramMd5NotAccepted", true, "S: 220 x\n" EHLO_AUTH("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 504 no\n",
     KEL_MAIL_ERR_REPLY},
    {"CramMd5WrongPassword", true,
     "S: 220 x\n" EHLO_AUTH("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 334 VXNlcm5hbWU6\n"
     "C: a2VsIDQ5MGMzZGJiZDcwN2JkZTk0ZWViY2RjNTFkZjk2YzNj\nS: 535 no\n", KEL_MAIL_ERR_REPLY},
    {"PlainAnsweredWith3xx", true, "S: 220 x\n" EHLO_AUTH("PLAIN") "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 334 \n",
     KEL_MAIL_ERR_REPLY},
    {"LoginWrongPassword", true,
     "S: 220 x\n" EHLO_AUTH("LOGIN") "C: AUTH LOGIN\nS: 334 VXNlcm5hbWU6\nC: a2Vs\nS: 334 UGFzc3dvcmQ6\n"
     "C: c2VjcmV0\nS: 535 no\n", KEL_MAIL_ERR_REPLY},
    // "User" is shorter than its word; a 3xx with no text is an empty prompt.
    {"LoginShortPrompt", true, "S: 220 x\n" EHLO_AUTH("LOGIN") "C: AUTH LOGIN\nS: 334 VXNlcg==\n",
     KEL_MAIL_ERR_UNSUPPORTED},
    {"LoginEmptyPrompt", true, "S: 220 x\n" EHLO_AUTH("LOGIN") "C: AUTH LOGIN\nS: 334\n",
     KEL_MAIL_ERR_UNSUPPORTED},
    {"DigestNotAccepted", true, "S: 220 x\n" EHLO_AUTH("DIGEST-MD5") "C: AUTH DIGEST-MD5\nS: 235 ok\n",
     KEL_MAIL_ERR_REPLY},
    // nonce="n",qop="auth" without a realm.
    {"DigestWithoutRealm", true,
     "S: 220 x\n" EHLO_AUTH("DIGEST-MD5") "C: AUTH DIGEST-MD5\nS: 334 bm9uY2U9Im4iLHFvcD0iYXV0aCI=\n",
     KEL_MAIL_ERR_UNSUPPORTED},
};

class Failures : public Smtp, public ::testing::WithParamInterface<Script> {};

TEST_P(Failures, CloseWithoutQuitAndFreeEverything) {
  kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_USER, GetParam().user);
  kt::TcpPeer peer;
  EXPECT_EQ(start(peer, std::string(GetParam().script) + "eof", GetParam().ehlo), GetParam().result);
  EXPECT_NE(session, nullptr);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

INSTANTIATE_TEST_SUITE_P(Smtp, Failures, ::testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Script> &i) { return i.param.name; });

TEST_F(Smtp, RefusalsBeforeAnyTraffic) {
  const std::string tooLong(128, 'x');
  const struct {
    kelMAILSmtpRequest request;
    kelResult result;
  } rows[] = {
      {kRequest, KEL_MAIL_ERR_DISABLED},
      {kRequest, KEL_MAIL_ERR_STATUS},
      {{";;", nullptr, nullptr, ""}, KEL_MAIL_ERR_NO_RECIPIENT},
      {{nullptr, nullptr, nullptr, nullptr}, KEL_MAIL_ERR_NO_RECIPIENT},
      {{"a@kel.test", tooLong.c_str(), nullptr, ""}, KEL_MAIL_ERR_NO_RECIPIENT},
      {{"a@kel.test", nullptr, tooLong.c_str(), ""}, KEL_MAIL_ERR_NO_RECIPIENT},
  };
  for (const auto &row : rows) {
    kelHostStatusReset();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, row.result == KEL_MAIL_ERR_DISABLED ? 0 : 1);
    if (row.result == KEL_MAIL_ERR_STATUS) kelHostStatusFail(KEL_STATUS_SMTP_ENABLED, 5);
    session = reinterpret_cast<kelMAILSession *>(this);
    EXPECT_EQ(kelMAILStartSmtp(&row.request, &session), row.result);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_SMTP_SERVER), 0u);
    // The flag's failures leave the cell null; the POP3 step comes before the lists.
    bool early = row.result == KEL_MAIL_ERR_DISABLED || row.result == KEL_MAIL_ERR_STATUS;
    EXPECT_EQ(session == nullptr, early);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_POP_BEFORE_SMTP), early ? 0u : 1u);
  }
}

TEST_F(Smtp, AddressLists) {
  const std::string longest(127, 'x');
  const struct {
    std::string text;
    std::vector<std::string> entries;  // none: KEL_MAIL_ERR_NO_RECIPIENT
  } rows[] = {
      {"a@kel.test;;b@kel.test;", {"a@kel.test", "b@kel.test"}},
      {";; ;a, b", {" ", "a, b"}},  // nothing is trimmed, no comma separates
      {longest + ";x", {longest, "x"}},
      {"", {}},
      {";;;", {}},
      {"a;" + longest + "x", {}},  // an address too long for its entry
  };
  for (const auto &row : rows) {
    kelMAILAddress *list = nullptr;
    int32_t count = -1;
    kelResult result = kelMAILParseAddressList(&list, &count, row.text.c_str());
    EXPECT_EQ(result, row.entries.empty() ? KEL_MAIL_ERR_NO_RECIPIENT : KEL_OK) << row.text;
    EXPECT_EQ(std::vector<std::string>(list, list + count), row.entries) << row.text;
    kelMAILFree(list);
  }
}

TEST_F(Smtp, EndAndAbort) {
  const char *tails[] = {"S: 554 rejected\neof", "S: 250 queued\nC: QUIT\nS: 500 what\neof", nullptr};
  for (const char *tail : tails) {
    kt::TcpPeer peer;
    const kelMAILSmtpRequest request = {"a@kel.test;b@kel.test", ";", nullptr, "Subject line"};
    ASSERT_EQ(start(peer,
                    std::string("S: 220 x\n" OK("HELO kel-device") ENVELOPE "C: DATA\nS: 354 go\n" HEADER("")) +
                        (tail ? std::string(END) + tail : "eof"),
                    false, request),
              KEL_OK);
    // A refused message gets no QUIT; abort sends nothing.
    EXPECT_EQ(tail ? kelMAILEndSmtp(session) : kelMAILAbortEndSmtp(session), tail ? KEL_MAIL_ERR_REPLY : KEL_OK);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
}

// A lenient server for runs that may stop anywhere: it answers each command by
// its verb, any other line as an authentication answer, and reads to the close.
bool lenientServer(kt::TcpPeer &peer) {
  const std::string auth = peer.var("auth");
  std::string in = "", more;
  bool data = false;
  auto say = [&peer](const std::string &text) {
    ::send(peer.fd(kt::TcpPeer::kControl), text.data(), text.size(), MSG_NOSIGNAL);
  };
  for (say("220 kel.test\r\n");; in.erase(0, in.find("\r\n") + 2)) {
    while (in.find("\r\n") == std::string::npos)
      if (!peer.readSome(kt::TcpPeer::kControl, in, 4096)) return true;
    const std::string line = in.substr(0, in.find("\r\n")), verb = line.substr(0, 4);
    if (data) {
      if (line == ".") say("250 queued\r\n"), data = false;
    } else if (verb == "EHLO") {
      say("250 AUTH " + auth + "\r\n");
    } else if (line == "AUTH DIGEST-MD5") {  // realm="r",nonce="n",qop="auth"
      say("334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\r\n");
    } else if (verb == "AUTH" && line != "AUTH PLAIN AGtlbABzZWNyZXQ=") {
      say("334 VXNlcm5hbWU6\r\n");
    } else if (verb == "DATA") {
      say("354 go\r\n"), data = true;
    } else {
      say(verb == "MAIL" || verb == "RCPT" || verb == "QUIT" ? "250 ok\r\n" : "235 ok\r\n");
    }
  }
}

TEST_F(Smtp, EveryAllocationMayFail) {
  kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, 1);
  for (const char *auth : {"CRAM-MD5", "PLAIN", "LOGIN", "DIGEST-MD5"}) {
    bool done = false;
    for (size_t n = 1; !done && n < 100; n++) {
      SCOPED_TRACE(std::string(auth) + " allocation " + std::to_string(n));
      kt::TcpPeer server;
      server.setVar("auth", auth);
      server.step(lenientServer);
      server.start();
      kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, server.port());
      size_t before = kelHostPoolAllocations();
      kelHostPoolFailAt(n);
      kelResult result = kelMAILStartSmtp(&kRequest, &session);
      if (result == KEL_OK) {
        const kelMAILSmtpPart part = {"scan.pdf", 2};
        result = kelMAILOpenSmtp(session, &part);
        if (result == KEL_OK) result = kelMAILWriteSmtp(session, "QUJD\n", 5);
        kelResult end = result == KEL_OK ? kelMAILEndSmtp(session) : kelMAILAbortEndSmtp(session);
        if (result == KEL_OK) result = end;
      }
      // Until the run makes fewer than n allocations, the nth one fails it.
      done = kelHostPoolAllocations() - before < n;
      EXPECT_EQ(result, done ? KEL_OK : KEL_MAIL_ERR_MEMORY);
      kelHostPoolFailAt(0);
      EXPECT_EQ(kelHostPoolBlocksInUse(), 0u);
      // A run that ended before it connected leaves the server waiting.
      const sockaddr_in address = kt::loopbackAddress(server.port());
      int idle = socket(AF_INET, SOCK_STREAM, 0);
      EXPECT_EQ(connect(idle, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
      close(idle);
      server.finish();
    }
    EXPECT_TRUE(done);
  }
}

}  // namespace
