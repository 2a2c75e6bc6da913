// Message composition on a session wired to a scripted peer: part headers,
// data lines, the part state, and the subject template. (The header block
// goes out on every SMTP road, byte for byte.)

#include <string.h>

#include "mail_test.h"

namespace {

class Compose : public mt::Mail {};

// A session whose socket leads to a peer that must receive exactly the bytes
// given to start(), then the close.
struct Wire {
  kt::TcpPeer peer;
  kelMAILSession *s = static_cast<kelMAILSession *>(kelMAILAlloc(sizeof(kelMAILSession)));
  std::string b = kelMAILInitSmtpSession(s) == KEL_OK ? s->boundary : "(no session)";
  ~Wire() {
    kelMAILFreeSmtpSession(s);
    EXPECT_TRUE(peer.finish()) << peer.failure();
  }
  void start(const std::string &want) {
    peer.expect(want).expectEof().start();
    EXPECT_EQ(kelMAILConnect(&s->socket, "127.0.0.1", peer.port()), KEL_OK);
  }
};

TEST_F(Compose, PartsLinesAndState) {
  Wire w;
  const std::string same = "one\r\ntwo\r\n", full(1021, 'f'), name(800, '\xff'), code(960, '/');
  w.start("\r\n--" + w.b + "\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n" +
          "Content-Transfer-Encoding: 8bit\r\n\r\n" +
          "..\r\na.b\r\n..x\r\n\r\n\r\nend\r\r\n" + same + same + same + "ab\r\n..c\r\nab\r\n" + full + "\r\n" +
          full + "\r\ng\r\n" + full + "\r\n..\r\n\r\n--" + w.b + "\r\n\r\n--" + w.b +
          "\r\nContent-Type: application/octet-stream; name=\"=?utf-8?B?" + code + "?=\"\r\n" +
          "Content-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"=?utf-8?B?" + code +
          "?=\"\r\n\r\nQUJD\r\n");
  kelMAILSmtpPart text = {"ignored", KEL_MAIL_PART_KIND_TEXT}, file = {name.c_str(), 0};
  // w: write, n: write of length -1, t/f: open text/file part, m: the same
  // without memory, c: close, x: the connection ends.
  const struct {
    char op;
    std::string bytes;
    kelResult result;
  } steps[] = {
      {'w', "x", KEL_MAIL_ERR_NO_PART}, {'c', "", KEL_MAIL_ERR_NO_PART}, {'t', "", KEL_OK},
      {'t', "", KEL_MAIL_ERR_PART_OPEN}, {'w', ".", KEL_OK}, {'w', "a.b\n.x\r\n\r\n\nend\r", KEL_OK},
      {'w', "one\ntwo\n", KEL_OK}, {'w', same, KEL_OK}, {'w', "one\r\ntwo", KEL_OK},  // every line end
      {'w', "ab", KEL_OK}, {'w', ".c", KEL_OK}, {'w', "", KEL_OK}, {'n', "", KEL_OK},  // each call ends its line
      {'w', std::string("a\0b\n", 4), KEL_OK},                                          // a NUL is dropped
      {'w', full + "\n" + full + "g", KEL_OK}, {'w', full + ".", KEL_OK},  // a cut line gets its own dot test
      {'c', "", KEL_OK}, {'c', "", KEL_MAIL_ERR_NO_PART}, {'m', "", KEL_MAIL_ERR_MEMORY},  // delimiter is out
      {'c', "", KEL_OK}, {'f', "", KEL_OK}, {'w', "QUJD\n", KEL_OK},  // the name cut to 720 bytes
      {'x', "", KEL_OK}, {'c', "", KEL_OK}, {'f', "", KEL_MAIL_ERR_IO},  // a failed open leaves the part open
      {'w', "a\n", KEL_MAIL_ERR_IO}, {'c', "", KEL_OK}};
  for (auto &step : steps) {
    kelHostPoolFailAt(step.op == 'm');
    const int32_t size = static_cast<int32_t>(step.bytes.size());
    kelResult r = step.op == 'w'   ? kelMAILWriteSmtp(w.s, step.bytes.data(), size)
                  : step.op == 'n' ? kelMAILWriteSmtp(w.s, "zz", -1)
                  : step.op == 'c' ? kelMAILCloseSmtp(w.s)
                  : step.op == 'x' ? (kelMAILCloseSocket(w.s->socket), w.s->socket = -1, KEL_OK)
                                   : kelMAILOpenSmtp(w.s, step.op == 't' ? &text : &file);
    EXPECT_EQ(r, step.result) << step.op << " " << kt::printable(step.bytes.substr(0, 20));
  }
}

TEST_F(Compose, SubjectTemplate) {
  kelHostStatusSetText(KEL_STATUS_PRINTER, "P1");
  kelHostStatusSetBytes(KEL_STATUS_SERIAL, "SERIAL0123456789", 16);
  kelHostStatusSetBytes(KEL_STATUS_ETHER_ADDR, "\x00\x1b\xa9\x0c\xff\x05\x77\x88", 8);
  kelHostStatusSetText(KEL_STATUS_EQUIP_ID, "EQ-7");
  const std::string rows[][2] = {
      {"%printer %serial %etheraddr %equipid", "P1 SERIAL0123456789 00:1b:a9:0c:ff:05 EQ-7"},
      {"%Printer %serialnumber %%printer 50% %prin %", "%Printer SERIAL0123456789number %P1 50% %prin %"},
      {std::string(252, 'a') + "%equipid", std::string(252, 'a') + "EQ-"}};
  char out[512];
  for (auto &row : rows) {
    memset(out, 'z', sizeof out);
    ASSERT_EQ(kelMAILEditStrings(out, row[0].c_str()), KEL_OK) << row[0];
    EXPECT_EQ(std::string(out), row[1]);
  }
  kelHostStatusFail(KEL_STATUS_SERIAL, -3);
  EXPECT_EQ(kelMAILEditStrings(out, "a%serial"), KEL_MAIL_ERR_STATUS);
  EXPECT_STREQ(out, "a");
}

}  // namespace
