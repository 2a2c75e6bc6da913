// NetBIOS names, and the replies of the name service read from a datagram
// socket pair: the name learnt, the MAC line, the walk bounded by what was
// received, and the stop of the process when a socket call fails.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "smb_script.h"

namespace {

using namespace smbt;

// The roads of the session tests cover ordinary names.
TEST(NetbiosName, FirstLevelEncodingFillsAndCutsAt15) {
  const std::string a2o = "EBECEDEEEFEGEHEIEJEKELEMENEOEP";
  for (auto [name, letters] : std::initializer_list<std::pair<const char *, std::string>>{
           {"", rep("GB", 15) + "BL"}, {"abcdefghijklmno", a2o + "BL"}, {"abcdefghijklmnoXYZ", a2o + "BL"}}) {
    char out[33];
    EXPECT_EQ(nb_encodename(out, name, 0x61, 0x1b), letters) << name;
  }
  uint8_t q[64];
  EXPECT_EQ(nb_putquestion(q, "a", 0x20, 0, "", 34), -1);
  EXPECT_EQ(nb_encodefullname(reinterpret_cast<char *>(q), "a", 0x20, 0, "ab.c"), 39);
  EXPECT_EQ(std::string(q + 33, q + 39), nul("\x02" "AB\x01" "C"));
}

class NameReply : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    s = kelSMBCprotoOpen("A-LONGER-NAME", "user", "", 0, 100);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  }
  void TearDown() override { close(pair[0]), close(pair[1]), kelSMBCprotoClose(s), kt::PoolGuard::TearDown(); }
  // Reads datagram as a status reply; returns what went to standard output.
  std::string status(const std::string &datagram) {
    send(pair[1], datagram.data(), datagram.size(), 0);
    testing::internal::CaptureStdout();
    nb_readstatusreply(pair[0], 100);
    return testing::internal::GetCapturedStdout();
  }
  kelSMBCSession *s = nullptr;
  int pair[2] = {-1, -1};
};

TEST_F(NameReply, StatusReplyNamesTheServerByItsLastServerEntry) {
  EXPECT_EQ(status(statusReply({}, "\x01\x02\x03\x04\x05\xfe")), "MAC: 01:02:03:04:05:fe\n");
  EXPECT_STREQ(s->serverName, "A-LONGER-NAME");
  EXPECT_EQ(status(statusReply({{"OLD", 0x20}, {"SRV1", 0}, {"S R\x01V1", 0x20}, {"WG", 0x1e}}, "")),
            "MAC: 00:00:00:00:00:00\n");
  EXPECT_STREQ(s->serverName, "SRV1");
  // The count promises 40 entries; two arrive whole, then half of one.
  std::string cut = statusReply({{"ONE", 0x20}, {"TWO", 0x20}, {"ABCDEFGH", 0x20}}, "");
  cut[56] = 40;
  EXPECT_EQ(status(cut.substr(0, cut.size() - 10)), "MAC: 41:42:43:44:45:46\n");
  EXPECT_STREQ(s->serverName, "TWO");
  EXPECT_EQ(status(cut.substr(0, 40)), "MAC: 00:00:00:00:00:00\n");
}

TEST_F(NameReply, NameReplyGivesTheAddressOfItsLastEntry) {
  for (auto [datagram, address] : std::initializer_list<std::pair<std::string, uint32_t>>{
           {kt::unhex("07AC8500 00000001 00000000") + rep("x", 34) + kt::unhex("0000 0001 00000000 0006 0000 0A000001"),
            0x0A000001},
           {kt::unhex("07AC8503 00000000 0A000002"), 0}, {kt::unhex("07AC8508 00000000 0A000003"), 0x0A000003}}) {
    s->serverAddress = 0;
    send(pair[1], datagram.data(), datagram.size(), 0);
    nb_readnamereply(pair[0], 100);
    EXPECT_EQ(s->serverAddress, htonl(address)) << kt::printable(datagram);
  }
}

TEST_F(NameReply, FailingSocketCallsStopTheProcess) {
  uint8_t packet[50] = {};
  EXPECT_EXIT(nb_sendquery(-1, packet, 50, 0, NB_TYPE_NBSTAT), testing::ExitedWithCode(1), "sendto\\(\\)");
  EXPECT_EXIT(nb_readnamereply(pair[0], 10), testing::ExitedWithCode(1), "recv\\(\\)");
  EXPECT_EXIT(nb_readstatusreply(-1, 10), testing::ExitedWithCode(1), "recv\\(\\)");
  send(pair[1], "01234567890", 11, 0);
  EXPECT_EXIT(nb_readnamereply(pair[0], 10), testing::ExitedWithCode(1), "^$");
}

}  // namespace
