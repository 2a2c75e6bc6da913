// The SMTP client against Exim with Dovecot as its SASL provider (see
// tests/servers/exim.sh): whole messages for HELO, EHLO and each
// mechanism, fetched back from each mailbox with the library's POP3 calls
// and read by Python's email package; refusals of every kind.

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

// Ports from KEL_SMTP_PORT on, as tests/servers/exim.sh sets them up.
enum Port { kAllFour, kCramMd5, kPlain, kLogin, kDigestMd5, kNoAuth, kGreet5xx, kGreet4xx };

const char kText[] = "Scanned on the device.\nZweite Zeile: \xc3\xbc\n.a line that begins with a dot\n";
const char kSubject[] = "Scan from %printer \xc3\xbc";

size_t openFiles() {
  size_t n = 0;
  if (DIR *d = opendir("/proc/self/fd")) {
    while (readdir(d) != nullptr) n++;
    closedir(d);
  }
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
    const char *port = getenv("KEL_SMTP_PORT");
    if (port == nullptr) GTEST_SKIP() << "no SMTP server (tests/servers/exim.sh)";
    if (wrongPasswords && !refusals()) GTEST_SKIP() << "a run for wrong passwords alone";
    smtpPort = atoi(port);
    // Room for the Base64 text of a 1 MiB attachment.
    ASSERT_EQ(kelHostPoolSetSize(8u << 20), 0);
    kt::PoolGuard::SetUp();
    kelHostStatusReset();
    kelHostStatusSetNumber(KEL_STATUS_SMTP_ENABLED, 1);
    kelHostStatusSetText(KEL_STATUS_SMTP_SERVER, getenv("KEL_SMTP_HOST"));
    kelHostStatusSetText(KEL_STATUS_HELO_NAME, "kel-device");
    kelHostStatusSetText(KEL_STATUS_MAIL_SENDER, "device@kel.test");
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_USER, getenv("KEL_POP3_USER"));
    kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_PASSWORD, getenv("KEL_POP3_PASS"));
    kelHostStatusSetText(KEL_STATUS_PRINTER, "kel-printer");
    kelHostStatusSetText(KEL_STATUS_POP3_SERVER, getenv("KEL_POP3_HOST"));
    kelHostStatusSetNumber(KEL_STATUS_POP3_PORT, static_cast<uint32_t>(atoi(getenv("KEL_POP3_PORT"))));
    kelHostStatusSetText(KEL_STATUS_POP3_PASSWORD, getenv("KEL_POP3_PASS"));
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
  void use(Port port, bool ehlo) {
    kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, static_cast<uint32_t>(smtpPort + port));
    kelHostStatusSetNumber(KEL_STATUS_SMTP_USE_EHLO, ehlo ? 1 : 0);
  }
  // Sends the text and each attachment (name, bytes) as Base64 lines.
  kelResult send(const kelMAILSmtpRequest &request, const std::string files[][2], int count) {
    kelMAILSession *session = nullptr;
    kelResult result = kelMAILStartSmtp(&request, &session);
    if (result != KEL_OK) return result;
    const kelMAILSmtpPart text = {nullptr, KEL_MAIL_PART_KIND_TEXT};
    EXPECT_EQ(kelMAILOpenSmtp(session, &text), KEL_OK);
    EXPECT_EQ(kelMAILWriteSmtp(session, kText, static_cast<int32_t>(strlen(kText))), KEL_OK);
    EXPECT_EQ(kelMAILCloseSmtp(session), KEL_OK);
    for (int i = 0; i < count; i++) {
      const kelMAILSmtpPart part = {files[i][0].c_str(), 2};
      EXPECT_EQ(kelMAILOpenSmtp(session, &part), KEL_OK);
      char *base64 = kelMAILEncodeBase64(files[i][1].data(), static_cast<uint32_t>(files[i][1].size()));
      std::string lines(base64);
      kelMAILFree(base64);
      for (size_t at = 76; at < lines.size(); at += 77) lines.insert(at, "\n");
      EXPECT_EQ(kelMAILWriteSmtp(session, lines.data(), static_cast<int32_t>(lines.size())), KEL_OK);
      EXPECT_EQ(kelMAILCloseSmtp(session), KEL_OK);
    }
    return kelMAILEndSmtp(session);
  }
  // Waits for the one message of box, fetches it without CR and deletes it.
  std::string fetch(const char *box) {
    kelHostStatusSetText(KEL_STATUS_POP3_USER, box);
    std::string message;
    int32_t count = 0;
    for (int tries = 0; tries < 100 && count == 0; tries++) {
      int32_t s = -1;
      EXPECT_EQ(kelMAILConnectPop3Server(&s), KEL_OK);
      EXPECT_EQ(kelMAILLoginPop3Server(s), KEL_OK);
      EXPECT_EQ(kelMAILGetMailCount(s, &count), KEL_OK);
      char line[1024];
      if (count > 0 && kelMAILStartMailData(s, 1) == KEL_OK) {
        while (kelMAILRecvOneLinePop3(s, line, sizeof line) == KEL_OK && strcmp(line, ".\r\n") != 0) {
          size_t n = strlen(line);
          if (n >= 2 && line[n - 2] == '\r') line[n - 2] = '\n', line[n - 1] = '\0';
          message += line[0] == '.' ? line + 1 : line;
        }
        EXPECT_EQ(kelMAILDeleteMail(s, 1), KEL_OK);
      }
      EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);
      if (count == 0) usleep(100000);
    }
    EXPECT_EQ(count, 1) << box;
    return message;
  }
  virtual bool refusals() const { return false; }
  const bool wrongPasswords = getenv("KEL_SMTP_WRONG_PASSWORDS") != nullptr;
  int smtpPort = 0;
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
  use(road.port, road.ehlo);
  kelHostStatusSetNumber(KEL_STATUS_POP_BEFORE_SMTP, road.popBeforeSmtp ? 1 : 0);
  kelHostStatusSetText(KEL_STATUS_POP3_USER, getenv("KEL_POP3_USER"));
  std::string big(road.bigSize, '\0');
  for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>((i * 7919) >> 5 ^ i);
  const std::string files[2][2] = {{"notes \xc3\xbc.txt", std::string("notes\r\n= and \0 too", 19)},
                                   {"scan.bin", big}};
  const kelMAILSmtpRequest request = {"to@kel.test", "cc@kel.test", "bcc@kel.test", kSubject};
  ASSERT_EQ(send(request, files, 2), KEL_OK);

  std::string args = " 'Scan from kel-printer \xc3\xbc' to@kel.test cc@kel.test " +
                     writeFile(work + "/text", kText);
  for (int i = 0; i < 2; i++)
    args += " '" + files[i][0] + "' " + writeFile(work + "/file" + std::to_string(i), files[i][1]);
  for (const char *box : {"to", "cc", "bcc"}) {
    std::string message = writeFile(work + "/" + box + ".eml", fetch(box));
    EXPECT_EQ(system(("/usr/bin/python3 " KEL_MIME_CHECK " " + message + args).c_str()), 0) << box;
  }
}

const Road kRoads[] = {
    {"Helo", kNoAuth, false, false, 4096},
    {"EhloWithoutAuth", kNoAuth, true, false, 4096},
    {"AllFourWithPopBeforeSmtp", kAllFour, true, true, 1 << 20},
    {"CramMd5", kCramMd5, true, false, 4096},
    {"Plain", kPlain, true, false, 4096},
    {"Login", kLogin, true, false, 4096},
    {"DigestMd5", kDigestMd5, true, false, 4096},
};
INSTANTIATE_TEST_SUITE_P(Exim, Send, ::testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<Road> &i) { return i.param.name; });

// Dovecot delays each further login from an address that failed (2, 4,
// 8 s ...): the wrong passwords run in a server of their own, and refusals
// that need no login come here.
class Refusals : public SmtpServer {
  bool refusals() const override { return true; }
};

TEST_F(Refusals, LeaveNothingOpen) {
  struct Row {
    const char *name;
    Port port;
    const char *password, *to;
  };
  const Row rows[] = {
      {"refused recipient", kNoAuth, nullptr, "to@kel.test;nobody@kel.test"},
      {"greeting 5xx", kGreet5xx, nullptr, "to@kel.test"},
      {"greeting 4xx", kGreet4xx, nullptr, "to@kel.test"},
      {"CRAM-MD5, wrong password", kCramMd5, "wrong", "to@kel.test"},
      {"PLAIN, wrong password", kPlain, "wrong", "to@kel.test"},
      {"LOGIN, wrong password", kLogin, "wrong", "to@kel.test"},
      {"DIGEST-MD5, wrong password", kDigestMd5, "wrong", "to@kel.test"},
  };
  const size_t files = openFiles();
  for (const Row &row : rows) {
    if ((row.password != nullptr) != wrongPasswords) continue;
    use(row.port, true);
    if (row.password) kelHostStatusSetText(KEL_STATUS_SMTP_AUTH_PASSWORD, row.password);
    const kelMAILSmtpRequest request = {row.to, nullptr, nullptr, "refused"};
    kelMAILSession *session = nullptr;
    EXPECT_EQ(kelMAILStartSmtp(&request, &session), KEL_MAIL_ERR_REPLY) << row.name;
    EXPECT_EQ(kelHostPoolBlocksInUse(), 0u) << row.name;
    EXPECT_EQ(openFiles(), files) << row.name;
  }
}

}  // namespace
