/* tarvikel: definitions shared by every family of the library. */
#ifndef KELBASE_H
#define KELBASE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result of every call that can fail: 0 is success. The high 16 bits name the
 * family (0x58A0 FTP, 0x58C0 SMB, 0x58E0 mail, 0x5960 date and time). */
typedef uint32_t kelResult;

#define KEL_OK ((kelResult)0)

#if defined(KEL_BUILDING_LIBRARY)
#define KEL_API __attribute__((visibility("default")))
#else
#define KEL_API
#endif

#ifdef __cplusplus
}
#endif

#endif
