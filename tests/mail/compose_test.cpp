// Message composition on a session wired to a scripted peer: the header
// block, part headers, data lines, the part state and the subject template.

#include <string.h>

#include <string>
#include <vector>

#include "mail_test.h"

namespace {

class Compose : public mt::Mail {};

// A session whose socket leads to a peer that must receive exactly the
// bytes given to start(), then the close.
struct Wire {
  kt::TcpPeer peer;
  kelMAILSession *s = nullptr;
  std::string b;  // the boundary
  Wire() {
    s = static_cast<kelMAILSession *>(kelMAILAlloc(sizeof(kelMAILSession)));
    EXPECT_EQ(kelMAILInitSmtpSession(s), KEL_OK);
    b = s->boundary;
  }
  ~Wire() { kelMAILFreeSmtpSession(s); }
  void start(const std::string &want) {
    peer.expectAllThenEof(want);
    peer.start();
    EXPECT_EQ(kelMAILConnect(&s->socket, "127.0.0.1", peer.port()), KEL_OK);
  }
  bool finish() {
    kelMAILCloseSocket(s->socket);
    s->socket = -1;
    return peer.finish();
  }
  static void list(kelMAILAddress **cell, int32_t *count, const std::vector<std::string> &items) {
    *count = static_cast<int32_t>(items.size());
    if (items.empty()) return;
    *cell = static_cast<kelMAILAddress *>(kelMAILAlloc(static_cast<uint32_t>(items.size() * 128)));
    for (size_t i = 0; i < items.size(); i++) snprintf((*cell)[i], 128, "%s", items[i].c_str());
  }
};

const char kMime[] = "MIME-version: 1.0\r\nContent-type: multipart/mixed; boundary=\"";
const char kEight[] = "\"\r\nContent-transfer-encoding: 8bit\r\n";

TEST_F(Compose, HeaderBlock) {
  struct Case {
    std::vector<std::string> to, cc;
    std::string subject, lines;
  };
  const Case cases[] = {
      {{"a@x"}, {}, "Hi", "To: a@x\r\nSubject: =?utf-8?B?SGk=?=\r\n"},
      {{"a@x", "b@x", "c@x"}, {"d@x", "e@x"}, "",
       "To: a@x,\r\n    b@x,\r\n    c@x\r\nCc: d@x,\r\n    e@x\r\n"},
      {{"a@x", "b@x"}, {"d@x"}, std::string(255, '\xff'),
       "To: a@x,\r\n    b@x\r\nCc: d@x\r\nSubject: =?utf-8?B?" + std::string(340, '/') + "?=\r\n"},
  };
  kelHostStatusSetText(KEL_STATUS_MAIL_SENDER, "me@x");
  for (const Case &c : cases) {
    Wire w;
    Wire::list(&w.s->toList, &w.s->toCount, c.to);
    Wire::list(&w.s->ccList, &w.s->ccCount, c.cc);
    Wire::list(&w.s->bccList, &w.s->bccCount, {"hidden@x"});  // envelope only
    snprintf(w.s->subject, 256, "%s", c.subject.c_str());
    w.start("From: me@x\r\n" + c.lines + kMime + w.b + kEight);
    EXPECT_EQ(kelMAILSendHeaderBlock(w.s), KEL_OK);
    EXPECT_TRUE(w.finish()) << w.peer.failure();
  }
  // Failures stop at once and give everything back.
  const struct {
    const char *sender;
    int failure;
    size_t failAt;  // the sender, then the subject's Base64
    const char *sent;
    kelResult result;
  } failures[] = {{"", 0, 0, "", KEL_MAIL_ERR_NO_SENDER},
                  {"me@x", -5, 0, "", KEL_MAIL_ERR_STATUS},
                  {"me@x", 0, 1, "", KEL_MAIL_ERR_MEMORY},
                  {"me@x", 0, 2, "From: me@x\r\nTo: a@x\r\n", KEL_MAIL_ERR_MEMORY}};
  for (auto &f : failures) {
    Wire w;
    Wire::list(&w.s->toList, &w.s->toCount, {"a@x"});
    kelHostStatusSetText(KEL_STATUS_MAIL_SENDER, f.sender);
    kelHostStatusFail(KEL_STATUS_MAIL_SENDER, f.failure);
    w.start(f.sent);
    kelHostPoolFailAt(f.failAt);
    EXPECT_EQ(kelMAILSendHeaderBlock(w.s), f.result) << f.sent;
    kelHostPoolFailAt(0);
    EXPECT_TRUE(w.finish()) << w.peer.failure();
  }
}

TEST_F(Compose, PartsLinesAndState) {
  Wire w;
  auto write = [&](const std::string &bytes) {
    return kelMAILWriteSmtp(w.s, bytes.data(), static_cast<int32_t>(bytes.size()));
  };
  const std::string same = "one\r\ntwo\r\n";
  const std::string full(1021, 'f');
  const std::string name(800, '\xff');
  w.start("\r\n--" + w.b + "\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n"
          "Content-Transfer-Encoding: 8bit\r\n\r\n" +
          "..\r\na.b\r\n..x\r\n\r\n\r\nend\r\r\n" + same + same + same + "ab\r\n..c\r\n" + "ab\r\n" +
          full + "\r\n" + full + "\r\ng\r\n" + full + "\r\n..\r\n" +
          "\r\n--" + w.b + "\r\n\r\n--" + w.b + "\r\nContent-Type: application/octet-stream; name=\"=?utf-8?B?" +
          std::string(960, '/') + "?=\"\r\nContent-Transfer-Encoding: base64\r\n" +
          "Content-Disposition: attachment; filename=\"=?utf-8?B?" + std::string(960, '/') +
          "?=\"\r\n\r\nQUJD\r\n");
  kelMAILSmtpPart text = {"ignored", KEL_MAIL_PART_KIND_TEXT}, file = {name.c_str(), 0};
  EXPECT_EQ(write("x"), KEL_MAIL_ERR_NO_PART);
  EXPECT_EQ(kelMAILCloseSmtp(w.s), KEL_MAIL_ERR_NO_PART);
  ASSERT_EQ(kelMAILOpenSmtp(w.s, &text), KEL_OK);
  EXPECT_EQ(kelMAILOpenSmtp(w.s, &text), KEL_MAIL_ERR_PART_OPEN);
  EXPECT_EQ(w.s->partState, KEL_MAIL_PART_STATE_OPEN);
  EXPECT_EQ(write("."), KEL_OK);
  EXPECT_EQ(write("a.b\n.x\r\n\r\n\nend\r"), KEL_OK);  // dots, empty lines, a last CR
  for (const char *form : {"one\ntwo\n", "one\r\ntwo\r\n", "one\r\ntwo"}) EXPECT_EQ(write(form), KEL_OK);
  EXPECT_EQ(write("ab"), KEL_OK);  // each call ends its line
  EXPECT_EQ(write(".c"), KEL_OK);
  EXPECT_EQ(kelMAILWriteSmtp(w.s, "zz", 0), KEL_OK);
  EXPECT_EQ(kelMAILWriteSmtp(w.s, "zz", -1), KEL_OK);
  EXPECT_EQ(write(std::string("a\0b\n", 4)), KEL_OK);  // a NUL is dropped
  EXPECT_EQ(write(full + "\n" + full + "g"), KEL_OK);  // 1021 bytes pass, the next is cut
  EXPECT_EQ(write(full + "."), KEL_OK);  // the cut line gets its dot test
  EXPECT_EQ(kelMAILCloseSmtp(w.s), KEL_OK);
  EXPECT_EQ(kelMAILCloseSmtp(w.s), KEL_MAIL_ERR_NO_PART);
  kelHostPoolFailAt(1);  // no memory for the name: the delimiter is out
  EXPECT_EQ(kelMAILOpenSmtp(w.s, &file), KEL_MAIL_ERR_MEMORY);
  kelHostPoolFailAt(0);
  EXPECT_EQ(kelMAILCloseSmtp(w.s), KEL_OK);
  ASSERT_EQ(kelMAILOpenSmtp(w.s, &file), KEL_OK);  // the name cut to 720 bytes
  EXPECT_EQ(write("QUJD\n"), KEL_OK);
  EXPECT_EQ(kelMAILCloseSmtp(w.s), KEL_OK);
  EXPECT_TRUE(w.finish()) << w.peer.failure();
  // On a dead socket a failed open leaves the part open.
  EXPECT_EQ(kelMAILOpenSmtp(w.s, &file), KEL_MAIL_ERR_IO);
  EXPECT_EQ(kelMAILWriteSmtp(w.s, "a\n", 2), KEL_MAIL_ERR_IO);
  EXPECT_EQ(kelMAILCloseSmtp(w.s), KEL_OK);
  EXPECT_EQ(kelMAILWriteSmtp(nullptr, "a", 1), KEL_MAIL_ERR_NO_PART);
}

TEST_F(Compose, SubjectTemplate) {
  const unsigned char ether[8] = {0x00, 0x1b, 0xa9, 0x0c, 0xff, 0x05, 0x77, 0x88};
  kelHostStatusSetText(KEL_STATUS_PRINTER, "P1");
  kelHostStatusSetBytes(KEL_STATUS_SERIAL, "SERIAL0123456789", 16);
  kelHostStatusSetBytes(KEL_STATUS_ETHER_ADDR, ether, 8);
  kelHostStatusSetText(KEL_STATUS_EQUIP_ID, "EQ-7");
  const std::string rows[][2] = {
      {"%printer %serial %etheraddr %equipid", "P1 SERIAL0123456789 00:1b:a9:0c:ff:05 EQ-7"},
      {"%printerX%equipid.", "P1XEQ-7."},
      {"%Printer %serialnumber %%printer", "%Printer SERIAL0123456789number %P1"},
      {"50% %prin %", "50% %prin %"},
      {"", ""},
      {std::string(250, 'a') + "%equipid", std::string(250, 'a') + "EQ-7"},
      {std::string(300, 'a'), std::string(255, 'a')},
  };
  char out[512];
  for (auto &row : rows) {
    memset(out, 'z', sizeof out);
    ASSERT_EQ(kelMAILEditStrings(out, row[0].c_str()), KEL_OK) << row[0];
    EXPECT_EQ(std::string(out), row[1].substr(0, 255));
  }
  EXPECT_EQ(kelHostStatusReads(KEL_STATUS_PRINTER), 3u);  // each token reads anew
  kelHostStatusFail(KEL_STATUS_SERIAL, -3);
  EXPECT_EQ(kelMAILEditStrings(out, "a%serial"), KEL_MAIL_ERR_STATUS);
  EXPECT_STREQ(out, "a");
  kelHostPoolFailAt(1);
  EXPECT_EQ(kelMAILEditStrings(out, "a"), KEL_MAIL_ERR_MEMORY);
}

}  // namespace
