// The SMTP session against scripted servers: the whole conversation byte by
// byte for HELO and each mechanism, the failure of each step with what it
// leaves behind, the recipient lists, and allocation failures.

#include <sys/socket.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "mail_test.h"

// A fixed clock makes the boundary and the DIGEST-MD5 cnonce known.
extern "C" time_t time(time_t *out) {
  const time_t now = 0x5F5E1000;
  if (out != nullptr) *out = now;
  return now;
}

namespace {

const std::string kBoundary = "(T_T)boundary_5F5E1000(T_T)";
const std::string kHeader =
    "From: dev@kel.test\\r\\nTo: a@kel.test,\\r\\n    b@kel.test\\r\\nCc: c@kel.test\\r\\n"
    "Subject: =?utf-8?B?U3ViamVjdCBsaW5l?=\\r\\nMIME-version: 1.0\\r\\n"
    "Content-type: multipart/mixed; boundary=\\\"" + kBoundary + "\\\"\\r\\n"
    "Content-transfer-encoding: 8bit\\r\\n";
const char kEnvelope[] =
    "C: MAIL FROM:<dev@kel.test>\nS: 250 ok\n"
    "C: RCPT TO:<a@kel.test>\nS: 250 ok\nC: RCPT TO:<b@kel.test>\nS: 250 ok\n"
    "C: RCPT TO:<c@kel.test>\nS: 250 ok\nC: RCPT TO:<d@kel.test>\nS: 250 ok\n"
    "C: DATA\nS: 354 go on\n";
const kelMAILSmtpRequest kRequest = {"a@kel.test;;b@kel.test;", "c@kel.test", ";d@kel.test",
                                     "Subject line"};

class Smtp : public mt::Mail {
 protected:
  kt::TcpPeer peer;
  kelMAILSession *session = nullptr;

  void SetUp() override {
    mt::Mail::SetUp();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, 1);
    kelHostStatusSetText(KEL_STATUS_SMTP_SERVER, "127.0.0.1");
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, peer.port());
    kelHostStatusSetText(KEL_STATUS_HELO_NAME, "kel-device");
    kelHostStatusSetText(KEL_STATUS_MAIL_SENDER, "dev@kel.test");
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_USER, "kel");
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_PASSWORD, "secret");
  }
  kelResult start(const std::string &script, bool ehlo,
                  const kelMAILSmtpRequest &request = kRequest) {
    kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, ehlo ? 1 : 0);
    kt::play(peer, script);
    peer.start();
    return kelMAILStartSmtp(&request, &session);
  }
};

struct Hello {
  const char *name;
  bool ehlo;
  const char *script;
};

const Hello kHellos[] = {
    {"Helo", false, "C: HELO kel-device\nS: 250 kel.test"},
    // No AUTH line: no authentication, whatever the device's user.
    {"EhloWithoutAuth", true, "C: EHLO kel-device\nS: 250-kel.test\nS: 250-SIZE 1000\nS: 250 HELP"},
    // CRAM-MD5 first, whatever the server's order.
    {"CramMd5", true,
     "C: EHLO kel-device\nS: 250-kel.test\nS: 250-AUTH LOGIN CRAM-MD5 PLAIN\nS: 250 HELP\n"
     "C: AUTH CRAM-MD5\nS: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\n"
     "C: a2VsIDczM2JhODdlNjRlZDdlNDQxZjA2MmM0YWM2ZGIwMTAz\nS: 235 ok"},
    {"Plain", true,
     "C: EHLO kel-device\nS: 250-kel.test\nS: 250-AUTH=DIGEST-MD5 PLAIN\nS: 250 HELP\n"
     "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 235 ok"},
    // Of several AUTH lines the last counts; prompts in any order.
    {"Login", true,
     "C: EHLO kel-device\nS: 250-kel.test\nS: 250-AUTH PLAIN\nS: 250 AUTH LOGIN\n"
     "C: AUTH LOGIN\nS: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\nS: 334 VXNlcm5hbWU6\nC: a2Vs\nS: 235 ok"},
    {"DigestMd5", true,
     "C: EHLO kel-device\nS: 250-kel.test\nS: 250-AUTH DIGEST-MD5\nS: 250 HELP\n"
     "C: AUTH DIGEST-MD5\n"
     "S: 334 bm9uY2U9Im4wbmNlIixyZWFsbT0ia2VsLnRlc3QiLHFvcD0iYXV0aCxhdXRoLWludCIsY2hhcnNldD11dGYt"
     "OCxhbGdvcml0aG09bWQ1LXNlc3M=\n"
     "C: Y2hhcnNldD11dGYtOCx1c2VybmFtZT0ia2VsIixyZWFsbT0ia2VsLnRlc3QiLG5vbmNlPSJuMG5jZSIsbmM9MD"
     "AwMDAwMDEsY25vbmNlPSJibTl5ZEdoeGRXRnljbmsxWmpWbE1UQXdNQT09IixkaWdlc3QtdXJpPSJzbXRwLzEyNy4w"
     "LjAuMSIscmVzcG9uc2U9MzdiYWM2MTIxM2JhNGE2MzhhYjJiNTJmYzQxZDNjOTgscW9wPSJhdXRoIg==\n"
     "S: 334 cnNwYXV0aD0wMTIz\nC: \nS: 235 ok"},
};

class Conversation : public Smtp, public ::testing::WithParamInterface<Hello> {};

TEST_P(Conversation, FromGreetingToQuit) {
  const Hello &hello = GetParam();
  std::string script = std::string("S: 220 kel.test ESMTP\n") + hello.script + "\n" + kEnvelope +
                       "C- " + kHeader + "\nC- \\r\\n--" + kBoundary +
                       "--\\r\\n\\r\\n.\\r\\n\nS: 250 queued\nC: QUIT\nS: 221 bye\neof";
  ASSERT_EQ(start(script, hello.ehlo), KEL_OK);
  EXPECT_EQ(kelMAILEndSmtp(session), KEL_OK);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

INSTANTIATE_TEST_SUITE_P(Smtp, Conversation, ::testing::ValuesIn(kHellos),
                         [](const testing::TestParamInfo<Hello> &i) { return i.param.name; });

struct Failure {
  const char *name;
  bool ehlo;
  const char *script;  // behind the greeting "220"; the client must close
  kelResult result;
  const char *user = "kel";
};

#define EHLO_AUTH(mechanisms) "C: EHLO kel-device\nS: 250-kel.test\nS: 250 AUTH " mechanisms "\n"
#define X64 "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX"
#define HELO "C: HELO kel-device\nS: 250 ok\n"
const Failure kFailures[] = {
    {"HeloRefused", false, "C: HELO kel-device\nS: 501 no", KEL_MAIL_ERR_REPLY},
    {"SenderRefused", false, HELO "C: MAIL FROM:<dev@kel.test>\nS: 451 later", KEL_MAIL_ERR_REPLY},
    // The first refusal ends the envelope: no Cc or Bcc is tried.
    {"SecondRecipientRefused", false,
     HELO "C: MAIL FROM:<dev@kel.test>\nS: 250 ok\nC: RCPT TO:<a@kel.test>\nS: 250 ok\n"
          "C: RCPT TO:<b@kel.test>\nS: 550 unknown",
     KEL_MAIL_ERR_REPLY},
    {"DataAnsweredWith2xx", false,
     HELO "C: MAIL FROM:<dev@kel.test>\nS: 250 ok\nC: RCPT TO:<a@kel.test>\nS: 250 ok\n"
          "C: RCPT TO:<b@kel.test>\nS: 250 ok\nC: RCPT TO:<c@kel.test>\nS: 250 ok\n"
          "C: RCPT TO:<d@kel.test>\nS: 250 ok\nC: DATA\nS: 250 ok",
     KEL_MAIL_ERR_REPLY},
    {"EhloRefusedAtALaterLine", true, "C: EHLO kel-device\nS: 250-kel.test\nS: 421 going",
     KEL_MAIL_ERR_REPLY},
    {"AuthWithoutUser", true, EHLO_AUTH("PLAIN"), KEL_MAIL_ERR_REPLY, ""},
    // Names are case-sensitive; a name beyond 255 bytes of the line is lost.
    {"OnlyLowerCaseNames", true, EHLO_AUTH("cram-md5 plain login digest-md5"),
     KEL_MAIL_ERR_UNSUPPORTED},
    {"NameBehindTheLimit", true, EHLO_AUTH(X64 X64 X64 X64 " PLAIN"), KEL_MAIL_ERR_UNSUPPORTED},
    {"CramMd5NotAccepted", true, EHLO_AUTH("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 504 no",
     KEL_MAIL_ERR_REPLY},
    {"CramMd5WrongPassword", true,
     EHLO_AUTH("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 334 VXNlcm5hbWU6\n"
                           "C: a2VsIDQ5MGMzZGJiZDcwN2JkZTk0ZWViY2RjNTFkZjk2YzNj\nS: 535 no",
     KEL_MAIL_ERR_REPLY},
    {"PlainAnsweredWith3xx", true, EHLO_AUTH("PLAIN") "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 334 ",
     KEL_MAIL_ERR_REPLY},
    {"LoginWrongPassword", true,
     EHLO_AUTH("LOGIN") "C: AUTH LOGIN\nS: 334 VXNlcm5hbWU6\nC: a2Vs\nS: 334 UGFzc3dvcmQ6\n"
                        "C: c2VjcmV0\nS: 535 no",
     KEL_MAIL_ERR_REPLY},
    // "User" is shorter than its word; a 3xx with no text is an empty prompt.
    {"LoginShortPrompt", true, EHLO_AUTH("LOGIN") "C: AUTH LOGIN\nS: 334 VXNlcg==",
     KEL_MAIL_ERR_UNSUPPORTED},
    {"LoginEmptyPrompt", true, EHLO_AUTH("LOGIN") "C: AUTH LOGIN\nS: 334", KEL_MAIL_ERR_UNSUPPORTED},
    {"DigestNotAccepted", true, EHLO_AUTH("DIGEST-MD5") "C: AUTH DIGEST-MD5\nS: 235 ok",
     KEL_MAIL_ERR_REPLY},
    // nonce="n",qop="auth" without a realm.
    {"DigestWithoutRealm", true,
     EHLO_AUTH("DIGEST-MD5") "C: AUTH DIGEST-MD5\nS: 334 bm9uY2U9Im4iLHFvcD0iYXV0aCI=",
     KEL_MAIL_ERR_UNSUPPORTED},
};

class Failures : public Smtp, public ::testing::WithParamInterface<Failure> {};

TEST_P(Failures, CloseWithoutQuitAndFreeEverything) {
  const Failure &f = GetParam();
  kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_USER, f.user);
  EXPECT_EQ(start(std::string("S: 220 kel.test\n") + f.script + "\neof", f.ehlo), f.result);
  EXPECT_NE(session, nullptr);  // the cell keeps the freed record's address
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

INSTANTIATE_TEST_SUITE_P(Smtp, Failures, ::testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Failure> &i) { return i.param.name; });

TEST_F(Smtp, GreetingOf4xxOr5xxGetsNothingSent) {
  for (const char *greeting : {"S: 421 busy\neof", "S: 554 go away\neof"}) {
    kt::TcpPeer other;
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, other.port());
    kt::play(other, greeting);
    other.start();
    EXPECT_EQ(kelMAILStartSmtp(&kRequest, &session), KEL_MAIL_ERR_REPLY);
    EXPECT_TRUE(other.finish()) << other.failure();
  }
}

TEST_F(Smtp, RefusalsBeforeAnyTraffic) {
  struct Row {
    const char *name;
    kelMAILSmtpRequest request;
    kelResult result;
  };
  const std::string tooLong(128, 'x');
  const Row rows[] = {
      {"disabled", kRequest, KEL_MAIL_ERR_DISABLED},
      {"flag unreadable", kRequest, KEL_MAIL_ERR_STATUS},
      {"only separators", {";;", nullptr, nullptr, ""}, KEL_MAIL_ERR_NO_RECIPIENT},
      {"empty To", {"", "c@kel.test", nullptr, ""}, KEL_MAIL_ERR_NO_RECIPIENT},
      {"no To", {nullptr, nullptr, nullptr, nullptr}, KEL_MAIL_ERR_NO_RECIPIENT},
      {"long Cc", {"a@kel.test", tooLong.c_str(), nullptr, ""}, KEL_MAIL_ERR_NO_RECIPIENT},
      {"long Bcc", {"a@kel.test", nullptr, tooLong.c_str(), ""}, KEL_MAIL_ERR_NO_RECIPIENT},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    kelHostStatusReset();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, row.result == KEL_MAIL_ERR_DISABLED ? 0 : 1);
    if (row.result == KEL_MAIL_ERR_STATUS) kelHostStatusFail(KEL_STATUS_SMTP_ENABLED, 5);
    session = reinterpret_cast<kelMAILSession *>(&peer);
    EXPECT_EQ(kelMAILStartSmtp(&row.request, &session), row.result);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_SMTP_SERVER), 0u);
    bool early = row.result == KEL_MAIL_ERR_DISABLED || row.result == KEL_MAIL_ERR_STATUS;
    // Only the first two leave the cell null; the POP3 step comes before
    // the lists.
    EXPECT_EQ(session == nullptr, early);
    EXPECT_EQ(kelHostStatusReads(KEL_STATUS_POP_BEFORE_SMTP), early ? 0u : 1u);
  }
}

TEST_F(Smtp, AddressLists) {
  struct Row {
    std::string text;
    std::vector<std::string> entries;  // none: KEL_MAIL_ERR_NO_RECIPIENT
  };
  const std::string longest(127, 'x');
  const Row rows[] = {
      {"a@kel.test;;b@kel.test;", {"a@kel.test", "b@kel.test"}},
      {";; ;a, b", {" ", "a, b"}},  // nothing is trimmed, no comma separates
      {longest + ";x", {longest, "x"}},
      {"", {}},
      {";;;", {}},
      {"a;" + longest + "x", {}},  // an address too long for its entry
  };
  for (const Row &row : rows) {
    kelMAILAddress *list = nullptr;
    int32_t count = -1;
    kelResult result = kelMAILParseAddressList(&list, &count, row.text.c_str());
    EXPECT_EQ(result, row.entries.empty() ? KEL_MAIL_ERR_NO_RECIPIENT : KEL_OK) << row.text;
    std::vector<std::string> got;
    for (int32_t i = 0; result == KEL_OK && i < count; i++) got.push_back(list[i]);
    EXPECT_EQ(got, row.entries) << row.text;
    if (result != KEL_OK) {
      EXPECT_EQ(list, nullptr) << row.text;
    }
    kelMAILFree(list);
  }
}

TEST_F(Smtp, EndAndAbort) {
  struct Row {
    const char *name, *tail;  // behind the message's end
    kelResult result;
  };
  const Row rows[] = {
      {"message refused: no QUIT", "S: 554 rejected\neof", KEL_MAIL_ERR_REPLY},
      {"QUIT refused", "S: 250 queued\nC: QUIT\nS: 500 what\neof", KEL_MAIL_ERR_REPLY},
      {"abort", nullptr, KEL_OK},
  };
  const std::string start =
      "S: 220 x\nC: HELO kel-device\nS: 250 ok\nC: MAIL FROM:<dev@kel.test>\nS: 250 ok\n"
      "C: RCPT TO:<a@kel.test>\nS: 250 ok\nC: DATA\nS: 354 go\nC- From: dev@kel.test\\r\\n"
      "To: a@kel.test\\r\\nMIME-version: 1.0\\r\\nContent-type: multipart/mixed; boundary=\\\"" +
      kBoundary + "\\\"\\r\\nContent-transfer-encoding: 8bit\\r\\n\n";
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    kt::TcpPeer other;
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, other.port());
    kt::play(other, start + (row.tail ? "C- \\r\\n--" + kBoundary + "--\\r\\n\\r\\n.\\r\\n\n" +
                                            row.tail
                                      : "eof"));
    other.start();
    const kelMAILSmtpRequest request = {"a@kel.test", ";", nullptr, ""};
    ASSERT_EQ(kelMAILStartSmtp(&request, &session), KEL_OK);
    EXPECT_EQ(row.tail ? kelMAILEndSmtp(session) : kelMAILAbortEndSmtp(session), row.result);
    EXPECT_TRUE(other.finish()) << other.failure();
  }
}

// A lenient server for runs that may stop anywhere: it answers each command
// by its verb, takes any other line as an authentication answer, and reads
// to the client's close.
bool lenientServer(kt::TcpPeer &peer) {
  const std::string challenge =
      "334 bm9uY2U9Im4wbmNlIixyZWFsbT0ia2VsLnRlc3QiLHFvcD0iYXV0aCI=\r\n";
  const std::string auth = peer.var("auth");
  std::string in, line;
  bool data = false;
  int fd = peer.fd(kt::TcpPeer::kControl);
  auto say = [fd](const std::string &text) { ::send(fd, text.data(), text.size(), MSG_NOSIGNAL); };
  say("220 kel.test\r\n");
  for (;;) {
    size_t end = in.find("\r\n");
    if (end == std::string::npos) {
      std::string more;
      if (!peer.readSome(kt::TcpPeer::kControl, more, 4096) || more.empty()) return true;
      in += more;
      continue;
    }
    line = in.substr(0, end);
    in.erase(0, end + 2);
    if (data) {
      if (line == ".") say("250 queued\r\n"), data = false;
    } else if (line.rfind("EHLO", 0) == 0) {
      say("250-kel.test\r\n250 AUTH " + auth + "\r\n");
    } else if (line == "AUTH DIGEST-MD5") {
      say(challenge);
    } else if (line.rfind("AUTH PLAIN", 0) == 0) {
      say("235 ok\r\n");
    } else if (line.rfind("AUTH", 0) == 0) {
      say("334 VXNlcm5hbWU6\r\n");
    } else if (line == "DATA") {
      say("354 go\r\n"), data = true;
    } else if (line.rfind("MAIL", 0) == 0 || line.rfind("RCPT", 0) == 0 || line == "QUIT") {
      say("250 ok\r\n");
    } else {
      say("235 ok\r\n");
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
      server.stepTimeoutMs = 150;
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
        if (result == KEL_OK) result = kelMAILCloseSmtp(session);
        kelResult end = result == KEL_OK ? kelMAILEndSmtp(session) : kelMAILAbortEndSmtp(session);
        if (result == KEL_OK) result = end;
      }
      // Until the run makes fewer than n allocations, the nth one fails it.
      done = kelHostPoolAllocations() - before < n;
      EXPECT_EQ(result, done ? KEL_OK : KEL_MAIL_ERR_MEMORY);
      kelHostPoolFailAt(0);
      EXPECT_EQ(kelHostPoolBlocksInUse(), 0u);
      server.finish();
    }
    EXPECT_TRUE(done);
  }
}

}  // namespace
