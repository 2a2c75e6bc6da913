/* tarvikel: FTP client.
 *
 * Application calls (kelFTPCStart, kelFTPCWriteOpen ...) fix the settings:
 * port 21, a time-out of 30000 ms per wait, image type, stream mode, file
 * structure. Protocol calls (kelFTPCProto...) take every setting as an
 * argument. Every call blocks on the caller's thread. Ports are plain
 * numbers in host order; IPv4 addresses are in network byte order. */
#ifndef KELFTPC_H
#define KELFTPC_H

#include <stdint.h>

#include "kelbase.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A session with one server, from kelFTPCProtoOpen (or kelFTPCStart) to
 * kelFTPCProtoClose (or kelFTPCEnd, kelFTPCAbortEnd). Opaque. */
typedef struct kelFTPCSession kelFTPCSession;

typedef struct kelFTPCServerRecord {
  const char *serverName; /* name or dotted address, at most 63 bytes */
  const char *userName;   /* at most 63 bytes, may be empty */
  const char *password;   /* at most 63 bytes, may be empty */
} kelFTPCServerRecord;

typedef struct kelFTPCFileRecord {
  const char *directory; /* may be empty; directory and file name */
  const char *fileName;  /* together at most 255 bytes */
} kelFTPCFileRecord;

/* State flags of a session (kelFTPCIsState). */
#define KEL_FTPC_CONNECTED 1u
#define KEL_FTPC_LOGGED_IN 2u
#define KEL_FTPC_TRANSFER 4u
#define KEL_FTPC_PUT 16u
#define KEL_FTPC_GET 32u

/* Settings of a transfer. */
#define KEL_FTPC_TYPE_ASCII 1
#define KEL_FTPC_TYPE_IMAGE 3
#define KEL_FTPC_STRUCTURE_FILE 1
#define KEL_FTPC_MODE_STREAM 1

/* Result codes. */
#define KEL_FTPC_BAD_SERVER ((kelResult)0x58A01101u)
#define KEL_FTPC_BAD_LOGIN ((kelResult)0x58A01102u)
#define KEL_FTPC_BAD_FILE_NAME ((kelResult)0x58A01103u)
#define KEL_FTPC_CONNECT_FAILED ((kelResult)0x58A02101u)
#define KEL_FTPC_CONNECT_TIMEOUT ((kelResult)0x58A02102u)
#define KEL_FTPC_IO_FAILED ((kelResult)0x58A02201u)
#define KEL_FTPC_IO_TIMEOUT ((kelResult)0x58A02202u)
#define KEL_FTPC_NOT_READY ((kelResult)0x58A05101u)
#define KEL_FTPC_ALREADY_ACTIVE ((kelResult)0x58A05102u)
#define KEL_FTPC_WRONG_TRANSFER ((kelResult)0x58A05103u)
#define KEL_FTPC_NOT_CLOSED ((kelResult)0x58A05104u)
#define KEL_FTPC_NO_SOCKET ((kelResult)0x58A07102u)
#define KEL_FTPC_BAD_SESSION ((kelResult)0x58A0720Fu)
#define KEL_FTPC_NEED_ACCOUNT ((kelResult)0x58A0B181u)
#define KEL_FTPC_NOT_IMPLEMENTED ((kelResult)0x58A0B182u)
#define KEL_FTPC_BAD_REPLY ((kelResult)0x58A0B183u)
#define KEL_FTPC_SERVICE_CLOSING ((kelResult)0x58A0B184u)
#define KEL_FTPC_UNAVAILABLE ((kelResult)0x58A0B185u)
#define KEL_FTPC_FILE_BUSY ((kelResult)0x58A0B187u)
#define KEL_FTPC_NO_DATA_CONNECTION ((kelResult)0x58A0B188u)
#define KEL_FTPC_NO_STORAGE ((kelResult)0x58A0B189u)
#define KEL_FTPC_BAD_COMMAND ((kelResult)0x58A0B18Au)
#define KEL_FTPC_STORE_FAILED ((kelResult)0x58A0B18Bu)
#define KEL_FTPC_RETRIEVE_FAILED ((kelResult)0x58A0B18Cu)
#define KEL_FTPC_DELETE_FAILED ((kelResult)0x58A0B18Du)
#define KEL_FTPC_NEED_PASSWORD ((kelResult)0x58A0B1FFu)

/* ---- Application calls ---- */

/* Opens a session to port 21 and logs in. On failure the session is
 * already freed: *session is not to be used. */
KEL_API kelResult kelFTPCStart(const kelFTPCServerRecord *server,
                               kelFTPCSession **session);
/* QUIT and free the session. */
KEL_API kelResult kelFTPCEnd(kelFTPCSession *session);
/* Ends a session at any point: an upload under way is closed and its file
 * deleted on the server; then as kelFTPCEnd. */
KEL_API kelResult kelFTPCAbortEnd(kelFTPCSession *session);
KEL_API kelResult kelFTPCWriteOpen(kelFTPCSession *session,
                                   const kelFTPCFileRecord *file);
KEL_API kelResult kelFTPCWrite(kelFTPCSession *session, const void *buffer,
                               uint32_t length);
KEL_API kelResult kelFTPCWriteClose(kelFTPCSession *session);
KEL_API kelResult kelFTPCReadOpen(kelFTPCSession *session,
                                  const kelFTPCFileRecord *file);
/* The end of the file is a count of 0 with result 0. */
KEL_API kelResult kelFTPCRead(kelFTPCSession *session, void *buffer,
                              uint32_t capacity, uint32_t *count);
KEL_API kelResult kelFTPCReadClose(kelFTPCSession *session);

/* ---- Protocol calls ---- */

/* A new session: port 0 means 21; timeoutMs (1 or more) limits every wait.
 * Null if timeoutMs is below 1 or there is no memory. */
KEL_API kelFTPCSession *kelFTPCProtoOpen(int port, int timeoutMs);
/* Connects, reads the greeting, logs in (USER, PASS after 331), reads the
 * working directory and derives the server's path separator from it. */
KEL_API kelResult kelFTPCProtoConnect(kelFTPCSession *session,
                                      const char *server, const char *user,
                                      const char *password);
/* Closes every connection (QUIT if logged in) and frees the session. */
KEL_API kelResult kelFTPCProtoClose(kelFTPCSession *session);
/* Tears every connection down at once; sends nothing, frees nothing. */
KEL_API void kelFTPCProtoAbortConnect(kelFTPCSession *session);
/* 1 if every flag of mask is set. */
KEL_API int kelFTPCIsState(const kelFTPCSession *session, uint32_t mask);
/* Closes *handle unless it is -1, sets it to -1, returns its old value. */
KEL_API int kelFTPCCloseSocket(int *handle);
/* Reads one whole reply from the control connection. */
KEL_API kelResult kelFTPCReceiveResponse(kelFTPCSession *session,
                                         uint16_t *code);

KEL_API kelResult kelFTPCProtoPutOpen(kelFTPCSession *session,
                                      const char *directory, const char *file,
                                      int mode, int structure, int type);
KEL_API kelResult kelFTPCProtoAppendOpen(kelFTPCSession *session,
                                         const char *directory,
                                         const char *file, int mode,
                                         int structure, int type);
KEL_API kelResult kelFTPCProtoGetOpen(kelFTPCSession *session,
                                      const char *directory, const char *file,
                                      int mode, int structure, int type);
KEL_API kelResult kelFTPCProtoPutData(kelFTPCSession *session,
                                      const void *buffer, uint32_t length);
KEL_API kelResult kelFTPCProtoPutClose(kelFTPCSession *session);
KEL_API kelResult kelFTPCProtoGetData(kelFTPCSession *session, void *buffer,
                                      uint32_t capacity, uint32_t *count);
KEL_API kelResult kelFTPCProtoGetClose(kelFTPCSession *session);
KEL_API kelResult kelFTPCProtoDelete(kelFTPCSession *session,
                                     const char *directory, const char *file);

/* ---- One command exchange each ----
 * They make no test of the session's state. Arguments must leave the
 * command line within 510 bytes. */
KEL_API kelResult kelFTPCCommandReplyUSER(kelFTPCSession *session,
                                          const char *user);
KEL_API kelResult kelFTPCCommandReplyPASS(kelFTPCSession *session,
                                          const char *password);
KEL_API kelResult kelFTPCCommandReplyQUIT(kelFTPCSession *session);
KEL_API kelResult kelFTPCCommandReplyPWD(kelFTPCSession *session,
                                         char *buffer, uint32_t length);
KEL_API kelResult kelFTPCCommandReplyTYPE(kelFTPCSession *session, int type);
KEL_API kelResult kelFTPCCommandReplySTRU(kelFTPCSession *session,
                                          int structure);
KEL_API kelResult kelFTPCCommandReplyMODE(kelFTPCSession *session, int mode);
KEL_API kelResult kelFTPCCommandReplyCWD(kelFTPCSession *session,
                                         const char *directory);
KEL_API kelResult kelFTPCCommandReplyPORT(kelFTPCSession *session,
                                          uint32_t address, uint16_t port);
KEL_API kelResult kelFTPCCommandReplyPASV(kelFTPCSession *session,
                                          uint32_t *address, uint16_t *port);
KEL_API kelResult kelFTPCCommandReplyDELE(kelFTPCSession *session,
                                          const char *path);
KEL_API kelResult kelFTPCCommandReplySTOR(kelFTPCSession *session,
                                          const char *path);
KEL_API kelResult kelFTPCCommandReplyAPPE(kelFTPCSession *session,
                                          const char *path);
KEL_API kelResult kelFTPCCommandReplyRETR(kelFTPCSession *session,
                                          const char *path);

#ifdef __cplusplus
}
#endif

#endif
