// The C ABI boundary: no exception may leave an exported function.
//
// Every exported function is defined through VELTRIX_EXPORT or VELTRIX_EXPORT_VOID, never
// by hand. The macro wraps the body in the guard and records the function's name in the
// library's "veltrix_exports" section; the test suite compares that list with the dynamic
// symbol table, so an export written without the guard fails the build's checks.
#pragma once

#include <exception>
#include <utility>

#include "veltrix/api.h"

namespace veltrix {

// Runs body() and returns its result; any exception becomes fail_value. A bug or an
// allocation failure must not unwind into the caller's C code.
template <typename R, typename F>
R guarded(R fail_value, F&& body) noexcept {
  try {
    return std::forward<F>(body)();
  } catch (...) {
    return fail_value;
  }
}

template <typename F>
void guarded_void(F&& body) noexcept {
  try {
    std::forward<F>(body)();
  } catch (...) {
  }
}

}  // namespace veltrix

// The name of each guarded export, as NUL-terminated strings packed into one section.
#define VELTRIX_EXPORT_ENTRY(name)                                                                 \
  [[gnu::used, gnu::section("veltrix_exports")]] static const char veltrix_export_entry_##name[] = \
      #name;

// VELTRIX_EXPORT(int, CAN_Init, (unsigned h, unsigned char port, CAN_CHANNEL_CONFIG* c),
//                CAN_ERR_USB_READ_FAIL, { return can::init(h, port, c); })
// defines the exported CAN_Init; the block is the body and may hold several statements.
#define VELTRIX_EXPORT(ret, name, params, fail, ...)                \
  VELTRIX_EXPORT_ENTRY(name)                                        \
  extern "C" VELTRIX_API ret name params {                          \
    return ::veltrix::guarded<ret>(fail, [&]() -> ret __VA_ARGS__); \
  }

#define VELTRIX_EXPORT_VOID(name, params, ...) \
  VELTRIX_EXPORT_ENTRY(name)                   \
  extern "C" VELTRIX_API void name params { ::veltrix::guarded_void([&]() -> void __VA_ARGS__); }
