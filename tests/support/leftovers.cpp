// Every test program ends with the descriptors it started with and leaves no
// new file in its working directory. The check is a GoogleTest environment
// in a source that each program compiles itself (an interface source of the
// test support), so the linker can't drop it as an unused library member.
#include <dirent.h>
#include <fcntl.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "sockets.h"

namespace {

std::set<std::string> leftovers() {
  std::set<std::string> open;
  for (int fd = 0; fd < 1024; fd++)
    if (fcntl(fd, F_GETFD) != -1) open.insert("descriptor " + std::to_string(fd));
  DIR *here = opendir(".");
  for (dirent *e; here != nullptr && (e = readdir(here)) != nullptr;) open.insert(std::string("file ") + e->d_name);
  if (here != nullptr) closedir(here);
  return open;
}

class Leftovers : public ::testing::Environment {
  std::set<std::string> before_;
  void SetUp() override { before_ = leftovers(); }
  void TearDown() override {
    kt::closeHeldSockets();
    for (const std::string &left : leftovers()) EXPECT_TRUE(before_.count(left)) << left << " left behind";
  }
};

::testing::Environment *const registered = ::testing::AddGlobalTestEnvironment(new Leftovers);

}  // namespace
