// The POP3 client: no session object; the caller holds the socket, and the
// two exported buffers hold the last reply and the last command.

#include "mail_internal.h"

char kelMAILRecvBuffer[KEL_MAIL_POP3_BUFFER_SIZE];
char kelMAILSendBuffer[KEL_MAIL_POP3_BUFFER_SIZE];
