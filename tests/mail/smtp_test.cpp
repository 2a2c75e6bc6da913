// The SMTP session against scripted servers: whole conversations byte by byte
// for HELO and each mechanism, each failure with what it leaves behind; the
// parts of a message and the recipient lists.

#include <string.h>
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
  "Subject: =?utf-8?B?UDEgMDA6MWI6YTk6MGM6ZmY6MDUgU0VSSUFMMDEyMzQ1Njc4OSAlUHJpbnRlciAlUDEgNTAlICVwcmlu?=" \
  "\\r\\nMIME-version: 1.0\\r\\nContent-type: multipart/mixed; "                                     \
  "boundary=\\\"" B "\\\"\\r\\nContent-transfer-encoding: 8bit\\r\\n\n"
#define MESSAGE DATA "C- \\r\\n--" B "\\r\\nContent-Type: text/plain; charset=\\\"utf-8\\\"\\r\\n"        \
  "Content-Transfer-Encoding: 8bit\\r\\n\\r\\nHi\\r\\n\nC- \\r\\n--" B "--\\r\\n\\r\\n.\\r\\n\n"
#define SENT MESSAGE "S: 250 queued\nC: QUIT\nS: 221 bye\neof"

// The subject template: a token's value, a serial of 16 bytes without a NUL, six
// of the eight address bytes; names are case-sensitive, "%" stays where no
// name follows.
const kelMAILSmtpRequest kRequest = {"a@kel.test;;b@kel.test;", "c@kel.test", ";d@kel.test",
                                     "%printer %etheraddr %serial %Printer %%printer 50% %prin"};

struct Road {
  const char *name;
  char hello;          // H: HELO, E: EHLO, A: HELO and an abort right after the start
  const char *script;  // from the greeting to the client's close
  kelResult result = KEL_OK;
};

const Road kRoads[] = {
    {"Helo", 'H', HELO SENT},
    // No AUTH line: no authentication, whatever the device's user.
    {"EhloWithoutAuth", 'E', "S: 220 x\nC: EHLO kel-device\nS: 250-kel.test\nS: 250 HELP\n" SENT},
    // CRAM-MD5 first, whatever the server's order.
    {"CramMd5", 'E', EHLO("LOGIN CRAM-MD5 PLAIN") "C: AUTH CRAM-MD5\n"
     "S: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\n"
     "C: a2VsIDczM2JhODdlNjRlZDdlNDQxZjA2MmM0YWM2ZGIwMTAz\nS: 235 ok\n" SENT},
    {"Plain", 'E', "S: 220 x\nC: EHLO kel-device\nS: 250-AUTH=DIGEST-MD5 PLAIN\nS: 250 HELP\n"
     "C: AUTH PLAIN AGtlbABzZWNyZXQ=\nS: 235 ok\n" SENT},
    // Of several AUTH lines the last counts; prompts in any order.
    {"Login", 'E', "S: 220 x\nC: EHLO kel-device\nS: 250-AUTH PLAIN\nS: 250 AUTH LOGIN\nC: AUTH LOGIN\n"
     "S: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\nS: 334 VXNlcm5hbWU6\nC: a2Vs\nS: 235 ok\n" SENT},
    // realm="r",nonce="n",qop="auth", and success right after the response, without
    // the rspauth step that real servers send (see the Exim test).
    {"DigestMd5", 'E', EHLO("DIGEST-MD5") "C: AUTH DIGEST-MD5\n"
     "S: 334 cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgi\n"
     "C: Y2hhcnNldD11dGYtOCx1c2VybmFtZT0ia2VsIixyZWFsbT0iciIsbm9uY2U9Im4iLG5jPTAwMDAwMDAxLGNub25jZT0iYm05"
     "eWRHaHhkV0Z5Y25rMVpqVmxNVEF3TUE9PSIsZGlnZXN0LXVyaT0ic210cC8xMjcuMC4wLjEiLHJlc3BvbnNlPWY0ZGZkZjMxNmFh"
     "MTdmNGUxYWI3MjJjODhjOWQ1ZDBlLHFvcD0iYXV0aCI=\nS: 235 ok\n" SENT},
    // Abort sends nothing; a refused message gets no QUIT.
    {"Abort", 'A', HELO DATA "eof"},
    {"MessageRefused", 'H', HELO MESSAGE "S: 554 rejected\neof", KEL_MAIL_ERR_REPLY},
    // From here the start fails: the socket closes without QUIT, the pool is back
    // at zero and the caller's cell keeps the freed record's address.
    {"Greeting4xx", 'H', "S: 421 busy\neof", KEL_MAIL_ERR_REPLY},
    {"ClosedMidLine", 'H', "S- 220 x\nclose", KEL_MAIL_ERR_IO},  // an end mid-line: an I/O failure
    // The first refusal ends the envelope: no Cc or Bcc is tried.
    {"RecipientRefused", 'H', HELO RCPT "C: RCPT TO:<c@kel.test>\nS: 550 unknown\neof", KEL_MAIL_ERR_REPLY},
    {"DataAnsweredWith2xx", 'H', HELO ALL "S: 250 ok\neof", KEL_MAIL_ERR_REPLY},
    {"CramMd5Refused", 'E', EHLO("CRAM-MD5") "C: AUTH CRAM-MD5\nS: 504 no\neof", KEL_MAIL_ERR_REPLY},
};

class Smtp : public Mail {
 protected:
  void SetUp() override {
    Mail::SetUp();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, 1);
    const std::pair<uint32_t, const char *> texts[] = {
        {KEL_STATUS_SMTP_SERVER, "127.0.0.1"}, {KEL_STATUS_HELO_NAME, "kel-device"},
        {KEL_STATUS_MAIL_SENDER, "dev@kel.test"}, {KEL_STATUS_SMTP_AUTH_USER, "kel"},
        {KEL_STATUS_SMTP_AUTH_PASSWORD, "secret"}, {KEL_STATUS_PRINTER, "P1"}};
    for (auto &t : texts) kelHostStatusSetText(t.first, t.second);
    kelHostStatusSetBytes(KEL_STATUS_SERIAL, "SERIAL0123456789", 16);
    kelHostStatusSetBytes(KEL_STATUS_ETHER_ADDR, "\x00\x1b\xa9\x0c\xff\x05\x77\x88", 8);
  }
  // Plays road and sends one text part through it; the first failure counts.
  kelMAILSession *session = nullptr;
  kelResult send(kt::TcpPeer &peer, const Road &road) {
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, peer.port());
    kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, road.hello == 'E');
    kt::play(peer, road.script).start();
    kelResult r = kelMAILStartSmtp(&kRequest, &session);
    const kelMAILSmtpPart text = {nullptr, KEL_MAIL_PART_KIND_TEXT};
    if (r != KEL_OK) return r;
    if (road.hello == 'A') return kelMAILAbortEndSmtp(session);
    if ((r = kelMAILOpenSmtp(session, &text)) == KEL_OK) r = kelMAILWriteSmtp(session, "Hi\n", 3);
    if (r == KEL_OK) r = kelMAILCloseSmtp(session);
    return r == KEL_OK ? kelMAILEndSmtp(session) : (kelMAILAbortEndSmtp(session), r);
  }
};

class Roads : public Smtp, public ::testing::WithParamInterface<Road> {};

// (Every allocation of these roads failing in turn: tests/robust.)
TEST_P(Roads, ExactBytesFromGreetingToClose) {
  kt::TcpPeer peer;
  EXPECT_EQ(send(peer, GetParam()), GetParam().result);
  EXPECT_NE(session, nullptr);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

INSTANTIATE_TEST_SUITE_P(Smtp, Roads, ::testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<Road> &i) { return i.param.name; });

// The parts of a message: every line end, dot stuffing, a NUL dropped, long
// lines cut, the part state, a file name cut, a connection that ends.
TEST_F(Smtp, PartsLinesAndState) {
  const std::string full(1021, 'f'), name(800, '\xff'), code(960, '/'), b = B;
  kt::TcpPeer peer;
  kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, peer.port());
  kt::play(peer, HELO DATA).expect("\r\n--" + b + "\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n" +
          "Content-Transfer-Encoding: 8bit\r\n\r\n" +
          "..\r\na.b\r\n..x\r\n\r\n\r\nend\r\r\nab\r\n..c\r\nab\r\n" + full + "\r\n" +
          full + "\r\ng\r\n" + full + "\r\n..\r\n\r\n--" + b + "\r\n\r\n--" + b +
          "\r\nContent-Type: application/octet-stream; name=\"=?utf-8?B?" + code + "?=\"\r\n" +
          "Content-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"=?utf-8?B?" + code +
          "?=\"\r\n\r\nQUJD\r\n").expectEof().start();
  ASSERT_EQ(kelMAILStartSmtp(&kRequest, &session), KEL_OK);
  kelMAILSmtpPart text = {"ignored", KEL_MAIL_PART_KIND_TEXT}, file = {name.c_str(), 0};
  // w: write, n: write of length -1, t/f: open text/file part, m: the same
  // without memory, c: close, x: the connection ends.
  const kelResult ok = KEL_OK, none = KEL_MAIL_ERR_NO_PART, io = KEL_MAIL_ERR_IO;
  const struct {
    char op;
    std::string bytes;
    kelResult result;
  } steps[] = {
      {'w', "x", none}, {'c', "", none}, {'t', "", ok}, {'t', "", KEL_MAIL_ERR_PART_OPEN}, {'w', ".", ok},
      {'w', "a.b\n.x\r\n\r\n\nend\r", ok},  // every line end
      {'w', "ab", ok}, {'w', ".c", ok}, {'w', "", ok}, {'n', "", ok},  // each call ends its line
      {'w', std::string("a\0b\n", 4), ok},                             // a NUL is dropped
      {'w', full + "\n" + full + "g", ok}, {'w', full + ".", ok},  // a cut line gets its own dot test
      {'c', "", ok}, {'c', "", none}, {'m', "", KEL_MAIL_ERR_MEMORY}, {'c', "", ok},  // delimiter is out
      {'f', "", ok}, {'w', "QUJD\n", ok},  // the name cut to 720 bytes
      // The connection ends; a failed open leaves the part open.
      {'x', "", ok}, {'c', "", ok}, {'f', "", io}, {'w', "a\n", io}, {'c', "", ok}};
  for (auto &step : steps) {
    kelHostPoolFailAt(step.op == 'm');
    kelResult r = step.op == 'w'   ? kelMAILWriteSmtp(session, step.bytes.data(), int32_t(step.bytes.size()))
                  : step.op == 'n' ? kelMAILWriteSmtp(session, "zz", -1)
                  : step.op == 'c' ? kelMAILCloseSmtp(session)
                  : step.op == 'x' ? (kelMAILCloseSocket(session->socket), session->socket = -1, KEL_OK)
                                   : kelMAILOpenSmtp(session, step.op == 't' ? &text : &file);
    EXPECT_EQ(r, step.result) << step.op << " " << kt::printable(step.bytes.substr(0, 20));
  }
  kelMAILAbortEndSmtp(session);
  EXPECT_TRUE(peer.finish()) << peer.failure();
}

// The recipient lists; the subject template's expansion is cut at 255 bytes.
TEST_F(Smtp, AddressListsAndSubjectLimit) {
  char subject[512];
  ASSERT_EQ(kelMAILEditStrings(subject, std::string(300, 'a').c_str()), KEL_OK);
  EXPECT_EQ(strlen(subject), 255u);
  const std::string longest(127, 'x');
  const std::pair<std::string, std::vector<std::string>> rows[] = {  // none: KEL_MAIL_ERR_NO_RECIPIENT
      {longest + ";x", {longest, "x"}}, {";; ;a, b", {" ", "a, b"}},  // nothing is trimmed, no comma separates
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
