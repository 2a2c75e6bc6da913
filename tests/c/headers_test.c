/* Every public header compiles as C99, together, and a C program links the
 * shared library. */
#include "kelbase.h"
#include "kelnet.h"
#if __has_include("kelftpc.h")
#include "kelftpc.h"
#endif
#if __has_include("keltime.h")
#include "keltime.h"
#endif

int main(void) {
  uint32_t address = 0;
  kelResult ok = KEL_OK;
  if (kelNETGetIpByName("127.0.0.1", &address) != 0) return 1;
  /* 127.0.0.1 in network order: the first byte in memory is 127. */
  if (((const unsigned char *)&address)[0] != 127) return 2;
  return (int)ok;
}
