// The stand-ins of the host components: the bounded pool, the timed
// connect, and the status service's table.

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel_os.h"
#include "kel_status.h"
#include "kelhost.h"
#include "sockets.h"

namespace {

class Pool : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(kelHostPoolBlocksInUse(), 0u);
    ASSERT_EQ(kelHostPoolSetSize(4096), 0);
  }
  void TearDown() override {
    kelHostPoolFailAt(0);
    EXPECT_EQ(kelHostPoolBlocksInUse(), 0u);
    EXPECT_EQ(kelHostPoolBytesInUse(), 0u);
    kelHostPoolSetSize(KEL_HOST_POOL_DEFAULT_SIZE);
  }
};

TEST_F(Pool, RunsOutAndRecovers) {
  std::vector<void *> blocks;
  void *block = nullptr;
  while (orvOSWOrgAllocMemPart(0, &block, 256) == 0) blocks.push_back(block);
  ASSERT_GE(blocks.size(), 10u);
  EXPECT_LT(blocks.size(), 16u) << "a 4096-byte pool can't hold 16 blocks of 256";
  EXPECT_EQ(kelHostPoolBlocksInUse(), blocks.size());
  EXPECT_EQ(kelHostPoolBytesInUse(), blocks.size() * 256);
  // Two neighbours given back make room for one block of twice the size.
  orvOSWOrgFreeMemPart(0, blocks[3]);
  orvOSWOrgFreeMemPart(0, blocks[4]);
  EXPECT_EQ(orvOSWOrgAllocMemPart(0, &block, 400), 0);
  blocks[3] = block;
  blocks.erase(blocks.begin() + 4);
  for (void *b : blocks) orvOSWOrgFreeMemPart(0, b);
  EXPECT_EQ(orvOSWOrgAllocMemPart(0, &block, 3000), 0) << "freed space merges again";
  orvOSWOrgFreeMemPart(0, block);
}

TEST_F(Pool, BlocksDoNotOverlapAndKeepTheirContent) {
  void *a = nullptr, *b = nullptr;
  ASSERT_EQ(orvOSWOrgAllocMemPart(0, &a, 100), 0);
  ASSERT_EQ(orvOSWOrgAllocMemPart(0, &b, 100), 0);
  memset(a, 0x11, 100);
  memset(b, 0x22, 100);
  EXPECT_EQ(static_cast<unsigned char *>(a)[99], 0x11);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 16, 0u);
  orvOSWOrgFreeMemPart(0, a);
  orvOSWOrgFreeMemPart(0, b);
}

TEST_F(Pool, NthAllocationFails) {
  void *blocks[3] = {};
  kelHostPoolFailAt(2);
  EXPECT_EQ(orvOSWOrgAllocMemPart(0, &blocks[0], 32), 0);
  EXPECT_NE(orvOSWOrgAllocMemPart(0, &blocks[1], 32), 0);
  EXPECT_EQ(orvOSWOrgAllocMemPart(0, &blocks[2], 32), 0) << "only the nth fails";
  orvOSWOrgFreeMemPart(0, blocks[0]);
  orvOSWOrgFreeMemPart(0, blocks[2]);
}

TEST_F(Pool, OnlyPartitionZero) {
  void *block = nullptr;
  EXPECT_NE(orvOSWOrgAllocMemPart(1, &block, 32), 0);
}

TEST_F(Pool, SubAllocationIsZeroFilledAndFreedAlike) {
  void *block = nullptr;
  ASSERT_EQ(orvOSWOrgAllocMemPart(0, &block, 512), 0);
  memset(block, 0xff, 512);
  orvOSWOrgFreeMemPart(0, block);
  unsigned char *sub = static_cast<unsigned char *>(orvOSWSubAllocMem(512));
  ASSERT_NE(sub, nullptr);
  for (int i = 0; i < 512; i++) ASSERT_EQ(sub[i], 0) << "at byte " << i;
  orvOSWOrgFreeMemPart(0, sub);
}

TEST_F(Pool, SizeChangesOnlyWhenEmpty) {
  void *block = nullptr;
  ASSERT_EQ(orvOSWOrgAllocMemPart(0, &block, 32), 0);
  EXPECT_EQ(kelHostPoolSetSize(8192), -1);
  orvOSWOrgFreeMemPart(0, block);
  EXPECT_EQ(kelHostPoolSetSize(8192), 0);
  EXPECT_EQ(kelHostPoolSize(), 8192u);
}

#if defined(__SANITIZE_ADDRESS__)
// Under AddressSanitizer the pool is poisoned but for live blocks, so an
// overrun of a library buffer is caught as on the heap.
TEST(PoolPoisoning, OverrunAndUseAfterFreeAreCaught) {
  void *block = nullptr;
  ASSERT_EQ(orvOSWOrgAllocMemPart(0, &block, 40), 0);
  volatile char *bytes = static_cast<char *>(block);
  bytes[39] = 1;
  EXPECT_DEATH(bytes[40] = 1, "use-after-poison");
  orvOSWOrgFreeMemPart(0, block);
  EXPECT_DEATH(bytes[0] = 1, "use-after-poison");
}
#endif

TEST(TimedConnect, Connected) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = kt::loopbackAddress(0);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
  int handle = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(orvOSWConnectTimedWait(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 1000), 0);
  EXPECT_EQ(fcntl(handle, F_GETFL) & O_NONBLOCK, 0);
  close(handle);
  close(listener);
}

TEST(TimedConnect, RefusedLeavesTheHandle) {
  int handle = socket(AF_INET, SOCK_STREAM, 0);
  int before = handle;
  sockaddr_in a = kt::loopbackAddress(kt::closedPort());
  EXPECT_EQ(orvOSWConnectTimedWait(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 1000), -1);
  EXPECT_EQ(handle, before);
  EXPECT_EQ(fcntl(handle, F_GETFL) & O_NONBLOCK, 0);
  close(handle);
}

TEST(TimedConnect, TimeOutClosesAndClearsTheHandle) {
  kt::FullListener full;
  ASSERT_TRUE(full.ok());
  int handle = socket(AF_INET, SOCK_STREAM, 0);
  int before = handle;
  sockaddr_in a = kt::loopbackAddress(full.port());
  EXPECT_EQ(orvOSWConnectTimedWait(&handle, reinterpret_cast<sockaddr *>(&a), sizeof a, 100), -1);
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(fcntl(before, F_GETFD), -1);
}

TEST(Strings, CaseInsensitiveCompareAndLocalTime) {
  EXPECT_EQ(orvCLBCompStrCaseN("USERNAME:", "Username", 8), 0);
  EXPECT_NE(orvCLBCompStrCaseN("Passwort", "Password", 8), 0);
  time_t t = 0;
  struct tm broken{};
  orvCLBLocalTime_r(&t, &broken);
  EXPECT_TRUE(broken.tm_year == 70 || broken.tm_year == 69);
}

class Status : public ::testing::Test {
 protected:
  void SetUp() override { kelHostStatusReset(); }
  void TearDown() override { kelHostStatusReset(); }
};

TEST_F(Status, TextKeysKeepToTheirBufferSize) {
  EXPECT_EQ(kelHostStatusSetText(KEL_STATUS_HELO_NAME, "fifteen-bytes.."), 0);
  EXPECT_EQ(kelHostStatusSetText(KEL_STATUS_HELO_NAME, "sixteen-bytes..."), -1);
  char out[KEL_STATUS_HELO_NAME_SIZE];
  memset(out, 0x55, sizeof out);
  ASSERT_EQ(vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_HELO_NAME, out), 0);
  EXPECT_STREQ(out, "fifteen-bytes..");
  EXPECT_EQ(kelHostStatusSetText(KEL_STATUS_SMTP_PORT, "25"), -1) << "not a text key";
}

TEST_F(Status, FixedWidthKeys) {
  ASSERT_EQ(kelHostStatusSetBytes(KEL_STATUS_SERIAL, "0123456789ABCDEF", 16), 0);
  unsigned char out[KEL_STATUS_SERIAL_SIZE];
  memset(out, 0xaa, sizeof out);
  ASSERT_EQ(vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_SERIAL, out), 0);
  EXPECT_EQ(memcmp(out, "0123456789ABCDEF", 16), 0);
  EXPECT_EQ(out[16], 0xaa) << "the serial number has no terminator";

  ASSERT_EQ(kelHostStatusSetNumber(KEL_STATUS_SMTP_PORT, 2525), 0);
  uint16_t port = 0;
  ASSERT_EQ(vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_SMTP_PORT, &port), 0);
  EXPECT_EQ(port, 2525);
  EXPECT_EQ(kelHostStatusSetNumber(KEL_STATUS_DATE_FORM, 0x100), -1);
  ASSERT_EQ(kelHostStatusSetNumber(KEL_STATUS_DATE_FORM, 0x21), 0);
  unsigned char form[2] = {0, 0x77};
  ASSERT_EQ(vaxoSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_DATE_FORM, form), 0);
  EXPECT_EQ(form[0], 0x21);
  EXPECT_EQ(form[1], 0x77) << "a one-byte key writes one byte";
}

TEST_F(Status, FailuresAndReadCounts) {
  unsigned char out[8];
  ASSERT_EQ(kelHostStatusFail(KEL_STATUS_DATE_FORM, 0x1234), 0);
  EXPECT_EQ(vaxoSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_DATE_FORM, out), 0x1234);
  EXPECT_EQ(vaxoSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_DATE_FORM, out), 0x1234);
  EXPECT_EQ(kelHostStatusReads(KEL_STATUS_DATE_FORM), 2u);
  EXPECT_NE(vaSTCGetStatus(0x1, KEL_STATUS_SMTP_ENABLED, out), 0) << "wrong client";
  EXPECT_NE(vaSTCGetStatus(KEL_STATUS_CLIENT, 0x12345678, out), 0) << "unknown key";
}

TEST_F(Status, MonthMessages) {
  char out[64];
  ASSERT_EQ(vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xab, out), 0);
  EXPECT_STREQ(out, "Jan");
  ASSERT_EQ(vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xb6, out), 0);
  EXPECT_STREQ(out, "Dec");
  EXPECT_NE(vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xb7, out), 0);
  ASSERT_EQ(kelHostMessageSet(0xad, "März"), 0);
  ASSERT_EQ(vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xad, out), 0);
  EXPECT_STREQ(out, "März");
  kelHostMessageFail(0xad, 7);
  EXPECT_EQ(vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xad, out), 7);
}

TEST_F(Status, SettingsFile) {
  char path[] = "/tmp/kel-settings-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  std::string text =
      "# device settings\n"
      "smtp_server = mail.example.test\n"
      "SMTP_PORT = 0x24\n"
      "DATE_FORM = 0x21   # order 4, form 2\n"
      "ETHER_ADDR = 00:11:22:aa:bb:cc\n"
      "MESSAGE_0xab = janv.\n";
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
  EXPECT_EQ(kelHostStatusLoadFile(path), 0);
  char server[KEL_STATUS_SERVER_SIZE];
  vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_SMTP_SERVER, server);
  EXPECT_STREQ(server, "mail.example.test");
  uint16_t port = 0;
  vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_SMTP_PORT, &port);
  EXPECT_EQ(port, 0x24);
  unsigned char ether[8];
  vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_ETHER_ADDR, ether);
  EXPECT_EQ(ether[5], 0xcc);
  char month[64];
  vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xab, month);
  EXPECT_STREQ(month, "janv.");

  FILE *f = fopen(path, "a");
  fputs("NO_SUCH_KEY = 1\n", f);
  fclose(f);
  EXPECT_EQ(kelHostStatusLoadFile(path), 7) << "the number of the bad line";
  unlink(path);
  EXPECT_EQ(kelHostStatusLoadFile(path), -1);
}

}  // namespace
