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

/* The two halves of a line read that takes nothing past the line's end.
 * kelNETPeekTimeo copies up to length bytes of what has arrived without
 * taking them from the socket; when nothing has arrived it first waits for
 * readability like kelNETRecvTimeo. A count (0 = the peer closed),
 * KEL_NET_ERROR or KEL_NET_TIMEOUT.
 * kelNETTake then takes length bytes that a peek has shown, with no wait: a
 * count (at most length), 0 if the peer closed, or KEL_NET_ERROR. */
int kelNETPeekTimeo(int handle, void *buffer, uint32_t length,
                    int32_t timeoutMs);
int kelNETTake(int handle, void *buffer, uint32_t length);

/* Whether handle has a bit in an fd_set. */
int kelNETHandleFits(int handle);

typedef void (*kelNETSignalHandler)(int);
kelNETSignalHandler kelNETSetSignal(int number, kelNETSignalHandler handler);
void kelNETSignalNoop(int number);

#ifdef __cplusplus
}
#endif

#endif
