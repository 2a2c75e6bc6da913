/* ftp_example: moves one file with the FTP application calls, as a device
 * application does (port 21, image type, passive mode unless the server
 * refuses it).
 *
 *   ftp_example put    <server> <user> <password> <directory> <name> <local file>
 *   ftp_example get    <server> <user> <password> <directory> <name> <local file>
 *   ftp_example delete <server> <user> <password> <directory> <name>
 */
#include <stdio.h>
#include <string.h>

#include "kelftpc.h"

#define BLOCK 32768

static int report(const char *step, kelResult result) {
  if (result != KEL_OK) fprintf(stderr, "%s failed: 0x%08lx\n", step, (unsigned long)result);
  return result != KEL_OK;
}

static int put(kelFTPCSession *session, const kelFTPCFileRecord *file, FILE *in) {
  static unsigned char block[BLOCK];
  unsigned long total = 0;
  size_t n;
  if (report("open for writing", kelFTPCWriteOpen(session, file))) return 1;
  while ((n = fread(block, 1, sizeof block, in)) > 0) {
    if (report("write", kelFTPCWrite(session, block, (uint32_t)n))) return 1;
    total += n;
  }
  if (report("close after writing", kelFTPCWriteClose(session))) return 1;
  printf("stored %lu bytes as %s%s%s\n", total, file->directory,
         file->directory[0] ? "/" : "", file->fileName);
  return 0;
}

static int get(kelFTPCSession *session, const kelFTPCFileRecord *file, FILE *out) {
  static unsigned char block[BLOCK];
  unsigned long total = 0;
  uint32_t count = 0;
  if (report("open for reading", kelFTPCReadOpen(session, file))) return 1;
  do {
    if (report("read", kelFTPCRead(session, block, sizeof block, &count))) return 1;
    fwrite(block, 1, count, out);
    total += count;
  } while (count != 0);
  if (report("close after reading", kelFTPCReadClose(session))) return 1;
  printf("fetched %lu bytes of %s\n", total, file->fileName);
  return 0;
}

int main(int argc, char **argv) {
  const char *action = argc > 1 ? argv[1] : "";
  int needsLocal = strcmp(action, "delete") != 0;
  if (argc != (needsLocal ? 8 : 7) ||
      (strcmp(action, "put") && strcmp(action, "get") && strcmp(action, "delete"))) {
    fprintf(stderr,
            "usage: ftp_example put|get <server> <user> <password> <directory> <name> <local file>\n"
            "       ftp_example delete <server> <user> <password> <directory> <name>\n");
    return 2;
  }
  kelFTPCServerRecord server = {argv[2], argv[3], argv[4]};
  kelFTPCFileRecord file = {argv[5], argv[6]};
  FILE *local = NULL;
  if (needsLocal) {
    local = fopen(argv[7], action[0] == 'p' ? "rb" : "wb");
    if (!local) {
      perror(argv[7]);
      return 1;
    }
  }

  kelFTPCSession *session = NULL;
  int status = report("start", kelFTPCStart(&server, &session));
  if (status == 0) {
    if (action[0] == 'p')
      status = put(session, &file, local);
    else if (action[0] == 'g')
      status = get(session, &file, local);
    else if ((status = report("delete", kelFTPCProtoDelete(session, file.directory,
                                                           file.fileName))) == 0)
      printf("deleted %s\n", file.fileName);
    /* After a failure the abort also drops a half-written upload. */
    if (status == 0)
      status = report("end", kelFTPCEnd(session));
    else
      kelFTPCAbortEnd(session);
  }
  if (local) fclose(local);
  return status;
}
