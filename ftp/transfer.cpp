// Transfers: paths, opening a store, append or retrieve, the data, the
// close with its final reply, and deleting a remote file.

#include <string.h>

#include "ftp_internal.h"
#include "kelnet.h"

namespace {

// Final replies, read after the data connection has closed.
const kelFTPCReplyRow kPutFinal[] = {
    {110, KEL_FTPC_STORE_FAILED},     {125, KEL_FTPC_STORE_FAILED},
    {150, KEL_FTPC_STORE_FAILED},     {226, KEL_OK},
    {250, KEL_OK},                    {421, KEL_FTPC_SERVICE_CLOSING},
    {425, KEL_FTPC_NO_DATA_CONNECTION}, {426, KEL_FTPC_STORE_FAILED},
    {450, KEL_FTPC_FILE_BUSY},        {451, KEL_FTPC_STORE_FAILED},
    {452, KEL_FTPC_NO_STORAGE},       {500, KEL_FTPC_BAD_COMMAND},
    {501, KEL_FTPC_BAD_COMMAND},      {530, KEL_FTPC_NOT_READY},
    {532, KEL_FTPC_NEED_ACCOUNT},     {551, KEL_FTPC_STORE_FAILED},
    {553, KEL_FTPC_STORE_FAILED},
};

const kelFTPCReplyRow kGetFinal[] = {
    {110, KEL_FTPC_RETRIEVE_FAILED},  {125, KEL_FTPC_RETRIEVE_FAILED},
    {150, KEL_FTPC_RETRIEVE_FAILED},  {226, KEL_OK},
    {250, KEL_OK},                    {421, KEL_FTPC_SERVICE_CLOSING},
    {425, KEL_FTPC_NO_DATA_CONNECTION}, {426, KEL_FTPC_RETRIEVE_FAILED},
    {450, KEL_FTPC_FILE_BUSY},        {451, KEL_FTPC_RETRIEVE_FAILED},
    {500, KEL_FTPC_BAD_COMMAND},      {501, KEL_FTPC_BAD_COMMAND},
    {530, KEL_FTPC_NOT_READY},        {550, KEL_FTPC_UNAVAILABLE},
};

enum class Direction { Store, Append, Retrieve };

// As strncpy: NUL-padded, and without a terminator if the name fills the
// field.
void copyTransferName(char (&field)[KEL_FTPC_TRANSFER_NAME_SIZE],
                      const char *text) {
  memset(field, 0, sizeof field);
  memcpy(field, text, strnlen(text, sizeof field));
}

void blankTransferNames(kelFTPCSession *session) {
  memset(session->transferDirectory, 0, sizeof session->transferDirectory);
  memset(session->transferFile, 0, sizeof session->transferFile);
}

kelResult openTransfer(kelFTPCSession *session, const char *directory,
                       const char *file, int mode, int structure, int type,
                       Direction direction) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  uint32_t own = direction == Direction::Retrieve ? KEL_FTPC_GET : KEL_FTPC_PUT;
  if (!kelFTPCIsState(session, KEL_FTPC_CONNECTED | KEL_FTPC_LOGGED_IN))
    return KEL_FTPC_NOT_READY;
  if (kelFTPCIsState(session, KEL_FTPC_TRANSFER)) return KEL_FTPC_ALREADY_ACTIVE;
  if (kelFTPCIsState(session, own)) return KEL_FTPC_NOT_CLOSED;

  char path[KEL_FTPC_PATH_LIMIT + 1];
  kelResult r = kelFTPCComposePath(directory, file, session->pathSeparator,
                                   path, KEL_FTPC_PATH_LIMIT);
  if (r == KEL_OK) r = kelFTPCCommandReplyTYPE(session, type);
  if (r == KEL_OK) r = kelFTPCCommandReplySTRU(session, structure);
  if (r == KEL_OK) r = kelFTPCCommandReplyMODE(session, mode);
  if (r == KEL_OK) r = kelFTPCOpenDataConnection(session);
  if (r != KEL_OK) return r;

  switch (direction) {
    case Direction::Store: r = kelFTPCCommandReplySTOR(session, path); break;
    case Direction::Append: r = kelFTPCCommandReplyAPPE(session, path); break;
    case Direction::Retrieve: r = kelFTPCCommandReplyRETR(session, path); break;
  }
  if (r != KEL_OK) {
    kelFTPCCloseSocket(&session->dataSocket);
    return r;
  }
  kelFTPCSetState(session, KEL_FTPC_TRANSFER);
  copyTransferName(session->transferDirectory, directory ? directory : "");
  copyTransferName(session->transferFile, file);
  kelFTPCSetState(session, own);
  return KEL_OK;
}

// The tests of the data calls; 0 when the data of direction may flow.
kelResult dataState(const kelFTPCSession *session, uint32_t direction) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  if (!kelFTPCIsState(session, KEL_FTPC_CONNECTED | KEL_FTPC_LOGGED_IN |
                                   KEL_FTPC_TRANSFER))
    return KEL_FTPC_NOT_READY;
  if (!kelFTPCIsState(session, direction)) return KEL_FTPC_WRONG_TRANSFER;
  return KEL_OK;
}

// A failed data call ends every connection of the session.
kelResult abortFor(kelFTPCSession *session, int netResult) {
  kelFTPCProtoAbortConnect(session);
  return netResult == KEL_NET_TIMEOUT ? KEL_FTPC_IO_TIMEOUT : KEL_FTPC_IO_FAILED;
}

}  // namespace

extern "C" {

kelResult kelFTPCComposePath(const char *directory, const char *file,
                             char separator, char *buffer, uint32_t limit) {
  if (file == nullptr) return KEL_FTPC_BAD_FILE_NAME;
  if (directory == nullptr) directory = "";
  size_t directoryLength = strlen(directory);
  size_t fileLength = strlen(file);
  if (directoryLength + fileLength >= limit) return KEL_FTPC_BAD_REPLY;
  // Before the working directory has been read there is no separator;
  // the common one stands in.
  if (separator == '\0') separator = '/';
  memcpy(buffer, directory, directoryLength);
  size_t at = directoryLength;
  if (at != 0 && buffer[at - 1] != separator) buffer[at++] = separator;
  memcpy(buffer + at, file, fileLength + 1);
  return KEL_OK;
}

kelResult kelFTPCProtoPutOpen(kelFTPCSession *session, const char *directory,
                              const char *file, int mode, int structure,
                              int type) {
  return openTransfer(session, directory, file, mode, structure, type,
                      Direction::Store);
}

kelResult kelFTPCProtoAppendOpen(kelFTPCSession *session,
                                 const char *directory, const char *file,
                                 int mode, int structure, int type) {
  return openTransfer(session, directory, file, mode, structure, type,
                      Direction::Append);
}

kelResult kelFTPCProtoGetOpen(kelFTPCSession *session, const char *directory,
                              const char *file, int mode, int structure,
                              int type) {
  return openTransfer(session, directory, file, mode, structure, type,
                      Direction::Retrieve);
}

kelResult kelFTPCProtoPutData(kelFTPCSession *session, const void *buffer,
                              uint32_t length) {
  kelResult r = dataState(session, KEL_FTPC_PUT);
  if (r != KEL_OK) return r;
  int sent = kelNETSendTimeo(session->dataSocket, buffer, length, 0,
                             session->timeoutMs);
  if (sent < 0 || static_cast<uint32_t>(sent) != length)
    return abortFor(session, sent);
  return KEL_OK;
}

kelResult kelFTPCProtoPutClose(kelFTPCSession *session) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  blankTransferNames(session);
  kelFTPCClearState(session, KEL_FTPC_PUT);
  kelFTPCCloseSocket(&session->listenSocket);
  // Closing the data connection tells the server that the file is complete;
  // only then comes its final reply.
  bool hadData = kelFTPCCloseSocket(&session->dataSocket) != -1;
  kelFTPCClearState(session, KEL_FTPC_TRANSFER);
  if (!hadData) return KEL_OK;
  uint16_t code = 0;
  kelResult r = kelFTPCReceiveResponse(session, &code);
  return r != KEL_OK ? r : kelFTPCMapReply(kPutFinal, code);
}

kelResult kelFTPCProtoGetData(kelFTPCSession *session, void *buffer,
                              uint32_t capacity, uint32_t *count) {
  kelResult r = dataState(session, KEL_FTPC_GET);
  if (r != KEL_OK) return r;
  int received = kelNETRecvTimeo(session->dataSocket, buffer, capacity, 0,
                                 session->timeoutMs);
  if (received < 0) return abortFor(session, received);
  if (count) *count = static_cast<uint32_t>(received);
  if (received != 0) return KEL_OK;
  // The end of the data: the server's final reply says how it went.
  kelFTPCCloseSocket(&session->dataSocket);
  kelFTPCClearState(session, KEL_FTPC_TRANSFER);
  uint16_t code = 0;
  r = kelFTPCReceiveResponse(session, &code);
  return r != KEL_OK ? r : kelFTPCMapReply(kGetFinal, code);
}

kelResult kelFTPCProtoGetClose(kelFTPCSession *session) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  blankTransferNames(session);
  kelFTPCClearState(session, KEL_FTPC_GET);
  kelFTPCCloseSocket(&session->listenSocket);
  kelFTPCCloseSocket(&session->dataSocket);
  kelFTPCClearState(session, KEL_FTPC_TRANSFER);
  return KEL_OK;
}

kelResult kelFTPCProtoDelete(kelFTPCSession *session, const char *directory,
                             const char *file) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  if (!kelFTPCIsState(session, KEL_FTPC_CONNECTED)) return KEL_FTPC_NOT_READY;
  char path[KEL_FTPC_PATH_LIMIT + 1];
  kelResult r = kelFTPCComposePath(directory, file, session->pathSeparator,
                                   path, KEL_FTPC_PATH_LIMIT);
  if (r != KEL_OK) return r;
  return kelFTPCCommandReplyDELE(session, path);
}

}  // extern "C"
