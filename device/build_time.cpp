#include "device/build_time.hpp"

#include <cstdio>
#include <cstring>

#include "device/abi.hpp"
#include "veltrix/device.h"

namespace veltrix {

void format_build_time(const char* date, const char* time, char* out, size_t size) {
  static const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char month_name[4] = {0};
  int day = 0;
  int year = 0;
  std::sscanf(date, "%3s %d %d", month_name, &day, &year);
  int month = 0;
  for (int i = 0; i < 12; ++i)
    if (std::strcmp(month_name, kMonths[i]) == 0) month = i + 1;
  std::snprintf(out, size, "%04d-%02d-%02d %s", year - 1900, month, day, time);
}

}  // namespace veltrix

VELTRIX_EXPORT(int, DEV_GetDllBuildTime, (char* out), 1, {
  if (out != nullptr) veltrix::format_build_time(__DATE__, __TIME__, out, DEV_BUILD_TIME_SIZE);
  return 1;
})
