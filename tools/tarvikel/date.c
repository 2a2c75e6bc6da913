/* tarvikel date: a time value as the device shows it, in a date form, a
 * date order and options named on the command line. */
#define _GNU_SOURCE
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cmd.h"
#include "keltime.h"

#define F TK_FAMILY_TIME

static const char kHelp[] =
    "Usage: tarvikel date [options] [SECONDS]\n"
    "Shows the local time of SECONDS since 1970 (default: now) as the device\n"
    "does. The device's own form and order come from DATE_FORM.\n"
    "\n"
    "  -f, --form NAME        device, number (2024/03/05), name (2024/Mar/05),\n"
    "                         units (2024年03月05日); default device\n"
    "  -r, --order NAME       device, ymd, mdy, dmy; default device\n"
    "  -o, --option NAME,...  no-date, no-time, ampm-before, ampm-after,\n"
    "                         short-year, hyphen, space, no-separators, seconds\n"
    "\n" TK_COMMON_HELP;

struct name {
  const char *name;
  uint32_t value;
};
static const struct name kForms[] = {{"device", KEL_TIME_FORM_DEVICE},
                                     {"number", KEL_TIME_FORM_NUMBER},
                                     {"name", KEL_TIME_FORM_NAME},
                                     {"units", KEL_TIME_FORM_UNITS}};
static const struct name kOrders[] = {{"device", KEL_TIME_ORDER_DEVICE},
                                      {"ymd", KEL_TIME_ORDER_YMD},
                                      {"mdy", KEL_TIME_ORDER_MDY},
                                      {"dmy", KEL_TIME_ORDER_DMY}};
static const struct name kOptions[] = {
    {"no-date", KEL_TIME_NO_DATE},         {"no-time", KEL_TIME_NO_TIME},
    {"ampm-before", KEL_TIME_AMPM_BEFORE}, {"ampm-after", KEL_TIME_AMPM_AFTER},
    {"short-year", KEL_TIME_SHORT_YEAR},   {"hyphen", KEL_TIME_SEP_HYPHEN},
    {"space", KEL_TIME_SEP_SPACE},         {"no-separators", KEL_TIME_NO_SEPARATORS},
    {"seconds", KEL_TIME_SECONDS}};

static uint32_t gForm, gOrder, gOptions;

static int lookup(const struct name *table, size_t count, const char *what, const char *name,
                  size_t length, uint32_t *value) {
  size_t i;
  for (i = 0; i < count; i++)
    if (strlen(table[i].name) == length && strncmp(table[i].name, name, length) == 0) {
      *value = table[i].value;
      return TK_GO_ON;
    }
  return tk_usage("unknown %s '%.*s'", what, (int)length, name);
}

static int option(int c, const char *argument) {
  uint32_t bit = 0;
  int status = TK_GO_ON;
  switch (c) {
    case 'f': return lookup(kForms, 4, "form", argument, strlen(argument), &gForm);
    case 'r': return lookup(kOrders, 4, "order", argument, strlen(argument), &gOrder);
    case 'o':
      for (const char *at = argument; status == TK_GO_ON && *at; at += *at == ',') {
        size_t length = strcspn(at, ",");
        status = lookup(kOptions, sizeof kOptions / sizeof kOptions[0], "option", at, length, &bit);
        gOptions |= bit;
        at += length;
      }
      return status;
  }
  return TK_USAGE;
}

int tk_date(int argc, char **argv) {
  static const struct option options[] = {TK_COMMON_OPTIONS,
                                          {"form", required_argument, 0, 'f'},
                                          {"order", required_argument, 0, 'r'},
                                          {"option", required_argument, 0, 'o'},
                                          {0, 0, 0, 0}};
  int status = tk_parse(argc, argv, TK_COMMON_SHORT "f:r:o:", options, kHelp, option);
  if (status != TK_GO_ON) return status;
  if (argc - optind > 1) return tk_usage("one time value at most");
  time_t when = time(NULL);
  if (optind < argc) {
    char *end = NULL;
    long long seconds = strtoll(argv[optind], &end, 10);
    if (*end != 0 || end == argv[optind]) return tk_usage("'%s' is no count of seconds", argv[optind]);
    when = (time_t)seconds;
    if ((long long)when != seconds) return tk_usage("%s is out of this system's time range", argv[optind]);
  }
  if ((status = tk_settings_load()) != TK_OK) return status;
  char text[128];
  kelResult r = tk_step(kelTIMEGetDayTimeStr(when, (int32_t)gForm, gOrder | gOptions, sizeof text, text),
                        F, "kelTIMEGetDayTimeStr(%lld, form %u, order and options 0x%X)",
                        (long long)when, (unsigned)gForm, (unsigned)(gOrder | gOptions));
  if (r != KEL_OK) return tk_failed(r, F);
  printf("%s\n", text);
  return TK_OK;
}
