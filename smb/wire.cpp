// The bytes on the SMB connection: little-endian accessors, the session
// message framing, the request builders, the error fold, and the one
// send and one whole reply of an exchange.

#include <string.h>

#include "kelnet.h"
#include "smb_internal.h"

namespace {

const unsigned char kProtocol[4] = {0xFF, 'S', 'M', 'B'};
const char kDialect[] = "PC NETWORK PROGRAM 1.0";

// SMB offsets of the header fields and the first field behind it.
constexpr uint32_t kCommand = 4;
constexpr uint32_t kErrorClass = 5;
constexpr uint32_t kErrorCode = 7;
constexpr uint32_t kTid = 24;
constexpr uint32_t kPid = 26;
constexpr uint32_t kMid = 30;
constexpr uint32_t kWordCount = 32;
constexpr uint32_t kWords = 33;
constexpr uint32_t kNoTime = 0xFFFFFFFFu;

// Steps 1 to 3 of every builder up to the parameter words: the header with
// its identifiers. Null when the capacity can't hold the smallest request
// or the whole message (length behind the framing) doesn't fit.
uint8_t *begin(uint8_t *buffer, int32_t capacity, uint8_t command,
               uint8_t wordCount, uint32_t length, bool negotiate = false) {
  if (capacity - 4 < 35 || length > static_cast<uint32_t>(capacity - 4))
    return nullptr;
  uint8_t *smb = buffer + 4;
  smb_setheader(smb, capacity - 4);
  smb[kCommand] = command;
  smb_putword(smb, kTid, negotiate ? 0xFFFF : smbhdl->tid);
  smb_putword(smb, kPid, negotiate ? 1 : smbhdl->pid);
  smb_putword(smb, kMid, negotiate ? 1 : smbhdl->mid);
  smb[kWordCount] = wordCount;
  return smb;
}

// Steps 4 to 6: the framing, then the byte count at its SMB offset.
int finish(uint8_t *buffer, uint32_t length, uint32_t byteCountAt,
           uint32_t byteCount) {
  if (smb_setlength(buffer, length) < static_cast<int>(length)) return -1;
  smb_putword(buffer + 4, byteCountAt, byteCount);
  return static_cast<int>(length) + 4;
}

// The byte count of a request with strings: modulo 65536, with a floor.
uint32_t countWithFloor(size_t count, uint32_t floor) {
  uint32_t c = static_cast<uint32_t>(count) & 0xFFFF;
  return c < floor ? floor : c;
}

// Format 0x04 and the string with its NUL.
void putString(uint8_t *at, const char *text, size_t length) {
  at[0] = 0x04;
  memcpy(at + 1, text, length);
}

// A request of one path: word count and words, then format, path, NUL.
int pathRequest(uint8_t *buffer, int32_t capacity, uint8_t command,
                uint8_t wordCount, const char *path) {
  size_t p = strlen(path);
  uint32_t words = 2u * wordCount;
  uint32_t length = static_cast<uint32_t>(35 + words + 2 + p);
  if (p > SMB_MAX_LENGTH) return -1;
  uint8_t *smb = begin(buffer, capacity, command, wordCount, length);
  if (smb == nullptr) return -1;
  if (command == 0x03) smb_putlong(smb, kWords + 2, kNoTime);
  putString(smb + kWords + words + 2, path, p);
  return finish(buffer, length, kWords + words, countWithFloor(p + 2, 2));
}

// A request of one FID and a last write time (the two closes).
int closeRequest(uint8_t *buffer, int32_t capacity, uint16_t fid) {
  uint8_t *smb = begin(buffer, capacity, 0x04, 3, 41);
  if (smb == nullptr) return -1;
  smb_putword(smb, kWords, fid);
  smb_putlong(smb, kWords + 2, kNoTime);
  return finish(buffer, 41, kWords + 6, 0);
}

}  // namespace

extern "C" {

const unsigned char *const smb_hdrSMBString = kProtocol;

void smb_putword(uint8_t *base, uint32_t offset, uint32_t value) {
  base[offset] = static_cast<uint8_t>(value);
  base[offset + 1] = static_cast<uint8_t>(value >> 8);
}

uint16_t smb_getword(const uint8_t *base, uint32_t offset) {
  return static_cast<uint16_t>(base[offset] | base[offset + 1] << 8);
}

void smb_putlong(uint8_t *base, uint32_t offset, uint32_t value) {
  smb_putword(base, offset, value & 0xFFFF);
  smb_putword(base, offset + 2, value >> 16);
}

uint32_t smb_getlong(const uint8_t *base, uint32_t offset) {
  return smb_getword(base, offset) |
         static_cast<uint32_t>(smb_getword(base, offset + 2)) << 16;
}

int smb_setlength(uint8_t *buffer, uint32_t length) {
  if (length > SMB_MAX_LENGTH) return -1;
  buffer[0] = 0x00;
  buffer[1] = static_cast<uint8_t>(length >> 16);
  buffer[2] = static_cast<uint8_t>(length >> 8);
  buffer[3] = static_cast<uint8_t>(length);
  return static_cast<int>(length);
}

int smb_setheader(uint8_t *header, int32_t room) {
  if (room < 32) return -1;
  memcpy(header, smb_hdrSMBString, 4);
  return 32;
}

int smb_makesessionrequest(uint8_t *buffer, int32_t capacity) {
  if (capacity < 72) return -1;
  buffer[0] = 0x81;
  char *called = reinterpret_cast<char *>(buffer + 4);
  char *calling = reinterpret_cast<char *>(buffer + 38);
  nb_encodefullname(called, smbhdl->serverName, 0x20, 0x20, "");
  nb_encodefullname(calling, smbhdl->callingName, 0x20, 0x00, "");
  buffer[3] = static_cast<uint8_t>(strnlen(called, 33) + strnlen(calling, 33) + 2);
  return 72;
}

int smb_makenegotiate(uint8_t *buffer, int32_t capacity) {
  uint8_t *smb = begin(buffer, capacity, 0x72, 0, 59, true);
  if (smb == nullptr) return -1;
  smb[kWords + 2] = 0x02;
  memcpy(smb + kWords + 3, kDialect, sizeof kDialect);
  return finish(buffer, 59, kWords, sizeof kDialect + 1);
}

int smb_maketreeconnect(kelSMBCSession *session, uint8_t *buffer,
                        int32_t capacity, const char *share) {
  size_t p = strlen(share);
  size_t w = strnlen(session->password, sizeof session->password);
  if (p + w > SMB_MAX_LENGTH) return -1;
  uint32_t length = static_cast<uint32_t>(p + w + 43);
  uint8_t *smb = begin(buffer, capacity, 0x70, 0, length);
  if (smb == nullptr) return -1;
  uint8_t *at = smb + kWords + 2;
  putString(at, share, p);
  putString(at + p + 2, session->password, w);
  putString(at + p + w + 4, "A:", 2);
  return finish(buffer, length, kWords, countWithFloor(p + w + 8, 3));
}

int smb_makecheckdir(uint8_t *buffer, int32_t capacity, const char *path) {
  return pathRequest(buffer, capacity, 0x10, 0, path);
}

int smb_makecreate(uint8_t *buffer, int32_t capacity, const char *path) {
  return pathRequest(buffer, capacity, 0x03, 3, path);
}

int smb_makeopen(uint8_t *buffer, int32_t capacity, const char *path) {
  return pathRequest(buffer, capacity, 0x02, 2, path);
}

int smb_makedelete(uint8_t *buffer, int32_t capacity, const char *path) {
  return pathRequest(buffer, capacity, 0x06, 1, path);
}

int smb_makewrite(uint8_t *buffer, int32_t capacity, const void *data,
                  uint32_t count) {
  if (count > SMB_MAX_LENGTH) return -1;
  uint32_t length = count + 48;
  uint8_t *smb = begin(buffer, capacity, 0x0B, 5, length);
  if (smb == nullptr) return -1;
  smb_putword(smb, kWords, smbhdl->writeFid);
  smb_putword(smb, kWords + 2, count);
  if (smbhdl->writeOffset != 0)
    smb_putlong(smb, kWords + 4, smbhdl->writeOffset);
  smb[kWords + 12] = 0x01;
  smb_putword(smb, kWords + 13, count);
  memcpy(smb + kWords + 15, data, count);
  int sent = finish(buffer, length, kWords + 10, count + 3);
  smbhdl->writeOffset += count;
  return sent;
}

int smb_makeread(uint8_t *buffer, int32_t capacity, uint32_t count) {
  uint8_t *smb = begin(buffer, capacity, 0x0A, 5, 45);
  if (smb == nullptr) return -1;
  smb_putword(smb, kWords, smbhdl->readFid);
  smb_putword(smb, kWords + 2, count);
  if (smbhdl->readOffset != 0) smb_putlong(smb, kWords + 4, smbhdl->readOffset);
  return finish(buffer, 45, kWords + 10, 0);
}

int smb_makeclosewrite(uint8_t *buffer, int32_t capacity) {
  return closeRequest(buffer, capacity, smbhdl->writeFid);
}

int smb_makecloseread(uint8_t *buffer, int32_t capacity) {
  return closeRequest(buffer, capacity, smbhdl->readFid);
}

int smb_maketreedisconnect(uint8_t *buffer, int32_t capacity) {
  if (begin(buffer, capacity, 0x71, 0, 35) == nullptr) return -1;
  return finish(buffer, 35, kWords, 0);
}

int smb_makelogoff(uint8_t *buffer, int32_t capacity) {
  uint8_t *smb = begin(buffer, capacity, 0x74, 2, 39);
  if (smb == nullptr) return -1;
  smb[kWords] = 0xFF;
  return finish(buffer, 39, kWords + 4, 0);
}

uint32_t smb_foldcode(uint32_t errorClass, uint32_t errorCode) {
  return ((errorClass << 4) + errorCode) & 0xFFFF;
}

kelResult smb_replyresult(const uint8_t *reply) {
  const uint8_t *smb = reply + 4;
  uint16_t code = smb_getword(smb, kErrorCode);
  return code == 0 ? KEL_OK : smb_foldcode(smb[kErrorClass], code);
}

kelResult smb_transact(kelSMBCSession *session, const uint8_t *request,
                       int length, uint8_t *reply, uint32_t capacity) {
  if (length < 0) return KEL_SMB_ERR_SEND;
  const int32_t timeout = session->timeout;
  // A long request may take several sends; a send that takes nothing
  // would never end, and counts as failed.
  for (int sent = 0; sent < length;) {
    int n = kelNETSendTimeo(session->socket, request + sent,
                            static_cast<uint32_t>(length - sent), 0, timeout);
    if (n == KEL_NET_ERROR || n == 0) return KEL_SMB_ERR_SEND;
    if (n < 0) return KEL_SMB_ERR_IO_TIMEOUT;
    sent += n;
  }
  // Read on until the session message is complete; a peer that closes
  // leaves zeros behind what came. What the buffer can't hold is read and
  // dropped, so that the next exchange starts at the next message.
  uint8_t spill[SMB_BUFFER_SIZE];
  uint32_t got = 0;
  uint32_t whole = 4;
  while (got < whole) {
    uint8_t *into = got < capacity ? reply + got : spill;
    uint32_t room = got < capacity ? capacity - got : sizeof spill;
    if (room > whole - got && got >= 4) room = whole - got;
    int n = kelNETRecvTimeo(session->socket, into, room, 0, timeout);
    if (n == KEL_NET_ERROR) return KEL_SMB_ERR_RECV;
    if (n < 0) return KEL_SMB_ERR_IO_TIMEOUT;
    if (n == 0) break;
    got += static_cast<uint32_t>(n);
    if (got >= 4)
      whole = 4 + ((reply[1] & 0x01u) << 16 | reply[2] << 8 | reply[3]);
  }
  return KEL_OK;
}

kelResult smb_exchange(kelSMBCSession *session, const uint8_t *request,
                       int length, uint8_t *reply, uint32_t capacity) {
  kelResult r = smb_transact(session, request, length, reply, capacity);
  return r != KEL_OK ? r : smb_replyresult(reply);
}

}  // extern "C"
