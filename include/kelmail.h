/* tarvikel: mail client.
 *
 * SMTP sending with authentication and MIME composition, POP3 access, and
 * the Base64 and MD5 codecs that these need. Every call blocks on the
 * caller's thread and waits at most 10000 ms per wait (connect, send, each
 * received byte). Server names, ports, the sender, credentials and the
 * protocol flags come from the device status service at each use; the
 * caller gives only what differs per message. Socket handles are plain
 * integers; -1 means none. */
#ifndef KELMAIL_H
#define KELMAIL_H

#include <stdint.h>

#include "kelbase.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Result codes: the family's closed table ---- */

#define KEL_MAIL_ERR_HOST ((kelResult)0x58e01101u)           /* name not resolved */
#define KEL_MAIL_ERR_NO_RECIPIENT ((kelResult)0x58e01104u)   /* list holds no address */
#define KEL_MAIL_ERR_DISABLED ((kelResult)0x58e01105u)       /* mail sending is off */
#define KEL_MAIL_ERR_NO_SENDER ((kelResult)0x58e01106u)      /* sender address empty */
#define KEL_MAIL_ERR_CONNECT ((kelResult)0x58e02101u)        /* TCP connect failed */
#define KEL_MAIL_ERR_CONNECT_TIMEOUT ((kelResult)0x58e02102u)
#define KEL_MAIL_ERR_IO ((kelResult)0x58e02201u)             /* send/receive failed, peer closed */
#define KEL_MAIL_ERR_IO_TIMEOUT ((kelResult)0x58e02202u)
#define KEL_MAIL_ERR_REPLY ((kelResult)0x58e03101u)          /* reply not the required one */
#define KEL_MAIL_ERR_UNSUPPORTED ((kelResult)0x58e03201u)    /* server lacks what is needed */
#define KEL_MAIL_ERR_STATUS ((kelResult)0x58e04201u)         /* status service read failed */
#define KEL_MAIL_ERR_NO_PART ((kelResult)0x58e05103u)        /* no part is open */
#define KEL_MAIL_ERR_PART_OPEN ((kelResult)0x58e05104u)      /* a part is already open */
#define KEL_MAIL_ERR_MEMORY ((kelResult)0x58e07101u)         /* allocation failed */
#define KEL_MAIL_ERR_SOCKET ((kelResult)0x58e07102u)         /* socket not created */

/* ---- Line transport ---- */

/* Resolves server (dotted quad or host name) and connects to port. The
 * socket lands in *socketCell: after KEL_MAIL_ERR_HOST the cell is
 * untouched, after KEL_MAIL_ERR_SOCKET it holds the negative handle, after
 * KEL_MAIL_ERR_CONNECT the open socket (close it with kelMAILCloseSocket),
 * after KEL_MAIL_ERR_CONNECT_TIMEOUT -1. */
KEL_API kelResult kelMAILConnect(int32_t *socketCell, const char *server,
                                 uint16_t port);
/* Shuts both directions down and closes the socket. */
KEL_API void kelMAILCloseSocket(int32_t socket);
/* Sends text without its NUL in one send. A send that takes fewer bytes
 * than the text holds is KEL_MAIL_ERR_IO: the rest is not sent. */
KEL_API kelResult kelMAILSendData(int32_t socket, const char *text);
/* Reads one line into buffer of size bytes (at least 2): up to and including
 * CR LF, or size - 1 bytes, then a NUL. Nothing is read ahead: the reader
 * looks at what has arrived (waiting up to 10 s when nothing has) and
 * receives exactly the bytes that belong to the line. On a failure the
 * buffer holds the line's bytes received so far, without a NUL; bytes past
 * them are not touched. A size below 2 or a null buffer reads nothing and
 * gives KEL_MAIL_ERR_IO. The peer's close during the line is
 * KEL_MAIL_ERR_IO. */
KEL_API kelResult kelMAILRecvOneLine(int32_t socket, char *buffer,
                                     uint32_t size);

/* ---- Base64 (RFC 4648 alphabet) ---- */

/* Base64 text of length bytes, one line, NUL-terminated; null when out of
 * memory, and for a length of 2^30 or more. The caller frees the result with
 * orvOSWOrgFreeMemPart(0, result). */
KEL_API char *kelMAILEncodeBase64(const void *data, uint32_t length);
/* Decodes floor(length / 4) groups of text into a zero-filled block of
 * length bytes: characters outside the alphabet read as 63, an "=" in the
 * third or fourth place of a group ends the whole decoding, and up to three
 * trailing characters are dropped. A length below 4 (0 included) gives an
 * empty string. Null when out of memory. The caller frees the result with
 * orvOSWOrgFreeMemPart(0, result). */
KEL_API char *kelMAILDecodeBase64(const char *text, uint32_t length);

/* ---- MD5 (RFC 1321) ---- */

/* Owned by the caller, usually on its stack. */
typedef struct kelMAILMD5Context {
  uint32_t state[4];         /* A, B, C, D */
  uint32_t count[2];         /* bits taken in, modulo 2^64, low word first */
  unsigned char buffer[64];  /* input that doesn't yet fill a block */
} kelMAILMD5Context;

KEL_API void kelMAILInitializeMD5(kelMAILMD5Context *context);
KEL_API void kelMAILUpdateMD5(kelMAILMD5Context *context, const void *input,
                              uint32_t length);
/* Writes the 16 digest bytes (the digest first, the context second) and
 * wipes the context. digest may be memory that was input to context. */
KEL_API void kelMAILFinishMD5(unsigned char *digest, kelMAILMD5Context *context);

/* ---- SMTP session ---- */

/* An SMTP session from kelMAILStartSmtp to kelMAILEndSmtp or
 * kelMAILAbortEndSmtp. Opaque. */
typedef struct kelMAILSession kelMAILSession;

/* Read during kelMAILStartSmtp only. Lists hold addresses separated by ";"
 * (empty items are skipped, nothing is trimmed; each address at most 127
 * bytes). A null record or To list reads as an empty one, a null subject as
 * an empty template. */
typedef struct kelMAILSmtpRequest {
  const char *to;      /* required */
  const char *cc;      /* may be null */
  const char *bcc;     /* may be null */
  const char *subject; /* template, see kelMAILEditStrings */
} kelMAILSmtpRequest;

/* Connects, greets (with authentication where the device asks for it),
 * gives the envelope and the header block. On success *session is an open
 * session. On failure nothing is left: the socket is closed without QUIT and
 * all memory is back. *session is null after KEL_MAIL_ERR_STATUS or
 * KEL_MAIL_ERR_DISABLED from the first read and after a failed allocation of
 * the session; after any later failure it holds the address of the freed
 * session, which must not be used.
 * KEL_MAIL_ERR_NO_RECIPIENT: the To list names no address, or a list names
 * an address of more than 127 bytes (refused rather than cut; an empty Cc or
 * Bcc list is no failure). A server's AUTH line counts up to its 255th byte
 * of mechanism names. DIGEST-MD5 values that don't fit 255 bytes, a quoted
 * value that never closes, or a reply that would exceed 255 bytes give
 * KEL_MAIL_ERR_UNSUPPORTED. Texts from the device settings are cut to their
 * buffers (host name 15 bytes, sender 127, server, user and password 63). */
KEL_API kelResult kelMAILStartSmtp(const kelMAILSmtpRequest *request,
                                   kelMAILSession **session);
/* Ends the message, reads the acceptance, says QUIT. The session is gone
 * whatever the result. A null session gives KEL_MAIL_ERR_NO_PART. */
KEL_API kelResult kelMAILEndSmtp(kelMAILSession *session);
/* Drops the session without a word to the server. Always 0; null is
 * ignored. */
KEL_API kelResult kelMAILAbortEndSmtp(kelMAILSession *session);

/* ---- Message composition ---- */

#define KEL_MAIL_PART_KIND_TEXT 1 /* any other kind: an attachment */
#define KEL_MAIL_PART_STATE_OPEN 1
#define KEL_MAIL_PART_STATE_CLOSED 2

typedef struct kelMAILSmtpPart {
  const char *name; /* attachment's file name; its first 720 bytes are used */
  int32_t kind;     /* KEL_MAIL_PART_KIND_TEXT, or anything else */
} kelMAILSmtpPart;

/* Opens a part: its delimiter and headers go out. KEL_MAIL_ERR_PART_OPEN if
 * one is open; a failed send leaves the part open. */
KEL_API kelResult kelMAILOpenSmtp(kelMAILSession *session,
                                  const kelMAILSmtpPart *part);
/* Sends length bytes as data lines of the open part: every line leaves with
 * one CR LF whether it came with LF, CR LF or nothing; a "." at a line start
 * is doubled; each call starts and ends a line. A line over 1021 bytes (a
 * stuffed dot counted) is cut there and goes on as a new line; NUL bytes are
 * dropped. For an attachment the caller hands over Base64 lines. */
KEL_API kelResult kelMAILWriteSmtp(kelMAILSession *session, const void *bytes,
                                   int32_t length);
/* Closes the open part; nothing is sent. */
KEL_API kelResult kelMAILCloseSmtp(kelMAILSession *session);
/* Copies templateText to output, replacing the tokens %printer, %serial
 * (cut to 16 characters), %etheraddr (xx:xx:xx:xx:xx:xx) and %equipid with
 * the device's values, each read anew. A token needs no delimiter; any
 * other "%" is copied. The output holds 256 bytes: the expansion is cut at
 * 255 bytes and a NUL. After a failed status read (KEL_MAIL_ERR_STATUS) it
 * holds what was expanded before. */
KEL_API kelResult kelMAILEditStrings(char *output, const char *templateText);

/* ---- POP3 client ---- */

/* Every POP3 reply line lands in kelMAILRecvBuffer and every command is
 * composed in kelMAILSendBuffer; both keep their content between calls, so
 * there is one POP3 conversation at a time in the process. */
#define KEL_MAIL_POP3_BUFFER_SIZE 256
KEL_API extern char kelMAILRecvBuffer[KEL_MAIL_POP3_BUFFER_SIZE];
KEL_API extern char kelMAILSendBuffer[KEL_MAIL_POP3_BUFFER_SIZE];

/* Connects to the device's POP3 server and reads the greeting. Set the cell
 * to -1 first: a failure may leave a socket in it (see kelMAILConnect). No
 * call here closes the socket on failure; end it with
 * kelMAILDisconnectPop3Server or kelMAILCloseSocket. */
KEL_API kelResult kelMAILConnectPop3Server(int32_t *socketCell);
/* USER and PASS. */
KEL_API kelResult kelMAILLoginPop3Server(int32_t socket);
/* APOP with the time stamp of the greeting still in kelMAILRecvBuffer: the
 * first call after the connect. No time stamp, or a time stamp and secret
 * of more than 255 bytes together, is KEL_MAIL_ERR_UNSUPPORTED with nothing
 * sent. */
KEL_API kelResult kelMAILLoginPop3ServerByAPOP(int32_t socket);
/* STAT and LAST: the first number of the reply. */
KEL_API kelResult kelMAILGetMailCount(int32_t socket, int32_t *count);
KEL_API kelResult kelMAILGetLastMail(int32_t socket, int32_t *last);
/* LIST, read to its end: the size of message number in units of 1024
 * bytes, rounded up, low 16 bits. KEL_MAIL_ERR_UNSUPPORTED when the message
 * is not listed or listed with a size below 1; *size is then untouched. */
KEL_API kelResult kelMAILGetMailSize(int32_t socket, int32_t number,
                                     uint16_t *size);
/* RETR: the message then waits on the connection, to be read line by line
 * with kelMAILRecvOneLinePop3 up to the line of a lone "." (dot stuffing
 * and the end line are the caller's to handle). */
KEL_API kelResult kelMAILStartMailData(int32_t socket, int32_t number);
KEL_API kelResult kelMAILRecvOneLinePop3(int32_t socket, char *buffer,
                                         uint32_t size);
KEL_API kelResult kelMAILDeleteMail(int32_t socket, int32_t number);
/* QUIT; the socket is closed only after "+OK". */
KEL_API kelResult kelMAILDisconnectPop3Server(int32_t socket);

#ifdef __cplusplus
}
#endif

#endif
