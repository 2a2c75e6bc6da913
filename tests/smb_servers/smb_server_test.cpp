// The SMB client against real servers, started for this program by
// tests/servers/with-smb.sh, which tells where through the environment:
// KEL_SMB_ADDR and KEL_SMB_NAME (the server's address and NetBIOS name),
// KEL_SMB_SILENT (an address nobody answers) and, for a file server,
// KEL_SMB_SHARE (the share's folder on this machine) and KEL_SMB_PASS.

#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelsmbc.h"
#include "pool_guard.h"

namespace {

std::string env(const char *name) {
  const char *value = getenv(name);
  return value ? value : "";
}

// Content that differs at every offset, so that a lost, doubled or
// misplaced chunk shows.
std::string pattern(size_t length, uint32_t seed) {
  std::string bytes(length, '\0');
  for (size_t i = 0; i < length; i++)
    bytes[i] = static_cast<char>(((i * 2654435761u + seed) >> 13) ^ (i >> 12));
  return bytes;
}

std::string readDisk(const std::string &path, bool *exists = nullptr) {
  std::ifstream in(path, std::ios::binary);
  if (exists) *exists = static_cast<bool>(in);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeDisk(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
  chmod(path.c_str(), 0666);
}

// ---- the name service, against every kind of server ----

class NameService : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    if (env("KEL_SMB_ADDR").empty()) {
      GTEST_SKIP() << "run through tests/servers/with-smb.sh";
    }
  }
  // Connects to server as far as it goes; a file server's share is there.
  kelResult connect(const std::string &server, uint16_t timeoutMs = 3000) {
    session = kelSMBCprotoOpen(server.c_str(), "KELTEST", env("KEL_SMB_PASS").c_str(), 0,
                               timeoutMs);
    std::string path = "\\\\" + server + "\\SHARE";
    return session ? kelSMBCprotoConnect(session, &path[0], "f") : KEL_SMB_ERR_SOCKET;
  }
  // The result of a connect that found the server: without a file server
  // behind the name server, the TCP connect is refused.
  kelResult reached() const { return env("KEL_SMB_SHARE").empty() ? KEL_SMB_ERR_CONNECT : 0; }
  void TearDown() override {
    if (session) {
      EXPECT_EQ(kelSMBCprotoClose(session), 0u);
    }
    kt::PoolGuard::TearDown();
  }
  kelSMBCSession *session = nullptr;
};

TEST_F(NameService, StatusQueryLearnsTheNameOfTheServerAndPrintsItsMac) {
  testing::internal::CaptureStdout();
  kelResult result = connect(env("KEL_SMB_ADDR"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "MAC: 00:00:00:00:00:00\n");
  EXPECT_EQ(result, reached());
  ASSERT_NE(session, nullptr);
  EXPECT_STREQ(session->serverName, env("KEL_SMB_NAME").c_str());
  EXPECT_EQ(session->serverAddress, inet_addr(env("KEL_SMB_ADDR").c_str()));
}

TEST_F(NameService, BroadcastQueryOfALowerCaseNameLearnsTheAddress) {
  std::string name = env("KEL_SMB_NAME");
  for (char &c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(connect(name), reached());
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(session->serverAddress, inet_addr(env("KEL_SMB_ADDR").c_str()));
  EXPECT_STREQ(session->serverName, name.c_str());
}

// Nobody answers a silent address, nor a name that no server holds: the
// connect gives up after the name service's own wait, not the session's.
TEST_F(NameService, NoAnswerEndsTheConnectAfterTheNameServiceWait) {
  for (std::string server : {env("KEL_SMB_SILENT"), std::string("NOSUCHKELSRV")}) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connect(server, 20000), KEL_SMB_ERR_NO_ANSWER) << server;
    double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(waited, 0.7) << server;
    EXPECT_LT(waited, 10.0) << server;
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->state, 0u);
    EXPECT_EQ(kelSMBCprotoClose(session), 0u);
    session = nullptr;
  }
}

// ---- files on a core-dialect server ----

class Share : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    share = env("KEL_SMB_SHARE");
    if (share.empty()) {
      GTEST_SKIP() << "no file server of the core dialect here";
    }
    std::string dir = (env("TMPDIR").empty() ? "/tmp" : env("TMPDIR")) + "/kel-smb.XXXXXX";
    ASSERT_NE(mkdtemp(&dir[0]), nullptr);
    local = dir + "/sink";
    // The server works as an account of its own: the folders are open to all.
    ASSERT_EQ(mkdir((share + "/sub").c_str(), 0777), 0);
    ASSERT_EQ(chmod((share + "/sub").c_str(), 0777), 0);
  }
  void TearDown() override {
    if (!share.empty()) {
      EXPECT_EQ(system(("rm -rf " + share + "/sub " + share + "/*.bin " +
                        local.substr(0, local.rfind('/'))).c_str()), 0);
    }
    kt::PoolGuard::TearDown();
  }
  kelResult start(const char *server, const char *password) {
    kelSMBCServerRecord record = {server, "KELTEST", password};
    return kelSMBCStart(&record, &session, &files);
  }
  void upload(const std::string &bytes) {
    ASSERT_EQ(kelSMBCWriteOpen(session, &files), 0u);
    for (size_t done = 0; done < bytes.size();) {
      size_t n = std::min<size_t>(65535, bytes.size() - done);
      ASSERT_EQ(kelSMBCWrite(session, bytes.data() + done, static_cast<uint32_t>(n)), 0u);
      done += n;
    }
    ASSERT_EQ(kelSMBCWriteClose(session), 0u);
  }
  // Fetches the whole file, as a device does, in requests of 4096 bytes.
  void download(size_t expected) {
    ASSERT_EQ(kelSMBCReadOpen(session, &files), 0u);
    EXPECT_EQ(session->fileSize, expected);
    char buffer[4096];
    for (size_t rounds = 0; rounds <= expected / 4096 + 1; rounds++) {
      ASSERT_EQ(kelSMBCprotoGetData(session, buffer, sizeof buffer), 0u);
      if (session->dataLength == 0) break;
      ASSERT_EQ(kelSMBCRead(session, buffer, session->dataLength), 0u);
    }
    EXPECT_EQ(session->dataLength, 0u) << "the end of the file was never reached";
    ASSERT_EQ(kelSMBCReadClose(session), 0u);
  }
  std::string share, local, server = env("KEL_SMB_ADDR") + "\\SHARE";
  kelSMBCFileRecord files = {"\\", "f.bin", nullptr};
  kelSMBCSession *session = nullptr;
};

class Sizes : public Share, public testing::WithParamInterface<size_t> {};

// Sizes around the client's chunk of 4038 bytes, and one of many chunks.
TEST_P(Sizes, UploadThenDownloadKeepsEveryByte) {
  std::string bytes = pattern(GetParam(), 7);
  files.localFile = local.c_str();
  ASSERT_EQ(start(server.c_str(), env("KEL_SMB_PASS").c_str()), 0u);
  upload(bytes);
  bool exists = false;
  EXPECT_TRUE(readDisk(share + "/f.bin", &exists) == bytes);
  EXPECT_TRUE(exists);
  download(bytes.size());
  EXPECT_TRUE(readDisk(local) == bytes);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
}
INSTANTIATE_TEST_SUITE_P(SmbServer, Sizes, testing::Values(0, 1, 4038, 4039, 1 << 20));

// By name, the password in other case, a file in a subdirectory of the share.
TEST_F(Share, FileInASubdirectoryThroughTheServersName) {
  std::string bytes = pattern(5000, 3), password = env("KEL_SMB_PASS");
  for (char &c : password) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  files = {"\\", "sub\\in.bin", local.c_str()};
  ASSERT_EQ(start(("\\\\" + env("KEL_SMB_NAME") + "\\SHARE").c_str(), password.c_str()), 0u);
  upload(bytes);
  EXPECT_TRUE(readDisk(share + "/sub/in.bin") == bytes);
  download(bytes.size());
  EXPECT_TRUE(readDisk(local) == bytes);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
}

// The server's refusals reach the caller folded: (class << 4) + code.
TEST_F(Share, RefusalsComeBackFolded) {
  EXPECT_EQ(start(server.c_str(), "WRONG"), 0x22u);
  EXPECT_EQ(start(server.c_str(), ""), 0x22u);
  EXPECT_EQ(start((env("KEL_SMB_ADDR") + "\\NOSHARE").c_str(), "x"), 0x53u);

  files.localFile = local.c_str();
  ASSERT_EQ(start(server.c_str(), env("KEL_SMB_PASS").c_str()), 0u);
  files.file = "missing.bin";
  EXPECT_EQ(kelSMBCReadOpen(session, &files), 0x12u);
  EXPECT_NE(access(local.c_str(), F_OK), 0) << "no local sink for a missing file";
  // The create in a missing folder is refused (0x13), and so is the close
  // of no file that follows it, which decides the result.
  files.file = "nodir\\f.bin";
  EXPECT_EQ(kelSMBCWriteOpen(session, &files), 0x16u);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
}

// An abort during an upload deletes the partial file; during a download it
// leaves the remote file alone and keeps what the local sink got.
TEST_F(Share, AbortDuringEachRoad) {
  std::string bytes = pattern(10000, 5);
  files.localFile = local.c_str();
  ASSERT_EQ(start(server.c_str(), env("KEL_SMB_PASS").c_str()), 0u);
  ASSERT_EQ(kelSMBCWriteOpen(session, &files), 0u);
  ASSERT_EQ(kelSMBCWrite(session, bytes.data(), 10000), 0u);
  EXPECT_EQ(kelSMBCAbortEnd(session), 0u);
  EXPECT_NE(access((share + "/f.bin").c_str(), F_OK), 0) << "partial upload left behind";

  writeDisk(share + "/f.bin", bytes);
  ASSERT_EQ(start(server.c_str(), env("KEL_SMB_PASS").c_str()), 0u);
  ASSERT_EQ(kelSMBCReadOpen(session, &files), 0u);
  char buffer[4096];
  ASSERT_EQ(kelSMBCprotoGetData(session, buffer, sizeof buffer), 0u);
  ASSERT_EQ(kelSMBCRead(session, buffer, session->dataLength), 0u);
  EXPECT_EQ(kelSMBCAbortEnd(session), 0u);
  EXPECT_EQ(fp, nullptr);
  EXPECT_TRUE(readDisk(share + "/f.bin") == bytes);
  EXPECT_TRUE(readDisk(local) == bytes.substr(0, 4096));

  // After a finished upload the abort's second close is refused, and the
  // session stays for the end; the file stays too.
  ASSERT_EQ(start(server.c_str(), env("KEL_SMB_PASS").c_str()), 0u);
  upload(bytes);
  EXPECT_EQ(kelSMBCAbortEnd(session), 0x16u);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
  EXPECT_TRUE(readDisk(share + "/f.bin") == bytes);
}

}  // namespace
