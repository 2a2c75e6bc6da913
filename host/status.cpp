// The device status service: a table of every key with its width, values
// set by tests or loaded from a settings file, per-key failures, and the
// month-name messages.

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <mutex>

#include "../net/kel_status.h"
#include "kelhost.h"

namespace {

enum class Kind { Text, Bytes, U16, U8 };

struct Entry {
  uint32_t key;
  const char *name;
  Kind kind;
  size_t size;  // buffer size for text, width for the others
  unsigned char value[256];
  int failure;
  unsigned reads;
};

Entry gEntries[] = {
    {KEL_STATUS_SERIAL, "SERIAL", Kind::Bytes, 16, {}, 0, 0},
    {KEL_STATUS_ETHER_ADDR, "ETHER_ADDR", Kind::Bytes, 8, {}, 0, 0},
    {KEL_STATUS_EQUIP_ID, "EQUIP_ID", Kind::Text, 256, {}, 0, 0},
    {KEL_STATUS_HELO_NAME, "HELO_NAME", Kind::Text, 16, {}, 0, 0},
    {KEL_STATUS_PRINTER, "PRINTER", Kind::Text, 256, {}, 0, 0},
    {KEL_STATUS_POP3_SERVER, "POP3_SERVER", Kind::Text, 64, {}, 0, 0},
    {KEL_STATUS_POP3_PASSWORD, "POP3_PASSWORD", Kind::Text, 64, {}, 0, 0},
    {KEL_STATUS_POP3_USER, "POP3_USER", Kind::Text, 64, {}, 0, 0},
    {KEL_STATUS_SMTP_SERVER, "SMTP_SERVER", Kind::Text, 64, {}, 0, 0},
    {KEL_STATUS_SMTP_AUTH_USER, "SMTP_AUTH_USER", Kind::Text, 64, {}, 0, 0},
    {KEL_STATUS_SMTP_AUTH_PASSWORD, "SMTP_AUTH_PASSWORD", Kind::Text, 64, {}, 0, 0},
    {KEL_STATUS_MAIL_SENDER, "MAIL_SENDER", Kind::Text, 128, {}, 0, 0},
    {KEL_STATUS_POP3_PORT, "POP3_PORT", Kind::U16, 2, {}, 0, 0},
    {KEL_STATUS_SMTP_PORT, "SMTP_PORT", Kind::U16, 2, {}, 0, 0},
    {KEL_STATUS_POP3_USE_APOP, "POP3_USE_APOP", Kind::U8, 1, {}, 0, 0},
    {KEL_STATUS_SMTP_USE_EHLO, "SMTP_USE_EHLO", Kind::U8, 1, {}, 0, 0},
    {KEL_STATUS_POP_BEFORE_SMTP, "POP_BEFORE_SMTP", Kind::U8, 1, {}, 0, 0},
    {KEL_STATUS_SMTP_ENABLED, "SMTP_ENABLED", Kind::U8, 1, {}, 0, 0},
    {KEL_STATUS_DATE_FORM, "DATE_FORM", Kind::U8, 1, {}, 0, 0},
};

constexpr size_t kMessageSize = 64;
constexpr unsigned kMonths = KEL_MESSAGE_MONTH_LAST - KEL_MESSAGE_MONTH_FIRST + 1;
const char *const kMonthDefaults[kMonths] = {"Jan", "Feb", "Mar", "Apr",
                                             "May", "Jun", "Jul", "Aug",
                                             "Sep", "Oct", "Nov", "Dec"};

struct Message {
  char text[kMessageSize];
  int failure;
};
Message gMessages[kMonths];
bool gReady = false;
std::mutex gLock;

// Codes of the stand-in's own refusals.
constexpr int kUnknownKey = -1001;
constexpr int kWrongClient = -1002;

void resetLocked() {
  for (Entry &e : gEntries) {
    memset(e.value, 0, sizeof e.value);
    e.failure = 0;
    e.reads = 0;
  }
  for (unsigned i = 0; i < kMonths; i++) {
    snprintf(gMessages[i].text, kMessageSize, "%s", kMonthDefaults[i]);
    gMessages[i].failure = 0;
  }
  gReady = true;
}

void ensureReady() {
  if (!gReady) resetLocked();
}

Entry *find(uint32_t key) {
  for (Entry &e : gEntries)
    if (e.key == key) return &e;
  return nullptr;
}

Entry *findByName(const char *name) {
  for (Entry &e : gEntries)
    if (strcasecmp(e.name, name) == 0) return &e;
  return nullptr;
}

Message *findMessage(uint32_t number) {
  if (number < KEL_MESSAGE_MONTH_FIRST || number > KEL_MESSAGE_MONTH_LAST)
    return nullptr;
  return &gMessages[number - KEL_MESSAGE_MONTH_FIRST];
}

int read(uint32_t client, uint32_t key, void *out) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  Entry *e = find(key);
  if (!e) return kUnknownKey;
  e->reads++;
  if (client != KEL_STATUS_CLIENT) return kWrongClient;
  if (e->failure != 0) return e->failure;
  if (e->kind == Kind::Text)
    memcpy(out, e->value, strlen(reinterpret_cast<char *>(e->value)) + 1);
  else
    memcpy(out, e->value, e->size);
  return 0;
}

int setText(Entry *e, const char *text) {
  if (!e || e->kind != Kind::Text || strlen(text) >= e->size) return -1;
  memset(e->value, 0, sizeof e->value);
  memcpy(e->value, text, strlen(text));
  return 0;
}

int setBytes(Entry *e, const void *bytes, size_t count) {
  if (!e || e->kind != Kind::Bytes || count > e->size) return -1;
  memset(e->value, 0, sizeof e->value);
  memcpy(e->value, bytes, count);
  return 0;
}

int setNumber(Entry *e, uint32_t value) {
  if (!e) return -1;
  if (e->kind == Kind::U16 && value <= 0xffff) {
    uint16_t v = static_cast<uint16_t>(value);
    memcpy(e->value, &v, 2);
    return 0;
  }
  if (e->kind == Kind::U8 && value <= 0xff) {
    e->value[0] = static_cast<unsigned char>(value);
    return 0;
  }
  return -1;
}

int setMessage(Message *m, const char *text) {
  if (!m || strlen(text) >= kMessageSize) return -1;
  snprintf(m->text, kMessageSize, "%s", text);
  return 0;
}

char *trim(char *s) {
  while (isspace(static_cast<unsigned char>(*s))) s++;
  char *end = s + strlen(s);
  while (end > s && isspace(static_cast<unsigned char>(end[-1]))) *--end = 0;
  return s;
}

// "aa:bb:cc:dd:ee:ff" into the first six of eight bytes.
int setEtherText(Entry *e, const char *text) {
  unsigned b[6];
  if (sscanf(text, "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4],
             &b[5]) != 6)
    return -1;
  unsigned char bytes[8] = {};
  for (int i = 0; i < 6; i++) {
    if (b[i] > 0xff) return -1;
    bytes[i] = static_cast<unsigned char>(b[i]);
  }
  return setBytes(e, bytes, sizeof bytes);
}

int applySetting(const char *name, const char *value) {
  if (strncasecmp(name, "MESSAGE_", 8) == 0)
    return setMessage(findMessage(static_cast<uint32_t>(strtoul(name + 8, nullptr, 0))),
                      value);
  Entry *e = findByName(name);
  if (!e) return -1;
  switch (e->kind) {
    case Kind::Text:
      return setText(e, value);
    case Kind::Bytes:
      if (e->key == KEL_STATUS_ETHER_ADDR) return setEtherText(e, value);
      return setBytes(e, value, strlen(value));
    case Kind::U16:
    case Kind::U8: {
      char *end = nullptr;
      unsigned long n = strtoul(value, &end, 0);
      if (*value == 0 || *end != 0) return -1;
      return setNumber(e, static_cast<uint32_t>(n));
    }
  }
  return -1;
}

}  // namespace

extern "C" {

int vaSTCGetStatus(uint32_t client, uint32_t key, void *out) {
  return read(client, key, out);
}

int vaxoSTCGetStatus(uint32_t client, uint32_t key, void *out) {
  return read(client, key, out);
}

int vaxoSTCGetMessage(uint32_t client, uint32_t number, char *out) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  Message *m = findMessage(number);
  if (!m) return kUnknownKey;
  if (client != KEL_MESSAGE_CLIENT) return kWrongClient;
  if (m->failure != 0) return m->failure;
  memcpy(out, m->text, strlen(m->text) + 1);
  return 0;
}

void kelHostStatusReset(void) {
  std::lock_guard<std::mutex> guard(gLock);
  resetLocked();
}

int kelHostStatusSetText(uint32_t key, const char *text) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  return setText(find(key), text);
}

int kelHostStatusSetBytes(uint32_t key, const void *bytes, size_t count) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  return setBytes(find(key), bytes, count);
}

int kelHostStatusSetNumber(uint32_t key, uint32_t value) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  return setNumber(find(key), value);
}

int kelHostStatusFail(uint32_t key, int code) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  Entry *e = find(key);
  if (!e) return -1;
  e->failure = code;
  return 0;
}

unsigned kelHostStatusReads(uint32_t key) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  Entry *e = find(key);
  return e ? e->reads : 0;
}

int kelHostMessageSet(uint32_t number, const char *text) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  return setMessage(findMessage(number), text);
}

int kelHostMessageFail(uint32_t number, int code) {
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  Message *m = findMessage(number);
  if (!m) return -1;
  m->failure = code;
  return 0;
}

int kelHostStatusLoadFile(const char *path) {
  FILE *file = fopen(path, "r");
  if (!file) return -1;
  std::lock_guard<std::mutex> guard(gLock);
  ensureReady();
  char line[512];
  int number = 0;
  int bad = 0;
  while (!bad && fgets(line, sizeof line, file)) {
    number++;
    char *hash = strchr(line, '#');
    if (hash) *hash = 0;
    char *text = trim(line);
    if (*text == 0) continue;
    char *equals = strchr(text, '=');
    if (!equals) {
      bad = number;
      break;
    }
    *equals = 0;
    if (applySetting(trim(text), trim(equals + 1)) != 0) bad = number;
  }
  fclose(file);
  return bad;
}

}  // extern "C"
