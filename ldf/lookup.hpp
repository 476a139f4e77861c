// Lookups by exact, case-sensitive name in file order; the first match wins.
#pragma once

#include <cstring>

#include "veltrix/ldf.h"

namespace veltrix::ldf {

inline bool same_name(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

inline LDF_LIN_FRAME* find_frame(const LDF_CODING& c, const char* name) {
  for (int i = 0; i < c.FrameNum; ++i)
    if (same_name(c.Frames[i].Name, name)) return &c.Frames[i];
  return nullptr;
}

inline LDF_LIN_SIGNAL* find_signal(const LDF_LIN_FRAME& f, const char* name) {
  for (int i = 0; i < f.SignalNum; ++i)
    if (same_name(f.Signals[i].Name, name)) return &f.Signals[i];
  return nullptr;
}

inline LDF_LIN_SCH* find_schedule(const LDF_CODING& c, const char* name) {
  for (int i = 0; i < c.SchNum; ++i)
    if (same_name(c.Schs[i].Name, name)) return &c.Schs[i];
  return nullptr;
}

// Copies a NUL-terminated name; a null name copies as "".
inline void copy_name(char* out, const char* name) {
  if (!name) name = "";
  std::memcpy(out, name, std::strlen(name) + 1);
}

}  // namespace veltrix::ldf
