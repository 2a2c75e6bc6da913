// Shared by the SMB client's tests: SMB messages composed field by field as
// the protocol lays them out, NetBIOS name service packets, and a scripted
// server on the fixed ports 137 (UDP) and 139 (TCP).
#pragma once

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "peer.h"
#include "pool_guard.h"
#include "transcript.h"
#include "smb/smb_internal.h"

namespace smbt {

inline std::string le16(unsigned v) { return {char(v & 0xff), char(v >> 8 & 0xff)}; }
inline std::string be16(unsigned v) { return {char(v >> 8 & 0xff), char(v & 0xff)}; }
inline std::string le32(uint32_t v) { return le16(v & 0xffff) + le16(v >> 16); }
inline std::string rep(const std::string &s, int n) {
  std::string out;
  while (n-- > 0) out += s;
  return out;
}
// A string of a data block: format 0x04, the text, NUL.
inline std::string str(const std::string &s) { return "\x04" + s + std::string(1, '\0'); }

// One framed SMB message: header, words, byte count, bytes.
struct Msg {
  uint8_t command;
  std::vector<uint16_t> words;
  std::string bytes;
  uint16_t tid = 0;
  uint8_t errorClass = 0;
  uint16_t errorCode = 0;
  uint16_t pid = 0, mid = 0;
  std::string wire() const {
    std::string m = "\xffSMB" + std::string(1, char(command)) +
                    std::string(1, char(errorClass)) + std::string(1, '\0') +
                    le16(errorCode) + std::string(15, '\0') + le16(tid) +
                    le16(pid) + le16(0) + le16(mid) + std::string(1, char(words.size()));
    for (uint16_t w : words) m += le16(w);
    m += le16(static_cast<unsigned>(bytes.size())) + bytes;
    return std::string(1, '\0') + char(m.size() >> 16) + be16(m.size() & 0xffff) + m;
  }
};

// A refusal of command with class and code.
inline std::string refusal(uint8_t command, uint8_t cls, uint16_t code) {
  return Msg{command, {}, "", 0, cls, code}.wire();
}

// The requests of a session to \\127.0.0.1\share with password "pw".
inline std::string treeConnect(uint16_t tid = 0) {
  return Msg{0x70, {}, str("\\\\127.0.0.1\\share") + str("pw") + str("A:"), tid}.wire();
}
inline std::string createOrOpen(uint8_t command, const std::string &path) {
  std::vector<uint16_t> words = command == 0x03 ? std::vector<uint16_t>{0, 0xffff, 0xffff}
                                                : std::vector<uint16_t>{0, 0};
  return Msg{command, words, str(path), 7}.wire();
}
inline std::string writeFile(uint16_t fid, uint32_t offset, const std::string &data) {
  return Msg{0x0B, {fid, uint16_t(data.size()), uint16_t(offset), uint16_t(offset >> 16), 0},
             "\x01" + le16(unsigned(data.size())) + data, 7}.wire();
}
inline std::string closeFile(uint16_t fid) { return Msg{0x04, {fid, 0xffff, 0xffff}, "", 7}.wire(); }
inline std::string ok(uint8_t command, std::vector<uint16_t> words = {}) {
  return Msg{command, words, ""}.wire();
}

// The node status query: "*" with fill and type 0, question type 33.
inline std::string statusQuery() {
  return std::string("\x07\xac\0\0\0\x01\0\0\0\0\0\0\x20" "CK", 15) + rep("A", 30) +
         std::string("\0\0\x21\0\x01", 5);
}
// A node status reply with names (15 bytes of name, type) and a MAC address.
inline std::string statusReply(const std::vector<std::pair<std::string, int>> &names,
                               const std::string &mac) {
  std::string r = std::string("\x07\xac\x84\0\0\0\0\x01\0\0\0\0\x20" "CK", 15) +
                  rep("A", 30) + std::string("\0\0\x21\0\x01\0\0\0\0", 9) +
                  be16(unsigned(1 + 18 * names.size() + 6)) + char(names.size());
  for (auto &n : names) r += (n.first + rep(" ", 15)).substr(0, 15) + char(n.second) + be16(0x0400);
  return r + mac;
}

// A fixture whose tests run in the private network namespace that the test
// command makes, where they may take the ports 137 and 139 on loopback and
// broadcast over it. It checks that no descriptor and no local sink is left
// open.
class Net : public kt::PoolGuard {
 protected:
  void SetUp() override {
    if (getenv("KEL_IN_NETNS") == nullptr) GTEST_SKIP() << "needs the test's network namespace";
    signal(SIGPIPE, SIG_IGN);
    kt::PoolGuard::SetUp();
    descriptors_ = openDescriptors();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_EQ(openDescriptors(), descriptors_) << "descriptor leaked";
    EXPECT_EQ(fp, nullptr);
    kt::PoolGuard::TearDown();
  }
  static int openDescriptors() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
      while (readdir(d) != nullptr) n++;
      closedir(d);
    }
    return n;
  }

 private:
  int descriptors_ = 0;
};

}  // namespace smbt
