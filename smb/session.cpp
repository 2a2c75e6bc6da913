// The SMB session: the record and smbhdl, open (record and datagram
// socket), connect (name service, TCP, session request, negotiate, tree
// connect) and close (tree disconnect, logoff, free).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "kel_os.h"
#include "kelnet.h"
#include "smb_internal.h"

namespace {

// A handle stored in place of a datagram socket that couldn't be made.
constexpr int kNoDatagramSocket = 1234;

// As strncpy with the field's size: a source that fills it leaves no NUL.
void copyField(char (&field)[KEL_SMBC_NAME_SIZE], const char *text) {
  if (text == nullptr) text = "";
  memset(field, 0, sizeof field);
  memcpy(field, text, strnlen(text, sizeof field));
}

}  // namespace

extern "C" {

kelSMBCSession *smbhdl = nullptr;

kelSMBCSession *kelSMBCprotoOpen(const char *server, const char *callingName,
                                 const char *password, uint16_t port,
                                 uint16_t timeoutMs) {
  // The allocator hands out zero-filled blocks; one that gives nothing
  // leaves no session, and smbhdl null (kelSMBCStart reports it).
  kelSMBCSession *s =
      static_cast<kelSMBCSession *>(orvOSWSubAllocMem(sizeof(kelSMBCSession)));
  smbhdl = s;
  if (s == nullptr) return nullptr;
  int handle = kelNETSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  s->socket = handle == -1 ? kNoDatagramSocket : handle;
  if (handle != -1) {
    // The name query goes to the limited broadcast address.
    int on = 1;
    kelNETSetSockOpt(handle, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  }
  s->port = port;
  s->timeout = timeoutMs;
  copyField(s->serverName, server);
  copyField(s->callingName, callingName);
  copyField(s->password, password);
  return s;
}

kelResult kelSMBCprotoConnect(kelSMBCSession *session, char *path,
                              const char *file) {
  // A session that is already connected keeps its connection: a second
  // name exchange would run on the stream socket.
  if (session->state != 0) return KEL_SMB_ERR_CONNECT;
  kelResult r = nb_nameexchange(session);
  if (r != KEL_OK) return r;
  kelNETClose(session->socket);
  session->socket = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  if (session->socket < 0) return KEL_SMB_ERR_SOCKET;

  struct sockaddr_in server;
  memset(&server, 0, sizeof server);
  server.sin_family = AF_INET;
  server.sin_port = htons(SMB_PORT);
  server.sin_addr.s_addr = session->serverAddress;
  int c = kelNETConnectTimeo(&session->socket,
                             reinterpret_cast<struct sockaddr *>(&server),
                             sizeof server, session->timeout);
  if (c == KEL_NET_ERROR) return KEL_SMB_ERR_CONNECT;
  if (c < 0) return KEL_SMB_ERR_CONNECT_TIMEOUT;
  session->state = 1;

  uint8_t request[SMB_BUFFER_SIZE];
  uint8_t reply[SMB_BUFFER_SIZE];
  memset(request, 0, sizeof request);
  memset(reply, 0, sizeof reply);
  int length = smb_makesessionrequest(request, sizeof request);
  r = smb_exchange(session, request, length, reply, sizeof reply);
  if (r != KEL_OK) return r;

  memset(request, 0, sizeof request);
  memset(reply, 0, sizeof reply);
  length = smb_makenegotiate(request, sizeof request);
  r = smb_exchange(session, request, length, reply, sizeof reply);
  if (r != KEL_OK) return r;

  char share[SMB_BUFFER_SIZE];
  char filePath[SMB_BUFFER_SIZE];
  smb_splitfresh(path, file, share, filePath);

  memset(request, 0, sizeof request);
  memset(reply, 0, sizeof reply);
  length = smb_maketreeconnect(session, request, sizeof request, share);
  r = smb_exchange(session, request, length, reply, sizeof reply);
  if (r != KEL_OK) return r;
  session->state = 2;
  session->tid = smb_getword(reply + 4, 24);
  return KEL_OK;
}

kelResult kelSMBCprotoClose(kelSMBCSession *session) {
  if (session->state == 2) {
    uint8_t request[SMB_BUFFER_SIZE];
    uint8_t reply[SMB_BUFFER_SIZE];
    memset(request, 0, sizeof request);
    memset(reply, 0, sizeof reply);
    int length = smb_maketreedisconnect(request, sizeof request);
    kelResult r = smb_exchange(session, request, length, reply, sizeof reply);
    session->writeOffset = 0;
    if (r != KEL_OK) return r;
    // The logoff goes out of the same buffers; its refusal doesn't count.
    length = smb_makelogoff(request, sizeof request);
    r = smb_transact(session, request, length, reply, sizeof reply);
    if (r != KEL_OK) return r;
  }
  kelNETClose(session->socket);
  session->socket = 0;
  session->state = 0;
  orvOSWOrgFreeMemPart(0, smbhdl);
  return KEL_OK;
}

}  // extern "C"
