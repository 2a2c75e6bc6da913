/* time_demo: prints a time in several forms through the library.
 *
 *   time_demo [-s settings-file] [seconds]
 *
 * Without seconds it shows the current time; with them, that many seconds
 * since 1970 (UTC). The device's date setting decides the first line; a
 * settings file (lines of "NAME = value", e.g. "DATE_FORM = 0x21") sets it
 * in the host stand-in. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kelhost.h"
#include "keltime.h"

struct demo_form {
  const char *label;
  int32_t form;
  uint32_t orderAndOptions;
};

static const struct demo_form forms[] = {
    {"device setting", KEL_TIME_FORM_DEVICE, KEL_TIME_ORDER_DEVICE},
    {"year first, seconds", KEL_TIME_FORM_NUMBER,
     KEL_TIME_ORDER_YMD | KEL_TIME_SECONDS},
    {"month first, short year", KEL_TIME_FORM_NUMBER,
     KEL_TIME_ORDER_MDY | KEL_TIME_SHORT_YEAR | KEL_TIME_SEP_HYPHEN},
    {"month name, AM/PM", KEL_TIME_FORM_NAME,
     KEL_TIME_ORDER_DMY | KEL_TIME_AMPM_AFTER | KEL_TIME_SECONDS},
    {"unit words, AM/PM", KEL_TIME_FORM_UNITS,
     KEL_TIME_ORDER_YMD | KEL_TIME_AMPM_BEFORE},
    {"compact", KEL_TIME_FORM_NUMBER,
     KEL_TIME_ORDER_YMD | KEL_TIME_NO_SEPARATORS | KEL_TIME_SECONDS},
    {"time only", KEL_TIME_FORM_NUMBER,
     KEL_TIME_ORDER_YMD | KEL_TIME_NO_DATE | KEL_TIME_SECONDS},
};

int main(int argc, char **argv) {
  int arg = 1;
  if (argc > 2 && strcmp(argv[1], "-s") == 0) {
    int bad = kelHostStatusLoadFile(argv[2]);
    if (bad != 0) {
      fprintf(stderr, "%s: %s\n", argv[2], bad < 0 ? "can't be read" : "bad line");
      return 2;
    }
    arg = 3;
  }
  time_t now = argc > arg ? (time_t)strtoll(argv[arg], NULL, 10) : time(NULL);
  int status = 0;
  size_t i;
  for (i = 0; i < sizeof forms / sizeof forms[0]; i++) {
    char text[64];
    kelResult result = kelTIMEGetDayTimeStr(now, forms[i].form,
                                            forms[i].orderAndOptions,
                                            (uint32_t)sizeof text, text);
    if (result == KEL_OK) {
      printf("%-24s %s\n", forms[i].label, text);
    } else {
      printf("%-24s failed: 0x%08lx\n", forms[i].label, (unsigned long)result);
      status = 1;
    }
  }
  return status;
}
