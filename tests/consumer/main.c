/* A program outside the tree, built against an installed tarvikel with the
 * host stand-ins: prints a fixed time in the month-name form. */
#include <stdio.h>

#include "kelhost.h"
#include "keltime.h"

int main(void) {
  char text[64];
  kelResult result;
  kelHostStatusReset();
  result = kelTIMEGetDayTimeStr(1000000000, KEL_TIME_FORM_NAME,
                                KEL_TIME_ORDER_DMY | KEL_TIME_SECONDS | KEL_TIME_AMPM_AFTER,
                                (uint32_t)sizeof text, text);
  printf("%s\n", result == KEL_OK ? text : "failed");
  return result != KEL_OK;
}
