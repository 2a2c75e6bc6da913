/* tarvikel: timed socket layer. */
#ifndef KELNET_H
#define KELNET_H

#include <stdint.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "kelbase.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The two negative results of every timed call. A count of 0 or more is
 * never one of them. */
#define KEL_NET_ERROR (-1)
#define KEL_NET_TIMEOUT (-2)

/* Time-outs are in milliseconds; -1 waits without limit, 0 looks once. */

KEL_API int kelNETSocket(int domain, int type, int protocol);
KEL_API int kelNETClose(int handle);
/* Shuts both directions down. */
KEL_API int kelNETShutdown(int handle);

/* 0 when connected. KEL_NET_TIMEOUT when the time ran out: the socket is
 * then gone and *handle is -1. KEL_NET_ERROR when the connect failed: the
 * caller still owns *handle. */
KEL_API int kelNETConnectTimeo(int *handle, const struct sockaddr *address,
                               socklen_t addressLength, int32_t timeoutMs);

/* Bytes sent or received (0 from a receive: the peer closed), or
 * KEL_NET_ERROR, KEL_NET_TIMEOUT. One wait, then one real call; short
 * counts are passed through unchanged. */
KEL_API int kelNETSendTimeo(int handle, const void *buffer, uint32_t length,
                            int flags, int32_t timeoutMs);
KEL_API int kelNETRecvTimeo(int handle, void *buffer, uint32_t length,
                            int flags, int32_t timeoutMs);
KEL_API int kelNETSendToTimeo(int handle, const void *buffer, uint32_t length,
                              int flags, const struct sockaddr *address,
                              socklen_t addressLength, int32_t timeoutMs);
KEL_API int kelNETRecvFromTimeo(int handle, void *buffer, uint32_t length,
                                int flags, struct sockaddr *address,
                                socklen_t *addressLength, int32_t timeoutMs);

KEL_API int kelNETBind(int handle, const struct sockaddr *address,
                       socklen_t addressLength);
KEL_API int kelNETListen(int handle, int backlog);
KEL_API int kelNETAccept(int handle, struct sockaddr *address,
                         socklen_t *addressLength);

/* select with a millisecond time-out: the number of ready handles,
 * KEL_NET_ERROR or KEL_NET_TIMEOUT; never 0. */
KEL_API int kelNETSelect(int count, fd_set *readSet, fd_set *writeSet,
                         fd_set *exceptSet, int32_t timeoutMs);

/* IPv4 address of a name, in network byte order. Dotted text is converted
 * without the resolver. 0, or -1 (and all ones in *address) if the name
 * can't be resolved. */
KEL_API int kelNETGetIpByName(const char *name, uint32_t *address);

KEL_API int kelNETGetSockOpt(int handle, int level, int option, void *value,
                             socklen_t *valueLength);
KEL_API int kelNETSetSockOpt(int handle, int level, int option,
                             const void *value, socklen_t valueLength);

/* Makes SIGPIPE harmless for the whole process, so that a send to a closed
 * connection fails with -1. The old disposition is not restored. */
KEL_API int kelNETIgnoreSignals(void);

#ifdef __cplusplus
}
#endif

#endif
