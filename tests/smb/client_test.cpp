// The SMB client without a network, then against a scripted server on the
// ports 137 and 139: requests byte for byte, the error fold, the path
// split, NetBIOS names and the name service's replies, the roads of the
// application calls, and no memory, descriptor or local sink left behind.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "pool_guard.h"
#include "smb/smb_internal.h"
#include "transcript.h"

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

std::string le16(unsigned v) { return {char(v & 0xff), char(v >> 8 & 0xff)}; }
std::string be16(unsigned v) { return {char(v >> 8 & 0xff), char(v & 0xff)}; }
std::string rep(const std::string &s, int n) { return n > 0 ? s + rep(s, n - 1) : ""; }
std::string nul(const std::string &s) { return s + std::string(1, '\0'); }
// A string of a data block: format 0x04, the text, NUL.
std::string str(const std::string &s) { return nul("\x04" + s); }
std::string contents(const char *path) {
  std::stringstream text;
  return text << std::ifstream(path, std::ios::binary).rdbuf(), text.str();
}
std::string bytesOf(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i++) out += char(i * 7 + i / 251);
  return out;
}

// One framed SMB message: header, parameter words, byte count and bytes.
std::string smb(uint8_t command, std::vector<uint16_t> words, std::string bytes, uint16_t tid = 7,
                uint16_t pid = 0, uint16_t mid = 0, uint8_t errorClass = 0, uint16_t errorCode = 0) {
  std::string m = "\xffSMB" + std::string{char(command), char(errorClass), 0} + le16(errorCode) +
                  std::string(15, 0) + le16(tid) + le16(pid) + le16(0) + le16(mid) + char(words.size());
  for (uint16_t w : words) m += le16(w);
  m += le16(unsigned(bytes.size())) + bytes;
  return std::string{0, char(m.size() >> 16)} + be16(m.size() & 0xffff) + m;
}
std::string ok(uint8_t command, std::vector<uint16_t> words = {}) { return smb(command, words, ""); }
std::string refusal(uint8_t cmd, uint8_t cls, uint16_t code) { return smb(cmd, {}, "", 0, 0, 0, cls, code); }

// A node status reply with names (name, type) and a MAC.
std::string statusReply(const std::vector<std::pair<std::string, int>> &names, const std::string &mac) {
  std::string r = kt::unhex("07AC8400 00000001 00000000") + nul(" CK" + rep("A", 30)) +
                  kt::unhex("00210001 00000000") + be16(unsigned(names.size() * 18 + 7)) + char(names.size());
  for (auto &n : names) r += (n.first + rep(" ", 15)).substr(0, 15) + char(n.second) + be16(0x0400);
  return r + mac;
}

// ---- Without a network: the builders reach the session through smbhdl.

kelSMBCSession *plainSession() {
  static kelSMBCSession s;
  s = kelSMBCSession{}, s.tid = 7;
  return smbhdl = &s;
}
// Requests against their capacity (the exact fit and one byte less),
// framing, byte count floors; the roads below check every request byte for
// byte.
TEST(SmbWire, RequestsAgainstTheirCapacityAndByteCountFloors) {
  kelSMBCSession &s = *plainSession();
  std::vector<uint8_t> b(0x20100);
  const std::string big(4449, 'x');
  EXPECT_EQ(smb_makesessionrequest(b.data(), 71), -1);
  EXPECT_EQ(smb_maketreeconnect(&s, b.data(), 46, ""), -1);
  EXPECT_EQ(smb_maketreedisconnect(b.data(), 38), -1);
  EXPECT_EQ(smb_maketreedisconnect(b.data(), 39), 39);
  EXPECT_EQ(smb_makewrite(b.data(), 4500, big.data(), 4449), -1);
  EXPECT_EQ(smb_makewrite(b.data(), 4500, "", 0xFFFFFFF0u), -1);
  EXPECT_EQ(smb_makewrite(b.data(), 4500, big.data(), 4448), 4500);
  EXPECT_EQ(s.writeOffset, 4448u);
  uint8_t frame[4] = {9, 9, 9, 9};
  EXPECT_EQ(smb_setlength(frame, 0x20000), -1);
  EXPECT_EQ(smb_setlength(frame, 0x1FFFF), 0x1FFFF);
  EXPECT_EQ(std::string(frame, frame + 4), kt::unhex("0001FFFF"));
  auto byteCount = [&](int built) { return built == -1 ? -1 : b[37] | b[38] << 8; };
  for (auto [p, count] : {std::pair{65533u, 65535}, {65534u, 2}, {65535u, 2}, {0x1FFFFu - 36, -1}})
    EXPECT_EQ(byteCount(smb_makecheckdir(b.data(), 0x20100, std::string(p, 'p').c_str())), count) << p;
  s.password[0] = 'w';  // W = 1
  for (auto [p, count] : {std::pair{65526u, 65535}, {65527u, 3}, {65529u, 3}, {65531u, 4}})
    EXPECT_EQ(byteCount(smb_maketreeconnect(&s, b.data(), 0x20100, std::string(p, 'p').c_str())), count) << p;
}

TEST(SmbFold, ClassAndCodeFoldToOneValue) {
  EXPECT_EQ(smb_foldcode(1, 3), 0x13u);
  EXPECT_EQ(smb_foldcode(0xFF, 0x0100), 0x10F0u);
  EXPECT_EQ(smb_foldcode(0xFF, 0xF010), 0u);
}

// The split cuts the path in place: a second split of it finds the server
// alone.
TEST(SmbPaths, SplitOnceAndTwice) {
  struct Row { const char *path, *file, *split; } rows[] = {
      {"\\\\srv\\share\\d1\\d2", "f.txt", "\\\\srv\\share|\\d1\\d2\\|\\d1\\d2\\f.txt|\\\\srv\\|\\|\\f.txt"},
      {"\\\\\\srv\\\\share\\\\d1", "f", "\\\\srv\\share|\\d1\\|\\d1\\f|\\\\srv\\|\\|\\f"},
      {"srv", "a\\b.txt", "\\\\srv\\|\\|\\a\\b.txt|\\\\srv\\|\\|\\a\\b.txt"},
      {"", "f.txt", "||f.txt|||f.txt"},
      {"\\\\srv\\share\\d", "\\\\xyz.txt", "\\\\srv\\share|\\d\\|\\\\xy|\\\\srv\\|\\|\\\\xy"},
      {"\\\\srv\\share", "\\f", "\\\\srv\\share|\\|\\\\f|\\\\srv\\|\\|\\\\f"}};
  for (const Row &r : rows) {
    char path[64];
    std::string split;
    for (int round = 0; round < 2; round++) {
      char share[512] = {}, filePath[512] = {};
      smb_splitpath(round == 0 ? strcpy(path, r.path) : path, r.file, share, filePath);
      split += std::string(round ? "|" : "") + share + "|" + checkdirpath + "|" + filePath;
    }
    EXPECT_EQ(split, r.split) << r.path;
  }
}

TEST(SmbPaths, HostAndUncPathOfTheServerString) {
  for (auto [server, path, host] : std::initializer_list<std::tuple<const char *, const char *, const char *>>{
           {"\\\\srv1\\share", "\\\\srv1\\share", "srv1"}, {"srv1\\share\\d", "\\\\srv1\\share\\d", "srv1"},
           {"srv1", "\\\\srv1", "srv1"}, {"\\\\\\\\srv1", "\\\\\\\\srv1", "srv1"}, {"\\\\", "\\\\", "kept"}}) {
    char out[254] = "kept";
    smb_makehost(server, out);
    EXPECT_EQ(std::string(makepath) + "|" + out, std::string(path) + "|" + host);
  }
}

// A status reply names the server by its last server entry; the walk stays
// within the received bytes; the MAC follows the entries.
TEST(NameService, NamesRepliesAndTheMacLine) {
  kelSMBCSession &s = *plainSession();
  auto status = [&](const std::string &datagram) {
    uint8_t buffer[NB_STATUS_BUFFER_SIZE + 64] = {};
    memcpy(buffer, datagram.data(), datagram.size());
    testing::internal::CaptureStdout();
    nb_storestatusreply(buffer, int(datagram.size()));
    return testing::internal::GetCapturedStdout() + s.serverName;
  };
  strcpy(s.serverName, "A-LONGER-NAME");
  // Behind the MAC, bytes that would read as one more server entry.
  EXPECT_EQ(status(statusReply({}, "\x01\x02\x03\x04\x05\xfe" + rep("x", 9) + " ")),
            "MAC: 01:02:03:04:05:fe\nA-LONGER-NAME");
  EXPECT_EQ(status(statusReply({{"OLD", 0x20}, {"SRV1", 0}, {"S R\x01V1", 0x20}, {"WG", 0x1e}}, "")),
            "MAC: 00:00:00:00:00:00\nSRV1");
  // The count promises 40 entries; two arrive whole, then half of one.
  std::string cut = statusReply({{"ONE", 0x20}, {"TWO", 0x20}, {"ABCDEFGH", 0x20}}, "");
  cut[56] = 40;
  EXPECT_EQ(status(cut.substr(0, cut.size() - 10)), "MAC: 41:42:43:44:45:46\nTWO");
  EXPECT_EQ(status(cut.substr(0, 40)), "MAC: 00:00:00:00:00:00\nTWO");
  // First-level encoding: fill and cut at 15, the scope; the roads cover
  // ordinary names.
  char name[40];
  EXPECT_STREQ(nb_encodename(name, "abcdefghijklmnoXYZ", 0x61, 0x1b), "EBECEDEEEFEGEHEIEJEKELEMENEOEPBL");
  EXPECT_EQ(nb_encodename(name, "", 0x61, 0x1b), rep("GB", 15) + "BL");
  EXPECT_EQ(nb_encodefullname(name, "a", 0x20, 0, "ab.c"), 39);
  EXPECT_EQ(std::string(name + 33, name + 39), nul("\x02" "AB\x01" "C"));
  EXPECT_EQ(nb_makequery(reinterpret_cast<uint8_t *>(name), 0, 0, "a", 0x20, 0, "", 34), -1);
  // A name reply gives the address of its last entry, unless it is an error.
  for (auto [datagram, address] : std::initializer_list<std::pair<std::string, uint32_t>>{
           {kt::unhex("07AC8503000000000A000002"), 0}, {kt::unhex("07AC8508000000000A000003"), 0x0A000003}}) {
    s.serverAddress = 0;
    nb_storenamereply(reinterpret_cast<const uint8_t *>(datagram.data()), int(datagram.size()));
    EXPECT_EQ(s.serverAddress, htonl(address)) << kt::printable(datagram);
  }
}

TEST(NameService, FailingSocketCallsStopTheProcess) {
  uint8_t packet[50] = {};
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  EXPECT_EXIT(nb_sendquery(-1, packet, 50, 0, NB_TYPE_NBSTAT), testing::ExitedWithCode(1), "sendto\\(\\)");
  EXPECT_EXIT(nb_readnamereply(pair[0], 10), testing::ExitedWithCode(1), "recv\\(\\)");
  EXPECT_EXIT(nb_readstatusreply(-1, 10), testing::ExitedWithCode(1), "recv\\(\\)");
  // A datagram too short for a name reply, an empty one among them, stops
  // the process without a message.
  for (int length : {11, 0}) {
    send(pair[1], "01234567890", length, 0);
    EXPECT_EXIT(nb_readnamereply(pair[0], 10), testing::ExitedWithCode(1), "^$") << length;
  }
  close(pair[0]), close(pair[1]);
}

// ---- Against the scripted server.

const std::string kRoot = smb(0x10, {}, str("\\"));
const std::string kFile = str("\\d\\f.txt");
const std::string kStatusQuery = kt::unhex("07AC0000 00010000 00000000") + nul(" CK" + rep("A", 30)) +
                                 kt::unhex("00210001");

// Both sides of the server: the name service and the session service.
struct Server {
  kt::UdpPeer udp;
  kt::TcpPeer tcp{SMB_PORT};
  explicit Server(uint32_t udpAddress = kt::loopback()) : udp(NB_PORT, udpAddress) {}
  Server &x(const std::string &ask, const std::string &reply) { return tcp.expect(ask).send(reply), *this; }
  // Node status naming SRV1, session request calling it from USER, negotiate, tree connect.
  Server &connect() {
    const std::string mac = "\x01\x1b\x2c\x3d\x4e\xff";
    udp.expect(kStatusQuery).reply(statusReply({{"OLD", 0x20}, {"SRV1", 0}, {"SRV1", 0x20}}, mac));
    return x(kt::unhex("81000044") + nul(" FDFCFGDB" + rep("CA", 12)) + nul(" FFFDEFFC" + rep("CA", 11) + "AA"),
             kt::unhex("82000000"))
        .x(kt::unhex("0000003B FF534D42 72" + rep("00", 19) + "FFFF0100 00000100 00180002") +
               nul("PC NETWORK PROGRAM 1.0"), ok(0x72, {0}))
        .x(smb(0x70, {}, str("\\\\127.0.0.1\\share") + str("pw") + str("A:"), 0), ok(0x70, {4096, 7}));
  }
  Server &end() { return x(smb(0x71, {}, ""), ok(0x71)).x(smb(0x74, {0xff, 0}, ""), ok(0x74)); }
  Server &start() { return udp.start(), tcp.start(), *this; }
  std::string finish() { return udp.finish(), tcp.finish(), udp.failure() + tcp.failure(); }
};

std::string closeOf(uint16_t fid) { return smb(0x04, {fid, 0xffff, 0xffff}, ""); }

// Runs only in the private network namespace that the test command makes,
// where it may take the ports 137 and 139 and broadcast on loopback. No
// memory, descriptor or local sink may be left behind.
class Road : public kt::PoolGuard {
 protected:
  void SetUp() override {
    if (getenv("KEL_IN_NETNS") == nullptr) GTEST_SKIP() << "needs the test's network namespace";
    signal(SIGPIPE, SIG_IGN), kt::PoolGuard::SetUp();
    descriptor = lowestFree();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_EQ(lowestFree(), descriptor) << "descriptor leaked";
    EXPECT_EQ(fp, nullptr);
    unlink(file.localFile), kt::PoolGuard::TearDown();
  }
  static int lowestFree() {
    int fd = dup(0);
    return close(fd), fd;
  }
  kelResult start(const char *directory = "\\") {
    return file.directory = directory, kelSMBCStart(&record, &s, &file);
  }
  int descriptor = 0;
  kelSMBCServerRecord record{"127.0.0.1\\share", "user", "pw"};
  kelSMBCFileRecord file{"\\", "d\\f.txt", "smb_test_sink"};
  kelSMBCSession *s = nullptr;
};

// One session along every road: an upload of 9000 bytes in chunks of 4038
// at their offsets; refused opens (and the refused closes behind them), a
// sink that can't be made, an open reply cut short, a refused tree
// disconnect that keeps the session; a download whose first reply comes in
// pieces and the second right behind it, into a sink that takes the data in
// chunks at the read offset once it is not 0, and an oversized close reply
// read to its end; a refused write and close, then an abort with an upload
// and a download open: both files closed, the upload deleted, the sink kept.
TEST_F(Road, OneSessionAlongEveryRoad) {
  const std::string up = bytesOf(9000), down = bytesOf(5000), create = smb(0x03, {0, 0xffff, 0xffff}, kFile),
                    open = smb(0x02, {0, 0}, kFile);
  auto ask = [](uint16_t at) { return smb(0x0A, {0x2b, 4096, at, 0, 0}, ""); };
  auto got = [&](uint16_t at, uint16_t n) {
    return smb(0x0A, {n, 0, 0, 0, 0}, "\x01" + le16(n) + down.substr(at, n));
  };
  Server srv;
  srv.connect().x(kRoot, ok(0x10)).x(create, ok(0x03, {0x2a}));
  for (uint16_t at : {0, 4038, 8076}) {
    uint16_t n = uint16_t(std::min(9000 - at, 4038));
    srv.x(smb(0x0B, {0x2a, n, at, 0, 0}, "\x01" + le16(n) + up.substr(at, n)), ok(0x0B, {n}));
  }
  srv.x(closeOf(0x2a), ok(0x04)).x(kRoot, refusal(0x10, 1, 3)).x(closeOf(0x2a), refusal(0x04, 1, 6))
      .x(kRoot, refusal(0x10, 1, 3)).x(closeOf(0x2a), ok(0x04))
      .x(kRoot, ok(0x10)).x(open, refusal(0x02, 1, 2)).x(closeOf(0), refusal(0x04, 1, 6))
      .x(kRoot, ok(0x10)).x(open, kt::unhex("00000021") + ok(0x02).substr(4, 33))
      .x(smb(0x71, {}, ""), refusal(0x71, 2, 4))
      .x(kRoot, ok(0x10)).x(open, ok(0x02, {0x2b, 0, 0, 0, 5000, 1, 0}));
  const std::string first = got(0, 4096);
  srv.tcp.expect(ask(0)).send(first.substr(0, 3)).stall(20).send(first.substr(3, 1000)).stall(20)
      .send(first.substr(1003) + got(4096, 904)).expect(ask(4096));
  srv.x(ask(5000), refusal(0x0A, 1, 5)).x(closeOf(0x2b), smb(0x04, {}, std::string(70000, 'z')))
      .x(kRoot, ok(0x10)).x(create, ok(0x03, {0x2a}))
      .x(smb(0x0B, {0x2a, 3, 0, 0, 0}, "\x01" + le16(3) + "abc"), refusal(0x0B, 3, 0x27))
      .x(closeOf(0x2a), refusal(0x04, 1, 6)).x(kRoot, ok(0x10)).x(open, ok(0x02, {0x2b}))
      .x(closeOf(0x2a), ok(0x04)).x(smb(0x06, {0}, kFile), refusal(0x06, 1, 2)).x(closeOf(0x2b), ok(0x04))
      .end().start();
  ASSERT_EQ(start("\\d"), KEL_OK);
  EXPECT_EQ(kelSMBCprotoConnect(s, makepath, "x"), KEL_SMB_ERR_CONNECT);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, up.data(), 0), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, up.data(), 9000), KEL_OK);
  EXPECT_EQ(s->writeOffset, 9000u);
  EXPECT_EQ(kelSMBCWriteClose(s), KEL_OK);
  EXPECT_EQ(s->writeOffset, 0u);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), 0x16u);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), 0x13u);
  EXPECT_EQ(kelSMBCReadOpen(s, &file), 0x12u);
  const char *sink = file.localFile;
  file.localFile = "no-such-directory/sink";
  EXPECT_EQ(kelSMBCReadOpen(s, &file), KEL_SMB_ERR_FILE_OPEN);
  EXPECT_EQ(s->readFid + s->fileSize, 0u);
  EXPECT_EQ(kelSMBCRead(s, "x", 1), KEL_SMB_ERR_FILE_WRITE);
  EXPECT_EQ(kelSMBCEnd(s), 0x24u);
  EXPECT_EQ(s->state, 2u);
  file.localFile = sink;
  ASSERT_EQ(kelSMBCReadOpen(s, &file), KEL_OK);
  EXPECT_EQ(s->fileSize, 0x10000u + 5000);
  fputs("XYZ", fp);
  char out[4096];
  do {
    ASSERT_EQ(kelSMBCprotoGetData(s, out, 4096), KEL_OK);
    ASSERT_EQ(kelSMBCRead(s, out, s->dataLength), KEL_OK);
  } while (s->dataLength != 0);
  EXPECT_EQ(kelSMBCReadClose(s), KEL_OK);
  EXPECT_EQ(s->readOffset, 0u);
  EXPECT_TRUE(contents(sink) == "XYZ" + down.substr(0, 4035) + down.substr(4038));
  ASSERT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, "abc", 3), 0x57u);
  EXPECT_EQ(kelSMBCWriteClose(s), 0x16u);
  EXPECT_EQ(s->writeOffset, 0u);
  ASSERT_EQ(kelSMBCReadOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCAbortEnd(s), KEL_OK);
  EXPECT_EQ(access(sink, F_OK), 0);
  EXPECT_EQ(srv.finish(), "");
}

// A silent name service is no answer; a broadcast query learns the address,
// then the server falls silent.
TEST_F(Road, SilentNameServiceBroadcastQueryAndTimeOut) {
  {
    kt::UdpPeer udp{NB_PORT};
    udp.expect(kStatusQuery).start();
    EXPECT_EQ(start(), KEL_SMB_ERR_NO_ANSWER);
    EXPECT_TRUE(udp.finish()) << udp.failure();
  }
  Server srv(htonl(INADDR_ANY));
  const std::string name = " EOEPFDFFEDEIEIEPFDFE" + rep("CA", 6);  // NOSUCHHOST
  srv.udp.expect(kt::unhex("07AC0110 00010000 00000000") + nul(name) + kt::unhex("00200001"))
      .reply(kt::unhex("07AC8500") + rep("x", 54) + kt::unhex("7F000001"));
  srv.tcp.expect(kt::unhex("81000044") + name).stall(500);
  char path[] = "\\\\nosuchhost\\share";
  s = kelSMBCprotoOpen("nosuchhost", "user", "pw", 0, 200);
  EXPECT_EQ((srv.start(), kelSMBCprotoConnect(s, path, "f")), KEL_SMB_ERR_IO_TIMEOUT);
  EXPECT_EQ(s->serverAddress + s->state, htonl(INADDR_LOOPBACK) + 1);
  EXPECT_EQ(kelSMBCprotoClose(s), KEL_OK);
  EXPECT_EQ(srv.finish(), "");
}

TEST_F(Road, NoMemoryForTheSession) {
  noMemory = true;
  EXPECT_EQ(start(), KEL_SMB_ERR_SOCKET);
  noMemory = false;
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(smbhdl, nullptr);
}

}  // namespace
