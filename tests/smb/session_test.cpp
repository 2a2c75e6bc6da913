// The SMB client against a scripted server on the ports 137 and 139: the
// roads of an upload and a download through the application calls, the
// aborts, refusals, replies in pieces, the name service's broadcast and
// silence, and the local sink.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "smb_script.h"

namespace {

using namespace smbt;

bool noMemory = false;

}  // namespace

// The host's allocator, made to give nothing on request.
extern "C" void *orvOSWSubAllocMem(uint32_t size) {
  using Alloc = void *(*)(uint32_t);
  static Alloc next = reinterpret_cast<Alloc>(dlsym(RTLD_NEXT, "orvOSWSubAllocMem"));
  return noMemory ? nullptr : next(size);
}

namespace {

const std::string kSessionRequest =
    kt::unhex("81000044") + " FDFCFGDB" + rep("CA", 12) + std::string(1, '\0') +
    " FFFDEFFC" + rep("CA", 11) + "AA" + std::string(1, '\0');
const std::string kNegotiate =
    kt::unhex("0000003B FF534D42 72" + rep("00", 19) + "FFFF0100 00000100 00180002") +
    "PC NETWORK PROGRAM 1.0" + std::string(1, '\0');
const std::string kRoot = Msg{0x10, {}, str("\\"), 7}.wire();

std::string bytesOf(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i++) out += char(i * 7 + i / 251);
  return out;
}

std::string contents(const char *path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// Both sides of the server: the name service and the session service.
struct Server {
  kt::UdpPeer udp{NB_PORT};
  kt::TcpPeer tcp{SMB_PORT};
  Server &x(const std::string &request, const std::string &reply) {
    tcp.expect(request).send(reply);
    return *this;
  }
  // Node status (the name SRV1), session request, negotiate, tree connect.
  Server &connect(const std::string &treeReply = Msg{0x70, {4096, 7}, "", 7}.wire()) {
    udp.expect(statusQuery())
        .reply(statusReply({{"OLD", 0x20}, {"SRV1", 0}, {"SRV1", 0x20}}, std::string("\x00\x1b\x2c\x3d\x4e\xff", 6)));
    return x(kSessionRequest, kt::unhex("82000000")).x(kNegotiate, ok(0x72, {0}))
        .x(treeConnect(), treeReply);
  }
  Server &end() {
    return x(Msg{0x71, {}, "", 7}.wire(), ok(0x71)).x(Msg{0x74, {0xff, 0}, "", 7}.wire(), ok(0x74));
  }
  void start() { udp.start(), tcp.start(); }
  bool finish() {
    bool ok = udp.finish() & tcp.finish();
    EXPECT_EQ(udp.failure() + tcp.failure(), "");
    return ok;
  }
};

class Road : public Net {
 protected:
  void TearDown() override {
    unlink(sink);
    Net::TearDown();
  }
  kelResult start(const char *directory = "\\") {
    file.directory = directory;
    testing::internal::CaptureStdout();
    kelResult r = kelSMBCStart(&record, &s, &file);
    mac = testing::internal::GetCapturedStdout();
    return r;
  }
  kelSMBCServerRecord record{"127.0.0.1\\share", "user", "pw"};
  kelSMBCFileRecord file{"\\", "d\\f.txt", "smb_test_sink"};
  const char *sink = "smb_test_sink";
  kelSMBCSession *s = nullptr;
  std::string mac;
};

TEST_F(Road, UploadGoesOutInChunksOf4038) {
  const std::string data = bytesOf(9000);
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(createOrOpen(0x03, "\\d\\f.txt"), ok(0x03, {0x2a}));
  for (uint32_t at : {0u, 4038u, 8076u})
    srv.x(writeFile(0x2a, at, data.substr(at, 4038)), ok(0x0B, {4038}));
  srv.x(closeFile(0x2a), ok(0x04)).end().start();
  ASSERT_EQ(start(), KEL_OK);
  EXPECT_EQ(mac, "MAC: 00:1b:2c:3d:4e:ff\n");
  EXPECT_STREQ(s->serverName, "SRV1");
  EXPECT_EQ(kelSMBCprotoConnect(s, makepath, "x"), KEL_SMB_ERR_CONNECT);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, data.data(), 0), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, data.data(), 9000), KEL_OK);
  EXPECT_EQ(s->writeOffset, 9000u);
  EXPECT_EQ(kelSMBCWriteClose(s), KEL_OK);
  EXPECT_EQ(s->writeOffset, 0u);
  EXPECT_EQ(kelSMBCEnd(s), KEL_OK);
  EXPECT_TRUE(srv.finish());
}

TEST_F(Road, DownloadFillsTheLocalSink) {
  const std::string data = bytesOf(5000);
  auto readReply = [&](size_t at, size_t n) {
    return Msg{0x0A, {uint16_t(n), 0, 0, 0, 0}, "\x01" + le16(unsigned(n)) + data.substr(at, n)}.wire();
  };
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(createOrOpen(0x02, "\\d\\f.txt"), ok(0x02, {0x2b, 0, 0, 0, 5000, 0, 0}));
  std::string first = readReply(0, 4000);
  srv.tcp.expect(Msg{0x0A, {0x2b, 4096, 0, 0, 0}, "", 7}.wire()).send(first.substr(0, 3)).stall(20)
      .send(first.substr(3, 1000)).stall(20).send(first.substr(1003));
  srv.x(Msg{0x0A, {0x2b, 4096, 4000, 0, 0}, "", 7}.wire(), readReply(4000, 1000))
      .x(Msg{0x0A, {0x2b, 4096, 5000, 0, 0}, "", 7}.wire(), refusal(0x0A, 1, 5))
      .x(closeFile(0x2b), ok(0x04)).end().start();
  ASSERT_EQ(start("\\d"), KEL_OK);
  ASSERT_EQ(kelSMBCReadOpen(s, &file), KEL_OK);
  EXPECT_EQ(s->fileSize, 5000u);
  std::vector<char> out(4096);
  do {
    ASSERT_EQ(kelSMBCprotoGetData(s, out.data(), 4096), KEL_OK);
    ASSERT_EQ(kelSMBCRead(s, out.data(), s->dataLength), KEL_OK);
  } while (s->dataLength != 0);
  EXPECT_EQ(kelSMBCReadClose(s), KEL_OK);
  EXPECT_EQ(s->readOffset, 0u);
  EXPECT_EQ(kelSMBCEnd(s), KEL_OK);
  EXPECT_TRUE(srv.finish());
  EXPECT_TRUE(contents(sink) == data);
}

TEST_F(Road, AbortClosesAndDeletesAnUploadEvenWhenTheDeleteIsRefused) {
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(createOrOpen(0x03, "\\d\\f.txt"), ok(0x03, {0x2a}))
      .x(writeFile(0x2a, 0, "abc"), refusal(0x0B, 3, 0x27))
      .x(closeFile(0x2a), ok(0x04)).x(Msg{0x06, {0}, str("\\d\\f.txt"), 7}.wire(), refusal(0x06, 1, 2))
      .end().start();
  ASSERT_EQ(start(), KEL_OK);
  ASSERT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, "abc", 3), 0x57u);
  EXPECT_EQ(kelSMBCAbortEnd(s), KEL_OK);
  EXPECT_TRUE(srv.finish());
}

TEST_F(Road, AbortOfADownloadClosesTheRemoteFileAndTheSink) {
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(createOrOpen(0x02, "\\d\\f.txt"), ok(0x02, {0x2b}))
      .x(closeFile(0x2b), ok(0x04)).end().start();
  ASSERT_EQ(start(), KEL_OK);
  ASSERT_EQ(kelSMBCReadOpen(s, &file), KEL_OK);
  ASSERT_NE(fp, nullptr);
  EXPECT_EQ(kelSMBCAbortEnd(s), KEL_OK);
  EXPECT_EQ(access(sink, F_OK), 0);
  EXPECT_TRUE(srv.finish());
}

TEST_F(Road, RefusalsReachTheCallerFolded) {
  Server srv;
  srv.connect().x(kRoot, refusal(0x10, 1, 3)).x(closeFile(0), refusal(0x04, 1, 6))
      .x(kRoot, refusal(0x10, 1, 3)).x(closeFile(0), ok(0x04))
      .x(kRoot, ok(0x10)).x(createOrOpen(0x02, "\\d\\f.txt"), refusal(0x02, 1, 2))
      .x(closeFile(0), refusal(0x04, 1, 6))
      .x(kRoot, ok(0x10)).x(createOrOpen(0x02, "\\d\\f.txt"), ok(0x02, {0x2b}))
      .x(Msg{0x71, {}, "", 7}.wire(), refusal(0x71, 2, 4)).end().start();
  ASSERT_EQ(start(), KEL_OK);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), 0x16u);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), 0x13u);
  EXPECT_EQ(kelSMBCReadOpen(s, &file), 0x12u);
  file.localFile = "no-such-directory/sink";
  EXPECT_EQ(kelSMBCReadOpen(s, &file), KEL_SMB_ERR_FILE_OPEN);
  EXPECT_EQ(kelSMBCRead(s, "x", 1), KEL_SMB_ERR_FILE_WRITE);
  EXPECT_EQ(kelSMBCEnd(s), 0x24u);
  EXPECT_EQ(s->state, 2u);
  EXPECT_EQ(kelSMBCEnd(s), KEL_OK);
  EXPECT_TRUE(srv.finish());
}

TEST_F(Road, RefusedTreeConnectEndsTheStart) {
  Server srv;
  srv.connect(refusal(0x70, 2, 2)).tcp.expectEof();
  srv.start();
  EXPECT_EQ(start(), 0x22u);
  EXPECT_TRUE(srv.finish());
}

TEST_F(Road, SilentNameServiceAndBroadcastQuery) {
  {
    kt::UdpPeer udp{NB_PORT};
    udp.expect(statusQuery()).start();
    EXPECT_EQ(start(), KEL_SMB_ERR_NO_ANSWER);
    EXPECT_TRUE(udp.finish()) << udp.failure();
  }
  kt::UdpPeer udp{NB_PORT, htonl(INADDR_ANY)};
  kt::TcpPeer tcp{SMB_PORT};
  const std::string query = kt::unhex("07AC0110 00010000 00000000") + " EOEPFDFFEDEIEIEPFDFE" +
                            rep("CA", 6) + std::string("\0\0\x20\0\x01", 5);
  udp.expect(query).reply(kt::unhex("07AC8500") + rep("x", 54) + kt::unhex("7F000001"));
  tcp.expect(kSessionRequest.substr(0, 5) + "EOEPFDFFEDEIEIEPFDFE" + rep("CA", 6)).close();
  udp.start(), tcp.start();
  char path[] = "\\\\nosuchhost\\share";
  s = kelSMBCprotoOpen("nosuchhost", "user", "pw", 0, 1000);
  EXPECT_NE(kelSMBCprotoConnect(s, path, "f"), KEL_OK);
  EXPECT_EQ(s->serverAddress, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(kelSMBCprotoClose(s), KEL_OK);
  EXPECT_TRUE(udp.finish() && tcp.finish()) << udp.failure() << tcp.failure();
}

TEST_F(Road, NoMemoryForTheSessionAndNoSession) {
  noMemory = true;
  EXPECT_EQ(start(), KEL_SMB_ERR_SOCKET);
  noMemory = false;
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(smbhdl, nullptr);
  char path[] = "\\\\a\\b";
  for (kelResult r : {kelSMBCprotoConnect(nullptr, path, "f"), kelSMBCprotoClose(nullptr),
                      kelSMBCprotoPutOpen(nullptr, path, "f"), kelSMBCprotoGetOpen(nullptr, path, "f"),
                      kelSMBCprotoPutData(nullptr, "", 0), kelSMBCprotoPutClose(nullptr),
                      kelSMBCprotoGetData(nullptr, path, 1), kelSMBCprotoGetClose(nullptr),
                      kelSMBCprotodelete(nullptr, "f"), kelSMBCAbortEnd(nullptr),
                      kelSMBCRead(nullptr, "", 1)})
    EXPECT_EQ(r, KEL_SMB_ERR_SOCKET);
}

TEST_F(Road, LocalSinkTakesChunksAtTheReadOffset) {
  s = kelSMBCprotoOpen("a", "b", "c", 0, 100);
  fp = fopen(sink, "w+");
  fputs("XYZ", fp);
  const std::string data = bytesOf(70000);
  EXPECT_EQ(kelSMBCRead(s, "ab", 2), KEL_OK);
  EXPECT_EQ(kelSMBCRead(s, data.data(), 0), KEL_OK);
  fflush(fp);
  EXPECT_EQ(contents(sink), "XYZab");
  EXPECT_EQ(kelSMBCRead(s, data.data() + 2, 69998), KEL_OK);
  EXPECT_EQ(s->readOffset, 70000u);
  fflush(fp);
  EXPECT_TRUE(contents(sink) == "XY" + data.substr(2));
  fclose(fp);
  fp = fopen(sink, "r");
  EXPECT_EQ(kelSMBCRead(s, "ab", 2), KEL_SMB_ERR_FILE_WRITE);
  fclose(fp);
  fp = nullptr;
  EXPECT_EQ(kelSMBCprotoClose(s), KEL_OK);
}

}  // namespace
