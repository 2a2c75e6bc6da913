// File operations on a tree-connected session: create and write, open and
// read, close either, delete. Each is one or two exchanges.

#include <string.h>

#include "smb_internal.h"

namespace {

// SMB offsets of the fields read from replies.
constexpr uint32_t kFid = 33;
constexpr uint32_t kFileSize = 41;
constexpr uint32_t kDataLength = 46;
constexpr uint32_t kData = 52;  // offset in the buffer, framing included

struct Buffers {
  uint8_t request[SMB_BUFFER_SIZE];
  uint8_t reply[SMB_BUFFER_SIZE];
  Buffers() { clear(); }
  void clear() {
    memset(request, 0, sizeof request);
    memset(reply, 0, sizeof reply);
  }
};

using PathBuilder = int (*)(uint8_t *, int32_t, const char *);

kelResult pathExchange(kelSMBCSession *session, Buffers &b, PathBuilder build,
                       const char *path) {
  b.clear();
  int length = build(b.request, sizeof b.request, path);
  return smb_exchange(session, b.request, length, b.reply, sizeof b.reply);
}

// Check directory, then create or open: the reply of the second stays in b.
kelResult openFile(kelSMBCSession *session, char *path, const char *file,
                   PathBuilder build, Buffers &b, bool keepPath) {
  char share[SMB_BUFFER_SIZE];
  char filePath[SMB_BUFFER_SIZE];
  smb_splitfresh(path, file, share, filePath);
  if (keepPath) memcpy(session->remotePath, filePath, sizeof session->remotePath);
  kelResult r = pathExchange(session, b, smb_makecheckdir, checkdirpath);
  return r != KEL_OK ? r : pathExchange(session, b, build, filePath);
}

// One exchange whose reply is not looked at: only send and receive count.
kelResult blindExchange(kelSMBCSession *session, int (*build)(uint8_t *, int32_t)) {
  Buffers b;
  int length = build(b.request, sizeof b.request);
  return smb_transact(session, b.request, length, b.reply, sizeof b.reply);
}

}  // namespace

extern "C" {

kelResult kelSMBCprotoPutOpen(kelSMBCSession *session, char *path,
                              const char *file) {
  Buffers b;
  kelResult r = openFile(session, path, file, smb_makecreate, b, true);
  if (r != KEL_OK) return r;
  session->writeFid = smb_getword(b.reply + 4, kFid);
  return KEL_OK;
}

kelResult kelSMBCprotoGetOpen(kelSMBCSession *session, char *path,
                              const char *file) {
  Buffers b;
  kelResult r = openFile(session, path, file, smb_makeopen, b, false);
  if (r != KEL_OK) return r;
  session->readFid = smb_getword(b.reply + 4, kFid);
  session->fileSize = smb_getlong(b.reply + 4, kFileSize);
  return KEL_OK;
}

kelResult kelSMBCprotoPutData(kelSMBCSession *session, const void *data,
                              uint32_t count) {
  uint8_t request[SMB_DATA_BUFFER_SIZE];
  uint8_t reply[SMB_BUFFER_SIZE];
  memset(request, 0, sizeof request);
  memset(reply, 0, sizeof reply);
  int length = smb_makewrite(request, sizeof request, data, count);
  return smb_exchange(session, request, length, reply, sizeof reply);
}

kelResult kelSMBCprotoPutClose(kelSMBCSession *session) {
  Buffers b;
  int length = smb_makeclosewrite(b.request, sizeof b.request);
  kelResult r = smb_exchange(session, b.request, length, b.reply, sizeof b.reply);
  if (r != KEL_OK) session->writeOffset = 0;
  return r;
}

kelResult kelSMBCprotoGetData(kelSMBCSession *session, void *out,
                              uint32_t count) {
  uint8_t request[SMB_DATA_BUFFER_SIZE];
  uint8_t reply[SMB_DATA_BUFFER_SIZE];
  memset(request, 0, sizeof request);
  memset(reply, 0, sizeof reply);
  int length = smb_makeread(request, sizeof request, count);  // low 16 bits go out
  kelResult r = smb_transact(session, request, length, reply, sizeof reply);
  if (r != KEL_OK) return r;
  uint32_t n = smb_getword(reply + 4, kDataLength);
  session->dataLength = n > SMB_MAX_READ_DATA ? SMB_MAX_READ_DATA : n;
  memcpy(out, reply + kData, session->dataLength);
  return KEL_OK;
}

kelResult kelSMBCprotoGetClose(kelSMBCSession *session) {
  kelResult r = blindExchange(session, smb_makecloseread);
  if (r != KEL_OK) session->readOffset = 0;
  return r;
}

kelResult kelSMBCprotodelete(kelSMBCSession *session, const char *path) {
  Buffers b;
  int length = smb_makedelete(b.request, sizeof b.request, path);
  return smb_transact(session, b.request, length, b.reply, sizeof b.reply);
}

}  // extern "C"
