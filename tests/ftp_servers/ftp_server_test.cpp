// The FTP client against a real server, started for this program by
// scripts/servers/with-ftpd.sh, which tells where through the environment:
// KEL_FTP_HOST, KEL_FTP_PORT, KEL_FTP_USER, KEL_FTP_PASS, KEL_FTP_ROOT (the
// server's directory on this machine) and KEL_FTP_KIND (pyftpdlib-nopasv
// refuses passive mode: every transfer runs in active mode).

#include <stdlib.h>

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

using RealServer = kt::PoolGuard;

// Files of 0, 1 and 4 MiB bytes, which differ at every offset so that a
// lost, doubled or misplaced block shows: stored in blocks as a device does,
// compared on the server's disk, fetched and deleted.
TEST_F(RealServer, OneRound) {
  if (env("KEL_FTP_ROOT").empty()) GTEST_SKIP() << "run through scripts/servers/with-ftpd.sh";
  kelFTPCSession *s = kelFTPCProtoOpen(atoi(env("KEL_FTP_PORT").c_str()), 20000);
  ASSERT_EQ(kelFTPCProtoConnect(s, getenv("KEL_FTP_HOST"), getenv("KEL_FTP_USER"), getenv("KEL_FTP_PASS")), KEL_OK);
  for (size_t length : {0, 1, 4 << 20}) {
    std::string file = "file-" + std::to_string(length), bytes(length, 0), got, block(50000, 0);
    for (size_t i = 0; i < length; i++) bytes[i] = static_cast<char>((i * 2654435761u) >> 13 ^ i >> 20);
    ASSERT_EQ(kelFTPCProtoPutOpen(s, "", file.c_str(), 1, 1, 3), KEL_OK) << file;
    for (size_t at = 0; at < length; at += 65536)
      ASSERT_EQ(kelFTPCProtoPutData(s, &bytes[at], static_cast<uint32_t>(std::min<size_t>(65536, length - at))), 0);
    ASSERT_EQ(kelFTPCProtoPutClose(s), KEL_OK) << file;
    ASSERT_TRUE(onDisk(file) == bytes) << file;
    ASSERT_EQ(kelFTPCProtoGetOpen(s, "", file.c_str(), 1, 1, 3), KEL_OK) << file;
    uint32_t count = 1;
    while (count != 0 && kelFTPCProtoGetData(s, &block[0], 50000, &count) == KEL_OK) got.append(block, 0, count);
    EXPECT_EQ(kelFTPCProtoGetClose(s), KEL_OK) << file;
    EXPECT_TRUE(got == bytes) << file;
    EXPECT_EQ(kelFTPCProtoDelete(s, "", file.c_str()), KEL_OK) << file;
    EXPECT_EQ(onDisk(file), "-");
  }
  uint32_t address;
  uint16_t port;
  EXPECT_EQ(kelFTPCCommandReplyPASV(s, &address, &port),
            env("KEL_FTP_KIND") == "pyftpdlib-nopasv" ? KEL_FTPC_NOT_IMPLEMENTED : KEL_OK);
  EXPECT_EQ(kelFTPCProtoClose(s), KEL_OK);
}

}  // namespace
