// The client side of DIGEST-MD5 for one SMTP login: nonce count 1, no
// security layer. The challenge parse and the reply computation work on
// plain buffers; kelMAILAuthDigestMd5 does the talking.

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "kel_status.h"
#include "mail_internal.h"

namespace {

// Copies the value that starts offset bytes behind the key's first match up
// to the first of the stop bytes. An absent key, a value that never ends
// and one that does not fit the buffer are all a challenge that the client
// cannot answer.
kelResult copyValue(const char *challenge, const char *key, size_t offset,
                    const char *stops, char *value) {
  const char *match = strstr(challenge, key);
  if (match == nullptr || strlen(match) < offset) return KEL_MAIL_ERR_UNSUPPORTED;
  const char *start = match + offset;
  size_t length = strcspn(start, stops);
  if (start[length] == '\0' || length >= KEL_MAIL_DIGEST_VALUE_SIZE) return KEL_MAIL_ERR_UNSUPPORTED;
  memcpy(value, start, length);
  value[length] = '\0';
  return KEL_OK;
}

// MD5 of length bytes at data.
void md5(const void *data, size_t length, unsigned char *digest) {
  kelMAILMD5Context context;
  kelMAILInitializeMD5(&context);
  kelMAILUpdateMD5(&context, data, static_cast<uint32_t>(length));
  kelMAILFinishMD5(digest, &context);
}

// snprintf into the work text, which must hold all of it.
template <typename... Args>
bool format(char *work, size_t size, const char *form, Args... args) {
  int n = snprintf(work, size, form, args...);
  return n >= 0 && static_cast<size_t>(n) < size;
}

}  // namespace

kelResult kelMAILDigestParseChallenge(const char *challenge, char *realm,
                                      char *nonce, char *qop) {
  kelResult result = copyValue(challenge, "realm=", 7, "\"", realm);
  if (result == KEL_OK) result = copyValue(challenge, "nonce=", 7, "\"", nonce);
  if (result == KEL_OK) result = copyValue(challenge, "qop=", 5, "\",", qop);
  return result;
}

kelResult kelMAILDigestReply(char *work, const char *user, const char *password,
                             const kelMAILDigestValues *values) {
  const size_t size = KEL_MAIL_DIGEST_VALUE_SIZE;
  unsigned char digest[16];
  char ha1[33], ha2[33], response[33];
  // Every text below must fit the work text; a server whose values make
  // one too long gets no answer.
  if (!format(work, size, "%s:%s:%s", user, values->realm, password)) return KEL_MAIL_ERR_UNSUPPORTED;
  md5(work, strlen(work), digest);
  memcpy(work, digest, 16);
  if (!format(work + 16, size - 16, ":%s:%s", values->nonce, values->cnonce)) return KEL_MAIL_ERR_UNSUPPORTED;
  md5(work, 16 + strlen(work + 16), digest);
  kelMAILDigestText(digest, ha1);

  const char *a2;
  if (strcmp(values->qop, "auth") == 0) {
    a2 = "AUTHENTICATE:%s";
  } else if (strcmp(values->qop, "auth-int") == 0 || strcmp(values->qop, "auth-conf") == 0) {
    a2 = "AUTHENTICATE:%s:00000000000000000000000000000000";
  } else {
    return KEL_MAIL_ERR_UNSUPPORTED;
  }
  if (!format(work, size, a2, values->digestUri)) return KEL_MAIL_ERR_UNSUPPORTED;
  md5(work, strlen(work), digest);
  kelMAILDigestText(digest, ha2);

  if (!format(work, size, "%s:%s:00000001:%s:%s:%s", ha1, values->nonce, values->cnonce,
              values->qop, ha2))
    return KEL_MAIL_ERR_UNSUPPORTED;
  md5(work, strlen(work), digest);
  kelMAILDigestText(digest, response);

  if (!format(work, size,
              "charset=utf-8,username=\"%s\",realm=\"%s\",nonce=\"%s\",nc=00000001,"
              "cnonce=\"%s\",digest-uri=\"%s\",response=%s,qop=\"%s\"",
              user, values->realm, values->nonce, values->cnonce, values->digestUri,
              response, values->qop))
    return KEL_MAIL_ERR_UNSUPPORTED;
  return KEL_OK;
}

kelResult kelMAILAuthDigestMd5(kelMAILSession *session, const char *user,
                               const char *password) {
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "AUTH DIGEST-MD5\r\n");
  kelResult result = kelMAILSendCommand(session, '3');
  if (result != KEL_OK) return result;

  struct Blocks {
    void *block[8] = {};
    ~Blocks() {
      for (void *b : block) kelMAILFree(b);
    }
  } blocks;
  char *challenge = static_cast<char *>(blocks.block[0] = kelMAILDecodeReplyText(session->lineIn));
  if (challenge == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelMAILDigestValues values;
  char *realm = static_cast<char *>(blocks.block[1] = kelMAILAlloc(KEL_MAIL_DIGEST_VALUE_SIZE));
  char *nonce = static_cast<char *>(blocks.block[2] = kelMAILAlloc(KEL_MAIL_DIGEST_VALUE_SIZE));
  char *qop = static_cast<char *>(blocks.block[3] = kelMAILAlloc(KEL_MAIL_DIGEST_VALUE_SIZE));
  if (realm == nullptr || nonce == nullptr || qop == nullptr) return KEL_MAIL_ERR_MEMORY;
  result = kelMAILDigestParseChallenge(challenge, realm, nonce, qop);
  if (result != KEL_OK) return result;

  char *server = static_cast<char *>(blocks.block[4] = kelMAILAlloc(KEL_STATUS_SERVER_SIZE));
  char *uri = static_cast<char *>(blocks.block[5] = kelMAILAlloc(KEL_MAIL_DIGEST_VALUE_SIZE));
  char *work = static_cast<char *>(blocks.block[6] = kelMAILAlloc(KEL_MAIL_DIGEST_VALUE_SIZE));
  if (server == nullptr || uri == nullptr || work == nullptr) return KEL_MAIL_ERR_MEMORY;
  result = kelMAILReadText(KEL_STATUS_SMTP_SERVER, server, KEL_STATUS_SERVER_SIZE);
  if (result != KEL_OK) return result;

  char seed[20];
  snprintf(seed, sizeof seed, "northquarry%08lx", static_cast<unsigned long>(static_cast<uint32_t>(time(nullptr))));
  char *cnonce = static_cast<char *>(blocks.block[7] = kelMAILEncodeBase64(seed, static_cast<uint32_t>(strlen(seed))));
  if (cnonce == nullptr) return KEL_MAIL_ERR_MEMORY;
  snprintf(uri, KEL_MAIL_DIGEST_VALUE_SIZE, "smtp/%s", server);

  values = {realm, nonce, qop, cnonce, uri};
  result = kelMAILDigestReply(work, user, password, &values);
  if (result != KEL_OK) return result;
  kelMAILFree(challenge);
  char *reply = static_cast<char *>(blocks.block[0] = kelMAILEncodeBase64(work, static_cast<uint32_t>(strlen(work))));
  if (reply == nullptr) return KEL_MAIL_ERR_MEMORY;

  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "%s\r\n", reply);
  result = kelMAILSendData(session->socket, session->lineOut);
  if (result == KEL_OK) result = kelMAILRecvOneLine(session->socket, session->lineIn, KEL_MAIL_LINE_SIZE);
  if (result != KEL_OK || session->lineIn[0] == '2') return result;
  if (session->lineIn[0] != '3') return KEL_MAIL_ERR_REPLY;
  // The server's rspauth is neither decoded nor checked: an empty line
  // answers it.
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "\r\n");
  return kelMAILSendCommand(session, '2');
}
