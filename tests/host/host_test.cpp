// The stand-ins of the host components that the other tests lean on: the
// pool's counters and failure injection, and the status service's settings
// file (its values, failures and read counts are seen through the time
// tests).

#include <stdio.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kel_os.h"
#include "kel_status.h"
#include "kelhost.h"

namespace {

// The second allocation fails, as does one beyond the pool's size; the
// sub-allocator's blocks come zeroed and count like the others.
TEST(Host, Pool) {
  void *blocks[3] = {};
  size_t before = kelHostPoolBlocksInUse();
  kelHostPoolFailAt(2);
  EXPECT_EQ(orvOSWOrgAllocMemPart(0, &blocks[0], 32), 0);
  EXPECT_NE(orvOSWOrgAllocMemPart(0, &blocks[1], 32), 0);
  EXPECT_EQ(static_cast<char *>(blocks[2] = orvOSWSubAllocMem(64))[63], 0);
  EXPECT_EQ(kelHostPoolBlocksInUse() - before, 2u);
  EXPECT_NE(orvOSWOrgAllocMemPart(0, &blocks[1], KEL_HOST_POOL_DEFAULT_SIZE), 0);
  orvOSWOrgFreeMemPart(0, blocks[0]);
  orvOSWOrgFreeMemPart(0, blocks[2]);
  EXPECT_EQ(kelHostPoolBlocksInUse(), before);
}

// The settings file sets texts, numbers and messages, and reports its first
// bad line.
TEST(Host, SettingsFile) {
  char path[] = "/tmp/kel-settings-XXXXXX", text[KEL_STATUS_SERVER_SIZE];
  FILE *f = fdopen(mkstemp(path), "w");
  fputs("# device\nsmtp_server = mail.test\nDATE_FORM = 0x21 # order 4, form 2\n"
        "MESSAGE_0xab = janv.\nNO_SUCH_KEY = 1\n", f);
  fclose(f);
  kelHostStatusReset();
  EXPECT_EQ(kelHostStatusLoadFile(path), 5) << "the number of the bad line";
  unlink(path);
  EXPECT_EQ(vaSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_SMTP_SERVER, text), 0);
  EXPECT_STREQ(text, "mail.test");
  EXPECT_EQ(vaxoSTCGetMessage(KEL_MESSAGE_CLIENT, 0xab, text), 0);
  EXPECT_STREQ(text, "janv.");
  kelHostStatusReset();
}

}  // namespace
