// Shared by the mail client's tests: a fixture that checks the pool and
// resets the device settings (the pool guard brings GoogleTest and the host
// stand-ins, the transcript the scripted peers).
#pragma once

#include "kel_os.h"
#include "kel_status.h"
#include "kelnet.h"
#include "mail/mail_internal.h"
#include "pool_guard.h"
#include "transcript.h"

class Mail : public kt::PoolGuard {
 protected:
  void SetUp() override {
    kt::PoolGuard::SetUp();
    kelHostStatusReset();
    kelNETIgnoreSignals();
  }
};
