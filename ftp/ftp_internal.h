// The FTP session object and the family's internal functions.
#ifndef KEL_FTP_INTERNAL_H
#define KEL_FTP_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "kelftpc.h"

#define KEL_FTPC_MAGIC 0x66747063u /* "ftpc" */
#define KEL_FTPC_NAME_SIZE 64
#define KEL_FTPC_TRANSFER_NAME_SIZE 128
#define KEL_FTPC_LINE_SIZE 512
#define KEL_FTPC_DEFAULT_PORT 21
/* Limit of directory and file name together in a composed path. */
#define KEL_FTPC_PATH_LIMIT 256
/* The working directory read at login. */
#define KEL_FTPC_WORKDIR_SIZE 128

struct kelFTPCSession {
  uint32_t magic;
  uint32_t size;
  uint32_t flags;
  int controlSocket;
  int dataSocket;
  int listenSocket;
  uint32_t serverAddress;  // network byte order
  uint16_t port;           // host order
  int32_t timeoutMs;
  char serverName[KEL_FTPC_NAME_SIZE];
  char userName[KEL_FTPC_NAME_SIZE];
  char password[KEL_FTPC_NAME_SIZE];
  char transferDirectory[KEL_FTPC_TRANSFER_NAME_SIZE];
  char transferFile[KEL_FTPC_TRANSFER_NAME_SIZE];
  char pathSeparator;
  int32_t lastType;
  int32_t lastStructure;
  int32_t lastMode;
  uint32_t lineSize;
  char *line;
  char lineStorage[KEL_FTPC_LINE_SIZE];
  // Descriptors that a teardown has shut down but not yet closed, so that a
  // call blocked on them in another thread wakes up before they are
  // released. Closed by the next teardown and by kelFTPCProtoClose.
  int retired[3];
};

// One row of a reply table: a code and what it means for the command.
struct kelFTPCReplyRow {
  uint16_t code;
  kelResult result;
};

// The result of code in rows; KEL_FTPC_BAD_REPLY for a code not listed.
kelResult kelFTPCMapReply(const kelFTPCReplyRow *rows, size_t count,
                          uint16_t code);
template <size_t N>
inline kelResult kelFTPCMapReply(const kelFTPCReplyRow (&rows)[N],
                                 uint16_t code) {
  return kelFTPCMapReply(rows, N, code);
}

extern "C" {

int kelFTPCIsSession(const kelFTPCSession *session);
void kelFTPCSetState(kelFTPCSession *session, uint32_t mask);
void kelFTPCClearState(kelFTPCSession *session, uint32_t mask);

int kelFTPCOpenSocket(int *handle);
// Like kelFTPCCloseSocket, but shuts the connection down in both directions
// instead of closing it.
int kelFTPCShutdownSocket(int *handle);
kelResult kelFTPCConnectSocket(int *handle, uint32_t address, uint16_t port,
                               int32_t timeoutMs);
kelResult kelFTPCConnectControl(kelFTPCSession *session, const char *server,
                                uint16_t port);

kelResult kelFTPCSendCommand(kelFTPCSession *session, const char *word,
                             const char *argument);
kelResult kelFTPCReadLine(kelFTPCSession *session);
// Sends a command and reads its reply into *code.
kelResult kelFTPCExchange(kelFTPCSession *session, const char *word,
                          const char *argument, uint16_t *code);

kelResult kelFTPCParseQuotedPath(char *text, char *buffer, uint32_t length);
kelResult kelFTPCDerivePathSeparator(const char *path, char *separator);
kelResult kelFTPCCommandReplyXPWD(kelFTPCSession *session, char *buffer,
                                  uint32_t length);
kelResult kelFTPCCommandReplyXCWD(kelFTPCSession *session,
                                  const char *directory);
kelResult kelFTPCParsePasvReply(char *line, uint32_t *address, uint16_t *port);

kelResult kelFTPCOpenDataConnection(kelFTPCSession *session);
kelResult kelFTPCOpenListener(int controlHandle, int *listenHandle,
                              uint32_t *address, uint16_t *port);
kelResult kelFTPCWaitReplyAndAccept(kelFTPCSession *session,
                                    int *controlHandle, int *listenHandle,
                                    int *dataHandle, uint16_t *code);

kelResult kelFTPCComposePath(const char *directory, const char *file,
                             char separator, char *buffer, uint32_t limit);

}  // extern "C"

// One whole exchange: the command, its reply, the code looked up in table.
template <size_t N>
inline kelResult kelFTPCExchangeMapped(kelFTPCSession *session,
                                       const char *word, const char *argument,
                                       const kelFTPCReplyRow (&table)[N]) {
  uint16_t code = 0;
  kelResult r = kelFTPCExchange(session, word, argument, &code);
  return r != KEL_OK ? r : kelFTPCMapReply(table, code);
}

#endif
