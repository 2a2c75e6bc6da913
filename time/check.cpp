// Argument checks of the date and time call: date form, date order and
// option pairs, with the device's setting standing in for a 0.

#include <stdint.h>

#include "kel_status.h"
#include "time_internal.h"

namespace {

// A form or order that stands as the caller gave it.
bool isNamed(int32_t value) { return value == 1 || value == 2 || value == 4; }

// A nibble of the device's setting: 0, 1, 2 for 1, 2, 4; else 0.
int32_t fromNibble(unsigned nibble) { return nibble <= 2 ? 1 << nibble : 0; }

// One read of the setting byte: low nibble form, high nibble order.
kelResult readSetting(uint8_t *setting) {
  *setting = 0;
  int status = vaxoSTCGetStatus(KEL_STATUS_CLIENT, KEL_STATUS_DATE_FORM, setting);
  return static_cast<kelResult>(status);
}

// The refused pairs of option bits, tested in this order.
const uint32_t kRefusedPairs[][2] = {
    {KEL_TIME_NO_DATE, KEL_TIME_NO_TIME},
    {KEL_TIME_AMPM_BEFORE, KEL_TIME_AMPM_AFTER},
    {KEL_TIME_SEP_HYPHEN, KEL_TIME_SEP_SPACE},
};

}  // namespace

extern "C" kelResult kelTIMECheckArguments(int32_t dateForm,
                                           uint32_t orderAndOptions,
                                           int32_t *form, int32_t *order) {
  uint8_t setting = 0;
  if (isNamed(dateForm)) {
    *form = dateForm;
  } else if (dateForm == KEL_TIME_FORM_DEVICE) {
    kelResult status = readSetting(&setting);
    if (status != KEL_OK) return status;
    *form = fromNibble(setting & 0x0fu);
    if (*form == 0) return KEL_TIME_ERR_SETTING;
  } else {
    return KEL_TIME_ERR_FORM;
  }

  int32_t dateOrder = static_cast<int32_t>(orderAndOptions & KEL_TIME_ORDER_MASK);
  if (isNamed(dateOrder)) {
    *order = dateOrder;
  } else if (dateOrder == KEL_TIME_ORDER_DEVICE) {
    // Read afresh, also when the form was just read.
    kelResult status = readSetting(&setting);
    if (status != KEL_OK) return status;
    *order = fromNibble(setting >> 4);
    if (*order == 0) return KEL_TIME_ERR_SETTING;
  } else {
    return KEL_TIME_ERR_ORDER;
  }

  uint32_t options = orderAndOptions & KEL_TIME_OPTIONS_MASK;
  for (const uint32_t *pair : kRefusedPairs)
    if ((options & pair[0]) && (options & pair[1])) return KEL_TIME_ERR_OPTIONS;
  return KEL_OK;
}
