/* Stand-ins for the host's operating-system services and device status
 * service, with controls for tests and tools. A device build links the
 * host's own components instead of this library. */
#ifndef KELHOST_H
#define KELHOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Memory partition 0: a bounded pool ---- */

#define KEL_HOST_POOL_DEFAULT_SIZE (1024u * 1024u)

/* Gives the pool a new capacity in bytes. Only while no block is in use;
 * returns 0, or -1 if blocks are still in use or the size is unusable. */
int kelHostPoolSetSize(size_t bytes);
size_t kelHostPoolSize(void);
/* Blocks and payload bytes handed out and not yet given back. */
size_t kelHostPoolBlocksInUse(void);
size_t kelHostPoolBytesInUse(void);
/* Allocation requests since start, failed ones included. */
size_t kelHostPoolAllocations(void);
/* Make the nth allocation request from now fail (1 = the next one);
 * 0 switches the injection off. */
void kelHostPoolFailAt(size_t nth);

/* ---- Device status service ---- */

/* Clears every value and failure and sets the defaults: empty texts, zero
 * numbers, English month names "Jan" to "Dec". */
void kelHostStatusReset(void);
/* Text keys; -1 if the key isn't a text key or the text doesn't fit. */
int kelHostStatusSetText(uint32_t key, const char *text);
/* Keys of fixed width (serial: 16 bytes, Ethernet address: 8 bytes). */
int kelHostStatusSetBytes(uint32_t key, const void *bytes, size_t count);
/* 16-bit ports and 1-byte flags. */
int kelHostStatusSetNumber(uint32_t key, uint32_t value);
/* Make every read of key return code (0 switches it off). */
int kelHostStatusFail(uint32_t key, int code);
/* Reads of key since the last reset, failed ones included. */
unsigned kelHostStatusReads(uint32_t key);
/* Message texts; -1 for an unknown number or a text over 63 bytes. */
int kelHostMessageSet(uint32_t number, const char *text);
int kelHostMessageFail(uint32_t number, int code);
/* Loads a settings file: lines of "name = value", '#' starts a comment.
 * Names are those of the keys without the KEL_STATUS_ prefix, in any case
 * (SMTP_SERVER, DATE_FORM ...), or MESSAGE_0xab for a message. Numbers may
 * be decimal or 0x hexadecimal. Returns 0, or the number of the first bad
 * line, or -1 if the file can't be read. */
int kelHostStatusLoadFile(const char *path);

#ifdef __cplusplus
}
#endif

#endif
