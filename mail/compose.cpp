// Message composition: the header block, the part headers, the data lines
// of a part with their line ends and dot stuffing, and the subject template.

#include <stdio.h>
#include <string.h>

#include "kel_status.h"
#include "mail_internal.h"

namespace {

// Formats into lineOut and sends it.
template <typename... Args>
kelResult sendLine(kelMAILSession *s, const char *format, Args... args) {
  snprintf(s->lineOut, KEL_MAIL_LINE_SIZE, format, args...);
  return kelMAILSendData(s->socket, s->lineOut);
}

// One line per entry: "To: a,\r\n", "    b,\r\n", "    c\r\n".
kelResult sendList(kelMAILSession *s, const char *field, kelMAILAddress *list,
                   int32_t count) {
  for (int32_t i = 0; i < count; i++) {
    kelResult r = sendLine(s, "%s%.127s%s", i == 0 ? field : "    ", list[i],
                           i == count - 1 ? "\r\n" : ",\r\n");
    if (r != KEL_OK) return r;
  }
  return KEL_OK;
}

}  // namespace

kelResult kelMAILSendHeaderBlock(kelMAILSession *s) {
  kelMAILBlock sender(static_cast<char *>(kelMAILAlloc(KEL_STATUS_MAIL_SENDER_SIZE)));
  if (sender.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  kelResult r = kelMAILReadStatus(KEL_STATUS_MAIL_SENDER, sender.get());
  if (r != KEL_OK) return r;
  if (sender.get()[0] == '\0') return KEL_MAIL_ERR_NO_SENDER;
  if ((r = sendLine(s, "From: %.127s\r\n", sender.get())) != KEL_OK) return r;
  if ((r = sendList(s, "To: ", s->toList, s->toCount)) != KEL_OK) return r;
  if ((r = sendList(s, "Cc: ", s->ccList, s->ccCount)) != KEL_OK) return r;
  kelMAILBlock subject(kelMAILEncodeBase64(s->subject, static_cast<uint32_t>(strlen(s->subject))));
  if (subject.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  if (subject.get()[0] != '\0' &&
      (r = sendLine(s, "Subject: =?utf-8?B?%s?=\r\n", subject.get())) != KEL_OK)
    return r;
  if ((r = kelMAILSendData(s->socket, "MIME-version: 1.0\r\n")) != KEL_OK) return r;
  if ((r = sendLine(s, "Content-type: multipart/mixed; boundary=\"%s\"\r\n", s->boundary)) != KEL_OK)
    return r;
  return kelMAILSendData(s->socket, "Content-transfer-encoding: 8bit\r\n");
}

kelResult kelMAILOpenSmtp(kelMAILSession *s, const kelMAILSmtpPart *part) {
  if (s == nullptr) return KEL_MAIL_ERR_NO_PART;
  if (s->partState == KEL_MAIL_PART_STATE_OPEN) return KEL_MAIL_ERR_PART_OPEN;
  s->partState = KEL_MAIL_PART_STATE_OPEN;
  kelResult r = sendLine(s, "\r\n--%s\r\n", s->boundary);
  if (r != KEL_OK) return r;
  if (part->kind == KEL_MAIL_PART_KIND_TEXT) {
    if ((r = kelMAILSendData(s->socket,
                             "Content-Type: text/plain; charset=\"utf-8\"\r\n")) != KEL_OK)
      return r;
    return kelMAILSendData(s->socket, "Content-Transfer-Encoding: 8bit\r\n\r\n");
  }
  // A longer name would overrun lineOut once encoded: its first 720 bytes
  // are taken, whose Base64 text fits the longest header line.
  const char *name = part->name != nullptr ? part->name : "";
  kelMAILBlock encoded(kelMAILEncodeBase64(name, static_cast<uint32_t>(strnlen(name, KEL_MAIL_NAME_LIMIT))));
  if (encoded.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  if ((r = sendLine(s, "Content-Type: application/octet-stream; name=\"=?utf-8?B?%s?=\"\r\n",
                    encoded.get())) != KEL_OK ||
      (r = kelMAILSendData(s->socket, "Content-Transfer-Encoding: base64\r\n")) != KEL_OK)
    return r;
  return sendLine(s, "Content-Disposition: attachment; filename=\"=?utf-8?B?%s?=\"\r\n\r\n",
                  encoded.get());
}

kelResult kelMAILWriteSmtp(kelMAILSession *s, const void *bytes, int32_t length) {
  if (s == nullptr || s->partState != KEL_MAIL_PART_STATE_OPEN) return KEL_MAIL_ERR_NO_PART;
  const unsigned char *in = static_cast<const unsigned char *>(bytes);
  char *line = s->lineOut;
  int32_t n = 0;
  kelResult r;
  for (int32_t i = 0; i < length; i++) {
    unsigned char c = in[i];
    if (c == '\n') {
      if (n == 0 || line[n - 1] != '\r') line[n++] = '\r';
      line[n++] = '\n';
      line[n] = '\0';
      if ((r = kelMAILSendData(s->socket, line)) != KEL_OK) return r;
      n = 0;
      continue;
    }
    // A NUL would end the string that goes out: it is dropped.
    if (c == '\0') continue;
    // A line that fills lineOut goes out here and goes on as a new line,
    // which gets its own dot test.
    if (n >= KEL_MAIL_BODY_LINE_LIMIT) {
      memcpy(line + n, "\r\n", 3);
      if ((r = kelMAILSendData(s->socket, line)) != KEL_OK) return r;
      n = 0;
    }
    if (n == 0 && c == '.') line[n++] = '.';
    line[n++] = static_cast<char>(c);
  }
  if (n == 0) return KEL_OK;
  memcpy(line + n, "\r\n", 3);
  return kelMAILSendData(s->socket, line);
}

kelResult kelMAILCloseSmtp(kelMAILSession *s) {
  if (s == nullptr || s->partState != KEL_MAIL_PART_STATE_OPEN) return KEL_MAIL_ERR_NO_PART;
  s->partState = KEL_MAIL_PART_STATE_CLOSED;
  return KEL_OK;
}

kelResult kelMAILEditStrings(char *output, const char *templateText) {
  struct Token {
    const char *word;
    uint32_t key;
  };
  static const Token kTokens[] = {{"printer", KEL_STATUS_PRINTER},
                                  {"serial", KEL_STATUS_SERIAL},
                                  {"etheraddr", KEL_STATUS_ETHER_ADDR},
                                  {"equipid", KEL_STATUS_EQUIP_ID}};
  // The output holds a subject: the expansion stops at 255 bytes.
  const size_t cap = KEL_MAIL_SUBJECT_SIZE - 1;
  kelMAILBlock work(static_cast<char *>(kelMAILAlloc(KEL_STATUS_PRINTER_SIZE)));
  if (work.get() == nullptr) return KEL_MAIL_ERR_MEMORY;
  size_t out = 0;
  auto put = [&](const char *text, size_t n) {
    if (n > cap - out) n = cap - out;
    memcpy(output + out, text, n);
    out += n;
  };
  for (const char *p = templateText; *p != '\0';) {
    const Token *token = nullptr;
    if (*p == '%')
      for (const Token &t : kTokens)
        if (strncmp(p + 1, t.word, strlen(t.word)) == 0) {
          token = &t;
          break;
        }
    if (token == nullptr) {
      put(p++, 1);
      continue;
    }
    char *value = work.get();
    memset(value, 0, KEL_STATUS_PRINTER_SIZE);
    if (kelMAILReadStatus(token->key, value) != KEL_OK) {
      output[out] = '\0';
      return KEL_MAIL_ERR_STATUS;
    }
    if (token->key == KEL_STATUS_ETHER_ADDR) {
      // The first six of the eight bytes, in their stored order.
      const unsigned char *b = reinterpret_cast<const unsigned char *>(value);
      char text[18];
      snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3],
               b[4], b[5]);
      put(text, 17);
    } else {
      // The serial comes as 16 bytes without a NUL.
      put(value, strnlen(value, token->key == KEL_STATUS_SERIAL ? 16 : cap));
    }
    p += 1 + strlen(token->word);
  }
  output[out] = '\0';
  return KEL_OK;
}
