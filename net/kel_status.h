/* The device status service: settings by key, message texts by number.
 * The library only reads from it and caches nothing. */
#ifndef KEL_STATUS_H
#define KEL_STATUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* First argument of every status and message read. */
#define KEL_STATUS_CLIENT 0x4050300u
#define KEL_MESSAGE_CLIENT 0x6250201u

/* Keys, with what they deliver and the size of the reader's buffer. */
#define KEL_STATUS_SERIAL 0x84005e64u             /* 16 bytes, no NUL; 256 */
#define KEL_STATUS_ETHER_ADDR 0x84005fccu         /* 8 bytes; 8 */
#define KEL_STATUS_EQUIP_ID 0x85000530u           /* text; 256 */
#define KEL_STATUS_HELO_NAME 0x85000580u          /* text; 16 */
#define KEL_STATUS_PRINTER 0x85000850u            /* text; 256 */
#define KEL_STATUS_POP3_SERVER 0x85000a80u        /* text; 64 */
#define KEL_STATUS_POP3_PASSWORD 0x85000aa8u      /* text; 64 */
#define KEL_STATUS_POP3_USER 0x85000ad0u          /* text; 64 */
#define KEL_STATUS_SMTP_SERVER 0x85000af8u        /* text; 64 */
#define KEL_STATUS_SMTP_AUTH_USER 0x85000d78u     /* text; 64 */
#define KEL_STATUS_SMTP_AUTH_PASSWORD 0x85000da0u /* text; 64 */
#define KEL_STATUS_MAIL_SENDER 0x85000ff8u        /* text; 128 */
#define KEL_STATUS_POP3_PORT 0x850019c4u          /* unsigned 16 bits */
#define KEL_STATUS_SMTP_PORT 0x85001a14u          /* unsigned 16 bits */
#define KEL_STATUS_POP3_USE_APOP 0x85003d24u      /* 1 byte */
#define KEL_STATUS_SMTP_USE_EHLO 0x85004ad8u      /* 1 byte */
#define KEL_STATUS_POP_BEFORE_SMTP 0x85004ce0u    /* 1 byte */
#define KEL_STATUS_SMTP_ENABLED 0x85004e70u       /* 1 byte */
#define KEL_STATUS_DATE_FORM 0x850054b0u          /* 1 byte: low nibble form, high nibble order */

/* Buffer sizes that readers of the text keys provide. */
#define KEL_STATUS_SERIAL_SIZE 256
#define KEL_STATUS_ETHER_ADDR_SIZE 8
#define KEL_STATUS_EQUIP_ID_SIZE 256
#define KEL_STATUS_HELO_NAME_SIZE 16
#define KEL_STATUS_PRINTER_SIZE 256
#define KEL_STATUS_SERVER_SIZE 64
#define KEL_STATUS_CREDENTIAL_SIZE 64
#define KEL_STATUS_MAIL_SENDER_SIZE 128

/* Month names: message 0xab is January, 0xb6 December. */
#define KEL_MESSAGE_MONTH_FIRST 0xabu
#define KEL_MESSAGE_MONTH_LAST 0xb6u

/* One setting into out; 0 when out is filled, anything else on failure. */
int vaSTCGetStatus(uint32_t client, uint32_t key, void *out);
/* The same, for the date and time family. */
int vaxoSTCGetStatus(uint32_t client, uint32_t key, void *out);
/* The NUL-terminated text of a message. */
int vaxoSTCGetMessage(uint32_t client, uint32_t number, char *out);

#ifdef __cplusplus
}
#endif

#endif
