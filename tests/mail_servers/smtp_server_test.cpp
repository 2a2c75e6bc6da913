// The mail client against real servers: Exim with Dovecot as its SASL
// provider (see scripts/servers/exim.sh and dovecot.sh). A whole message for
// HELO, EHLO, each mechanism alone and all four together, fetched back from
// each mailbox with a POP3 round of the library's calls (both logins, STAT,
// LIST, RETR, DELE, QUIT) and read by Python's email package;
// refusals that leave nothing open.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "../mail/mail_test.h"

namespace {

namespace fs = std::filesystem;

// The ports from KEL_SMTP_PORT on, as exim.sh sets them up.
enum Port { kAllFour, kCramMd5, kPlain, kLogin, kDigestMd5, kNoAuth, kGreet5xx, kGreet4xx };

struct Road {
  const char *name;
  Port port;
  bool ehlo;
  kelResult result = KEL_OK;
  const char *password = nullptr;  // null: the right one
};

// The wrong password comes last: Dovecot slows down the logins after a failed one.
const Road kRoads[] = {
    {"Helo", kNoAuth, false},    {"EhloWithoutAuth", kNoAuth, true}, {"AllFour", kAllFour, true},
    {"CramMd5", kCramMd5, true}, {"Plain", kPlain, true},            {"Login", kLogin, true},
    {"DigestMd5", kDigestMd5, true}, {"Greeting5xx", kGreet5xx, true, KEL_MAIL_ERR_REPLY},
    {"WrongPassword", kCramMd5, true, KEL_MAIL_ERR_REPLY, "wrong"},
};

// Waits for the one message of box and fetches it with LF line ends, deleting it.
std::string fetch(const char *box, bool apop) {
  kelHostStatusSetText(KEL_STATUS_POP3_USER, box);
  std::string message;
  int32_t count = 0, s = -1;
  size_t wire = 0;  // the bytes of the message as sent, stuffing and line ends and all
  for (int tries = 0; tries < 100 && count == 0; tries++, usleep(count ? 0 : 100000)) {
    EXPECT_EQ(kelMAILConnectPop3Server(&s), KEL_OK);
    EXPECT_EQ(apop ? kelMAILLoginPop3ServerByAPOP(s) : kelMAILLoginPop3Server(s), KEL_OK);
    EXPECT_EQ(kelMAILGetMailCount(s, &count), KEL_OK);
    char line[1024];
    bool more = count > 0 && kelMAILStartMailData(s, 1) == KEL_OK;
    while (more && kelMAILRecvOneLinePop3(s, line, sizeof line) == KEL_OK && strcmp(line, ".\r\n") != 0) {
      wire += strlen(line) - (line[0] == '.');
      if (char *cr = strstr(line, "\r\n")) strcpy(cr, "\n");
      message += line[0] == '.' ? line + 1 : line;
    }
    uint16_t size = 0;
    EXPECT_EQ(count > 0 ? kelMAILGetMailSize(s, 1, &size) : KEL_OK, KEL_OK);
    EXPECT_EQ(size, (wire + 1023) / 1024);
    EXPECT_EQ(count > 0 ? kelMAILDeleteMail(s, 1) : KEL_OK, KEL_OK);
    EXPECT_EQ(kelMAILDisconnectPop3Server(s), KEL_OK);
  }
  EXPECT_EQ(count, 1) << box;
  return message;
}

class Exim : public Mail, public ::testing::WithParamInterface<Road> {};

TEST_P(Exim, SendsEveryByteOrRefusesLeavingNothingOpen) {
  if (getenv("KEL_SMTP_PORT") == nullptr) GTEST_SKIP() << "no SMTP server (scripts/servers/exim.sh)";
  const Road &road = GetParam();
  const std::pair<uint32_t, const char *> texts[] = {
      {KEL_STATUS_SMTP_SERVER, getenv("KEL_SMTP_HOST")}, {KEL_STATUS_POP3_SERVER, getenv("KEL_POP3_HOST")},
      {KEL_STATUS_HELO_NAME, "kel-device"}, {KEL_STATUS_MAIL_SENDER, "device@kel.test"},
      {KEL_STATUS_SMTP_AUTH_USER, getenv("KEL_POP3_USER")}, {KEL_STATUS_PRINTER, "kel-printer"},
      {KEL_STATUS_SMTP_AUTH_PASSWORD, road.password ? road.password : getenv("KEL_POP3_PASS")},
      {KEL_STATUS_POP3_USER, getenv("KEL_POP3_USER")}, {KEL_STATUS_POP3_PASSWORD, getenv("KEL_POP3_PASS")}};
  const uint32_t numbers[][2] = {{KEL_STATUS_SMTP_ENABLED, 1}, {KEL_STATUS_SMTP_USE_EHLO, road.ehlo},
                                 {KEL_STATUS_POP_BEFORE_SMTP, road.port == kAllFour},
                                 {KEL_STATUS_POP3_PORT, uint32_t(atoi(getenv("KEL_POP3_PORT")))},
                                 {KEL_STATUS_SMTP_PORT, uint32_t(atoi(getenv("KEL_SMTP_PORT")) + road.port)}};
  ASSERT_EQ(kelHostPoolSetSize(8u << 20), 0);  // room for the Base64 of 1 MiB
  for (auto &t : texts) kelHostStatusSetText(t.first, t.second);
  for (auto &n : numbers) kelHostStatusSetNumber(n[0], n[1]);
  const kelMAILSmtpRequest request = {"to@kel.test", "cc@kel.test", "bcc@kel.test", "Scan %printer \xc3\xbc"};
  kelMAILSession *session = nullptr;
  const auto files = std::distance(fs::directory_iterator("/proc/self/fd"), {});
  ASSERT_EQ(kelMAILStartSmtp(&request, &session), road.result);
  // The one socket open, or nothing left open.
  EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), files + (road.result == KEL_OK));
  if (road.result != KEL_OK) return;
  // A text part and an attachment, of 1 MiB with all four mechanisms.
  const fs::path work = fs::temp_directory_path() / ("kel-smtp-" + std::to_string(getpid()));
  fs::create_directories(work);
  std::string big(road.port == kAllFour ? 1 << 20 : 4096, '\0');  // every byte value, CR LF among them
  for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>((i * 7919) >> 5 ^ i);
  const std::string parts[][2] = {{"text", "Scanned on the device.\nZweite Zeile: \xc3\xbc\n.a dot first\n"},
                                  {"scan \xc3\xbc.bin", big}};
  for (const auto &part : parts) {
    std::ofstream(work / part[0], std::ios::binary) << part[1];
    const bool text = part[0] == "text";
    const kelMAILSmtpPart open = {text ? nullptr : part[0].c_str(), text ? KEL_MAIL_PART_KIND_TEXT : 2};
    char *base64 = kelMAILEncodeBase64(part[1].data(), uint32_t(part[1].size()));
    std::string lines = text ? part[1] : base64;
    kelMAILFree(base64);
    for (size_t at = 76; !text && at < lines.size(); at += 77) lines.insert(at, "\n");
    EXPECT_EQ(kelMAILOpenSmtp(session, &open), KEL_OK);
    EXPECT_EQ(kelMAILWriteSmtp(session, lines.data(), int32_t(lines.size())), KEL_OK);
    EXPECT_EQ(kelMAILCloseSmtp(session), KEL_OK);
  }
  ASSERT_EQ(kelMAILEndSmtp(session), KEL_OK);
  for (const char *box : {"to", "cc", "bcc"}) {
    const std::string message = fetch(box, box[0] == 'c');
    FILE *check = popen(("python3 " KEL_MIME_CHECK " '" + work.string() +
                         "' 'Scan kel-printer \xc3\xbc' 'scan \xc3\xbc.bin'").c_str(), "w");
    fwrite(message.data(), 1, message.size(), check);
    EXPECT_EQ(pclose(check), 0) << box;
  }
  fs::remove_all(work);
}

INSTANTIATE_TEST_SUITE_P(Smtp, Exim, ::testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<Road> &i) { return i.param.name; });

}  // namespace
