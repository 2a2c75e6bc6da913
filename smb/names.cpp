// NetBIOS names and the name service: the first-level encoding, the node
// status and name queries on UDP port 137, their replies, and the orderly
// stop of the process when a socket call of that exchange fails.

#include <arpa/inet.h>
#include <ctype.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "kelnet.h"
#include "smb_internal.h"

namespace {

void putLetters(char *out, int byte) {
  out[0] = static_cast<char>(((byte >> 4) & 0x0F) + 'A');
  out[1] = static_cast<char>((byte & 0x0F) + 'A');
}

void putBig(uint8_t *at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

// Room behind the 1024 bytes of a status reply, so that the MAC address
// behind a table cut short by the received length is read from zeros.
constexpr int kStatusSlack = 64;
constexpr int kEntrySize = 18;

}  // namespace

extern "C" {

void nb_stop(const char *message) {
  if (message != nullptr) perror(message);
  exit(1);
}

char *nb_encodename(char *out, const char *name, int fill, int type) {
  int i = 0;
  for (; i < 15 && name[i] != '\0'; i++)
    putLetters(out + 2 * i, toupper(static_cast<unsigned char>(name[i])));
  for (; i < 15; i++) putLetters(out + 2 * i, fill);
  putLetters(out + 30, type);
  out[32] = '\0';
  return out;
}

int nb_encodefullname(char *out, const char *name, int fill, int type,
                      const char *scope) {
  out[0] = 0x20;
  nb_encodename(out + 1, name, fill, type);
  if (scope == nullptr || scope[0] == '\0') return 34;
  int at = 33;
  while (*scope != '\0') {
    size_t part = strcspn(scope, ".");
    out[at++] = static_cast<char>(part);
    for (size_t i = 0; i < part; i++)
      out[at++] = static_cast<char>(toupper(static_cast<unsigned char>(scope[i])));
    scope += part;
    if (*scope == '.') scope++;
  }
  out[at++] = 0;
  return at;
}

int nb_putquestion(uint8_t *out, const char *name, int fill, int type,
                   const char *scope, int questionType) {
  if (questionType != NB_TYPE_NB && questionType != NB_TYPE_NBSTAT) return -1;
  int n = nb_encodefullname(reinterpret_cast<char *>(out), name, fill, type, scope);
  putBig(out + n, static_cast<uint32_t>(questionType));
  putBig(out + n + 2, 1);
  return n + 4;
}

int nb_makequery(uint8_t *buffer, int broadcast, int recursion,
                 const char *name, int fill, int type, const char *scope,
                 int questionType) {
  putBig(buffer, NB_TRANSACTION_ID);
  putBig(buffer + 2, broadcast ? 0x0110 : recursion ? 0x0100 : 0);
  putBig(buffer + 4, 1);
  putBig(buffer + 6, 0);
  putBig(buffer + 8, 0);
  putBig(buffer + 10, 0);
  int n = nb_putquestion(buffer + 12, name, fill, type, scope, questionType);
  return n < 0 ? -1 : 12 + n;
}

int nb_sendquery(int handle, const uint8_t *packet, int length,
                 uint32_t address, int /*questionType*/) {
  struct sockaddr_in to;
  memset(&to, 0, sizeof to);
  to.sin_family = AF_INET;
  to.sin_port = htons(NB_PORT);
  to.sin_addr.s_addr = address;
  ssize_t sent = sendto(handle, packet, static_cast<size_t>(length), 0,
                        reinterpret_cast<struct sockaddr *>(&to), sizeof to);
  if (sent < 0) nb_stop("sendto()");
  return static_cast<int>(sent);
}

int nb_waitreply(int handle, int timeoutMs) {
  struct pollfd wait = {handle, POLLIN, 0};
  int ready = poll(&wait, 1, timeoutMs);
  if (ready < 0) nb_stop("poll()");
  return ready;
}

int nb_cleanname(const uint8_t *entry, int length, char *out) {
  int n = 0;
  for (int i = 0; i < length; i++)
    if (isprint(entry[i]) && entry[i] != ' ') out[n++] = static_cast<char>(entry[i]);
  return n;
}

void nb_storenamereply(const uint8_t *buffer, int received) {
  if (received < 12 || (buffer[3] & 0x07) != 0) return;
  memcpy(&smbhdl->serverAddress, buffer + received - 4, 4);
}

// buffer holds the 1024 bytes of a status reply and kStatusSlack zeros.
void nb_storestatusreply(const uint8_t *buffer, int received) {
  const char *text = reinterpret_cast<const char *>(buffer);
  const int table = static_cast<int>(strnlen(text + 12, NB_STATUS_BUFFER_SIZE - 12)) + 24;
  // The walk stays within what was received: a count that promises more
  // entries than arrived is cut to those that arrived whole.
  int count = table - 1 < received ? buffer[table - 1] : 0;
  const int whole = received > table ? (received - table) / kEntrySize : 0;
  if (count > whole) count = whole;
  for (int i = 0; i < count; i++) {
    const uint8_t *entry = buffer + table + kEntrySize * i;
    char name[16];
    int length = nb_cleanname(entry, 15, name);
    if (entry[15] == 0x20) {
      memcpy(smbhdl->serverName, name, static_cast<size_t>(length));
      smbhdl->serverName[length] = '\0';
    }
  }
  const uint8_t *mac = buffer + table + kEntrySize * count;
  printf("MAC: %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n", mac[0], mac[1], mac[2],
         mac[3], mac[4], mac[5]);
}

void nb_readnamereply(int handle, int timeoutMs) {
  uint8_t buffer[SMB_BUFFER_SIZE];
  memset(buffer, 0, sizeof buffer);
  int n = kelNETRecvTimeo(handle, buffer, sizeof buffer, 0, timeoutMs);
  if (n < 0) nb_stop("recv()");
  if (n < 12) nb_stop(nullptr);
  nb_storenamereply(buffer, n);
}

void nb_readstatusreply(int handle, int timeoutMs) {
  uint8_t buffer[NB_STATUS_BUFFER_SIZE + kStatusSlack];
  memset(buffer, 0, sizeof buffer);
  int n = kelNETRecvTimeo(handle, buffer, NB_STATUS_BUFFER_SIZE, 0, timeoutMs);
  if (n < 0) nb_stop("recv()");
  nb_storestatusreply(buffer, n);
}

kelResult nb_nameexchange(kelSMBCSession *session) {
  // The name as a string even when it filled its field.
  char name[KEL_SMBC_NAME_SIZE + 1];
  memcpy(name, session->serverName, KEL_SMBC_NAME_SIZE);
  name[KEL_SMBC_NAME_SIZE] = '\0';
  uint8_t packet[SMB_BUFFER_SIZE];
  memset(packet, 0, sizeof packet);
  uint32_t address = 0;
  const bool status = kelNETGetIpByName(name, &address) == 0;
  int length;
  if (status) {
    length = nb_makequery(packet, 0, 0, "*", 0x00, 0x00, "", NB_TYPE_NBSTAT);
  } else {
    length = nb_makequery(packet, 1, 1, name, 0x20, 0x20, "", NB_TYPE_NB);
    address = inet_addr(name);
  }
  nb_sendquery(session->socket, packet, length, address,
               status ? NB_TYPE_NBSTAT : NB_TYPE_NB);
  if (nb_waitreply(session->socket, NB_WAIT_MS) == 0) return KEL_SMB_ERR_NO_ANSWER;
  if (status) {
    nb_readstatusreply(session->socket, session->timeout);
    session->serverAddress = address;
  } else {
    nb_readnamereply(session->socket, session->timeout);
  }
  return KEL_OK;
}

}  // extern "C"
