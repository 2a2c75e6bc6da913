/* Every public header compiles as C99, together, and a C program links the
 * shared library: calls with arguments they refuse at once, and the exported
 * variables of the families without such a call. */
#include "kelnet.h"
#include "kelftpc.h"
#include "keltime.h"
#include "kelmail.h"
#include "kelsmbc.h"

int main(void) {
  uint32_t address = 0;
  if (kelNETGetIpByName("127.0.0.1", &address) != 0) return 1;
  /* 127.0.0.1 in network order: the first byte in memory is 127. */
  if (((const unsigned char *)&address)[0] != 127) return 2;
  if (kelFTPCProtoConnect(NULL, "server", "user", "") != KEL_FTPC_BAD_SESSION) return 3;
  if (kelTIMEGetDayTimeStr(0, 1, 1, 0, NULL) != KEL_TIME_ERR_BUFFER) return 4;
  if (sizeof kelMAILRecvBuffer != 256 || sizeof kelMAILSendBuffer != 256) return 5;
  return smbhdl != NULL || fp != NULL || makepath[0] != 0 ? 6 : KEL_OK;
}
