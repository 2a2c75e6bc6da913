/* Date and time family: the format table and its composition, the token
 * table and the expansion. Internal to the library; tests include it. */
#ifndef KEL_TIME_INTERNAL_H
#define KEL_TIME_INTERNAL_H

#include <stdint.h>
#include <time.h>

#include "keltime.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Format selection ---- */

/* One row of the format table; the end row has -1 in both numbers and
 * null texts. */
typedef struct kelTIMEFormatRow {
  int32_t dateForm;
  int32_t dateOrder;
  const char *dateFormat;
  const char *timeFormat;
} kelTIMEFormatRow;

extern const kelTIMEFormatRow kelTIMEFormatTable[];

/* Size of the static buffer that holds the composed format text. */
#define KEL_TIME_FORMAT_BUFFER_SIZE 128
/* The option bits: everything above the date order's byte. */
#define KEL_TIME_OPTIONS_MASK 0xffffff00u

/* Checks the date form, the date order (low byte of orderAndOptions) and
 * the option pairs, in this order, and delivers form and order with the
 * device's setting put in for a 0. The setting is read once for each value
 * left at 0. 0, a KEL_TIME_ERR_ code, or the status service's failure. */
kelResult kelTIMECheckArguments(int32_t dateForm, uint32_t orderAndOptions,
                                int32_t *form, int32_t *order);

/* Composes the format text of the first table row for form and order,
 * edited by the option bits, into the static format buffer and returns
 * it; null if the table has no such row. Not re-entrant. */
const char *kelTIMEComposeFormat(int32_t form, int32_t order, uint32_t options);

/* ---- Token expansion ---- */

/* Writes a token's NUL-terminated text into scratch and returns its length
 * in bytes. */
typedef int32_t (*kelTIMETokenHandler)(const struct tm *record, char *scratch);

/* One row of the token table; the end row is all nulls. Flag 1 marks a
 * separator or unit word, which KEL_TIME_NO_SEPARATORS removes. */
typedef struct kelTIMETokenRow {
  const char *token;
  int32_t flag;
  kelTIMETokenHandler handler;
} kelTIMETokenRow;

extern const kelTIMETokenRow kelTIMETokenTable[];

/* Every token is '%' and two letters. */
#define KEL_TIME_TOKEN_LENGTH 3
/* The scratch that handlers write into. It holds any number of the family
 * and a month name of the status service, which passes no length: sized
 * like the largest text buffer of any status key, 255 bytes and the NUL. */
#define KEL_TIME_SCRATCH_SIZE 256

/* Message numbers of the month names, indexed by tm_mon (0 = January). */
extern const uint32_t kelTIMEMonthMessages[12];

/* The first row whose token begins position, or null. */
const kelTIMETokenRow *kelTIMEFindToken(const char *position);

/* Expands format into buffer (length bytes, all zero at entry), keeping one
 * byte for the NUL. 0, or KEL_TIME_ERR_BUFFER with the complete fields
 * that fitted, NUL-terminated. */
kelResult kelTIMEExpandFormat(const struct tm *record, const char *format,
                              uint32_t length, char *buffer);

#ifdef __cplusplus
}
#endif

#endif
