// The SMTP session record, and the allocator and status helpers that the
// whole family uses.

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "kel_os.h"
#include "kel_status.h"
#include "mail_internal.h"

void *kelMAILAlloc(uint32_t size) {
  void *block = nullptr;
  if (orvOSWOrgAllocMemPart(0, &block, size) != 0) return nullptr;
  return block;
}

void kelMAILFree(void *block) {
  if (block != nullptr) orvOSWOrgFreeMemPart(0, block);
}

kelResult kelMAILReadStatus(uint32_t key, void *out) {
  return vaSTCGetStatus(KEL_STATUS_CLIENT, key, out) == 0 ? KEL_OK
                                                          : KEL_MAIL_ERR_STATUS;
}

kelResult kelMAILInitSmtpSession(kelMAILSession *session) {
  memset(session, 0, sizeof *session);
  session->socket = -1;
  session->partState = KEL_MAIL_PART_STATE_CLOSED;
  char **fields[] = {&session->lineOut, &session->lineIn, &session->boundary,
                     &session->subject};
  const uint32_t sizes[] = {KEL_MAIL_LINE_SIZE, KEL_MAIL_LINE_SIZE,
                            KEL_MAIL_BOUNDARY_SIZE, KEL_MAIL_SUBJECT_SIZE};
  for (int i = 0; i < 4; i++) {
    *fields[i] = static_cast<char *>(kelMAILAlloc(sizes[i]));
    if (*fields[i] == nullptr) return KEL_MAIL_ERR_MEMORY;
  }
  // The low 32 bits of the clock, also where time_t is wider.
  unsigned long now = static_cast<uint32_t>(time(nullptr));
  snprintf(session->boundary, KEL_MAIL_BOUNDARY_SIZE, "(T_T)boundary_%08lX(T_T)", now);
  return KEL_OK;
}

void kelMAILFreeSessionLists(kelMAILSession *session) {
  kelMAILFree(session->toList);
  kelMAILFree(session->ccList);
  kelMAILFree(session->bccList);
  kelMAILFree(session->subject);
  session->toList = session->ccList = session->bccList = nullptr;
  session->subject = nullptr;
}

void kelMAILFreeSmtpSession(kelMAILSession *session) {
  if (session == nullptr) return;
  if (session->socket != -1) kelMAILCloseSocket(session->socket);
  kelMAILFreeSessionLists(session);
  kelMAILFree(session->boundary);
  kelMAILFree(session->lineOut);
  kelMAILFree(session->lineIn);
  kelMAILFree(session);
}
