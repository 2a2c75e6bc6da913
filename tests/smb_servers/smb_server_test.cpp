// The SMB client against real servers, started for this program by
// scripts/servers/with-smb.sh, which tells where through the environment:
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

std::string readDisk(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// ---- the name service, against every kind of server ----

class NameService : public kt::PoolGuard {};

// A server named by its address gets a status query, and the session learns
// its name; one named by its name (in lower case, as a user may type it)
// gets a broadcast query, and the session learns its address. Nobody answers
// a silent address or a name that no server holds: the connect gives up
// after the name service's wait, not the session's. Without a file server
// behind the name server, a connect that found it fails at the TCP step.
TEST_F(NameService, FindsTheServerByAddressOrByName) {
  std::string addr = env("KEL_SMB_ADDR"), name = env("KEL_SMB_NAME"), lower = name;
  if (addr.empty()) {
    GTEST_SKIP() << "run through scripts/servers/with-smb.sh";
  }
  for (char &c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  kelResult found = env("KEL_SMB_SHARE").empty() ? KEL_SMB_ERR_CONNECT : 0;
  struct {
    std::string server;
    kelResult result;
    std::string learnedName;
  } rows[] = {{addr, found, name},
              {lower, found, lower},
              {env("KEL_SMB_SILENT"), KEL_SMB_ERR_NO_ANSWER, env("KEL_SMB_SILENT")},
              {"NOSUCHKELSRV", KEL_SMB_ERR_NO_ANSWER, "NOSUCHKELSRV"}};
  for (auto &row : rows) {
    SCOPED_TRACE(row.server);
    bool answered = row.result != KEL_SMB_ERR_NO_ANSWER;
    std::string path = "\\\\" + row.server + "\\SHARE";
    auto begin = std::chrono::steady_clock::now();
    testing::internal::CaptureStdout();
    kelSMBCSession *session =
        kelSMBCprotoOpen(row.server.c_str(), "KELTEST", env("KEL_SMB_PASS").c_str(), 0, 20000);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(kelSMBCprotoConnect(session, &path[0], "f"), row.result);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              row.server == addr ? "MAC: 00:00:00:00:00:00\n" : "");
    std::chrono::duration<double> waited = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(waited.count(), 10.0);
    EXPECT_GE(waited.count(), answered ? 0 : 0.7);
    EXPECT_STREQ(session->serverName, row.learnedName.c_str());
    EXPECT_EQ(session->serverAddress, answered ? inet_addr(addr.c_str()) : 0);
    EXPECT_EQ(kelSMBCprotoClose(session), 0u);
  }
}

// ---- files on a core-dialect server ----

class Share : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    if (share.empty()) {
      GTEST_SKIP() << "no file server of the core dialect here";
    }
    clean();
    // The server works as an account of its own: its folders are open to all.
    ASSERT_EQ(mkdir((share + "/sub").c_str(), 0777), 0);
    ASSERT_EQ(chmod((share + "/sub").c_str(), 0777), 0);
  }
  void TearDown() override {
    if (!share.empty()) clean();
    kt::PoolGuard::TearDown();
  }
  void clean() {
    EXPECT_EQ(system(("rm -rf " + share + "/sub " + share + "/*.bin " + local).c_str()), 0);
  }
  kelResult start(const std::string &password = env("KEL_SMB_PASS"),
                  const std::string &server = env("KEL_SMB_ADDR") + "\\SHARE") {
    kelSMBCServerRecord record = {server.c_str(), "KELTEST", password.c_str()};
    return kelSMBCStart(&record, &session, &files);
  }
  void upload(const std::string &bytes) {
    ASSERT_EQ(kelSMBCWriteOpen(session, &files), 0u);
    for (size_t done = 0; done < bytes.size(); done += 65535) {
      uint32_t n = static_cast<uint32_t>(std::min<size_t>(65535, bytes.size() - done));
      ASSERT_EQ(kelSMBCWrite(session, bytes.data() + done, n), 0u) << done;
    }
    ASSERT_EQ(kelSMBCWriteClose(session), 0u);
  }
  // Fetches a file in requests of 4096 bytes, as a device does, to its end
  // or for the given rounds.
  void download(size_t rounds) {
    ASSERT_EQ(kelSMBCReadOpen(session, &files), 0u);
    for (char buffer[4096]; rounds-- > 0;) {
      ASSERT_EQ(kelSMBCprotoGetData(session, buffer, sizeof buffer), 0u);
      if (session->dataLength == 0) return;
      ASSERT_EQ(kelSMBCRead(session, buffer, session->dataLength), 0u);
    }
  }
  std::string share = env("KEL_SMB_SHARE"),
              local = (env("TMPDIR").empty() ? "/tmp" : env("TMPDIR")) + "/kel-smb-sink." +
                      std::to_string(getpid());
  kelSMBCFileRecord files = {"\\", "f.bin", local.c_str()};
  kelSMBCSession *session = nullptr;
};

class Transfers : public Share, public testing::WithParamInterface<size_t> {};

// Sizes around the client's chunk of 4038 bytes and one of many chunks, to
// and from a folder of the share.
TEST_P(Transfers, UploadThenDownloadKeepsEveryByte) {
  std::string bytes = pattern(GetParam(), 7);
  files.file = "sub\\f.bin";
  ASSERT_EQ(start(), 0u);
  upload(bytes);
  EXPECT_EQ(access((share + "/sub/f.bin").c_str(), F_OK), 0);
  EXPECT_TRUE(readDisk(share + "/sub/f.bin") == bytes);
  download(bytes.size() / 4096 + 2);
  EXPECT_EQ(session->fileSize, bytes.size());
  ASSERT_EQ(kelSMBCReadClose(session), 0u);
  EXPECT_TRUE(readDisk(local) == bytes);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
}
INSTANTIATE_TEST_SUITE_P(SmbServer, Transfers, testing::Values(0, 1, 4038, 4039, 1 << 20));

// The server's refusals reach the caller folded: (class << 4) + code.
TEST_F(Share, RefusalsComeBackFolded) {
  EXPECT_EQ(start("WRONG"), 0x22u);
  EXPECT_EQ(start("x", env("KEL_SMB_ADDR") + "\\NOSHARE"), 0x53u);

  ASSERT_EQ(start(), 0u);
  files.file = "missing.bin";
  EXPECT_EQ(kelSMBCReadOpen(session, &files), 0x12u);
  EXPECT_NE(access(local.c_str(), F_OK), 0) << "a local sink for a missing file";
  // The create in a missing folder is refused (0x13), and so is the close
  // of no file that follows it, which decides the result.
  files.file = "nodir\\f.bin";
  EXPECT_EQ(kelSMBCWriteOpen(session, &files), 0x16u);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
}

TEST_F(Share, AbortDuringEachRoad) {
  std::string bytes = pattern(10000, 5);
  // After a finished upload the abort's second close is refused: the
  // session stays for the end, and the file stays.
  ASSERT_EQ(start(), 0u);
  upload(bytes);
  EXPECT_EQ(kelSMBCAbortEnd(session), 0x16u);
  EXPECT_EQ(kelSMBCEnd(session), 0u);
  // A download's abort keeps the remote file and what the local sink got.
  ASSERT_EQ(start(), 0u);
  download(1);
  EXPECT_EQ(kelSMBCAbortEnd(session), 0u);
  EXPECT_EQ(fp, nullptr);
  EXPECT_TRUE(readDisk(share + "/f.bin") == bytes);
  EXPECT_TRUE(readDisk(local) == bytes.substr(0, 4096));
  // An upload's abort deletes the partial file.
  ASSERT_EQ(start(), 0u);
  ASSERT_EQ(kelSMBCWriteOpen(session, &files), 0u);
  ASSERT_EQ(kelSMBCWrite(session, bytes.data(), 5000), 0u);
  EXPECT_EQ(kelSMBCAbortEnd(session), 0u);
  EXPECT_NE(access((share + "/f.bin").c_str(), F_OK), 0) << "a partial upload left behind";
}

}  // namespace
