// The SMB client's bytes without a network: every request against its
// layout, framing limits, byte count floors, the error fold, the path split
// and the UNC path of the application calls.

#include <string.h>

#include <functional>

#include "smb_script.h"

namespace {

using namespace smbt;
using namespace std::placeholders;
using Builder = std::function<int(uint8_t *, int32_t)>;

class Wire : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    s = kelSMBCprotoOpen("srv1", "user", "pw", 0, 100);
    s->tid = 7, s->pid = 0x0102, s->mid = 0x0304;
  }
  void TearDown() override { kelSMBCprotoClose(s), kt::PoolGuard::TearDown(); }
  // What a builder puts into a zeroed buffer of capacity bytes.
  static std::string build(Builder builder, size_t capacity = SMB_DATA_BUFFER_SIZE) {
    std::vector<uint8_t> buffer(capacity, 0);
    int n = builder(buffer.data(), int32_t(capacity));
    return n < 0 ? "refused" : std::string(buffer.begin(), buffer.begin() + n);
  }
  static std::string after(uint8_t command, std::vector<uint16_t> words, std::string bytes) {
    return Msg{command, words, bytes, 7, 0x0102, 0x0304};
  }
  static Builder write(const std::string &data) {
    return [data](uint8_t *b, int32_t c) { return smb_makewrite(b, c, data.data(), uint32_t(data.size())); };
  }
  kelSMBCSession *s = nullptr;
};

// The roads of the session tests check the other requests byte for byte.
TEST_F(Wire, RequestsCarryTheSessionsIdentifiersAndTheirLimits) {
  EXPECT_EQ(build(smb_makesessionrequest, 71), "refused");
  s->password[0] = '\0';
  EXPECT_EQ(build(std::bind(smb_maketreeconnect, s, _1, _2, "")), after(0x70, {}, str("") + str("") + str("A:")));
  EXPECT_EQ(build(std::bind(smb_makeopen, _1, _2, "")), after(0x02, {0, 0}, str("")));
  s->readFid = 0x0c0d, s->readOffset = 0x01020304;
  EXPECT_EQ(build(std::bind(smb_makeread, _1, _2, 0x12345)), after(0x0A, {0x0c0d, 0x2345, 0x0304, 0x0102, 0}, ""));
  EXPECT_EQ(build(smb_maketreedisconnect, 39), after(0x71, {}, ""));
  EXPECT_EQ(build(smb_maketreedisconnect, 38), "refused");
  EXPECT_EQ(build(write("")), after(0x0B, {0, 0, 0, 0, 0}, "\x01" + le16(0)));
  EXPECT_EQ(build(write(std::string(4448, 'x'))).size(), 4500u);
  EXPECT_EQ(build(write(std::string(4449, 'x'))), "refused");
  EXPECT_EQ(build(write("c")), after(0x0B, {0, 1, 4448, 0, 0}, "\x01" + le16(1) + "c"));
  EXPECT_EQ(s->writeOffset, 4449u);
}

TEST_F(Wire, FramingLimitsAndByteCountFloors) {
  uint8_t frame[4] = {9, 9, 9, 9};
  EXPECT_EQ(smb_setlength(frame, 0x20000), -1);
  EXPECT_EQ(frame[1], 9);
  EXPECT_EQ(smb_setlength(frame, 0x1FFFF), 0x1FFFF);
  EXPECT_EQ(std::string(frame, frame + 4), kt::unhex("0001FFFF"));
  EXPECT_EQ(smb_setheader(frame, 31), -1);
  auto byteCount = [&](Builder b) {
    std::string w = build(b, 0x20100);
    return w == "refused" ? -1 : int(uint8_t(w[37]) | uint8_t(w[38]) << 8);
  };
  for (auto [p, count] : {std::pair{65533u, 65535}, {65534u, 2}, {65535u, 2}, {0x1FFFFu - 36, -1}})
    EXPECT_EQ(byteCount(std::bind(smb_makecheckdir, _1, _2, std::string(p, 'p').c_str())), count) << p;
  for (auto [p, count] : {std::pair{65525u, 65535}, {65526u, 3}, {65528u, 3}, {65530u, 4}})  // W = 2
    EXPECT_EQ(byteCount(std::bind(smb_maketreeconnect, s, _1, _2, std::string(p, 'p').c_str())), count) << p;
}

TEST(SmbFold, ClassAndCodeFoldToOneValue) {
  EXPECT_EQ(smb_foldcode(1, 3), 0x13u);
  EXPECT_EQ(smb_foldcode(0xFF, 0x0100), 0x10F0u);
  EXPECT_EQ(smb_foldcode(0xFF, 0xF010), 0u);
  for (auto [reply, result] : {std::pair{refusal(0x70, 2, 0), 0u}, {refusal(0x70, 2, 4), 0x24u}})
    EXPECT_EQ(smb_replyresult(reinterpret_cast<const uint8_t *>(reply.data())), result);
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
    smb_splitpath(strcpy(path, r.path), r.file, share, filePath);
    EXPECT_EQ(std::string(share) + "|" + checkdirpath + "|" + filePath,
              std::string(r.share) + "|" + r.dir + "|" + r.filePath);
  }
  char path[] = "\\\\srv\\share\\d1\\d2", share[512] = {}, filePath[512] = {};
  smb_splitpath(path, "f.txt", share, filePath);
  EXPECT_EQ(std::string(path, sizeof path - 1), std::string("\\\\srv\0share\0d1\0d2", 17));
  memset(share, 0, 512), memset(filePath, 0, 512);
  smb_splitpath(path, "f.txt", share, filePath);
  EXPECT_EQ(std::string(share) + "|" + checkdirpath + "|" + filePath, "\\\\srv\\|\\|\\f.txt");
}

TEST(SmbPaths, HostAndUncPathOfTheServerString) {
  for (auto [server, path, host] : std::initializer_list<std::tuple<const char *, const char *, const char *>>{
           {"\\\\srv1\\share", "\\\\srv1\\share", "srv1"}, {"srv1\\share\\d", "\\\\srv1\\share\\d", "srv1"},
           {"srv1", "\\\\srv1", "srv1"}, {"\\\\\\\\srv1", "\\\\\\\\srv1", "srv1"}, {"\\\\", "\\\\", "kept"}}) {
    char out[254] = "kept";
    smb_makehost(server, out);
    EXPECT_EQ(std::string(makepath) + "|" + out, std::string(path) + "|" + host);
  }
}

}  // namespace
