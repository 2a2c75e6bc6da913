// The SMTP client's greeting with authentication: EHLO, the scan of its
// reply for the AUTH line, the choice of mechanism, and the CRAM-MD5, PLAIN
// and LOGIN exchanges. DIGEST-MD5 is in digest.cpp.

#include <stdio.h>
#include <string.h>

#include "kel_os.h"
#include "kel_status.h"
#include "mail_internal.h"

namespace {

constexpr uint32_t kMechanismSize = 256;
constexpr uint32_t kAnswerSize = 256;

// Frees its blocks when the exchange leaves, on every path.
struct Blocks {
  void *block[4] = {};
  ~Blocks() {
    for (void *b : block) kelMAILFree(b);
  }
};

kelResult sendBase64Line(kelMAILSession *session, const void *bytes,
                         uint32_t length) {
  char *text = kelMAILEncodeBase64(bytes, length);
  if (text == nullptr) return KEL_MAIL_ERR_MEMORY;
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "%s\r\n", text);
  kelMAILFree(text);
  return kelMAILSendData(session->socket, session->lineOut);
}

}  // namespace

kelResult kelMAILReadText(uint32_t key, char *out, uint32_t size) {
  kelResult result = kelMAILReadStatus(key, out);
  // A service that fills the whole buffer leaves no NUL: the value is cut
  // to size - 1 bytes rather than read beyond the buffer.
  out[size - 1] = '\0';
  return result;
}

kelResult kelMAILSendCommand(kelMAILSession *session, char first) {
  kelResult result = kelMAILSendData(session->socket, session->lineOut);
  if (result == KEL_OK) result = kelMAILRecvOneLine(session->socket, session->lineIn, KEL_MAIL_LINE_SIZE);
  if (result == KEL_OK && session->lineIn[0] != first) result = KEL_MAIL_ERR_REPLY;
  return result;
}

char *kelMAILDecodeReplyText(char *line) {
  size_t end = strcspn(line, "\r");
  if (line[end] == '\0') end = strcspn(line, "\n");
  line[end] = '\0';
  // A reply with nothing behind its code and blank decodes as the empty
  // string.
  const char *text = end > 4 ? line + 4 : "";
  return kelMAILDecodeBase64(text, static_cast<uint32_t>(strlen(text)));
}

void kelMAILHmacMd5(const void *key, uint32_t keyLength, const void *text,
                    uint32_t textLength, unsigned char *digest) {
  unsigned char pad[2][64] = {};
  kelMAILMD5Context context;
  if (keyLength > 64) {
    kelMAILInitializeMD5(&context);
    kelMAILUpdateMD5(&context, key, keyLength);
    kelMAILFinishMD5(pad[0], &context);
    keyLength = 16;
  } else {
    memcpy(pad[0], key, keyLength);
  }
  memcpy(pad[1], pad[0], 64);
  for (int i = 0; i < 64; i++) {
    pad[0][i] ^= 0x36;
    pad[1][i] ^= 0x5c;
  }
  kelMAILInitializeMD5(&context);
  kelMAILUpdateMD5(&context, pad[0], 64);
  kelMAILUpdateMD5(&context, text, textLength);
  kelMAILFinishMD5(digest, &context);
  kelMAILInitializeMD5(&context);
  kelMAILUpdateMD5(&context, pad[1], 64);
  kelMAILUpdateMD5(&context, digest, 16);
  kelMAILFinishMD5(digest, &context);
}

kelResult kelMAILHelloWithAuth(kelMAILSession *session, const char *helloName) {
  Blocks blocks;
  char *user = static_cast<char *>(blocks.block[0] = kelMAILAlloc(KEL_STATUS_CREDENTIAL_SIZE));
  char *password = static_cast<char *>(blocks.block[1] = kelMAILAlloc(KEL_STATUS_CREDENTIAL_SIZE));
  char *mechanisms = static_cast<char *>(blocks.block[2] = kelMAILAlloc(kMechanismSize));
  if (user == nullptr || password == nullptr || mechanisms == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelResult result = kelMAILReadText(KEL_STATUS_SMTP_AUTH_USER, user, KEL_STATUS_CREDENTIAL_SIZE);
  if (result == KEL_OK)
    result = kelMAILReadText(KEL_STATUS_SMTP_AUTH_PASSWORD, password, KEL_STATUS_CREDENTIAL_SIZE);
  if (result != KEL_OK) return result;

  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "EHLO %s\r\n", helloName);
  result = kelMAILSendData(session->socket, session->lineOut);
  bool authSeen = false;
  for (bool more = true; result == KEL_OK && more;) {
    char *line = session->lineIn;
    result = kelMAILRecvOneLine(session->socket, line, KEL_MAIL_LINE_SIZE);
    if (result != KEL_OK) break;
    if (line[0] != '2') return KEL_MAIL_ERR_REPLY;
    size_t length = strlen(line);
    if (length >= 8 && memcmp(line + 4, "AUTH", 4) == 0) {
      // The mechanism text holds 255 bytes: a longer AUTH line is cut
      // there, and a mechanism named only behind that point is not seen.
      snprintf(mechanisms, kMechanismSize, "%s", length > 9 ? line + 9 : "");
      authSeen = true;
    }
    // A line ends in CR LF (or fills the buffer), so one that begins with
    // "2" has at least three bytes: offset 3 is in it or its NUL.
    more = line[3] != ' ';
  }
  if (result != KEL_OK || !authSeen) return result;
  if (user[0] == '\0') return KEL_MAIL_ERR_REPLY;

  if (strstr(mechanisms, "CRAM-MD5")) return kelMAILAuthCramMd5(session, user, password);
  if (strstr(mechanisms, "PLAIN")) return kelMAILAuthPlain(session, user, password);
  if (strstr(mechanisms, "LOGIN")) return kelMAILAuthLogin(session, user, password);
  if (strstr(mechanisms, "DIGEST-MD5")) return kelMAILAuthDigestMd5(session, user, password);
  return KEL_MAIL_ERR_UNSUPPORTED;
}

kelResult kelMAILAuthCramMd5(kelMAILSession *session, const char *user,
                             const char *password) {
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "AUTH CRAM-MD5\r\n");
  kelResult result = kelMAILSendCommand(session, '3');
  if (result != KEL_OK) return result;
  char *challenge = kelMAILDecodeReplyText(session->lineIn);
  if (challenge == nullptr) return KEL_MAIL_ERR_MEMORY;
  unsigned char digest[16];
  kelMAILHmacMd5(password, static_cast<uint32_t>(strlen(password)), challenge,
                 static_cast<uint32_t>(strlen(challenge)), digest);
  kelMAILFree(challenge);

  Blocks blocks;
  char *answer = static_cast<char *>(blocks.block[0] = kelMAILAlloc(kAnswerSize));
  if (answer == nullptr) return KEL_MAIL_ERR_MEMORY;
  char hex[33];
  kelMAILDigestText(digest, hex);
  snprintf(answer, kAnswerSize, "%s %s", user, hex);
  result = sendBase64Line(session, answer, static_cast<uint32_t>(strlen(answer)));
  if (result != KEL_OK) return result;
  result = kelMAILRecvOneLine(session->socket, session->lineIn, KEL_MAIL_LINE_SIZE);
  if (result == KEL_OK && session->lineIn[0] != '2') result = KEL_MAIL_ERR_REPLY;
  return result;
}

kelResult kelMAILAuthPlain(kelMAILSession *session, const char *user,
                           const char *password) {
  Blocks blocks;
  char *message = static_cast<char *>(blocks.block[0] = kelMAILAlloc(kAnswerSize));
  if (message == nullptr) return KEL_MAIL_ERR_MEMORY;
  // NUL, user, NUL, password: the user and the password come from 64-byte
  // buffers, so the message fits.
  size_t userLength = strlen(user), passwordLength = strlen(password);
  message[0] = '\0';
  memcpy(message + 1, user, userLength + 1);
  memcpy(message + 2 + userLength, password, passwordLength);
  char *text = kelMAILEncodeBase64(message, static_cast<uint32_t>(userLength + passwordLength + 2));
  if (text == nullptr) return KEL_MAIL_ERR_MEMORY;
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "AUTH PLAIN %s\r\n", text);
  kelMAILFree(text);
  return kelMAILSendCommand(session, '2');
}

kelResult kelMAILAuthLogin(kelMAILSession *session, const char *user,
                           const char *password) {
  snprintf(session->lineOut, KEL_MAIL_LINE_SIZE, "AUTH LOGIN\r\n");
  kelResult result = kelMAILSendData(session->socket, session->lineOut);
  while (result == KEL_OK) {
    result = kelMAILRecvOneLine(session->socket, session->lineIn, KEL_MAIL_LINE_SIZE);
    if (result != KEL_OK) break;
    if (session->lineIn[0] == '2') return KEL_OK;
    if (session->lineIn[0] != '3') return KEL_MAIL_ERR_REPLY;
    char *prompt = kelMAILDecodeReplyText(session->lineIn);
    if (prompt == nullptr) return KEL_MAIL_ERR_MEMORY;
    const char *answer = nullptr;
    if (orvCLBCompStrCaseN(prompt, "Username", 8) == 0) {
      answer = user;
    } else if (orvCLBCompStrCaseN(prompt, "Password", 8) == 0) {
      answer = password;
    }
    kelMAILFree(prompt);
    if (answer == nullptr) return KEL_MAIL_ERR_UNSUPPORTED;
    result = sendBase64Line(session, answer, static_cast<uint32_t>(strlen(answer)));
  }
  return result;
}
