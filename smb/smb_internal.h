// The SMB family's internal functions: the wire format (accessors, framing,
// request builders, the error fold), NetBIOS names and the name service,
// the exchanges and the path split. The session record is public
// (kelsmbc.h).
#ifndef KEL_SMB_INTERNAL_H
#define KEL_SMB_INTERNAL_H

#include <stdint.h>

#include "kelsmbc.h"

// Buffers of the exchanges.
#define SMB_BUFFER_SIZE 512
#define SMB_DATA_BUFFER_SIZE 4500
// The session message length that the framing can carry.
#define SMB_MAX_LENGTH 0x1FFFFu
// Data bytes that a read may hand to its caller.
#define SMB_MAX_READ_DATA 4096u
// The application calls' chunk.
#define SMB_CHUNK 4038u
#define SMB_APP_TIMEOUT_MS 3000
// The name service: port, wait for a reply, buffers.
#define NB_PORT 137
#define SMB_PORT 139
#define NB_WAIT_MS 750
#define NB_STATUS_BUFFER_SIZE 1024
#define NB_TRANSACTION_ID 1964
#define NB_TYPE_NB 32
#define NB_TYPE_NBSTAT 33

extern "C" {

// ---- Little-endian accessors: base is the SMB header, offsets SMB offsets.
void smb_putword(uint8_t *base, uint32_t offset, uint32_t value);
uint16_t smb_getword(const uint8_t *base, uint32_t offset);
void smb_putlong(uint8_t *base, uint32_t offset, uint32_t value);
uint32_t smb_getlong(const uint8_t *base, uint32_t offset);

// ---- Framing.
// Writes the session message header: the length, or -1 (nothing written)
// above 0x1FFFF.
int smb_setlength(uint8_t *buffer, uint32_t length);
// Writes the protocol identifier: 32, or -1 when room is below 32.
int smb_setheader(uint8_t *header, int32_t room);

// ---- Request builders: bytes to send, or -1. The buffer must come zeroed.
// All but smb_maketreeconnect reach the session through smbhdl. Unlike the
// bare wire format they refuse strings and data that would not fit the
// capacity.
int smb_makesessionrequest(uint8_t *buffer, int32_t capacity);
int smb_makenegotiate(uint8_t *buffer, int32_t capacity);
int smb_maketreeconnect(kelSMBCSession *session, uint8_t *buffer,
                        int32_t capacity, const char *share);
int smb_makecheckdir(uint8_t *buffer, int32_t capacity, const char *path);
int smb_makecreate(uint8_t *buffer, int32_t capacity, const char *path);
int smb_makeopen(uint8_t *buffer, int32_t capacity, const char *path);
int smb_makedelete(uint8_t *buffer, int32_t capacity, const char *path);
// Adds count to writeOffset once the request is built.
int smb_makewrite(uint8_t *buffer, int32_t capacity, const void *data,
                  uint32_t count);
int smb_makeread(uint8_t *buffer, int32_t capacity, uint32_t count);
int smb_makeclosewrite(uint8_t *buffer, int32_t capacity);
int smb_makecloseread(uint8_t *buffer, int32_t capacity);
int smb_maketreedisconnect(uint8_t *buffer, int32_t capacity);
int smb_makelogoff(uint8_t *buffer, int32_t capacity);

// ((errorClass << 4) + errorCode) & 0xFFFF.
uint32_t smb_foldcode(uint32_t errorClass, uint32_t errorCode);

// ---- Exchanges.
// Sends the whole request and reads one whole reply (read on until its
// session message length is complete; bytes beyond capacity are read and
// dropped). 0, KEL_SMB_ERR_SEND, KEL_SMB_ERR_RECV or KEL_SMB_ERR_IO_TIMEOUT;
// a length of -1 (a request that could not be built) is KEL_SMB_ERR_SEND.
kelResult smb_transact(kelSMBCSession *session, const uint8_t *request,
                       int length, uint8_t *reply, uint32_t capacity);
// 0 when the reply's error code is 0, else the folded error.
kelResult smb_replyresult(const uint8_t *reply);
// smb_transact, then smb_replyresult on the reply.
kelResult smb_exchange(kelSMBCSession *session, const uint8_t *request,
                       int length, uint8_t *reply, uint32_t capacity);

// ---- Paths.
void smb_splitpath(char *path, const char *file, char *share,
                   char *filePath);

// ---- NetBIOS names and the name service.
char *nb_encodename(char *out, const char *name, int fill, int type);
int nb_encodefullname(char *out, const char *name, int fill, int type,
                      const char *scope);
int nb_putquestion(uint8_t *out, const char *name, int fill, int type,
                   const char *scope, int questionType);
int nb_makequery(uint8_t *buffer, int broadcast, int recursion,
                 const char *name, int fill, int type, const char *scope,
                 int questionType);
int nb_sendquery(int handle, const uint8_t *packet, int length,
                 uint32_t address, int questionType);
int nb_waitreply(int handle, int timeoutMs);
void nb_readnamereply(int handle, int timeoutMs);
void nb_readstatusreply(int handle, int timeoutMs);
int nb_cleanname(const uint8_t *entry, int length, char *out);
// The parsing halves of the two readers, free of I/O: what n received bytes
// of buffer (zeroed behind them) mean for smbhdl.
void nb_storenamereply(const uint8_t *buffer, int received);
void nb_storestatusreply(const uint8_t *buffer, int received);
// The whole exchange of the connect: query, wait, reply.
// 0 or KEL_SMB_ERR_NO_ANSWER.
kelResult nb_nameexchange(kelSMBCSession *session);
// The orderly stop of the process: perror(message) unless message is null,
// then exit(1).
[[noreturn]] void nb_stop(const char *message);

}  // extern "C"

// A split as its callers make it: both out buffers (SMB_BUFFER_SIZE bytes
// each) and checkdirpath zeroed, then smb_splitpath.
void smb_splitfresh(char *path, const char *file, char *share, char *filePath);

#endif
