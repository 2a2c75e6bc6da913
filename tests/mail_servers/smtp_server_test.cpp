// The SMTP client against Exim with Dovecot as its SASL provider (see
// scripts/servers/exim.sh): whole messages for HELO, EHLO and each mechanism,
// fetched back from each mailbox with the library's POP3 calls and read by
// Python's email package; refusals that leave nothing open.

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "kel_status.h"
#include "mail/mail_internal.h"
#include "pool_guard.h"

namespace {

// The ports from KEL_SMTP_PORT on, as exim.sh sets them up.
enum Port { kAllFour, kCramMd5, kPlain, kLogin, kDigestMd5, kNoAuth, kGreet5xx, kGreet4xx };

const char kText[] = "Scanned on the device.\nZweite Zeile: \xc3\xbc\n.a line that begins with a dot\n";

size_t openFiles() {
  size_t n = 0;
  DIR *d = opendir("/proc/self/fd");
  while (d != nullptr && readdir(d) != nullptr) n++;
  if (d != nullptr) closedir(d);
  return n;
}

std::string writeFile(const std::string &path, const std::string &bytes) {
  FILE *f = fopen(path.c_str(), "wb");
  fwrite(bytes.data(), 1, bytes.size(), f);
  fclose(f);
  return path;
}

class SmtpServer : public kt::PoolGuard {
 protected:
  void SetUp() override {
    if (getenv("KEL_SMTP_PORT") == nullptr) GTEST_SKIP() << "no SMTP server (scripts/servers/exim.sh)";
    // Dovecot slows down every login after a failed one: wrong passwords get
    // a run of their own.
    if ((getenv("KEL_SMTP_WRONG_PASSWORDS") != nullptr) != wrongPasswords()) GTEST_SKIP();
    ASSERT_EQ(kelHostPoolSetSize(8u << 20), 0);  // room for the Base64 of 1 MiB
    kt::PoolGuard::SetUp();
    kelHostStatusReset();
    const uint32_t numbers[][2] = {{KEL_STATUS_SMTP_ENABLED, 1}, {KEL_STATUS_SMTP_USE_EHLO, 1},
                                   {KEL_STATUS_POP3_PORT, uint32_t(atoi(getenv("KEL_POP3_PORT")))}};
    for (auto &n : numbers) kelHostStatusSetNumber(n[0], n[1]);
    const std::pair<uint32_t, const char *> texts[] = {
        {KEL_STATUS_SMTP_SERVER, getenv("KEL_SMTP_HOST")}, {KEL_STATUS_POP3_SERVER, getenv("KEL_POP3_HOST")},
        {KEL_STATUS_HELO_NAME, "kel-device"},              {KEL_STATUS_MAIL_SENDER, "device@kel.test"},
        {KEL_STATUS_SMTP_AUTH_USER, getenv("KEL_POP3_USER")}, {KEL_STATUS_POP3_USER, getenv("KEL_POP3_USER")},
        {KEL_STATUS_SMTP_AUTH_PASSWORD, getenv("KEL_POP3_PASS")},
        {KEL_STATUS_POP3_PASSWORD, getenv("KEL_POP3_PASS")}, {KEL_STATUS_PRINTER, "kel-printer"}};
    for (auto &t : texts) kelHostStatusSetText(t.first, t.second);
    char dir[] = "/tmp/kel-smtp.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    work = dir;
  }
  void TearDown() override {
    if (!work.empty()) {
      EXPECT_EQ(system(("rm -rf " + work).c_str()), 0);
    }
    kt::PoolGuard::TearDown();
  }
  virtual bool wrongPasswords() const { return false; }
  void use(Port port) { kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, uint32_t(atoi(getenv("KEL_SMTP_PORT")) + port)); }
  // Waits for the one message of box, fetches it with LF line ends and deletes it.
  static std::string fetch(const char *box) {
    kelHostStatusSetText(KEL_STATUS_POP3_USER, box);
    std::string message;
    int32_t count = 0, s = -1;
    for (int tries = 0; tries < 100 && count == 0; tries++, usleep(count ? 0 : 100000)) {
      EXPECT_EQ(kelMAILConnectPop3Server(&s), KEL_OK);
      EXPECT_EQ(kelMAILLoginPop3Server(s), KEL_OK);
      EXPECT_EQ(kelMAILGetMailCount(s, &count), KEL_OK);
      char line[1024];
      bool more = count > 0 && kelMAILStartMailData(s, 1) == KEL_OK;
      while (more && kelMAILRecvOneLinePop3(s, line, sizeof line) == KEL_OK && strcmp(line, ".\r\n") != 0) {
        if (char *cr = strstr(line, "\r\n")) strcpy(cr, "\n");
        message += line[0] == '.' ? line + 1 : line;
      }
      EXPECT_EQ(count > 0 ? kelMAILDeleteMail(s, 1) : KEL_OK, KEL_OK);
      EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);
    }
    EXPECT_EQ(count, 1) << box;
    return message;
  }
  std::string work;
};

struct Road {
  const char *name;
  Port port;
  bool ehlo, popBeforeSmtp;
  size_t bigSize;
};

class Send : public SmtpServer, public ::testing::WithParamInterface<Road> {};

TEST_P(Send, EveryRecipientGetsEveryByte) {
  const Road &road = GetParam();
  use(road.port);
  kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, road.ehlo);
  kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, road.popBeforeSmtp);
  std::string big(road.bigSize, '\0');
  for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>((i * 7919) >> 5 ^ i);
  const std::string files[2][2] = {{"notes \xc3\xbc.txt", std::string("notes\r\n= and \0 too", 19)},
                                   {"scan.bin", big}};
  const kelMAILSmtpRequest request = {"to@kel.test", "cc@kel.test", "bcc@kel.test", "Scan from %printer \xc3\xbc"};
  kelMAILSession *session = nullptr;
  ASSERT_EQ(kelMAILStartSmtp(&request, &session), KEL_OK);
  const kelMAILSmtpPart text = {nullptr, KEL_MAIL_PART_KIND_TEXT};
  EXPECT_EQ(kelMAILOpenSmtp(session, &text), KEL_OK);
  EXPECT_EQ(kelMAILWriteSmtp(session, kText, int32_t(strlen(kText))), KEL_OK);
  EXPECT_EQ(kelMAILCloseSmtp(session), KEL_OK);
  std::string args = " 'Scan from kel-printer \xc3\xbc' to@kel.test cc@kel.test " + writeFile(work + "/text", kText);
  for (int i = 0; i < 2; i++) {
    const kelMAILSmtpPart part = {files[i][0].c_str(), 2};
    EXPECT_EQ(kelMAILOpenSmtp(session, &part), KEL_OK);
    char *base64 = kelMAILEncodeBase64(files[i][1].data(), uint32_t(files[i][1].size()));
    std::string lines(base64);
    kelMAILFree(base64);
    for (size_t at = 76; at < lines.size(); at += 77) lines.insert(at, "\n");
    EXPECT_EQ(kelMAILWriteSmtp(session, lines.data(), int32_t(lines.size())), KEL_OK);
    EXPECT_EQ(kelMAILCloseSmtp(session), KEL_OK);
    args += " '" + files[i][0] + "' " + writeFile(work + "/file" + std::to_string(i), files[i][1]);
  }
  ASSERT_EQ(kelMAILEndSmtp(session), KEL_OK);
  for (const char *box : {"to", "cc", "bcc"}) {
    std::string message = writeFile(work + "/" + box + ".eml", fetch(box));
    EXPECT_EQ(system(("/usr/bin/python3 " KEL_MIME_CHECK " " + message + args).c_str()), 0) << box;
  }
}

const Road kRoads[] = {
    {"Helo", kNoAuth, false, false, 4096},           {"EhloWithoutAuth", kNoAuth, true, false, 4096},
    {"AllFourWithPopBeforeSmtp", kAllFour, true, true, 1 << 20},
    {"CramMd5", kCramMd5, true, false, 4096},        {"Plain", kPlain, true, false, 4096},
    {"Login", kLogin, true, false, 4096},            {"DigestMd5", kDigestMd5, true, false, 4096},
};
INSTANTIATE_TEST_SUITE_P(Exim, Send, ::testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<Road> &i) { return i.param.name; });

class Refusals : public SmtpServer, public ::testing::WithParamInterface<bool> {
  bool wrongPasswords() const override { return GetParam(); }
};

TEST_P(Refusals, LeaveNothingOpen) {
  const struct {
    Port port;
    const char *to;
  } rows[2][4] = {{{kNoAuth, "to@kel.test;nobody@kel.test"}, {kGreet5xx, "to@kel.test"}, {kGreet4xx, "to@kel.test"}},
                  {{kCramMd5, "to@kel.test"}, {kPlain, "to@kel.test"}, {kLogin, "to@kel.test"},
                   {kDigestMd5, "to@kel.test"}}};
  if (GetParam()) kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_PASSWORD, "wrong");
  const size_t files = openFiles();
  for (const auto &row : rows[GetParam()]) {
    if (row.to == nullptr) continue;
    use(row.port);
    const kelMAILSmtpRequest request = {row.to, nullptr, nullptr, "refused"};
    kelMAILSession *session = nullptr;
    EXPECT_EQ(kelMAILStartSmtp(&request, &session), KEL_MAIL_ERR_REPLY) << row.port;
    EXPECT_EQ(kelHostPoolBlocksInUse(), 0u) << row.port;
    EXPECT_EQ(openFiles(), files) << row.port;
  }
}

INSTANTIATE_TEST_SUITE_P(Exim, Refusals, ::testing::Bool());

}  // namespace
