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

using RealServer = kt::PoolGuard;

// Files of 0, 1 and 4 MiB bytes and one in a subdirectory (named with and
// without the trailing separator): stored in blocks as a device does,
// appended to, compared on the server's disk, fetched and deleted. Then
// refusals that leave the session usable, and an abort through the
// application calls (port 21 only) that drops the half-written upload.
TEST_F(RealServer, OneRound) {
  if (env("KEL_FTP_ROOT").empty()) GTEST_SKIP() << "run through scripts/servers/with-ftpd.sh";
  kelFTPCServerRecord server = {getenv("KEL_FTP_HOST"), getenv("KEL_FTP_USER"), getenv("KEL_FTP_PASS")};
  kelFTPCSession *s = kelFTPCProtoOpen(atoi(env("KEL_FTP_PORT").c_str()), 20000);
  ASSERT_EQ(kelFTPCProtoConnect(s, server.serverName, server.userName, server.password), KEL_OK);
  struct stat top;
  std::string in = env("KEL_FTP_ROOT") + "/in";
  ASSERT_TRUE(stat(env("KEL_FTP_ROOT").c_str(), &top) == 0 && mkdir(in.c_str(), 0777) == 0);
  ASSERT_EQ(chown(in.c_str(), top.st_uid, top.st_gid), 0);
  const struct { const char *putDir, *dir, *file; std::string first, second; } rows[] = {
      {"", "", "file-0", "", pattern(4097, 2)},
      {"", "", "file-1", pattern(1, 1), pattern(4097, 2)},
      {"", "", "file-4M", pattern(4 << 20, 1), pattern(4097, 2)},
      {"in", "in/", "scan.pdf", "scan", ""},
  };
  for (const auto &r : rows) {
    std::string path = std::string(r.putDir) + (*r.putDir ? "/" : "") + r.file, got, block(50000, 0);
    for (const std::string *part : {&r.first, &r.second}) {
      auto open = part == &r.first ? kelFTPCProtoPutOpen : kelFTPCProtoAppendOpen;
      ASSERT_EQ(open(s, r.putDir, r.file, 1, 1, 3), KEL_OK) << path;
      for (size_t at = 0; at < part->size(); at += 65536) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(65536, part->size() - at));
        ASSERT_EQ(kelFTPCProtoPutData(s, part->data() + at, n), KEL_OK) << path << " at " << at;
      }
      ASSERT_EQ(kelFTPCProtoPutClose(s), KEL_OK) << path;
    }
    ASSERT_TRUE(onDisk(path) == r.first + r.second) << path;
    ASSERT_EQ(kelFTPCProtoGetOpen(s, r.dir, r.file, 1, 1, 3), KEL_OK) << path;
    uint32_t count = 1;
    while (count != 0 && kelFTPCProtoGetData(s, &block[0], 50000, &count) == KEL_OK)
      got.append(block, 0, count);
    EXPECT_EQ(count, 0u) << path;
    EXPECT_EQ(kelFTPCProtoGetClose(s), KEL_OK) << path;
    EXPECT_TRUE(got == r.first + r.second) << path;
    EXPECT_EQ(kelFTPCProtoDelete(s, r.dir, r.file), KEL_OK) << path;
    EXPECT_EQ(onDisk(path), "-");
  }
  EXPECT_EQ(kelFTPCProtoGetOpen(s, "", "none", 1, 1, 3), KEL_FTPC_UNAVAILABLE);
  EXPECT_EQ(kelFTPCProtoDelete(s, "", "none"), KEL_FTPC_DELETE_FAILED);
  uint32_t address;
  uint16_t port;
  EXPECT_EQ(kelFTPCCommandReplyPASV(s, &address, &port),
            env("KEL_FTP_KIND") == "pyftpdlib-nopasv" ? KEL_FTPC_NOT_IMPLEMENTED : KEL_OK);
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
  if (env("KEL_FTP_PORT") != "21") return;
  kelFTPCFileRecord file = {"", "half.pdf"};
  ASSERT_EQ(kelFTPCStart(&server, &s), KEL_OK);
  ASSERT_EQ(kelFTPCWriteOpen(s, &file), KEL_OK);
  ASSERT_EQ(kelFTPCWrite(s, pattern(50000, 3).data(), 50000), KEL_OK);
  EXPECT_EQ(kelFTPCAbortEnd(s), KEL_OK);
  EXPECT_EQ(onDisk("half.pdf"), "-");
}

}  // namespace
