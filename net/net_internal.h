/* Socket-layer helpers that stay inside the library. */
#ifndef KEL_NET_INTERNAL_H
#define KEL_NET_INTERNAL_H

#include "kelnet.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wait until handle is readable / writable: 1, KEL_NET_ERROR or
 * KEL_NET_TIMEOUT. A handle that has no bit in a wait set (below 0 or from
 * FD_SETSIZE on) is KEL_NET_ERROR. */
int kelNETWaitRead(int handle, int32_t timeoutMs);
int kelNETWaitWrite(int handle, int32_t timeoutMs);

/* Whether handle has a bit in an fd_set. */
int kelNETHandleFits(int handle);

typedef void (*kelNETSignalHandler)(int);
kelNETSignalHandler kelNETSetSignal(int number, kelNETSignalHandler handler);
void kelNETSignalNoop(int number);

#ifdef __cplusplus
}
#endif

#endif
