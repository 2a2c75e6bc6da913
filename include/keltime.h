/* tarvikel: date and time strings. */
#ifndef KELTIME_H
#define KELTIME_H

#include <stdint.h>
#include <time.h>

#include "kelbase.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes of the family. A failed read of the device status service
 * is no code of these: the service's own non-zero return is the result. */
#define KEL_TIME_ERR_FORM 0x59602001u      /* date form not 0, 1, 2 or 4 */
#define KEL_TIME_ERR_ORDER 0x59602002u     /* date order not 0, 1, 2 or 4 */
#define KEL_TIME_ERR_BUFFER 0x59602003u    /* length 0, or the text doesn't fit */
#define KEL_TIME_ERR_OPTIONS 0x59602004u   /* a refused pair of option bits */
#define KEL_TIME_ERR_SETTING 0x5960f001u   /* device setting nibble not 0, 1 or 2 */
#define KEL_TIME_ERR_NO_FORMAT 0x5960f002u /* no format for the form and order */

/* Date forms (dateForm): how the date looks. */
#define KEL_TIME_FORM_DEVICE 0  /* the device's setting */
#define KEL_TIME_FORM_NUMBER 1  /* month as a number, separators: 2024/03/05 */
#define KEL_TIME_FORM_NAME 2    /* month by name, separators: 2024/Mar/05 */
#define KEL_TIME_FORM_UNITS 4   /* month as a number, unit words: 2024年03月05日 */

/* Date orders: the low eight bits of orderAndOptions. */
#define KEL_TIME_ORDER_DEVICE 0x00u /* the device's setting */
#define KEL_TIME_ORDER_YMD 0x01u    /* year, month, day */
#define KEL_TIME_ORDER_MDY 0x02u    /* month, day, year */
#define KEL_TIME_ORDER_DMY 0x04u    /* day, month, year */
#define KEL_TIME_ORDER_MASK 0xffu

/* Option bits: the upper 24 bits of orderAndOptions. Refused pairs:
 * NO_DATE with NO_TIME, AMPM_BEFORE with AMPM_AFTER, SEP_HYPHEN with
 * SEP_SPACE. Any other bit is accepted and has no effect. */
#define KEL_TIME_NO_DATE 0x100u        /* time alone */
#define KEL_TIME_NO_TIME 0x200u        /* date alone */
#define KEL_TIME_AMPM_BEFORE 0x400u    /* AM/PM marker in front, 12-hour clock */
#define KEL_TIME_AMPM_AFTER 0x800u     /* AM/PM marker behind, 12-hour clock */
#define KEL_TIME_SHORT_YEAR 0x1000u    /* year in two digits */
#define KEL_TIME_SEP_HYPHEN 0x2000u    /* date separator '-' */
#define KEL_TIME_SEP_SPACE 0x4000u     /* date separator blank */
#define KEL_TIME_NO_SEPARATORS 0x8000u /* no separators, unit words or blank */
#define KEL_TIME_SECONDS 0x10000u      /* seconds behind the minutes */

/* Renders the local time of time into buffer (length bytes) as a
 * NUL-terminated UTF-8 text: the date, then the time, in dateForm and the
 * date order of orderAndOptions; 0 for either takes the device's setting.
 * 0, a KEL_TIME_ERR_ code, or the status service's failure. Except for
 * length 0 the buffer is zeroed first; when the text doesn't fit it keeps
 * the complete fields that fitted. Not re-entrant: one call at a time. */
KEL_API kelResult kelTIMEGetDayTimeStr(time_t time, int32_t dateForm,
                                       uint32_t orderAndOptions,
                                       uint32_t length, char *buffer);

#ifdef __cplusplus
}
#endif

#endif
