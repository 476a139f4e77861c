// The library's build time as DEV_GetDllBuildTime reports it.
#pragma once

#include <cstddef>

namespace veltrix {

// Formats a compiler date ("Mar 15 2023") and time ("18:27:42") as "0123-03-15 18:27:42"
// into out (at least 20 bytes). The year counts from 1900 on purpose: existing programs
// compare against that form. An unknown month name gives month 0.
void format_build_time(const char* date, const char* time, char* out, size_t size);

}  // namespace veltrix
