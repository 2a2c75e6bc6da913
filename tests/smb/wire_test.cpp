// The SMB client's bytes without a network: every request against its
// layout, the framing limits, the byte count floors, the error fold, the
// path split and the UNC path of the application calls.

#include <string.h>

#include <functional>

#include "smb_script.h"

namespace {

using namespace smbt;

class Wire : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    s = kelSMBCprotoOpen("srv1", "user", "pw", 0, 100);
    s->tid = 7, s->pid = 0x0102, s->mid = 0x0304;
  }
  void TearDown() override {
    kelSMBCprotoClose(s);
    kt::PoolGuard::TearDown();
  }
  // What builder puts into a zeroed buffer of capacity bytes.
  static std::string build(std::function<int(uint8_t *, int32_t)> builder,
                           size_t capacity = SMB_DATA_BUFFER_SIZE) {
    std::vector<uint8_t> buffer(capacity, 0);
    int n = builder(buffer.data(), int32_t(capacity));
    return n < 0 ? "refused" : std::string(buffer.begin(), buffer.begin() + n);
  }
  Msg after(uint8_t command, std::vector<uint16_t> words, std::string bytes) {
    return Msg{command, words, bytes, 7, 0, 0, 0x0102, 0x0304};
  }
  kelSMBCSession *s = nullptr;
};

const std::string kNegotiate =
    kt::unhex("0000003B FF534D42 72" + rep("00", 19) + "FFFF0100 00000100 00180002") +
    "PC NETWORK PROGRAM 1.0" + std::string(1, '\0');

TEST_F(Wire, EveryRequestHasTheLayoutOfItsCommand) {
  using namespace std::placeholders;
  EXPECT_EQ(build(smb_makenegotiate), kNegotiate);
  EXPECT_EQ(build(std::bind(smb_maketreeconnect, s, _1, _2, "\\\\srv\\a")),
            after(0x70, {}, str("\\\\srv\\a") + str("pw") + str("A:")).wire());
  s->password[0] = '\0';
  EXPECT_EQ(build(std::bind(smb_maketreeconnect, s, _1, _2, "")),
            after(0x70, {}, str("") + str("") + str("A:")).wire());
  EXPECT_EQ(build(std::bind(smb_makecheckdir, _1, _2, "\\")), after(0x10, {}, str("\\")).wire());
  EXPECT_EQ(build(std::bind(smb_makecreate, _1, _2, "\\a")),
            after(0x03, {0, 0xffff, 0xffff}, str("\\a")).wire());
  EXPECT_EQ(build(std::bind(smb_makeopen, _1, _2, "")), after(0x02, {0, 0}, str("")).wire());
  EXPECT_EQ(build(std::bind(smb_makedelete, _1, _2, "\\b")), after(0x06, {0}, str("\\b")).wire());
  s->writeFid = 0x0a0b, s->readFid = 0x0c0d, s->readOffset = 0x01020304;
  EXPECT_EQ(build(std::bind(smb_makeread, _1, _2, 0x12345)),
            after(0x0A, {0x0c0d, 0x2345, 0x0304, 0x0102, 0}, "").wire());
  EXPECT_EQ(build(smb_makeclosewrite), after(0x04, {0x0a0b, 0xffff, 0xffff}, "").wire());
  EXPECT_EQ(build(smb_makecloseread), after(0x04, {0x0c0d, 0xffff, 0xffff}, "").wire());
  EXPECT_EQ(build(smb_maketreedisconnect, 39), after(0x71, {}, "").wire());
  EXPECT_EQ(build(smb_makelogoff), after(0x74, {0x00ff, 0}, "").wire());
  EXPECT_EQ(build(smb_maketreedisconnect, 38), "refused");
}

TEST_F(Wire, WritesCarryTheRunningOffsetAndAdvanceIt) {
  s->writeFid = 9;
  std::string one(4448, 'x');
  auto write = [](const std::string &data) {
    return [data](uint8_t *b, int32_t c) { return smb_makewrite(b, c, data.data(), uint32_t(data.size())); };
  };
  EXPECT_EQ(build(write("")), after(0x0B, {9, 0, 0, 0, 0}, std::string("\x01\0\0", 3)).wire());
  EXPECT_EQ(build(write("ab")), after(0x0B, {9, 2, 0, 0, 0}, std::string("\x01\x02\0ab", 5)).wire());
  EXPECT_EQ(build(write(one)).size(), 4500u);
  EXPECT_EQ(s->writeOffset, 4450u);
  EXPECT_EQ(build(write(one + "y")), "refused");
  EXPECT_EQ(s->writeOffset, 4450u);
  EXPECT_EQ(build(write("c")), after(0x0B, {9, 1, 4450, 0, 0}, std::string("\x01\x01\0c", 4)).wire());
}

TEST_F(Wire, SessionRequestCallsTheServerFromTheCaller) {
  EXPECT_EQ(build(smb_makesessionrequest),
            kt::unhex("81000044") + " FDFCFGDB" + rep("CA", 12) + std::string(1, '\0') +
                " FFFDEFFC" + rep("CA", 11) + "AA" + std::string(1, '\0'));
  EXPECT_EQ(build(smb_makesessionrequest, 71), "refused");
}

TEST_F(Wire, FramingLimitsAndByteCountFloors) {
  uint8_t frame[4] = {9, 9, 9, 9};
  EXPECT_EQ(smb_setlength(frame, 0x20000), -1);
  EXPECT_EQ(frame[1], 9);
  EXPECT_EQ(smb_setlength(frame, 0x1FFFF), 0x1FFFF);
  EXPECT_EQ(std::string(frame, frame + 4), kt::unhex("0001FFFF"));
  EXPECT_EQ(smb_setheader(frame, 31), -1);
  const size_t big = 0x20100;
  auto byteCount = [&](std::function<int(uint8_t *, int32_t)> b, size_t at) {
    std::string w = build(b, big);
    return w == "refused" ? -1 : int(uint8_t(w[at]) | uint8_t(w[at + 1]) << 8);
  };
  using namespace std::placeholders;
  for (auto [p, floor] : {std::pair{65533u, 65535}, {65534u, 2}, {65535u, 2}}) {
    std::string path(p, 'p');
    EXPECT_EQ(byteCount(std::bind(smb_makecheckdir, _1, _2, path.c_str()), 37), floor) << p;
  }
  for (auto [p, floor] : {std::pair{65525u, 65535}, {65526u, 3}, {65528u, 3}, {65530u, 4}}) {
    std::string path(p, 'p');  // with W = 2
    EXPECT_EQ(byteCount(std::bind(smb_maketreeconnect, s, _1, _2, path.c_str()), 37), floor) << p;
  }
  std::string tooLong(0x1FFFF - 36, 'p');
  EXPECT_EQ(byteCount(std::bind(smb_makecheckdir, _1, _2, tooLong.c_str()), 37), -1);
}

TEST(SmbFold, ClassAndCodeFoldToOneValue) {
  EXPECT_EQ(smb_foldcode(1, 3), 0x13u);
  EXPECT_EQ(smb_foldcode(2, 4), 0x24u);
  EXPECT_EQ(smb_foldcode(0xFF, 0x0100), 0x10F0u);
  EXPECT_EQ(smb_foldcode(0xFF, 0xF010), 0u);
  std::string reply = Msg{0x70, {}, "", 0, 2, 0}.wire();
  EXPECT_EQ(smb_replyresult(reinterpret_cast<const uint8_t *>(reply.data())), 0u);
  reply = refusal(0x70, 1, 0x43);
  EXPECT_EQ(smb_replyresult(reinterpret_cast<const uint8_t *>(reply.data())), 0x53u);
}

TEST(SmbPaths, SplitCutsThePathInPlace) {
  struct Row { const char *path, *file, *share, *dir, *filePath; };
  for (const Row &r : std::initializer_list<Row>{
           {"\\\\srv\\share\\d1\\d2", "f.txt", "\\\\srv\\share", "\\d1\\d2\\", "\\d1\\d2\\f.txt"},
           {"\\\\\\srv\\\\share\\\\d1", "f", "\\\\srv\\share", "\\d1\\", "\\d1\\f"},
           {"srv", "a\\b.txt", "\\\\srv\\", "\\", "\\a\\b.txt"},
           {"", "f.txt", "", "", "f.txt"},
           {"\\\\srv\\share\\d", "\\\\xyz.txt", "\\\\srv\\share", "\\d\\", "\\\\xy"},
           {"\\\\srv\\share", "\\\\", "\\\\srv\\share", "\\", "\\\\"},
           {"\\\\srv\\share", "\\f", "\\\\srv\\share", "\\", "\\\\f"}}) {
    char path[64], share[512] = {}, filePath[512] = {};
    strcpy(path, r.path);
    smb_splitpath(path, r.file, share, filePath);
    EXPECT_STREQ(share, r.share) << r.path;
    EXPECT_STREQ(checkdirpath, r.dir) << r.path;
    EXPECT_STREQ(filePath, r.filePath) << r.path;
  }
  char path[] = "\\\\srv\\share\\d1\\d2";
  char share[512] = {}, filePath[512] = {}, again[512] = {}, againFile[512] = {};
  smb_splitpath(path, "f.txt", share, filePath);
  EXPECT_EQ(std::string(path, sizeof path - 1), std::string("\\\\srv\0share\0d1\0d2", 17));
  smb_splitpath(path, "f.txt", again, againFile);
  EXPECT_STREQ(again, "\\\\srv\\");
  EXPECT_STREQ(checkdirpath, "\\");
  EXPECT_STREQ(againFile, "\\f.txt");
}

TEST(SmbPaths, HostAndUncPathOfTheServerString) {
  struct Row { const char *server, *makepath, *host; };
  for (const Row &r : std::initializer_list<Row>{
           {"\\\\srv1\\share", "\\\\srv1\\share", "srv1"},
           {"srv1\\share", "\\\\srv1\\share", "srv1"},
           {"srv1", "\\\\srv1", "srv1"},
           {"srv1\\share\\d", "\\\\srv1\\share\\d", "srv1"},
           {"\\\\\\\\srv1", "\\\\\\\\srv1", "srv1"},
           {"\\\\", "\\\\", "kept"}}) {
    char host[254] = "kept";
    smb_makehost(r.server, host);
    EXPECT_STREQ(makepath, r.makepath) << r.server;
    EXPECT_STREQ(host, r.host) << r.server;
  }
}

}  // namespace
