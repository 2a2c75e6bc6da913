/* Every public header compiles as C99, together, and a C program links the
 * shared library. */
#include "kelbase.h"
#include "kelnet.h"
#include "kelftpc.h"
#include "keltime.h"
#include "kelmail.h"

int main(void) {
  uint32_t address = 0;
  kelResult ok = KEL_OK;
  if (kelNETGetIpByName("127.0.0.1", &address) != 0) return 1;
  /* 127.0.0.1 in network order: the first byte in memory is 127. */
  if (((const unsigned char *)&address)[0] != 127) return 2;
  /* Calls of each family with arguments they refuse at once. */
  if (kelFTPCProtoOpen(21, 0) != NULL) return 3;
  if (kelFTPCProtoConnect(NULL, "server", "user", "") != KEL_FTPC_BAD_SESSION) return 4;
  {
    kelFTPCFileRecord file = {"", "name"};
    if (kelFTPCWriteOpen(NULL, &file) != KEL_FTPC_BAD_SESSION) return 5;
  }
  if (kelFTPCCommandReplyQUIT(NULL) != KEL_FTPC_BAD_SESSION) return 7;
  if (kelTIMEGetDayTimeStr(0, 1, 1, 0, NULL) != KEL_TIME_ERR_BUFFER) return 6;
  {
    /* The mail family's exported buffers and its C-callable codecs. */
    kelMAILMD5Context context;
    unsigned char digest[16];
    kelMAILInitializeMD5(&context);
    kelMAILFinishMD5(digest, &context);
    if (digest[0] != 0xd4 || digest[15] != 0x7e) return 8;
    if (sizeof kelMAILRecvBuffer != 256 || sizeof kelMAILSendBuffer != 256) return 9;
  }
  return (int)ok;
}
