// The mail clients' reads of what a server sends. The first byte chooses:
// the SMTP client's EHLO scan (which goes on to the mechanism that the AUTH
// line names), then the CRAM-MD5, LOGIN and DIGEST-MD5 exchanges each on
// what is left; or the POP3 client: the greeting, APOP and USER/PASS login,
// STAT, LAST, the LIST listing, RETR, DELE and QUIT.
#include "feed.h"
#include "kel_status.h"
#include "mail/mail_internal.h"

static kelResult defined(kelResult r) { return kf::defined(r, 0x58E0); }

static bool settings() {
  for (uint32_t key : {KEL_STATUS_SMTP_AUTH_USER, KEL_STATUS_SMTP_AUTH_PASSWORD, KEL_STATUS_SMTP_SERVER,
                       KEL_STATUS_POP3_USER, KEL_STATUS_POP3_PASSWORD})
    kelHostStatusSetText(key, "user");
  return true;
}

static void smtp(int32_t socket) {
  kelMAILSession *s = static_cast<kelMAILSession *>(kelMAILAlloc(sizeof(kelMAILSession)));
  if (s == nullptr || kelMAILInitSmtpSession(s) != KEL_OK) abort();
  s->socket = socket;
  defined(kelMAILHelloWithAuth(s, "printer"));
  defined(kelMAILAuthCramMd5(s, "user", "user"));
  defined(kelMAILAuthLogin(s, "user", "user"));
  defined(kelMAILAuthDigestMd5(s, "user", "user"));
  kelMAILFreeSmtpSession(s);
}

static void pop3(int32_t socket) {
  int32_t number = 0;
  uint16_t kilobytes = 0;
  memset(kelMAILRecvBuffer, 0, sizeof kelMAILRecvBuffer);  // no greeting of an earlier run
  defined(kelMAILRecvOneLinePop3(socket, kelMAILRecvBuffer, sizeof kelMAILRecvBuffer));
  defined(kelMAILLoginPop3ServerByAPOP(socket));
  defined(kelMAILLoginPop3Server(socket));
  defined(kelMAILGetMailCount(socket, &number));
  defined(kelMAILGetLastMail(socket, &number));
  defined(kelMAILGetMailSize(socket, 1, &kilobytes));
  defined(kelMAILStartMailData(socket, 1));
  defined(kelMAILDeleteMail(socket, 1));
  // QUIT closes the socket when it succeeds; else the caller does.
  if (defined(kelMAILDisconnectPop3Server(socket)) != KEL_OK) kelMAILCloseSocket(socket);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  [[maybe_unused]] static const bool ready = settings();
  if (size < 1) return 0;
  kf::Feed feed(data + 1, size - 1);
  (data[0] & 1) ? pop3(feed.client) : smtp(feed.client);
  return 0;
}
