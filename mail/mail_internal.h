// The SMTP session record and the mail family's internal functions.
#ifndef KEL_MAIL_INTERNAL_H
#define KEL_MAIL_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "kelmail.h"

// Every wait of the family: connect, send, each received byte.
#define KEL_MAIL_TIMEOUT_MS 10000
// Sizes of the session's buffers and of one address entry.
#define KEL_MAIL_LINE_SIZE 1024
#define KEL_MAIL_BOUNDARY_SIZE 64
#define KEL_MAIL_SUBJECT_SIZE 256
#define KEL_MAIL_ADDRESS_SIZE 128
// Longest body line in lineOut, a stuffed dot counted: its CR LF and the NUL
// still fit.
#define KEL_MAIL_BODY_LINE_LIMIT (KEL_MAIL_LINE_SIZE - 3)
// Longest attachment name that is encoded: its Base64 text (960 bytes) fits
// the longest part header line.
#define KEL_MAIL_NAME_LIMIT 720

// One NUL-terminated address of a recipient list.
typedef char kelMAILAddress[KEL_MAIL_ADDRESS_SIZE];

struct kelMAILSession {
  int32_t socket;     // -1 while there is none
  int32_t partState;  // KEL_MAIL_PART_STATE_OPEN or _CLOSED
  int32_t toCount;
  int32_t ccCount;
  int32_t bccCount;
  kelMAILAddress *toList;  // toCount entries, or null
  kelMAILAddress *ccList;
  kelMAILAddress *bccList;
  char *lineOut;   // KEL_MAIL_LINE_SIZE: the next thing to send
  char *lineIn;    // KEL_MAIL_LINE_SIZE: the last line read
  char *boundary;  // KEL_MAIL_BOUNDARY_SIZE: "(T_T)boundary_%08lX(T_T)"
  char *subject;   // KEL_MAIL_SUBJECT_SIZE: the expanded subject
};

// ---- memory and settings (record.cpp) ----

// A block of partition 0, or null when the allocator fails.
void *kelMAILAlloc(uint32_t size);
// Gives block back to partition 0; null is ignored.
void kelMAILFree(void *block);
// Reads one status key into out: 0, or KEL_MAIL_ERR_STATUS.
kelResult kelMAILReadStatus(uint32_t key, void *out);
// The 32 lower-case hexadecimal digits of a 16-byte digest, byte 0 first,
// and a NUL: the same text on any host.
void kelMAILDigestText(const unsigned char *digest, char *text);

// A block of the family's allocator that goes back when the scope ends.
class kelMAILBlock {
 public:
  explicit kelMAILBlock(void *p) : p_(static_cast<char *>(p)) {}
  ~kelMAILBlock() { kelMAILFree(p_); }
  kelMAILBlock(const kelMAILBlock &) = delete;
  kelMAILBlock &operator=(const kelMAILBlock &) = delete;
  char *get() const { return p_; }

 private:
  char *p_;
};

// ---- the session record (record.cpp) ----

// Zeroes session, sets socket -1 and the part state closed, allocates
// lineOut, lineIn, boundary and subject in this order and writes the
// boundary. KEL_MAIL_ERR_MEMORY at the first failed allocation; what was
// allocated stays for kelMAILFreeSmtpSession.
kelResult kelMAILInitSmtpSession(kelMAILSession *session);
// Frees the three lists and the subject, each if present, and sets them null.
void kelMAILFreeSessionLists(kelMAILSession *session);
// Closes the socket if there is one, frees the lists, subject, boundary,
// lineOut, lineIn and the record itself. Null is ignored.
void kelMAILFreeSmtpSession(kelMAILSession *session);

// ---- SMTP session ----

// Parses a ";"-separated list into *list (count entries) and *count.
kelResult kelMAILParseAddressList(kelMAILAddress **list, int32_t *count,
                                  const char *text);
kelResult kelMAILConnectSmtpServer(kelMAILSession *session);
kelResult kelMAILSendEnvelope(kelMAILSession *session);

// ---- SMTP authentication ----

kelResult kelMAILHelloWithAuth(kelMAILSession *session, const char *helloName);
kelResult kelMAILAuthCramMd5(kelMAILSession *session, const char *user,
                             const char *password);
kelResult kelMAILAuthPlain(kelMAILSession *session, const char *user,
                           const char *password);
kelResult kelMAILAuthLogin(kelMAILSession *session, const char *user,
                           const char *password);
kelResult kelMAILAuthDigestMd5(kelMAILSession *session, const char *user,
                               const char *password);

// Reads a text key into out of size bytes and terminates it at size - 1
// whatever the service left there. 0, or KEL_MAIL_ERR_STATUS.
kelResult kelMAILReadText(uint32_t key, char *out, uint32_t size);
// Sends lineOut, reads one reply line into lineIn and wants first as its
// first character (else KEL_MAIL_ERR_REPLY).
kelResult kelMAILSendCommand(kelMAILSession *session, char first);
// Cuts a "3xx text" reply at its first CR (or else LF) and decodes the text
// behind the code and blank; a line with no text there gives "". Null when
// out of memory.
char *kelMAILDecodeReplyText(char *line);
// HMAC-MD5 (RFC 2104) of text under key into the 16 bytes at digest.
void kelMAILHmacMd5(const void *key, uint32_t keyLength, const void *text,
                    uint32_t textLength, unsigned char *digest);

// DIGEST-MD5 (digest.cpp): values of the challenge and the work text.
#define KEL_MAIL_DIGEST_VALUE_SIZE 256
typedef struct kelMAILDigestValues {
  const char *realm;
  const char *nonce;
  const char *qop;
  const char *cnonce;
  const char *digestUri;
} kelMAILDigestValues;
// Copies the realm, nonce and first qop values of a decoded challenge into
// three buffers of KEL_MAIL_DIGEST_VALUE_SIZE. KEL_MAIL_ERR_UNSUPPORTED for a
// key that is absent, a value that doesn't end before the text does, or one
// that doesn't fit.
kelResult kelMAILDigestParseChallenge(const char *challenge, char *realm,
                                      char *nonce, char *qop);
// Writes the client's reply text into work (KEL_MAIL_DIGEST_VALUE_SIZE).
// KEL_MAIL_ERR_UNSUPPORTED for an unknown qop, or when the reply or a text
// to be hashed would not fit.
kelResult kelMAILDigestReply(char *work, const char *user, const char *password,
                             const kelMAILDigestValues *values);

// ---- message composition (compose.cpp) ----

// From, To, Cc, Subject and the MIME lines, after DATA was accepted.
kelResult kelMAILSendHeaderBlock(kelMAILSession *session);

// ---- POP3 (pop3.cpp) ----

// The POP3 login that kelMAILStartSmtp runs where the device asks for it.
kelResult kelMAILPopBeforeSmtp(void);

#endif
