// The FTP client against a real server, started for this program by
// tests/servers/with-ftpd.sh, which tells where through the environment:
// KEL_FTP_HOST, KEL_FTP_PORT, KEL_FTP_USER, KEL_FTP_PASS, KEL_FTP_ROOT (the
// server's directory on this machine) and KEL_FTP_KIND.

#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelftpc.h"
#include "pool_guard.h"

namespace {

std::string env(const char *name) {
  const char *value = getenv(name);
  return value ? value : "";
}

// Content that differs at every offset, so that a lost, doubled or
// misplaced block shows.
unsigned char patternByte(uint64_t at, uint32_t seed) {
  uint32_t x = static_cast<uint32_t>(at) * 2654435761u + seed;
  return static_cast<unsigned char>((x >> 13) ^ (at >> 20));
}

std::vector<unsigned char> pattern(size_t offset, size_t length, uint32_t seed) {
  std::vector<unsigned char> bytes(length);
  for (size_t i = 0; i < length; i++) bytes[i] = patternByte(offset + i, seed);
  return bytes;
}

std::string readDisk(const std::string &path, bool *exists) {
  std::ifstream in(path, std::ios::binary);
  *exists = static_cast<bool>(in);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class RealServer : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    host = env("KEL_FTP_HOST");
    root = env("KEL_FTP_ROOT");
    if (host.empty() || root.empty())
      GTEST_SKIP() << "run through tests/servers/with-ftpd.sh";
    port = atoi(env("KEL_FTP_PORT").c_str());
    session = kelFTPCProtoOpen(port, 20000);
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(kelFTPCProtoConnect(session, host.c_str(), env("KEL_FTP_USER").c_str(),
                                  env("KEL_FTP_PASS").c_str()),
              KEL_OK);
  }
  void TearDown() override {
    if (session) {
      EXPECT_EQ(kelFTPCProtoClose(session), KEL_OK);
    }
    kt::PoolGuard::TearDown();
  }

  // Sends length bytes of the pattern in blocks as a device would.
  void send(size_t length, uint32_t seed) {
    const size_t block = 65536;
    for (size_t done = 0; done < length;) {
      size_t n = length - done < block ? length - done : block;
      std::vector<unsigned char> bytes = pattern(done, n, seed);
      ASSERT_EQ(kelFTPCProtoPutData(session, bytes.data(), static_cast<uint32_t>(n)),
                KEL_OK) << "at " << done;
      done += n;
    }
  }

  std::string retrieve(const char *directory, const char *file) {
    EXPECT_EQ(kelFTPCProtoGetOpen(session, directory, file, 1, 1, 3), KEL_OK);
    std::string content;
    std::vector<char> buffer(50000);
    for (;;) {
      uint32_t count = 0;
      kelResult r = kelFTPCProtoGetData(session, buffer.data(),
                                        static_cast<uint32_t>(buffer.size()), &count);
      EXPECT_EQ(r, KEL_OK);
      if (r != KEL_OK || count == 0) break;
      content.append(buffer.data(), count);
    }
    EXPECT_EQ(kelFTPCProtoGetClose(session), KEL_OK);
    return content;
  }

  std::string host, root;
  int port = 0;
  kelFTPCSession *session = nullptr;
};

std::string asString(const std::vector<unsigned char> &bytes) {
  return std::string(bytes.begin(), bytes.end());
}

TEST_F(RealServer, StoreAppendRetrieveDelete) {
  const size_t sizes[] = {0, 1, 1 << 20, 64u << 20};
  const size_t appended = 4097;
  for (size_t size : sizes) {
    SCOPED_TRACE("file of " + std::to_string(size) + " bytes");
    std::string name = "file-" + std::to_string(size) + ".bin";
    std::string onDisk = root + "/" + name;

    ASSERT_EQ(kelFTPCProtoPutOpen(session, "", name.c_str(), 1, 1, 3), KEL_OK);
    send(size, 1);
    ASSERT_EQ(kelFTPCProtoPutClose(session), KEL_OK);
    bool exists = false;
    std::string stored = readDisk(onDisk, &exists);
    ASSERT_TRUE(exists);
    ASSERT_EQ(stored.size(), size);
    ASSERT_TRUE(stored == asString(pattern(0, size, 1))) << "stored content differs";

    ASSERT_EQ(kelFTPCProtoAppendOpen(session, "", name.c_str(), 1, 1, 3), KEL_OK);
    send(appended, 2);
    ASSERT_EQ(kelFTPCProtoPutClose(session), KEL_OK);
    std::string expected = stored + asString(pattern(0, appended, 2));
    ASSERT_TRUE(readDisk(onDisk, &exists) == expected) << "appended content differs";

    std::string fetched = retrieve("", name.c_str());
    ASSERT_EQ(fetched.size(), expected.size());
    ASSERT_TRUE(fetched == expected) << "retrieved content differs";

    ASSERT_EQ(kelFTPCProtoDelete(session, "", name.c_str()), KEL_OK);
    readDisk(onDisk, &exists);
    EXPECT_FALSE(exists);
  }
}

TEST_F(RealServer, PassiveUnlessTheServerRefusesIt) {
  // Transfers go passive first; against a server that answers PASV with
  // 502 every transfer above ran in active mode.
  uint32_t address = 0;
  uint16_t dataPort = 0;
  kelResult expected = env("KEL_FTP_KIND") == "pyftpdlib-nopasv" ? KEL_FTPC_NOT_IMPLEMENTED
                                                               : KEL_OK;
  EXPECT_EQ(kelFTPCCommandReplyPASV(session, &address, &dataPort), expected);
}

TEST_F(RealServer, PathsIntoASubdirectory) {
  std::string directory = root + "/inbox";
  ASSERT_EQ(mkdir(directory.c_str(), 0777), 0);
  struct stat top;
  ASSERT_EQ(stat(root.c_str(), &top), 0);
  ASSERT_EQ(chown(directory.c_str(), top.st_uid, top.st_gid), 0);

  // The directory with and without the trailing separator names one path.
  ASSERT_EQ(kelFTPCProtoPutOpen(session, "inbox", "scan.pdf", 1, 1, 3), KEL_OK);
  send(1000, 3);
  ASSERT_EQ(kelFTPCProtoPutClose(session), KEL_OK);
  bool exists = false;
  EXPECT_TRUE(readDisk(directory + "/scan.pdf", &exists) == asString(pattern(0, 1000, 3)));
  EXPECT_EQ(retrieve("inbox/", "scan.pdf").size(), 1000u);
  EXPECT_EQ(kelFTPCProtoDelete(session, "inbox/", "scan.pdf"), KEL_OK);
  readDisk(directory + "/scan.pdf", &exists);
  EXPECT_FALSE(exists);
}

TEST_F(RealServer, MissingFiles) {
  EXPECT_EQ(kelFTPCProtoGetOpen(session, "", "no-such-file", 1, 1, 3), KEL_FTPC_UNAVAILABLE);
  EXPECT_EQ(kelFTPCProtoGetClose(session), KEL_OK);
  EXPECT_EQ(kelFTPCProtoDelete(session, "", "no-such-file"), KEL_FTPC_DELETE_FAILED);
  // The session goes on after refusals.
  ASSERT_EQ(kelFTPCProtoPutOpen(session, "", "after.bin", 1, 1, 3), KEL_OK);
  send(10, 4);
  EXPECT_EQ(kelFTPCProtoPutClose(session), KEL_OK);
}

class ApplicationCalls : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    root = env("KEL_FTP_ROOT");
    if (root.empty() || env("KEL_FTP_PORT") != "21")
      GTEST_SKIP() << "the application calls use port 21: run in a private network namespace";
    user = env("KEL_FTP_USER");
    password = env("KEL_FTP_PASS");
    host = env("KEL_FTP_HOST");
    server = {host.c_str(), user.c_str(), password.c_str()};
  }
  std::string root, host, user, password;
  kelFTPCServerRecord server{};
};

TEST_F(ApplicationCalls, UploadDownloadDelete) {
  kelFTPCSession *session = nullptr;
  ASSERT_EQ(kelFTPCStart(&server, &session), KEL_OK);
  kelFTPCFileRecord file = {"", "page.tif"};
  std::vector<unsigned char> content = pattern(0, 300000, 5);
  ASSERT_EQ(kelFTPCWriteOpen(session, &file), KEL_OK);
  ASSERT_EQ(kelFTPCWrite(session, content.data(), 100000), KEL_OK);
  ASSERT_EQ(kelFTPCWrite(session, content.data() + 100000, 200000), KEL_OK);
  ASSERT_EQ(kelFTPCWriteClose(session), KEL_OK);
  bool exists = false;
  EXPECT_TRUE(readDisk(root + "/page.tif", &exists) == asString(content));

  ASSERT_EQ(kelFTPCReadOpen(session, &file), KEL_OK);
  std::string fetched;
  char buffer[8192];
  uint32_t count = 0;
  do {
    ASSERT_EQ(kelFTPCRead(session, buffer, sizeof buffer, &count), KEL_OK);
    fetched.append(buffer, count);
  } while (count != 0);
  EXPECT_EQ(kelFTPCRead(session, buffer, sizeof buffer, &count), KEL_FTPC_NOT_READY);
  ASSERT_EQ(kelFTPCReadClose(session), KEL_OK);
  EXPECT_TRUE(fetched == asString(content));
  EXPECT_EQ(kelFTPCProtoDelete(session, "", "page.tif"), KEL_OK);
  EXPECT_EQ(kelFTPCEnd(session), KEL_OK);
}

TEST_F(ApplicationCalls, AbortDropsTheHalfWrittenUpload) {
  kelFTPCSession *session = nullptr;
  ASSERT_EQ(kelFTPCStart(&server, &session), KEL_OK);
  kelFTPCFileRecord file = {"", "half.pdf"};
  std::vector<unsigned char> content = pattern(0, 50000, 6);
  ASSERT_EQ(kelFTPCWriteOpen(session, &file), KEL_OK);
  ASSERT_EQ(kelFTPCWrite(session, content.data(), 50000), KEL_OK);
  EXPECT_EQ(kelFTPCAbortEnd(session), KEL_OK);
  bool exists = true;
  readDisk(root + "/half.pdf", &exists);
  EXPECT_FALSE(exists);
}

TEST_F(ApplicationCalls, WrongPasswordFreesTheSession) {
  kelFTPCServerRecord wrong = {host.c_str(), user.c_str(), "not-the-password"};
  kelFTPCSession *session = nullptr;
  EXPECT_EQ(kelFTPCStart(&wrong, &session), KEL_FTPC_BAD_LOGIN);
}

}  // namespace
