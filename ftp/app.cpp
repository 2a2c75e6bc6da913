// Application calls: one session to port 21, image-type transfers, one file
// at a time, and an abort that removes a half-written upload.

#include <string.h>

#include "ftp_internal.h"

namespace {

constexpr int kApplicationPort = 21;
constexpr int kApplicationTimeoutMs = 30000;

// A transfer name as kept in the session, or null if it filled its field
// and can't be told whole.
const char *wholeName(char (&copy)[KEL_FTPC_TRANSFER_NAME_SIZE + 1],
                      const char (&field)[KEL_FTPC_TRANSFER_NAME_SIZE]) {
  memcpy(copy, field, sizeof field);
  copy[sizeof field] = '\0';
  return strlen(copy) < sizeof field ? copy : nullptr;
}

using ProtoOpen = kelResult (*)(kelFTPCSession *, const char *, const char *,
                                int, int, int);
using ProtoClose = kelResult (*)(kelFTPCSession *);

// An image-type transfer in stream mode and file structure. A refused open
// is followed by its own close, whatever the refusal was.
kelResult openImage(kelFTPCSession *session, const kelFTPCFileRecord *file,
                    ProtoOpen open, ProtoClose close) {
  kelResult r = file == nullptr
                    ? KEL_FTPC_BAD_FILE_NAME
                    : open(session, file->directory, file->fileName,
                           KEL_FTPC_MODE_STREAM, KEL_FTPC_STRUCTURE_FILE,
                           KEL_FTPC_TYPE_IMAGE);
  if (r != KEL_OK) close(session);
  return r;
}

}  // namespace

extern "C" {

kelResult kelFTPCStart(const kelFTPCServerRecord *server,
                       kelFTPCSession **session) {
  if (session == nullptr) return KEL_FTPC_BAD_SESSION;
  *session = kelFTPCProtoOpen(kApplicationPort, kApplicationTimeoutMs);
  if (*session == nullptr) return KEL_FTPC_BAD_SESSION;
  kelFTPCServerRecord none = {nullptr, nullptr, nullptr};
  if (server == nullptr) server = &none;
  kelResult r = kelFTPCProtoConnect(*session, server->serverName,
                                    server->userName, server->password);
  if (r != KEL_OK) kelFTPCProtoClose(*session);
  return r;
}

kelResult kelFTPCEnd(kelFTPCSession *session) {
  return kelFTPCProtoClose(session);
}

kelResult kelFTPCAbortEnd(kelFTPCSession *session) {
  if (!kelFTPCIsSession(session)) return KEL_FTPC_BAD_SESSION;
  if (kelFTPCIsState(session, KEL_FTPC_PUT)) {
    // The close blanks the names, so they are copied first. A name that
    // filled its field is not whole, and no other file is deleted for it.
    char directoryCopy[KEL_FTPC_TRANSFER_NAME_SIZE + 1];
    char fileCopy[KEL_FTPC_TRANSFER_NAME_SIZE + 1];
    const char *directory = wholeName(directoryCopy, session->transferDirectory);
    const char *file = wholeName(fileCopy, session->transferFile);
    kelFTPCProtoPutClose(session);
    if (directory && file) kelFTPCProtoDelete(session, directory, file);
  } else if (kelFTPCIsState(session, KEL_FTPC_GET)) {
    kelFTPCProtoGetClose(session);
  }
  return kelFTPCProtoClose(session);
}

kelResult kelFTPCWriteOpen(kelFTPCSession *session,
                           const kelFTPCFileRecord *file) {
  return openImage(session, file, kelFTPCProtoPutOpen, kelFTPCProtoPutClose);
}

kelResult kelFTPCWrite(kelFTPCSession *session, const void *buffer,
                       uint32_t length) {
  return kelFTPCProtoPutData(session, buffer, length);
}

kelResult kelFTPCWriteClose(kelFTPCSession *session) {
  return kelFTPCProtoPutClose(session);
}

kelResult kelFTPCReadOpen(kelFTPCSession *session,
                          const kelFTPCFileRecord *file) {
  return openImage(session, file, kelFTPCProtoGetOpen, kelFTPCProtoGetClose);
}

kelResult kelFTPCRead(kelFTPCSession *session, void *buffer, uint32_t capacity,
                      uint32_t *count) {
  return kelFTPCProtoGetData(session, buffer, capacity, count);
}

kelResult kelFTPCReadClose(kelFTPCSession *session) {
  return kelFTPCProtoGetClose(session);
}

}  // extern "C"
