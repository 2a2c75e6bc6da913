// The FTP client against a real server, started for this program by
// scripts/servers/with-ftpd.sh, which tells where through the environment:
// KEL_FTP_HOST, KEL_FTP_PORT (21: the application calls run too), KEL_FTP_USER,
// KEL_FTP_PASS, KEL_FTP_ROOT (the server's directory on this machine) and
// KEL_FTP_KIND (pyftpdlib-nopasv refuses passive mode: every transfer runs
// in active mode).

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "kelftpc.h"
#include "pool_guard.h"

namespace {

std::string env(const char *name) { return getenv(name) ? getenv(name) : ""; }

// What the server holds on its disk; "-" when there is no such file.
std::string onDisk(const std::string &name) {
  std::ifstream in(env("KEL_FTP_ROOT") + "/" + name, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "-";
}

// Content that differs at every offset, so that a lost, doubled or
// misplaced block shows.
std::string pattern(size_t length, unsigned seed) {
  std::string bytes(length, 0);
  for (size_t i = 0; i < length; i++) bytes[i] = static_cast<char>((i * 2654435761u + seed) >> 13 ^ i >> 20);
  return bytes;
}

class RealServer : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    if (env("KEL_FTP_ROOT").empty()) GTEST_SKIP() << "run through scripts/servers/with-ftpd.sh";
    s = kelFTPCProtoOpen(atoi(env("KEL_FTP_PORT").c_str()), 20000);
    ASSERT_EQ(kelFTPCProtoConnect(s, server.serverName, server.userName, server.password), KEL_OK);
  }
  void TearDown() override {
    if (s) {
      EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
    }
    kt::PoolGuard::TearDown();
  }
  // Stores (or appends) content in blocks as a device would.
  void put(bool append, const char *directory, const char *file, const std::string &content) {
    ASSERT_EQ((append ? kelFTPCProtoAppendOpen : kelFTPCProtoPutOpen)(s, directory, file, 1, 1, 3), KEL_OK);
    for (size_t at = 0; at < content.size(); at += 65536) {
      uint32_t n = static_cast<uint32_t>(std::min<size_t>(65536, content.size() - at));
      ASSERT_EQ(kelFTPCProtoPutData(s, content.data() + at, n), KEL_OK) << "at " << at;
    }
    ASSERT_EQ(kelFTPCProtoPutClose(s), KEL_OK);
  }
  std::string get(const char *directory, const char *file) {
    EXPECT_EQ(kelFTPCProtoGetOpen(s, directory, file, 1, 1, 3), KEL_OK);
    std::string block(50000, 0), all;
    uint32_t count = 1;
    while (count != 0 && kelFTPCProtoGetData(s, &block[0], 50000, &count) == KEL_OK) all.append(block, 0, count);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(kelFTPCProtoGetClose(s), KEL_OK);
    return all;
  }
  kelFTPCSession *s = nullptr;
  kelFTPCServerRecord server = {getenv("KEL_FTP_HOST"), getenv("KEL_FTP_USER"), getenv("KEL_FTP_PASS")};
};

// Files of 0 and 1 byte and a large one: stored, appended to, fetched and
// deleted, compared byte for byte on the server's disk.
TEST_F(RealServer, StoreAppendRetrieveDelete) {
  for (size_t size : {0, 1, 4 << 20}) {
    std::string name = "file-" + std::to_string(size), content = pattern(size, 1) + pattern(4097, 2);
    put(false, "", name.c_str(), pattern(size, 1));
    put(true, "", name.c_str(), pattern(4097, 2));
    ASSERT_TRUE(onDisk(name) == content) << name;
    ASSERT_TRUE(get("", name.c_str()) == content) << name;
    ASSERT_EQ(kelFTPCProtoDelete(s, "", name.c_str()), KEL_OK);
    EXPECT_EQ(onDisk(name), "-");
  }
}

// A subdirectory with and without the trailing separator; refusals leave
// the session usable; an abort through the application calls (port 21
// only) drops the half-written upload.
TEST_F(RealServer, PathsRefusalsAndAbort) {
  struct stat top;
  std::string in = env("KEL_FTP_ROOT") + "/in";
  ASSERT_TRUE(stat(env("KEL_FTP_ROOT").c_str(), &top) == 0 && mkdir(in.c_str(), 0777) == 0);
  ASSERT_EQ(chown(in.c_str(), top.st_uid, top.st_gid), 0);
  put(false, "in", "scan.pdf", "scan");
  EXPECT_EQ(onDisk("in/scan.pdf"), "scan");
  EXPECT_EQ(get("in/", "scan.pdf"), "scan");
  EXPECT_EQ(kelFTPCProtoDelete(s, "in/", "scan.pdf"), KEL_OK);
  EXPECT_EQ(kelFTPCProtoGetOpen(s, "", "none", 1, 1, 3), KEL_FTPC_UNAVAILABLE);
  EXPECT_EQ(kelFTPCProtoDelete(s, "", "none"), KEL_FTPC_DELETE_FAILED);
  uint32_t address;
  uint16_t port;
  EXPECT_EQ(kelFTPCCommandReplyPASV(s, &address, &port),
            env("KEL_FTP_KIND") == "pyftpdlib-nopasv" ? KEL_FTPC_NOT_IMPLEMENTED : KEL_OK);
  if (env("KEL_FTP_PORT") != "21") return;
  kelFTPCFileRecord file = {"", "half.pdf"};
  kelFTPCSession *app = nullptr;
  ASSERT_EQ(kelFTPCStart(&server, &app), KEL_OK);
  ASSERT_EQ(kelFTPCWriteOpen(app, &file), KEL_OK);
  ASSERT_EQ(kelFTPCWrite(app, pattern(50000, 3).data(), 50000), KEL_OK);
  EXPECT_EQ(kelFTPCAbortEnd(app), KEL_OK);
  EXPECT_EQ(onDisk("half.pdf"), "-");
}

}  // namespace
