// Reader for recorded bus-traffic list files: comma-separated text, one frame a line,
// replayed as a list of LIN_EX_MSG records.
#pragma once

#include <cstddef>
#include <string_view>

namespace veltrix::lin {

// The first line of a list file, up to its first line break or comma.
inline constexpr std::string_view kListFileHeader = "Vehicle Spy 3 Bus Traffic File";

// Only this much of the first line is looked at.
inline constexpr size_t kHeaderLineMax = 1023;
// A data line longer than this cannot be a frame record; it is skipped unread, so one
// endless line cannot take the process's memory.
inline constexpr size_t kDataLineMax = 64 * 1024;

// Field positions of a data line.
inline constexpr size_t kFieldLine = 0;
inline constexpr size_t kFieldTime = 1;
inline constexpr size_t kFieldId = 9;
inline constexpr size_t kFieldData = 12;  // 12..19
inline constexpr size_t kMinFields = 23;

}  // namespace veltrix::lin
