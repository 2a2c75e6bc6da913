// Data connections: passive first, active only when the server answers PASV
// with 502; the joint wait for the first reply and the server's connection.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/select.h>

#include "ftp_internal.h"
#include "net_internal.h"
#include "kelnet.h"

namespace {

// First replies to the commands that open a transfer: only 125 and 150
// say that it is under way.
const kelFTPCReplyRow kStor[] = {
    {110, KEL_FTPC_STORE_FAILED},     {125, KEL_OK},
    {150, KEL_OK},                    {226, KEL_FTPC_STORE_FAILED},
    {250, KEL_FTPC_STORE_FAILED},     {421, KEL_FTPC_SERVICE_CLOSING},
    {425, KEL_FTPC_NO_DATA_CONNECTION}, {426, KEL_FTPC_STORE_FAILED},
    {450, KEL_FTPC_FILE_BUSY},        {451, KEL_FTPC_STORE_FAILED},
    {452, KEL_FTPC_NO_STORAGE},       {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},      {530, KEL_FTPC_NOT_READY},
    {532, KEL_FTPC_NEED_ACCOUNT},     {551, KEL_FTPC_STORE_FAILED},
    {552, KEL_FTPC_STORE_FAILED},     {553, KEL_FTPC_BAD_FILE_NAME},
};

// APPE answers as STOR, and alone knows 502 and 550.
const kelFTPCReplyRow kAppeOnly[] = {
    {502, KEL_FTPC_NOT_IMPLEMENTED},
    {550, KEL_FTPC_BAD_FILE_NAME},
};

const kelFTPCReplyRow kRetr[] = {
    {110, KEL_FTPC_RETRIEVE_FAILED},  {125, KEL_OK},
    {150, KEL_OK},                    {226, KEL_FTPC_RETRIEVE_FAILED},
    {250, KEL_FTPC_RETRIEVE_FAILED},  {421, KEL_FTPC_SERVICE_CLOSING},
    {425, KEL_FTPC_NO_DATA_CONNECTION}, {426, KEL_FTPC_RETRIEVE_FAILED},
    {450, KEL_FTPC_FILE_BUSY},        {451, KEL_FTPC_RETRIEVE_FAILED},
    {500, KEL_FTPC_BAD_COMMAND},      {501, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_NOT_READY},        {550, KEL_FTPC_UNAVAILABLE},
};

// Sends the command and takes its first reply through the joint wait.
kelResult firstReply(kelFTPCSession *session, const char *word,
                     const char *path, uint16_t *code) {
  kelResult r = kelFTPCSendCommand(session, word, path);
  if (r != KEL_OK) return r;
  return kelFTPCWaitReplyAndAccept(session, &session->controlSocket,
                                   &session->listenSocket,
                                   &session->dataSocket, code);
}

}  // namespace

extern "C" {

kelResult kelFTPCOpenListener(int controlHandle, int *listenHandle,
                              uint32_t *address, uint16_t *port) {
  int handle = -1;
  if (kelFTPCOpenSocket(&handle) == -1) return KEL_FTPC_NO_SOCKET;
  struct sockaddr_in own;
  memset(&own, 0, sizeof own);
  own.sin_family = AF_INET;
  struct sockaddr_in control;
  memset(&control, 0, sizeof control);
  socklen_t ownLength = sizeof own;
  socklen_t controlLength = sizeof control;
  if (kelNETBind(handle, reinterpret_cast<sockaddr *>(&own), sizeof own) != 0 ||
      kelNETListen(handle, 5) != 0 ||
      getsockname(handle, reinterpret_cast<sockaddr *>(&own), &ownLength) != 0 ||
      getsockname(controlHandle, reinterpret_cast<sockaddr *>(&control),
                  &controlLength) != 0) {
    kelFTPCCloseSocket(&handle);
    return KEL_FTPC_NO_DATA_CONNECTION;
  }
  // A listener left from an earlier attempt is given up for the new one.
  kelFTPCCloseSocket(listenHandle);
  *listenHandle = handle;
  *address = control.sin_addr.s_addr;  // the client's end of the control connection
  *port = ntohs(own.sin_port);
  return KEL_OK;
}

kelResult kelFTPCOpenDataConnection(kelFTPCSession *session) {
  uint32_t address = 0;
  uint16_t port = 0;
  kelResult r = kelFTPCCommandReplyPASV(session, &address, &port);
  if (r == KEL_OK) {
    kelFTPCCloseSocket(&session->listenSocket);
    if (kelFTPCOpenSocket(&session->dataSocket) == -1) return KEL_FTPC_NO_SOCKET;
    r = kelFTPCConnectSocket(&session->dataSocket, address, port,
                             session->timeoutMs);
    if (r != KEL_OK) kelFTPCCloseSocket(&session->dataSocket);
    return r;
  }
  if (r != KEL_FTPC_NOT_IMPLEMENTED) return r;
  r = kelFTPCOpenListener(session->controlSocket, &session->listenSocket,
                          &address, &port);
  if (r != KEL_OK) return r;
  return kelFTPCCommandReplyPORT(session, address, port);
}

kelResult kelFTPCWaitReplyAndAccept(kelFTPCSession *session,
                                    int *controlHandle, int *listenHandle,
                                    int *dataHandle, uint16_t *code) {
  bool replyDone = *controlHandle == -1;
  bool acceptDone = *listenHandle == -1;
  bool replyRead = false;
  kelResult replyResult = KEL_OK;
  kelResult result = KEL_OK;
  int count = (*controlHandle > *listenHandle ? *controlHandle : *listenHandle) + 1;

  while (!(replyDone && acceptDone)) {
    // A handle without a bit in the wait set can't be waited for.
    if ((!replyDone && !kelNETHandleFits(*controlHandle)) ||
        (!acceptDone && !kelNETHandleFits(*listenHandle))) {
      result = KEL_FTPC_NO_DATA_CONNECTION;
      break;
    }
    fd_set set;
    FD_ZERO(&set);
    if (!replyDone) FD_SET(*controlHandle, &set);
    if (!acceptDone) FD_SET(*listenHandle, &set);
    int ready = kelNETSelect(count, &set, nullptr, nullptr, session->timeoutMs);
    if (ready == KEL_NET_TIMEOUT) {
      result = KEL_FTPC_IO_TIMEOUT;
    } else if (ready == 1 || ready == 2) {
      int handled = 0;
      if (!replyDone && FD_ISSET(*controlHandle, &set)) {
        result = replyResult = kelFTPCReceiveResponse(session, code);
        replyRead = true;
        replyDone = true;
        handled = 1;
      }
      // A teardown while reading the reply has taken the listener away.
      if (*listenHandle != -1 && !acceptDone &&
          FD_ISSET(*listenHandle, &set)) {
        int accepted = kelNETAccept(*listenHandle, nullptr, nullptr);
        handled++;
        acceptDone = true;
        *dataHandle = accepted;
        if (accepted < 0) result = KEL_FTPC_NO_DATA_CONNECTION;
      }
      if (handled != ready) result = KEL_FTPC_BAD_SESSION;
    } else {
      result = KEL_FTPC_NO_DATA_CONNECTION;
    }
    if (result != KEL_OK) break;
  }

  kelFTPCCloseSocket(listenHandle);
  // A reply came and only the server's connection failed to: the reply
  // code stands and the command's table decides.
  if (result == KEL_FTPC_IO_TIMEOUT && replyRead && replyResult == KEL_OK)
    return KEL_OK;
  return result;
}

kelResult kelFTPCCommandReplySTOR(kelFTPCSession *session, const char *path) {
  uint16_t code = 0;
  kelResult r = firstReply(session, "STOR", path, &code);
  return r != KEL_OK ? r : kelFTPCMapReply(kStor, code);
}

kelResult kelFTPCCommandReplyAPPE(kelFTPCSession *session, const char *path) {
  uint16_t code = 0;
  kelResult r = firstReply(session, "APPE", path, &code);
  if (r != KEL_OK) return r;
  kelResult own = kelFTPCMapReply(kAppeOnly, code);
  return own != KEL_FTPC_BAD_REPLY ? own : kelFTPCMapReply(kStor, code);
}

kelResult kelFTPCCommandReplyRETR(kelFTPCSession *session, const char *path) {
  uint16_t code = 0;
  kelResult r = firstReply(session, "RETR", path, &code);
  return r != KEL_OK ? r : kelFTPCMapReply(kRetr, code);
}

}  // extern "C"
