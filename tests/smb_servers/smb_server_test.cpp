// The SMB client against real servers, started for this program by
// scripts/servers/with-smb.sh, which tells where through the environment:
// KEL_SMB_ADDR and KEL_SMB_NAME (the server's address and NetBIOS name),
// KEL_SMB_SILENT (an address nobody answers) and, for a file server,
// KEL_SMB_SHARE (the share's folder on this machine) and KEL_SMB_PASS.

#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/stat.h>
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

class SmbServer : public kt::PoolGuard {
 protected:
  void TearDown() override {
    if (!share.empty()) {
      EXPECT_EQ(system(("rm -rf " + share + "/sub " + share + "/*.bin " + local).c_str()), 0);
    }
    kt::PoolGuard::TearDown();
  }
  kelResult start(const std::string &password, const std::string &server = env("KEL_SMB_ADDR") + "\\SHARE") {
    kelSMBCServerRecord record = {server.c_str(), "KELTEST", password.c_str()};
    return kelSMBCStart(&record, &s, &files);
  }
  // Fetches the file in requests of 4096 bytes, as a device does, to its end
  // or for the given rounds.
  void download(size_t rounds) {
    ASSERT_EQ(kelSMBCReadOpen(s, &files), 0u);
    for (char buffer[4096]; rounds-- > 0 && kelSMBCprotoGetData(s, buffer, 4096) == 0 && s->dataLength > 0;)
      ASSERT_EQ(kelSMBCRead(s, buffer, s->dataLength), 0u);
  }
  std::string share = env("KEL_SMB_SHARE"), pass = env("KEL_SMB_PASS");
  std::string local = "smb_server_sink" + std::to_string(getpid());
  kelSMBCFileRecord files = {"\\", "f.bin", local.c_str()};
  kelSMBCSession *s = nullptr;
};

// By address, a status query: the session learns the name. By name (in lower
// case, as a user may type it), a broadcast query: it learns the address.
// Nobody answers a silent address or a name no server holds. With no file
// server behind the name server, the connect fails at the TCP step.
TEST_F(SmbServer, NameServiceFindsTheServerByAddressOrByName) {
  std::string addr = env("KEL_SMB_ADDR"), name = env("KEL_SMB_NAME"), lower = name;
  std::string silent = env("KEL_SMB_SILENT");
  if (addr.empty()) GTEST_SKIP() << "run through scripts/servers/with-smb.sh";
  for (char &c : lower) c = char(tolower(c));
  kelResult found = share.empty() ? KEL_SMB_ERR_CONNECT : 0;
  struct { std::string server; kelResult result; std::string learned; } rows[] = {
      {addr, found, name}, {lower, found, lower}, {silent, KEL_SMB_ERR_NO_ANSWER, silent},
      {"NOSUCHKELSRV", KEL_SMB_ERR_NO_ANSWER, "NOSUCHKELSRV"}};
  for (auto &row : rows) {
    std::string path = "\\\\" + row.server + "\\SHARE";
    testing::internal::CaptureStdout();
    s = kelSMBCprotoOpen(row.server.c_str(), "KELTEST", pass.c_str(), 0, 20000);
    EXPECT_EQ(kelSMBCprotoConnect(s, &path[0], "f"), row.result) << row.server;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), row.server == addr ? "MAC: 00:00:00:00:00:00\n" : "");
    EXPECT_STREQ(s->serverName, row.learned.c_str());
    EXPECT_EQ(s->serverAddress, row.result != KEL_SMB_ERR_NO_ANSWER ? inet_addr(addr.c_str()) : 0);
    EXPECT_EQ(kelSMBCprotoClose(s), 0u);
  }
}

// Sizes around the chunk of 4038 bytes and one of many chunks, up and down
// a folder of the share and checked on disk; refusals folded; an abort on
// each road.
TEST_F(SmbServer, FilesOnACoreDialectServer) {
  if (share.empty()) GTEST_SKIP() << "no file server of the core dialect here";
  // The server works as an account of its own: its folders are open to all.
  ASSERT_TRUE(mkdir((share + "/sub").c_str(), 0777) == 0 && chmod((share + "/sub").c_str(), 0777) == 0);
  std::string bytes;
  for (size_t size : {0, 1, 4038, 4039, 1 << 20}) {
    bytes.resize(size);
    for (size_t i = 0; i < size; i++) bytes[i] = char(((i * 2654435761u + 7) >> 13) ^ (i >> 12));
    files.file = "sub\\f.bin";
    ASSERT_EQ(start(pass), 0u);
    ASSERT_TRUE(!kelSMBCWriteOpen(s, &files) && !kelSMBCWrite(s, bytes.data(), size) && !kelSMBCWriteClose(s));
    EXPECT_TRUE(disk(share + "/sub/f.bin") == bytes) << size;
    download(size / 4096 + 2);
    EXPECT_EQ(s->fileSize, size);
    ASSERT_TRUE(!kelSMBCReadClose(s) && !kelSMBCEnd(s));
    EXPECT_TRUE(disk(local) == bytes) << size;
  }
  EXPECT_EQ(start("WRONG"), 0x22u);
  EXPECT_EQ(start("x", env("KEL_SMB_ADDR") + "\\NOSHARE"), 0x53u);
  // An upload's abort deletes the partial file.
  files.file = "f.bin";
  ASSERT_EQ(start(pass), 0u);
  ASSERT_TRUE(!kelSMBCWriteOpen(s, &files) && !kelSMBCWrite(s, bytes.data(), 5000));
  EXPECT_EQ(kelSMBCAbortEnd(s), 0u);
  EXPECT_NE(access((share + "/f.bin").c_str(), F_OK), 0) << "a partial upload left behind";
  // A missing file gets no sink. The create in a missing folder is refused
  // (0x13), and so is the close of no file behind it, which decides the
  // result. A download's abort keeps the remote file and what the sink got.
  ASSERT_EQ(start(pass), 0u);
  unlink(local.c_str());
  files.file = "missing.bin";
  EXPECT_EQ(kelSMBCReadOpen(s, &files), 0x12u);
  EXPECT_NE(access(local.c_str(), F_OK), 0) << "a local sink for a missing file";
  files.file = "nodir\\f.bin";
  EXPECT_EQ(kelSMBCWriteOpen(s, &files), 0x16u);
  files.file = "sub\\f.bin";
  download(1);
  EXPECT_EQ(kelSMBCAbortEnd(s), 0u);
  EXPECT_EQ(fp, nullptr);
  EXPECT_TRUE(disk(share + "/sub/f.bin") == bytes);
  EXPECT_TRUE(disk(local) == bytes.substr(0, 4096));
}

}  // namespace
