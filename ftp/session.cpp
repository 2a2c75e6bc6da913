// The FTP session object: open, state flags, sockets, login, close and the
// teardown of every connection.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include "ftp_internal.h"
#include "kel_os.h"
#include "kelnet.h"

extern "C" {

int kelFTPCIsSession(const kelFTPCSession *session) {
  return session != nullptr && session->magic == KEL_FTPC_MAGIC;
}

int kelFTPCIsState(const kelFTPCSession *session, uint32_t mask) {
  if (session == nullptr) return 0;
  return (session->flags & mask) == mask ? 1 : 0;
}

void kelFTPCSetState(kelFTPCSession *session, uint32_t mask) {
  session->flags |= mask;
}

void kelFTPCClearState(kelFTPCSession *session, uint32_t mask) {
  session->flags &= ~mask;
}

int kelFTPCCloseSocket(int *handle) {
  int old = *handle;
  if (old != -1) {
    kelNETClose(old);
    *handle = -1;
  }
  return old;
}

int kelFTPCShutdownSocket(int *handle) {
  int old = *handle;
  if (old != -1) {
    kelNETShutdown(old);
    *handle = -1;
  }
  return old;
}

int kelFTPCOpenSocket(int *handle) {
  kelFTPCCloseSocket(handle);
  *handle = kelNETSocket(AF_INET, SOCK_STREAM, 0);
  return *handle;
}

kelFTPCSession *kelFTPCProtoOpen(int port, int timeoutMs) {
  if (timeoutMs < 1) return nullptr;
  kelNETIgnoreSignals();
  void *block = nullptr;
  if (orvOSWOrgAllocMemPart(0, &block, sizeof(kelFTPCSession)) != 0 ||
      block == nullptr)
    return nullptr;
  memset(block, 0, sizeof(kelFTPCSession));
  kelFTPCSession *s = static_cast<kelFTPCSession *>(block);
  s->magic = KEL_FTPC_MAGIC;
  s->size = sizeof(kelFTPCSession);
  s->controlSocket = s->dataSocket = s->listenSocket = -1;
  s->serverAddress = 0xffffffffu;
  s->port = static_cast<uint16_t>(port == 0 ? KEL_FTPC_DEFAULT_PORT : port);
  s->timeoutMs = timeoutMs;
  s->lastType = s->lastStructure = s->lastMode = 1;
  s->lineSize = KEL_FTPC_LINE_SIZE;
  s->line = s->lineStorage;
  for (int &r : s->retired) r = -1;
  return s;
}

static void releaseRetired(kelFTPCSession *session) {
  for (int &r : session->retired) kelFTPCCloseSocket(&r);
}

void kelFTPCProtoAbortConnect(kelFTPCSession *session) {
  if (session == nullptr) return;
  releaseRetired(session);
  session->retired[0] = kelFTPCShutdownSocket(&session->listenSocket);
  session->retired[1] = kelFTPCShutdownSocket(&session->dataSocket);
  kelFTPCClearState(session, KEL_FTPC_TRANSFER);
  session->retired[2] = kelFTPCShutdownSocket(&session->controlSocket);
  kelFTPCClearState(session, KEL_FTPC_CONNECTED);
}

kelResult kelFTPCConnectSocket(int *handle, uint32_t address, uint16_t port,
                               int32_t timeoutMs) {
  struct sockaddr_in target;
  memset(&target, 0, sizeof target);
  target.sin_family = AF_INET;
  target.sin_port = htons(port);
  target.sin_addr.s_addr = address;
  int r = kelNETConnectTimeo(handle, reinterpret_cast<sockaddr *>(&target),
                             sizeof target, timeoutMs);
  if (r == 0) return KEL_OK;
  return r == KEL_NET_TIMEOUT ? KEL_FTPC_CONNECT_TIMEOUT
                              : KEL_FTPC_CONNECT_FAILED;
}

kelResult kelFTPCConnectControl(kelFTPCSession *session, const char *server,
                                uint16_t port) {
  if (kelFTPCOpenSocket(&session->controlSocket) == -1)
    return KEL_FTPC_NO_SOCKET;
  if (kelNETGetIpByName(server, &session->serverAddress) != 0)
    return KEL_FTPC_BAD_SERVER;
  kelResult r = kelFTPCConnectSocket(&session->controlSocket,
                                     session->serverAddress, port,
                                     session->timeoutMs);
  if (r != KEL_OK) {
    kelFTPCCloseSocket(&session->controlSocket);
    return r;
  }
  uint16_t code = 0;
  r = kelFTPCReceiveResponse(session, &code);
  if (r != KEL_OK) return r;
  return code == 220 ? KEL_OK : KEL_FTPC_CONNECT_FAILED;
}

static bool fitsName(const char *text) {
  return text != nullptr && strnlen(text, KEL_FTPC_NAME_SIZE) < KEL_FTPC_NAME_SIZE;
}

static void copyName(char (&field)[KEL_FTPC_NAME_SIZE], const char *text) {
  memset(field, 0, sizeof field);
  memcpy(field, text, strlen(text));
}

kelResult kelFTPCProtoConnect(kelFTPCSession *session, const char *server,
                              const char *user, const char *password) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  if (!fitsName(server) || server[0] == '\0') return KEL_FTPC_BAD_SERVER;
  if (!fitsName(user) || !fitsName(password)) return KEL_FTPC_BAD_LOGIN;
  copyName(session->serverName, server);
  copyName(session->userName, user);
  copyName(session->password, password);
  if (session->flags & (KEL_FTPC_CONNECTED | KEL_FTPC_LOGGED_IN))
    return KEL_FTPC_ALREADY_ACTIVE;

  kelResult r = kelFTPCConnectControl(session, session->serverName, session->port);
  if (r != KEL_OK) return r;
  kelFTPCSetState(session, KEL_FTPC_CONNECTED);

  r = kelFTPCCommandReplyUSER(session, session->userName);
  if (r == KEL_FTPC_NEED_PASSWORD)
    r = kelFTPCCommandReplyPASS(session, session->password);
  if (r != KEL_OK) return r;
  kelFTPCSetState(session, KEL_FTPC_LOGGED_IN);

  // One byte more than the reply may fill, so that the separator search
  // always finds an end.
  char directory[KEL_FTPC_WORKDIR_SIZE + 1];
  memset(directory, 0, sizeof directory);
  r = kelFTPCCommandReplyPWD(session, directory, KEL_FTPC_WORKDIR_SIZE);
  if (r != KEL_OK) return r;
  return kelFTPCDerivePathSeparator(directory, &session->pathSeparator);
}

kelResult kelFTPCProtoClose(kelFTPCSession *session) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  kelFTPCCloseSocket(&session->listenSocket);
  kelFTPCCloseSocket(&session->dataSocket);
  kelFTPCClearState(session, KEL_FTPC_TRANSFER);
  kelResult result = KEL_OK;
  if (session->controlSocket != -1 &&
      kelFTPCIsState(session, KEL_FTPC_LOGGED_IN)) {
    result = kelFTPCCommandReplyQUIT(session);
    kelFTPCClearState(session, KEL_FTPC_LOGGED_IN);
  }
  kelFTPCCloseSocket(&session->controlSocket);
  kelFTPCClearState(session, KEL_FTPC_CONNECTED);
  releaseRetired(session);
  memset(session, 0, session->size);
  orvOSWOrgFreeMemPart(0, session);
  return result;
}

}  // extern "C"
