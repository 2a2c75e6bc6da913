// The SMB client against real servers, started for this program by
// scripts/servers/with-smb.sh, which tells where through the environment:
// KEL_SMB_ADDR and KEL_SMB_NAME (the server's address and NetBIOS name),
// KEL_SMB_SILENT (an address nobody answers) and, for a file server,
// KEL_SMB_SHARE (the share's folder on this machine) and KEL_SMB_PASS.

#include <arpa/inet.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "kelsmbc.h"
#include "pool_guard.h"

namespace {

std::string env(const char *name) { return getenv(name) ? getenv(name) : ""; }
std::string disk(const std::string &path) {
  std::stringstream text;
  return text << std::ifstream(path, std::ios::binary).rdbuf(), text.str();
}
using SmbServer = kt::PoolGuard;

// By address, a status query: the session learns the name. By name, a
// broadcast query: it learns the address. Nobody answers a silent address.
// With no file server behind the name server, the connect fails at the TCP
// step.
TEST_F(SmbServer, NameServiceFindsTheServerByAddressOrByName) {
  const std::string addr = env("KEL_SMB_ADDR"), name = env("KEL_SMB_NAME"), silent = env("KEL_SMB_SILENT");
  if (addr.empty()) GTEST_SKIP() << "run through scripts/servers/with-smb.sh";
  const kelResult found = env("KEL_SMB_SHARE").empty() ? KEL_SMB_ERR_CONNECT : KEL_OK;
  struct { std::string server; kelResult result; std::string learned; } rows[] = {
      {addr, found, name}, {name, found, name}, {silent, KEL_SMB_ERR_NO_ANSWER, silent}};
  for (auto &row : rows) {
    std::string path = "\\\\" + row.server + "\\SHARE";
    kelSMBCSession *s = kelSMBCprotoOpen(row.server.c_str(), "KELTEST", getenv("KEL_SMB_PASS"), 0, 20000);
    EXPECT_EQ(kelSMBCprotoConnect(s, &path[0], "f"), row.result) << row.server;
    EXPECT_STREQ(s->serverName, row.learned.c_str());
    EXPECT_EQ(s->serverAddress, row.result != KEL_SMB_ERR_NO_ANSWER ? inet_addr(addr.c_str()) : 0);
    EXPECT_EQ(kelSMBCprotoClose(s), KEL_OK);
  }
}

// Sizes around the chunk of 4038 bytes and one of many chunks, up and down
// a folder of the share and checked on disk; then the refusals, and an
// upload's abort, which deletes the partial file.
TEST_F(SmbServer, FilesOnACoreDialectServer) {
  const std::string share = env("KEL_SMB_SHARE"), local = "smb_server_sink" + std::to_string(getpid());
  if (share.empty()) GTEST_SKIP() << "no file server of the core dialect here";
  kelSMBCFileRecord files = {"\\", "sub\\f.bin", local.c_str()};
  kelSMBCSession *s = nullptr;
  auto start = [&](std::string password, std::string server = env("KEL_SMB_ADDR") + "\\SHARE") {
    kelSMBCServerRecord record = {server.c_str(), "KELTEST", password.c_str()};
    return kelSMBCStart(&record, &s, &files);
  };
  // The server works as an account of its own: its folders are open to all.
  ASSERT_EQ(system(("mkdir -p -m 777 " + share + "/sub").c_str()), 0);
  std::string bytes;
  for (size_t size : {0, 1, 4038, 4039, 1 << 20}) {
    bytes.resize(size);
    for (size_t i = 0; i < size; i++) bytes[i] = char(((i * 2654435761u + 7) >> 13) ^ (i >> 12));
    ASSERT_EQ(start(env("KEL_SMB_PASS")), KEL_OK);
    ASSERT_TRUE(!kelSMBCWriteOpen(s, &files) && !kelSMBCWrite(s, &bytes[0], size) && !kelSMBCWriteClose(s));
    EXPECT_TRUE(disk(share + "/sub/f.bin") == bytes) << size;
    ASSERT_EQ(kelSMBCReadOpen(s, &files), KEL_OK);
    EXPECT_EQ(s->fileSize, size);
    // Requests of 4096 bytes, as a device makes them, to the end of the file.
    for (char buffer[4096]; kelSMBCprotoGetData(s, buffer, 4096) == KEL_OK && s->dataLength > 0;)
      ASSERT_EQ(kelSMBCRead(s, buffer, s->dataLength), KEL_OK);
    ASSERT_TRUE(!kelSMBCReadClose(s) && !kelSMBCEnd(s));
    EXPECT_TRUE(disk(local) == bytes) << size;
  }
  // A wrong password; a missing share; a missing file, which gets no sink; a
  // create in a missing folder, where the refused close of no file behind it
  // decides the result.
  EXPECT_EQ(start("WRONG"), 0x22u);
  EXPECT_EQ(start("x", env("KEL_SMB_ADDR") + "\\NOSHARE"), 0x53u);
  ASSERT_EQ(start(env("KEL_SMB_PASS")), KEL_OK);
  unlink(local.c_str());
  files.file = "missing.bin";
  EXPECT_EQ(kelSMBCReadOpen(s, &files), 0x12u);
  EXPECT_NE(access(local.c_str(), F_OK), 0) << "a local sink for a missing file";
  files.file = "nodir\\f.bin";
  EXPECT_EQ(kelSMBCWriteOpen(s, &files), 0x16u);
  files.file = "f.bin";
  ASSERT_TRUE(!kelSMBCWriteOpen(s, &files) && !kelSMBCWrite(s, bytes.data(), 5000));
  EXPECT_EQ(kelSMBCAbortEnd(s), KEL_OK);
  EXPECT_NE(access((share + "/f.bin").c_str(), F_OK), 0) << "a partial upload left behind";
  EXPECT_EQ(system(("rm -rf " + share + "/sub").c_str()), 0);
}

}  // namespace
