// Shared by the SMB client's tests: SMB messages composed field by field as
// the protocol lays them out, name service packets, and a fixture for tests
// that take the fixed ports 137 and 139.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "pool_guard.h"
#include "smb/smb_internal.h"
#include "transcript.h"

namespace smbt {

inline std::string le16(unsigned v) { return {char(v & 0xff), char(v >> 8 & 0xff)}; }
inline std::string be16(unsigned v) { return {char(v >> 8 & 0xff), char(v & 0xff)}; }
inline std::string rep(const std::string &s, int n) { return n > 0 ? s + rep(s, n - 1) : ""; }
inline std::string nul(const std::string &s) { return s + std::string(1, '\0'); }
// A string of a data block: format 0x04, the text, NUL.
inline std::string str(const std::string &s) { return nul("\x04" + s); }

// One framed SMB message: header, parameter words, byte count and bytes.
struct Msg {
  uint8_t command;
  std::vector<uint16_t> words;
  std::string bytes;
  uint16_t tid = 7, pid = 0, mid = 0;
  uint8_t errorClass = 0;
  uint16_t errorCode = 0;
  operator std::string() const {
    std::string m = "\xffSMB" + std::string{char(command), char(errorClass), 0} + le16(errorCode) +
                    std::string(15, 0) + le16(tid) + le16(pid) + le16(0) + le16(mid) + char(words.size());
    for (uint16_t w : words) m += le16(w);
    m += le16(unsigned(bytes.size())) + bytes;
    return std::string{0, char(m.size() >> 16)} + be16(m.size() & 0xffff) + m;
  }
};
inline std::string ok(uint8_t command, std::vector<uint16_t> words = {}) { return Msg{command, words, ""}; }
inline std::string refusal(uint8_t command, uint8_t cls, uint16_t code) {
  return Msg{command, {}, "", 0, 0, 0, cls, code};
}

const std::string kNegotiate = kt::unhex("0000003B FF534D42 72" + rep("00", 19) + "FFFF0100 00000100 00180002") +
                               nul("PC NETWORK PROGRAM 1.0");
// Calls SRV1 from USER.
const std::string kSessionRequest = kt::unhex("81000044") + nul(" FDFCFGDB" + rep("CA", 12)) +
                                    nul(" FFFDEFFC" + rep("CA", 11) + "AA");

// The node status query, and a reply with names (name, type) and a MAC.
const std::string kStatusQuery = kt::unhex("07AC0000 00010000 00000000") + nul(" CK" + rep("A", 30)) +
                                 kt::unhex("00210001");
inline std::string statusReply(const std::vector<std::pair<std::string, int>> &names, const std::string &mac) {
  std::string r = kt::unhex("07AC8400 00000001 00000000") + nul(" CK" + rep("A", 30)) +
                  kt::unhex("00210001 00000000") + be16(unsigned(names.size() * 18 + 7)) + char(names.size());
  for (auto &n : names) r += (n.first + rep(" ", 15)).substr(0, 15) + char(n.second) + be16(0x0400);
  return r + mac;
}

inline std::string contents(const char *path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Runs only in the private network namespace that the test command makes,
// where the tests may take the ports 137 and 139 and broadcast on loopback.
// No descriptor and no local sink may be left open.
class Net : public kt::PoolGuard {
 protected:
  void SetUp() override {
    if (getenv("KEL_IN_NETNS") == nullptr) GTEST_SKIP() << "needs the test's network namespace";
    signal(SIGPIPE, SIG_IGN);
    kt::PoolGuard::SetUp();
    descriptor_ = lowestFreeDescriptor();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_EQ(lowestFreeDescriptor(), descriptor_) << "descriptor leaked";
    EXPECT_EQ(fp, nullptr);
    kt::PoolGuard::TearDown();
  }
  static int lowestFreeDescriptor() {
    int fd = dup(0);
    return close(fd), fd;
  }
  int descriptor_ = 0;
};

}  // namespace smbt
