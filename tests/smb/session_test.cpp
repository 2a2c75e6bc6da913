// The SMB client against a scripted server on the ports 137 and 139: the
// roads of an upload and a download through the application calls, the
// abort, refusals, a reply in pieces, the name service's broadcast and
// silence, no memory for the session, and the local sink.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <unistd.h>

#include "smb_script.h"

namespace {
bool noMemory = false;
}

// The host's allocator, made to give nothing on request.
extern "C" void *orvOSWSubAllocMem(uint32_t size) {
  using Alloc = void *(*)(uint32_t);
  static Alloc next = reinterpret_cast<Alloc>(dlsym(RTLD_NEXT, "orvOSWSubAllocMem"));
  return noMemory ? nullptr : next(size);
}

namespace {

using namespace smbt;

std::string bytesOf(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i++) out += char(i * 7 + i / 251);
  return out;
}

const std::string kRoot = Msg{0x10, {}, str("\\")};
const std::string kFile = str("\\d\\f.txt");

// Both sides of the server: the name service and the session service.
struct Server {
  kt::UdpPeer udp{NB_PORT};
  kt::TcpPeer tcp{SMB_PORT};
  Server &x(const std::string &request, const std::string &reply) { return tcp.expect(request).send(reply), *this; }
  // Node status naming SRV1, session request, negotiate, tree connect.
  Server &connect(const std::string &treeReply = Msg{0x70, {4096, 7}, ""}) {
    udp.expect(kStatusQuery).reply(statusReply({{"OLD", 0x20}, {"SRV1", 0}, {"SRV1", 0x20}}, "\x01\x1b\x2c\x3d\x4e\xff"));
    return x(kSessionRequest, kt::unhex("82000000")).x(kNegotiate, ok(0x72, {0}))
        .x(Msg{0x70, {}, str("\\\\127.0.0.1\\share") + str("pw") + str("A:"), 0}, treeReply);
  }
  Server &end() { return x(Msg{0x71, {}, ""}, ok(0x71)).x(Msg{0x74, {0xff, 0}, ""}, ok(0x74)); }
  Server &start() { return udp.start(), tcp.start(), *this; }
  std::string finish() { return udp.finish(), tcp.finish(), udp.failure() + tcp.failure(); }
};

class Road : public Net {
 protected:
  void TearDown() override { unlink(file.localFile), Net::TearDown(); }
  kelResult start(const char *directory = "\\") {
    file.directory = directory;
    testing::internal::CaptureStdout();
    kelResult r = kelSMBCStart(&record, &s, &file);
    return mac = testing::internal::GetCapturedStdout(), r;
  }
  kelSMBCServerRecord record{"127.0.0.1\\share", "user", "pw"};
  kelSMBCFileRecord file{"\\", "d\\f.txt", "smb_test_sink"};
  kelSMBCSession *s = nullptr;
  std::string mac;
};

TEST_F(Road, UploadGoesOutInChunksOf4038) {
  const std::string data = bytesOf(9000);
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(Msg{0x03, {0, 0xffff, 0xffff}, kFile}, ok(0x03, {0x2a}));
  for (uint16_t at : {0, 4038, 8076})
    srv.x(Msg{0x0B, {0x2a, uint16_t(std::min(9000 - at, 4038)), at, 0, 0},
              "\x01" + le16(std::min(9000 - at, 4038)) + data.substr(at, 4038)}, ok(0x0B, {4038}));
  srv.x(Msg{0x04, {0x2a, 0xffff, 0xffff}, ""}, ok(0x04)).end().start();
  ASSERT_EQ(start(), KEL_OK);
  EXPECT_EQ(mac, "MAC: 01:1b:2c:3d:4e:ff\n");
  EXPECT_EQ(kelSMBCprotoConnect(s, makepath, "x"), KEL_SMB_ERR_CONNECT);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, data.data(), 0), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, data.data(), 9000), KEL_OK);
  EXPECT_EQ(s->writeOffset, 9000u);
  EXPECT_EQ(kelSMBCWriteClose(s), KEL_OK);
  EXPECT_EQ(s->writeOffset, 0u);
  EXPECT_EQ(kelSMBCEnd(s), KEL_OK);
  EXPECT_EQ(srv.finish(), "");
}

TEST_F(Road, DownloadInPiecesFillsTheLocalSink) {
  const std::string data = bytesOf(5000);
  auto read = [&](uint16_t at, size_t n) {
    return std::pair(std::string(Msg{0x0A, {0x2b, 4096, at, 0, 0}, ""}),
                     std::string(Msg{0x0A, {uint16_t(n), 0, 0, 0, 0}, "\x01" + le16(unsigned(n)) + data.substr(at, n)}));
  };
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(Msg{0x02, {0, 0}, kFile}, ok(0x02, {0x2b, 0, 0, 0, 5000, 0, 0}));
  auto [ask, first] = read(0, 4000);
  srv.tcp.expect(ask).send(first.substr(0, 3)).stall(20).send(first.substr(3, 1000)).stall(20).send(first.substr(1003));
  srv.x(read(4000, 1000).first, read(4000, 1000).second).x(read(5000, 0).first, refusal(0x0A, 1, 5))
      .x(Msg{0x04, {0x2b, 0xffff, 0xffff}, ""}, ok(0x04)).end().start();
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
  EXPECT_EQ(srv.finish(), "");
  EXPECT_TRUE(contents(file.localFile) == data);
}

TEST_F(Road, AbortClosesBothFilesAndDeletesTheUpload) {
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(Msg{0x03, {0, 0xffff, 0xffff}, kFile}, ok(0x03, {0x2a}))
      .x(Msg{0x0B, {0x2a, 3, 0, 0, 0}, "\x01" + le16(3) + "abc"}, refusal(0x0B, 3, 0x27))
      .x(kRoot, ok(0x10)).x(Msg{0x02, {0, 0}, kFile}, ok(0x02, {0x2b}))
      .x(Msg{0x04, {0x2a, 0xffff, 0xffff}, ""}, ok(0x04)).x(Msg{0x06, {0}, kFile}, refusal(0x06, 1, 2))
      .x(Msg{0x04, {0x2b, 0xffff, 0xffff}, ""}, ok(0x04)).end().start();
  ASSERT_EQ(start(), KEL_OK);
  ASSERT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, "abc", 3), 0x57u);
  ASSERT_EQ(kelSMBCReadOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCAbortEnd(s), KEL_OK);
  EXPECT_EQ(access(file.localFile, F_OK), 0);
  EXPECT_EQ(srv.finish(), "");
}

TEST_F(Road, RefusalsReachTheCallerFolded) {
  const std::string close0 = Msg{0x04, {0, 0xffff, 0xffff}, ""};
  Server srv;
  srv.connect().x(kRoot, refusal(0x10, 1, 3)).x(close0, refusal(0x04, 1, 6))
      .x(kRoot, refusal(0x10, 1, 3)).x(close0, ok(0x04))
      .x(kRoot, ok(0x10)).x(Msg{0x02, {0, 0}, kFile}, refusal(0x02, 1, 2)).x(close0, refusal(0x04, 1, 6))
      .x(kRoot, ok(0x10)).x(Msg{0x02, {0, 0}, kFile}, ok(0x02, {0x2b}))
      .x(Msg{0x71, {}, ""}, refusal(0x71, 2, 4)).end().start();
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
  EXPECT_EQ(srv.finish(), "");
}

TEST_F(Road, RefusedTreeConnectSilentNameServiceAndBroadcastQuery) {
  {
    Server srv;
    srv.connect(refusal(0x70, 2, 2)).tcp.expectEof();
    EXPECT_EQ((srv.start(), start()), 0x22u);
    EXPECT_EQ(srv.finish(), "");
  }
  {
    kt::UdpPeer udp{NB_PORT};
    udp.expect(kStatusQuery).start();
    EXPECT_EQ(start(), KEL_SMB_ERR_NO_ANSWER);
    EXPECT_TRUE(udp.finish()) << udp.failure();
  }
  kt::UdpPeer udp{NB_PORT, htonl(INADDR_ANY)};
  kt::TcpPeer tcp{SMB_PORT};
  const std::string name = " EOEPFDFFEDEIEIEPFDFE" + rep("CA", 6);  // NOSUCHHOST
  udp.expect(kt::unhex("07AC0110 00010000 00000000") + nul(name) + kt::unhex("00200001"))
      .reply(kt::unhex("07AC8500") + rep("x", 54) + kt::unhex("7F000001"));
  tcp.expect(kt::unhex("81000044") + name).close();
  udp.start(), tcp.start();
  char path[] = "\\\\nosuchhost\\share";
  s = kelSMBCprotoOpen("nosuchhost", "user", "pw", 0, 1000);
  EXPECT_NE(kelSMBCprotoConnect(s, path, "f"), KEL_OK);
  EXPECT_EQ(s->serverAddress, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(kelSMBCprotoClose(s), KEL_OK);
  EXPECT_TRUE(udp.finish() && tcp.finish()) << udp.failure() << tcp.failure();
}

TEST_F(Road, NoMemoryForTheSession) {
  noMemory = true;
  EXPECT_EQ(start(), KEL_SMB_ERR_SOCKET);
  noMemory = false;
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(smbhdl, nullptr);
}

TEST_F(Road, LocalSinkTakesChunksAtTheReadOffset) {
  s = kelSMBCprotoOpen("a", "b", "c", 0, 100);
  fp = fopen(file.localFile, "w+");
  fputs("XYZ", fp);
  const std::string data = bytesOf(70000);
  EXPECT_EQ(kelSMBCRead(s, "ab", 2), KEL_OK);
  EXPECT_EQ(kelSMBCRead(s, data.data(), 0), KEL_OK);
  EXPECT_EQ(fflush(fp), 0);
  EXPECT_EQ(contents(file.localFile), "XYZab");
  EXPECT_EQ(kelSMBCRead(s, data.data() + 2, 69998), KEL_OK);
  EXPECT_EQ(s->readOffset, 70000u);
  EXPECT_EQ(fflush(fp), 0);
  EXPECT_TRUE(contents(file.localFile) == "XY" + data.substr(2));
  fclose(fp), fp = nullptr;
  EXPECT_EQ(kelSMBCprotoClose(s), KEL_OK);
}

}  // namespace
