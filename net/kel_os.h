/* Operating-system services that the host provides to the library:
 * memory partitions, a timed connect, a case-insensitive compare and the
 * local time. The library only declares them; the host links them in. */
#ifndef KEL_OS_H
#define KEL_OS_H

#include <stdint.h>
#include <sys/socket.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Delivers a block of size bytes of partition 0 into *result. 0 when the
 * block is delivered, anything else on failure. The content is undefined. */
int orvOSWOrgAllocMemPart(int partition, void **result, uint32_t size);
/* Gives back a block of either allocator. */
int orvOSWOrgFreeMemPart(int partition, void *block);
/* A zero-filled block, never null. */
void *orvOSWSubAllocMem(uint32_t size);

/* Connects the socket *handle within timeoutMs. 0: connected. -1 with
 * *handle unchanged: the connect failed. -1 with *handle set to -1: the
 * time ran out and the socket is gone. The socket stays blocking. */
int orvOSWConnectTimedWait(int *handle, const struct sockaddr *address,
                           socklen_t length, int32_t timeoutMs);

/* 0 when the first count bytes are equal without regard to case. */
int orvCLBCompStrCaseN(const char *first, const char *second, uint32_t count);
/* Fills *result with the local time of *time. */
int orvCLBLocalTime_r(const time_t *time, struct tm *result);

#ifdef __cplusplus
}
#endif

#endif
