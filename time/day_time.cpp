// kelTIMEGetDayTimeStr: checks the arguments, composes the format text
// and expands it for the local time of the caller's time value.

#include "keltime.h"

#include <string.h>

#include "kel_os.h"
#include "time_internal.h"

extern "C" KEL_API kelResult kelTIMEGetDayTimeStr(time_t time, int32_t dateForm,
                                                  uint32_t orderAndOptions,
                                                  uint32_t length, char *buffer) {
  // A null buffer is no buffer at all, whatever length comes with it.
  if (length == 0 || buffer == nullptr) return KEL_TIME_ERR_BUFFER;
  memset(buffer, 0, length);

  int32_t form = 0;
  int32_t order = 0;
  kelResult result = kelTIMECheckArguments(dateForm, orderAndOptions, &form, &order);
  if (result != KEL_OK) return result;

  const char *format =
      kelTIMEComposeFormat(form, order, orderAndOptions & KEL_TIME_OPTIONS_MASK);
  if (format == nullptr) return KEL_TIME_ERR_NO_FORMAT;

  // A record that the conversion leaves alone reads as zeros.
  struct tm record;
  memset(&record, 0, sizeof record);
  orvCLBLocalTime_r(&time, &record);
  return kelTIMEExpandFormat(&record, format, length, buffer);
}
