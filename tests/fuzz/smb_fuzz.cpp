// The SMB client's reads of what a server sends. The first byte chooses: a
// NetBIOS name reply or node status reply as one datagram, or the server's
// side of a session as a stream: the connect's session request, negotiate
// and tree connect, create, write and close, open, read and close, delete,
// and the close's tree disconnect and logoff.
#include <stdio.h>

#include "feed.h"
#include "smb/smb_internal.h"

static kelResult defined(kelResult r) { return kf::defined(r, 0x58C0, 0xFFFF); }

static int treeConnect(uint8_t *request, int32_t capacity) {
  return smb_maketreeconnect(smbhdl, request, capacity, "\\\\server\\share");
}

static void session(kelSMBCSession *s) {
  // The connect's exchanges behind its TCP connect, each in zeroed buffers.
  for (auto build : {smb_makesessionrequest, smb_makenegotiate, treeConnect}) {
    uint8_t request[SMB_BUFFER_SIZE] = {}, reply[SMB_BUFFER_SIZE] = {};
    defined(smb_exchange(s, request, build(request, sizeof request), reply, sizeof reply));
  }
  s->state = 2;

  char put[] = "\\\\server\\share\\dir", get[] = "\\\\server\\share\\dir";
  uint8_t out[SMB_MAX_READ_DATA];
  defined(kelSMBCprotoPutOpen(s, put, "f.txt"));
  defined(kelSMBCprotoPutData(s, "data", 4));
  defined(kelSMBCprotoPutClose(s));
  defined(kelSMBCprotoGetOpen(s, get, "f.txt"));
  if (defined(kelSMBCprotoGetData(s, out, sizeof out)) == KEL_OK && s->dataLength > sizeof out) abort();
  defined(kelSMBCprotoGetClose(s));
  defined(kelSMBCprotodelete(s, "\\dir\\f.txt"));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  [[maybe_unused]] static FILE *quiet = freopen("/dev/null", "w", stdout);  // the MAC
  if (size < 1) return 0;
  const int kind = data[0] % 3;
  kf::Feed feed(data + 1, size - 1, kind < 2 ? SOCK_DGRAM : SOCK_STREAM);
  kelSMBCSession *s = kelSMBCprotoOpen("server", "me", "pw", 139, 20);
  if (s == nullptr) abort();
  kelNETClose(s->socket);
  s->socket = feed.client;
  // A name reply shorter than 12 bytes stops the process, as it must.
  if (kind == 0 && size > 12) nb_readnamereply(s->socket, 20);
  if (kind == 1) nb_readstatusreply(s->socket, 20);
  if (kind == 2) session(s);
  // A close whose exchange fails keeps the session: the second one frees it.
  if (defined(kelSMBCprotoClose(s)) != KEL_OK) {
    s->state = 0;
    kelSMBCprotoClose(s);
  }
  return 0;
}
