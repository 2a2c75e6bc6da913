/* tarvikel: SMB client.
 *
 * A minimal client of the SMB core dialect "PC NETWORK PROGRAM 1.0" over
 * NetBIOS: one name service exchange on UDP port 137, then one session on
 * TCP port 139 to one share, with the share password and no user logon, one
 * file at a time.
 *
 * Application calls (kelSMBCStart, kelSMBCWrite ...) fix the settings: a
 * time-out of 3000 ms per wait, chunks of 4038 bytes, a local sink opened in
 * mode "w+". Protocol calls (kelSMBCproto...) take every setting as an
 * argument. Every call blocks on the caller's thread.
 *
 * The family is not re-entrant: smbhdl, makepath, checkdirpath, fp and the
 * position of strtok are process-wide. One session at a time, on one thread.
 *
 * Results: 0 is success. A value from 1 to 0xFFFF is the server's refusal,
 * ((error class << 4) + error code) & 0xFFFF. KEL_SMB_ERR_... (upper 16 bits
 * 0x58C0) are local failures.
 *
 * A failing socket call of the name service exchange stops the process
 * (perror, exit(1)); a node status reply prints one line "MAC: ..." on
 * standard output. */
#ifndef KELSMBC_H
#define KELSMBC_H

#include <stdint.h>
#include <stdio.h>

#include "kelbase.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KEL_SMBC_NAME_SIZE 129

/* The one session. Callers may read its fields, fileSize and dataLength
 * among them: that is how a caller learns the size of the file opened last
 * and the data bytes of the last kelSMBCprotoGetData. */
typedef struct kelSMBCSession {
  uint32_t state;         /* 0 closed, 1 TCP connected, 2 tree connected */
  int32_t socket;         /* datagram socket, then the stream socket */
  uint32_t serverAddress; /* IPv4, network byte order */
  uint16_t port;          /* kept; the ports are always 137 and 139 */
  uint16_t timeout;       /* ms, per wait of every socket call */
  char serverName[KEL_SMBC_NAME_SIZE];  /* the called NetBIOS name */
  char callingName[KEL_SMBC_NAME_SIZE]; /* the calling NetBIOS name */
  char password[KEL_SMBC_NAME_SIZE];    /* the share password */
  uint16_t tid;
  uint16_t pid;
  uint16_t mid;
  uint16_t writeFid; /* file created last; 0: none in this session */
  uint16_t readFid;  /* file opened last; 0: none in this session */
  uint32_t writeOffset;
  uint32_t readOffset;
  uint32_t fileSize;   /* size from the last open reply */
  uint32_t dataLength; /* data bytes of the last read reply, at most 4096 */
  char remotePath[KEL_SMBC_NAME_SIZE]; /* file created last */
  char localPath[KEL_SMBC_NAME_SIZE];  /* local sink of the last download */
} kelSMBCSession;

typedef struct kelSMBCServerRecord {
  /* "\\host\share...", "host\share..." or "host"; at most 253 bytes */
  const char *server;
  const char *user;     /* the NetBIOS calling name, at most 128 bytes */
  const char *password; /* the share password, at most 128 bytes */
} kelSMBCServerRecord;

typedef struct kelSMBCFileRecord {
  const char *directory; /* appended to the UNC path; "\" appends nothing */
  const char *file;      /* remote file, below the share: "d1\d2\f.txt" */
  const char *localFile; /* local sink of a download */
} kelSMBCFileRecord;

/* Result codes of the family. */
#define KEL_SMB_ERR_CONNECT ((kelResult)0x58c02101u)
#define KEL_SMB_ERR_CONNECT_TIMEOUT ((kelResult)0x58c02102u)
#define KEL_SMB_ERR_FILE_WRITE ((kelResult)0x58c02201u)
#define KEL_SMB_ERR_IO_TIMEOUT ((kelResult)0x58c02202u)
#define KEL_SMB_ERR_FILE_OPEN ((kelResult)0x58c05103u)
#define KEL_SMB_ERR_SOCKET ((kelResult)0x58c07102u)
#define KEL_SMB_ERR_NO_ANSWER ((kelResult)0x58c0720fu)
#define KEL_SMB_ERR_SEND ((kelResult)0x58c0b182u)
#define KEL_SMB_ERR_RECV ((kelResult)0x58c0b183u)

/* ---- Exported data ---- */

/* The session opened last. */
KEL_API extern kelSMBCSession *smbhdl;
/* The session's UNC path; the connect cuts it in place. */
KEL_API extern char makepath[256];
/* Directory inside the share, for the check directory request. */
KEL_API extern char checkdirpath[512];
/* The local sink of a download; null whenever no sink is open. */
KEL_API extern FILE *fp;
/* The 4 bytes 0xFF 'S' 'M' 'B' that open every SMB header. */
KEL_API extern const unsigned char *const smb_hdrSMBString;

/* ---- Application calls ---- */

/* Opens a session and connects it to the share named by server and
 * directory. On failure the session is already freed. If the allocator
 * gives no memory for the session, *session is null and the result is
 * KEL_SMB_ERR_SOCKET. */
KEL_API kelResult kelSMBCStart(const kelSMBCServerRecord *server,
                               kelSMBCSession **session,
                               const kelSMBCFileRecord *file);
/* Tree disconnect, logoff, close; frees the session unless an exchange
 * fails (the caller may then call it again). */
KEL_API kelResult kelSMBCEnd(kelSMBCSession *session);
/* Ends a session in the middle of a transfer: the file being written is
 * closed and deleted, the file being read closed and its local sink closed
 * (not deleted); then as kelSMBCEnd. */
KEL_API kelResult kelSMBCAbortEnd(kelSMBCSession *session);
KEL_API kelResult kelSMBCWriteOpen(kelSMBCSession *session,
                                   const kelSMBCFileRecord *file);
/* Writes count bytes in requests of at most 4038 bytes. Counts above 65535
 * are written whole as well. 0 writes nothing. */
KEL_API kelResult kelSMBCWrite(kelSMBCSession *session, const void *data,
                               uint32_t count);
KEL_API kelResult kelSMBCWriteClose(kelSMBCSession *session);
/* Opens the remote file and the local sink (mode "w+", truncated). */
KEL_API kelResult kelSMBCReadOpen(kelSMBCSession *session,
                                  const kelSMBCFileRecord *file);
/* Stores count bytes, fetched by kelSMBCprotoGetData, in the local sink and
 * moves readOffset past them. Counts above 65535 are stored whole as well.
 * KEL_SMB_ERR_FILE_WRITE when no sink is open or writing it fails. */
KEL_API kelResult kelSMBCRead(kelSMBCSession *session, const void *data,
                              uint32_t count);
KEL_API kelResult kelSMBCReadClose(kelSMBCSession *session);
/* The host part of server (without leading "\\", up to the next "\") into
 * out, 254 bytes; fills makepath with "\\" and server without its leading
 * "\\". out stays as it was when server names no host. */
KEL_API void smb_makehost(const char *server, char *out);

/* ---- Protocol calls ----
 * No call tests its arguments: the session must be one that
 * kelSMBCprotoOpen or kelSMBCStart delivered. A request that does
 * not fit its buffer (a path too long, more than 4448 data bytes) is not
 * sent; the result is KEL_SMB_ERR_SEND. */

/* A new session, held in smbhdl too, with its datagram socket (allowed to
 * broadcast). Null, with smbhdl null, if the allocator gives no memory. */
KEL_API kelSMBCSession *kelSMBCprotoOpen(const char *server,
                                         const char *callingName,
                                         const char *password, uint16_t port,
                                         uint16_t timeoutMs);
/* Name service exchange, TCP connect to port 139, session request,
 * negotiate, tree connect. path is a writable UNC path and is cut in
 * place. A session already connected (state 1 or 2) is left as it is and
 * the result is KEL_SMB_ERR_CONNECT. */
KEL_API kelResult kelSMBCprotoConnect(kelSMBCSession *session, char *path,
                                      const char *file);
KEL_API kelResult kelSMBCprotoClose(kelSMBCSession *session);
KEL_API kelResult kelSMBCprotoPutOpen(kelSMBCSession *session, char *path,
                                      const char *file);
/* count at most 4448. */
KEL_API kelResult kelSMBCprotoPutData(kelSMBCSession *session,
                                      const void *data, uint32_t count);
KEL_API kelResult kelSMBCprotoPutClose(kelSMBCSession *session);
KEL_API kelResult kelSMBCprotoGetOpen(kelSMBCSession *session, char *path,
                                      const char *file);
/* Asks for count (low 16 bits) bytes at readOffset; copies what came, at
 * most 4096 bytes, to out and stores its count in dataLength. A refused
 * read and the end of the file both give 0 with dataLength 0. */
KEL_API kelResult kelSMBCprotoGetData(kelSMBCSession *session, void *out,
                                      uint32_t count);
KEL_API kelResult kelSMBCprotoGetClose(kelSMBCSession *session);
KEL_API kelResult kelSMBCprotodelete(kelSMBCSession *session,
                                     const char *path);

#ifdef __cplusplus
}
#endif

#endif
