// Shared by the mail client's tests: a fixture that checks the pool and
// resets the device settings, and connections to scripted peers (the pool
// guard brings GoogleTest and the host stand-ins, the transcript the peers).
#pragma once

#include "kel_os.h"
#include "kel_status.h"
#include "kelnet.h"
#include "mail/mail_internal.h"
#include "pool_guard.h"
#include "transcript.h"

namespace mt {

class Mail : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    kelHostStatusReset();
    kelNETIgnoreSignals();
  }
};

// Starts peer with script and connects a socket to it.
inline int32_t connect(kt::TcpPeer &peer, const std::string &script) {
  kt::play(peer, script);
  peer.start();
  int32_t s = -1;
  EXPECT_EQ(kelMAILConnect(&s, "127.0.0.1", peer.port()), KEL_OK);
  return s;
}

}  // namespace mt
