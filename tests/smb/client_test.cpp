// The SMB client without a network, then against a scripted server on the
// ports 137 and 139: requests byte for byte, the error fold, the path
// split, NetBIOS names and the name service's replies, the roads of the
// application calls, and no memory, descriptor or local sink left behind.

#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "pool_guard.h"
#include "kel_os.h"
#include "kelnet.h"
#include "smb/smb_internal.h"
#include "transcript.h"

namespace {

std::string le16(unsigned v) { return {char(v & 0xff), char(v >> 8 & 0xff)}; }
std::string rep(const std::string &s, int n) { return n > 0 ? s + rep(s, n - 1) : ""; }
std::string nul(const std::string &s) { return s + std::string(1, '\0'); }
// A string of a data block: format 0x04, the text, NUL.
std::string str(const std::string &s) { return nul("\x04" + s); }
// A data block: format 0x01, length, the bytes.
std::string block(const std::string &data) { return "\x01" + le16(unsigned(data.size())) + data; }
std::string bytesOf(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i++) out += char(i * 7 + i / 251);
  return out;
}

// One framed SMB message: header, parameter words, byte count and bytes.
std::string smb(uint8_t command, std::vector<uint16_t> words, std::string bytes, uint16_t tid = 7,
                uint8_t errorClass = 0, uint16_t errorCode = 0) {
  std::string m = "\xffSMB" + std::string{char(command), char(errorClass), 0} + le16(errorCode) +
                  std::string(15, 0) + le16(tid) + std::string(6, 0) + char(words.size());
  for (uint16_t w : words) m += le16(w);
  m += le16(unsigned(bytes.size())) + bytes;
  return std::string{0, char(m.size() >> 16), char(m.size() >> 8), char(m.size())} + m;
}
std::string ok(uint8_t command, std::vector<uint16_t> words = {}) { return smb(command, words, ""); }
std::string refusal(uint8_t cmd, uint8_t cls, uint16_t code) { return smb(cmd, {}, "", 0, cls, code); }

// A node status reply with names (name, type) and no MAC behind them.
std::string statusReply(const std::vector<std::pair<std::string, int>> &names) {
  std::string r = kt::unhex("07AC8400 00000001 00000000") + nul(" CK" + rep("A", 30)) +
                  kt::unhex("00210001 00000000 00") + char(names.size() * 18 + 7) + char(names.size());
  for (auto &n : names) r += (n.first + rep(" ", 15)).substr(0, 15) + char(n.second) + "\x04" + '\0';
  return r;
}

// ---- Without a network: the builders and parsers reach the session
// through smbhdl.
struct SmbOffline : testing::Test {
  kelSMBCSession s{};
  SmbOffline() { smbhdl = &s; }
};

// Requests against their capacity (the exact fit and one byte less), the
// framing's limit, byte counts with their floors, the error fold; the road
// below checks every request byte for byte.
TEST_F(SmbOffline, CapacitiesByteCountFloorsAndTheFold) {
  std::vector<uint8_t> buffer(0x20100);
  uint8_t *b = buffer.data(), frame[4];
  EXPECT_EQ((std::vector<int>{smb_makesessionrequest(b, 71), smb_maketreeconnect(&s, b, 46, ""),
                              smb_maketreedisconnect(b, 38), smb_maketreedisconnect(b, 39),
                              smb_makewrite(b, 4500, b + 9000, 4449), smb_makewrite(b, 4500, b, 0xFFFFFFF0u),
                              smb_makewrite(b, 4500, b + 9000, 4448), int(s.writeOffset),
                              smb_setlength(frame, 0x20000), smb_setlength(frame, 0x1FFFF)}),
            (std::vector<int>{-1, -1, -1, 39, -1, -1, 4500, 4448, -1, 0x1FFFF}));
  auto byteCount = [&](int built) { return built == -1 ? -1 : b[37] | b[38] << 8; };
  for (auto [p, count] : {std::pair{65533u, 65535}, {65534u, 2}, {65535u, 2}, {0x1FFFFu - 36, -1}})
    EXPECT_EQ(byteCount(smb_makecheckdir(b, 0x20100, std::string(p, 'p').c_str())), count) << p;
  s.password[0] = 'w';  // W = 1
  for (auto [p, count] : {std::pair{65526u, 65535}, {65527u, 3}, {65529u, 3}, {65531u, 4}})
    EXPECT_EQ(byteCount(smb_maketreeconnect(&s, b, 0x20100, std::string(p, 'p').c_str())), count) << p;
  EXPECT_EQ(smb_foldcode(1, 3), 0x13u);
  EXPECT_EQ(smb_foldcode(0xFF, 0x0100), 0x10F0u);
  EXPECT_EQ(smb_foldcode(0xFF, 0xF010), 0u);
}

// The split cuts the path in place: a second split of it finds the server
// alone. Then the host and the UNC path of a server string.
TEST(SmbPaths, SplitOnceAndTwiceHostAndUncPath) {
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
  for (auto [server, path, host] : std::vector<std::array<const char *, 3>>{
           {"\\\\srv1\\share", "\\\\srv1\\share", "srv1"}, {"srv1\\share\\d", "\\\\srv1\\share\\d", "srv1"},
           {"srv1", "\\\\srv1", "srv1"}, {"\\\\\\\\s", "\\\\\\\\s", "s"}, {"\\\\", "\\\\", "kept"}}) {
    char out[254] = "kept";
    smb_makehost(server, out);
    EXPECT_EQ(std::string(makepath) + "|" + out, std::string(path) + "|" + host);
  }
}

// A status reply names the server by its last entry of type 0x20, walking
// only the entries received whole; the MAC follows them. First-level names:
// upper case, cut at 15, the scope.
TEST_F(SmbOffline, StatusRepliesAndEncodedNames) {
  strcpy(s.serverName, "A-LONGER-NAME");
  // The second count promises 40 entries; two arrive whole, then half of one.
  std::string cut = statusReply({{"ONE", 0x20}, {"TWO", 0x20}, {"ABCDEFGH", 0x20}});
  cut[56] = 40;
  for (auto [datagram, printed] : std::initializer_list<std::pair<std::string, const char *>>{
           {statusReply({{"OLD", 0x20}, {"S R\x01V1", 0x20}, {"WG", 0x1e}}), "00:00:00:00:00:00\nSRV1"},
           {cut.substr(0, cut.size() - 10), "41:42:43:44:45:46\nTWO"}}) {
    uint8_t buffer[NB_STATUS_BUFFER_SIZE + 64] = {};
    memcpy(buffer, datagram.data(), datagram.size());
    testing::internal::CaptureStdout();
    nb_storestatusreply(buffer, int(datagram.size()));
    EXPECT_EQ(testing::internal::GetCapturedStdout() + s.serverName, "MAC: " + std::string(printed));
  }
  std::string name(40, '*');
  EXPECT_STREQ(nb_encodename(&name[0], "abcdefghijklmnoXYZ", 0x61, 0x1b), "EBECEDEEEFEGEHEIEJEKELEMENEOEPBL");
  EXPECT_EQ(nb_encodefullname(&name[0], "a", 0x20, 0, "ab.c"), 39);
  EXPECT_EQ(name.substr(33, 6), nul("\x02" "AB\x01" "C"));
  EXPECT_EQ(nb_makequery(reinterpret_cast<uint8_t *>(&name[0]), 0, 0, "a", 0x20, 0, "", 34), -1);
}

// A name reply read from the socket gives the address of its last entry,
// unless it is an error. A datagram too short for a reply, such as an empty
// one, stops the process without a message.
TEST_F(SmbOffline, NameRepliesFromTheSocket) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  for (auto [hex, address] : std::initializer_list<std::pair<const char *, const char *>>{
           {"07AC8503000000000A000002", "00000000"}, {"07AC8508000000000A000003", "0A000003"}}) {
    const std::string datagram = kt::unhex(hex);
    send(pair[1], datagram.data(), datagram.size(), 0);
    nb_readnamereply(pair[0], 10);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&s.serverAddress), 4), kt::unhex(address)) << hex;
  }
  send(pair[1], "", 0, 0);
  EXPECT_EXIT(nb_readnamereply(pair[0], 10), testing::ExitedWithCode(1), "^$");
  close(pair[0]), close(pair[1]);
}

// ---- Against the scripted server, in the private network namespace that
// the test command makes, where the test may take the ports 137 and 139.

const std::string kRoot = smb(0x10, {}, str("\\"));
const std::string kSessionRequest =
    kt::unhex("81000044") + nul(" FDFCFGDB" + rep("CA", 12)) + nul(" FFFDEFFC" + rep("CA", 11) + "AA");
const std::string kNegotiate =
    kt::unhex("0000003B FF534D42 72" + rep("00", 19) + "FFFF0100 00000100 00180002") + nul("PC NETWORK PROGRAM 1.0");
const std::string kTreeConnect = smb(0x70, {}, str("\\\\127.0.0.1\\share") + str("pw") + str("A:"), 0);
const std::vector<std::pair<std::string, std::string>> kConnect = {
    {kSessionRequest, kt::unhex("82000000")}, {kNegotiate, ok(0x72, {0})}, {kTreeConnect, ok(0x70, {4096, 7})}};
const std::string kStatusQuery =
    kt::unhex("07AC0000 00010000 00000000") + nul(" CK" + rep("A", 30)) + kt::unhex("00210001");
const std::string kFile = str("\\d\\f.txt");
std::string closeOf(uint16_t fid) { return smb(0x04, {fid, 0xffff, 0xffff}, ""); }

// The session service: each request the client must send, and the reply.
struct Server : kt::TcpPeer {
  Server() : kt::TcpPeer(SMB_PORT) {}
  Server &x(const std::string &ask, const std::string &reply) { return expect(ask).send(reply), *this; }
};
using SmbRoad = kt::PoolGuard;

// One session along every road: no sink to read into yet; an upload of 9000
// bytes in chunks of 4038 at their offsets; a sink that can't be made after
// an open reply cut short; a refused tree disconnect that keeps the session;
// a download whose first reply comes in pieces and the second right behind
// it, into a sink that takes the data in chunks at the read offset once it
// is not 0, a short reply ending it, and an oversized close reply read to
// its end; an abort with an upload open: closed and deleted (the refusal of
// the delete doesn't count), the download's file closed again, the session
// ended.
TEST_F(SmbRoad, OneSessionAlongEveryRoad) {
  if (getenv("KEL_IN_NETNS") == nullptr) GTEST_SKIP() << "needs the test's network namespace";
  const std::string up = bytesOf(9000), down = bytesOf(5000), create = smb(0x03, {0, 0xffff, 0xffff}, kFile),
                    open = smb(0x02, {0, 0}, kFile);
  auto ask = [](uint16_t at) { return smb(0x0A, {0x2b, 4096, at, 0, 0}, ""); };
  auto got = [&](uint16_t at, uint16_t n) { return smb(0x0A, {n, 0, 0, 0, 0}, block(down.substr(at, n))); };
  auto udp = std::make_unique<kt::UdpPeer>(NB_PORT);
  auto srv = std::make_unique<Server>();
  udp->expect(kStatusQuery).reply(statusReply({{"SRV1", 0x20}}));
  for (auto &[request, reply] : kConnect) srv->x(request, reply);
  srv->x(kRoot, ok(0x10)).x(create, ok(0x03, {0x2a}));
  for (auto [at, n] : {std::pair<uint16_t, uint16_t>{0, 4038}, {4038, 4038}, {8076, 924}})
    srv->x(smb(0x0B, {0x2a, n, at, 0, 0}, block(up.substr(at, n))), ok(0x0B, {n}));
  srv->x(closeOf(0x2a), ok(0x04)).x(kRoot, ok(0x10)).x(open, kt::unhex("00000021") + ok(0x02).substr(4, 33))
      .x(smb(0x71, {}, ""), refusal(0x71, 2, 4)).x(kRoot, ok(0x10))
      .x(open, ok(0x02, {0x2b, 0, 0, 0, 5000, 1, 0}));
  const std::string first = got(0, 4096);
  srv->expect(ask(0)).send(first.substr(0, 3)).stall(20).send(first.substr(3, 1000)).stall(20)
      .send(first.substr(1003) + got(4096, 904)).expect(ask(4096));
  srv->x(ask(5000), refusal(0x0A, 1, 5)).x(closeOf(0x2b), smb(0x04, {}, std::string(70000, 'z')))
      .x(kRoot, ok(0x10)).x(create, ok(0x03, {0x2a})).x(closeOf(0x2a), ok(0x04))
      .x(smb(0x06, {0}, kFile), refusal(0x06, 1, 2)).x(closeOf(0x2b), ok(0x04))
      .x(smb(0x71, {}, ""), ok(0x71)).x(smb(0x74, {0xff, 0}, ""), ok(0x74));
  udp->start(), srv->start();
  kelSMBCServerRecord record{"127.0.0.1\\share", "user", "pw"};
  kelSMBCFileRecord file{"\\d", "d\\f.txt", "smb_test_sink"};
  kelSMBCSession *s = nullptr;
  ASSERT_EQ(kelSMBCStart(&record, &s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCRead(s, "x", 1), KEL_SMB_ERR_FILE_WRITE);
  EXPECT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCWrite(s, up.data(), 9000), KEL_OK);
  EXPECT_EQ(kelSMBCWriteClose(s), KEL_OK);
  file.localFile = "no-such-directory/sink";
  EXPECT_EQ(kelSMBCReadOpen(s, &file), KEL_SMB_ERR_FILE_OPEN);
  file.localFile = "smb_test_sink";
  EXPECT_EQ(kelSMBCEnd(s), 0x24u);
  ASSERT_EQ(kelSMBCReadOpen(s, &file), KEL_OK);
  EXPECT_EQ(s->fileSize, 0x10000u + 5000);
  fputs("XYZ", fp);
  char out[4096];
  do {
    ASSERT_EQ(kelSMBCprotoGetData(s, out, 4096), KEL_OK);
    ASSERT_EQ(kelSMBCRead(s, out, s->dataLength), KEL_OK);
  } while (s->dataLength != 0);
  std::string sink(6000, '\0');
  rewind(fp);
  sink.resize(fread(&sink[0], 1, sink.size(), fp));
  EXPECT_TRUE(sink == "XYZ" + down.substr(0, 4035) + down.substr(4038));
  EXPECT_EQ(kelSMBCReadClose(s), KEL_OK);
  ASSERT_EQ(kelSMBCWriteOpen(s, &file), KEL_OK);
  EXPECT_EQ(kelSMBCAbortEnd(s), KEL_OK);
  udp->finish(), srv->finish();
  EXPECT_EQ(udp->failure() + srv->failure(), "");
  EXPECT_EQ(fp, nullptr);
  unlink(file.localFile);
}

}  // namespace

namespace {

// A server that hangs up, resets, or hangs up after three bytes of its reply,
// at each reply of a store: no crash, no overrun, and after the caller's
// abort or end nothing is left behind. A reply that never comes reads as
// zeros, so some of these steps succeed.
TEST_F(SmbRoad, HostileServerAtEachReply) {
  if (getenv("KEL_IN_NETNS") == nullptr) GTEST_SKIP() << "needs the test's network namespace";
  signal(SIGPIPE, SIG_IGN);  // the SMB calls leave SIGPIPE to the host, as a device's host ignores it
  auto steps = kConnect;
  steps.insert(steps.end(), {{kRoot, ok(0x10)}, {smb(0x03, {0, 0xffff, 0xffff}, kFile), ok(0x03, {0x2a})},
                             {smb(0x0B, {0x2a, 3, 0, 0, 0}, block("abc")), ok(0x0B, {3})},
                             {closeOf(0x2a), ok(0x04)}});
  for (size_t cut = 0; cut < steps.size(); cut++)
    for (int how : {0, 1, 2}) {
      SCOPED_TRACE("reply " + std::to_string(cut) + ", way " + std::to_string(how));
      kt::UdpPeer udp(NB_PORT);
      Server srv;
      udp.expect(kStatusQuery).reply(statusReply({{"SRV1", 0x20}}));
      for (size_t i = 0; i < cut; i++) srv.x(steps[i].first, steps[i].second);
      srv.expect(steps[cut].first).send(how == 2 ? steps[cut].second.substr(0, 3) : "");
      srv.close(kt::TcpPeer::kControl, how == 1);
      udp.start(), srv.start();
      kelSMBCServerRecord record{"127.0.0.1\\share", "user", "pw"};
      kelSMBCFileRecord file{"\\d", "d\\f.txt", "smb_test_sink"};
      kelSMBCSession *s = nullptr;
      bool live = kelSMBCStart(&record, &s, &file) == KEL_OK;  // a failed start ends its session
      if (live && kelSMBCWriteOpen(s, &file) == KEL_OK && kelSMBCWrite(s, "abc", 3) == KEL_OK)
        kelSMBCWriteClose(s);
      if (live && kelSMBCAbortEnd(s) != KEL_OK && kelSMBCEnd(s) != KEL_OK) {
        // A close that fails keeps the session for another try; on a dead
        // connection every try fails, so the test takes it down itself.
        EXPECT_EQ(s->state, 2u);
        kelNETClose(s->socket);
        orvOSWOrgFreeMemPart(0, s);
      }
      EXPECT_EQ(udp.finish() && srv.finish(), true) << udp.failure() << srv.failure();
    }
}

}  // namespace
