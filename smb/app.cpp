// Application calls: the session's UNC path from the caller's records, the
// chunks of 4038 bytes, the local sink of downloads, and the abort.

#include <stdio.h>
#include <string.h>

#include "smb_internal.h"

namespace {

const char kSeparator[] = "\\";

// Copies at most size - 1 bytes of text and a NUL.
void copyText(char *buffer, size_t size, const char *text) {
  size_t n = strnlen(text, size - 1);
  memcpy(buffer, text, n);
  buffer[n] = '\0';
}

// The local sink is given up: closed, and fp never left stale.
void closeSink() {
  if (fp != nullptr) fclose(fp);
  fp = nullptr;
}

}  // namespace

extern "C" {

FILE *fp = nullptr;

void smb_makehost(const char *server, char *out) {
  char work[256];
  char rest[254];
  memset(work, 0, sizeof work);
  memset(rest, 0, sizeof rest);
  memset(makepath, 0, sizeof makepath);
  copyText(work, sizeof work, server);
  copyText(rest, sizeof rest,
           work[0] == '\\' && work[1] == '\\' ? work + 2 : work);
  copyText(makepath, sizeof makepath, "\\\\");
  copyText(makepath + 2, sizeof makepath - 2, rest);
  char *position = nullptr;
  const char *host = strtok_r(rest, kSeparator, &position);
  if (host != nullptr) copyText(out, sizeof rest, host);
}

kelResult kelSMBCStart(const kelSMBCServerRecord *server,
                       kelSMBCSession **session,
                       const kelSMBCFileRecord *file) {
  char host[254];
  memset(host, 0, sizeof host);
  memset(makepath, 0, sizeof makepath);
  smb_makehost(server->server, host);
  if (strcmp(file->directory, kSeparator) != 0) {
    size_t at = strlen(makepath);
    copyText(makepath + at, sizeof makepath - at, file->directory);
  }
  kelSMBCSession *s = kelSMBCprotoOpen(host, server->user, server->password,
                                       0, SMB_APP_TIMEOUT_MS);
  *session = s;
  if (s == nullptr) return KEL_SMB_ERR_SOCKET;
  kelResult r = kelSMBCprotoConnect(s, makepath, file->file);
  if (r == KEL_OK) return KEL_OK;
  kelResult e = kelSMBCEnd(s);
  return e != KEL_OK ? e : r;
}

kelResult kelSMBCEnd(kelSMBCSession *session) {
  return kelSMBCprotoClose(session);
}

kelResult kelSMBCWriteOpen(kelSMBCSession *session,
                           const kelSMBCFileRecord *file) {
  kelResult r = kelSMBCprotoPutOpen(session, makepath, file->file);
  if (r == KEL_OK) return KEL_OK;
  kelResult c = kelSMBCprotoPutClose(session);
  return c != KEL_OK ? c : r;
}

// Counts of any size go out whole, in chunks of 4038 bytes.
kelResult kelSMBCWrite(kelSMBCSession *session, const void *data,
                       uint32_t count) {
  const uint8_t *at = static_cast<const uint8_t *>(data);
  for (uint32_t rest = count; rest > 0;) {
    uint32_t chunk = rest < SMB_CHUNK ? rest : SMB_CHUNK;
    kelResult r = kelSMBCprotoPutData(session, at, chunk);
    if (r != KEL_OK) return r;
    at += chunk;
    rest -= chunk;
  }
  return KEL_OK;
}

kelResult kelSMBCWriteClose(kelSMBCSession *session) {
  kelResult r = kelSMBCprotoPutClose(session);
  if (r != KEL_OK) return r;
  session->writeOffset = 0;
  return KEL_OK;
}

kelResult kelSMBCReadOpen(kelSMBCSession *session,
                          const kelSMBCFileRecord *file) {
  kelResult r = kelSMBCprotoGetOpen(session, makepath, file->file);
  if (r != KEL_OK) {
    kelResult c = kelSMBCprotoGetClose(session);
    return c != KEL_OK ? c : r;
  }
  // One sink at a time: one left open by an earlier download is given up.
  closeSink();
  fp = fopen(file->localFile, "w+");
  if (fp == nullptr) return KEL_SMB_ERR_FILE_OPEN;
  copyText(session->localPath, sizeof session->localPath, file->localFile);
  return KEL_OK;
}

// Counts of any size are stored whole; with no sink open nothing is written.
kelResult kelSMBCRead(kelSMBCSession *session, const void *data,
                      uint32_t count) {
  const uint8_t *at = static_cast<const uint8_t *>(data);
  for (uint32_t rest = count; rest > 0;) {
    uint32_t chunk = rest < SMB_CHUNK ? rest : SMB_CHUNK;
    if (fp == nullptr) return KEL_SMB_ERR_FILE_WRITE;
    if (session->readOffset != 0)
      fseek(fp, static_cast<long>(session->readOffset), SEEK_SET);
    if (fwrite(at, chunk, 1, fp) != 1) return KEL_SMB_ERR_FILE_WRITE;
    session->readOffset += chunk;
    at += chunk;
    rest -= chunk;
  }
  return KEL_OK;
}

kelResult kelSMBCReadClose(kelSMBCSession *session) {
  kelResult r = kelSMBCprotoGetClose(session);
  if (r != KEL_OK) return r;
  session->readOffset = 0;
  closeSink();
  return KEL_OK;
}

kelResult kelSMBCAbortEnd(kelSMBCSession *session) {
  if (session->writeFid != 0) {
    kelResult r = kelSMBCprotoPutClose(session);
    if (r != KEL_OK) return r;
    char remote[KEL_SMBC_NAME_SIZE + 1];
    copyText(remote, sizeof remote, session->remotePath);
    r = kelSMBCprotodelete(session, remote);
    if (r != KEL_OK) return r;
  }
  if (session->readFid != 0) {
    kelResult r = kelSMBCprotoGetClose(session);
    if (r != KEL_OK) return r;
    closeSink();
  }
  return kelSMBCprotoClose(session);
}

}  // extern "C"
