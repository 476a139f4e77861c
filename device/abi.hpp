// The C ABI boundary: no exception may leave an exported function.
#pragma once

#include <exception>
#include <utility>

namespace veltrix {

// Runs body() and returns its result; any exception becomes fail_value. Every exported
// function body goes through here so a bug or an allocation failure cannot unwind into the
// caller's C code.
template <typename R, typename F>
R guarded(R fail_value, F&& body) noexcept {
  try {
    return std::forward<F>(body)();
  } catch (...) {
    return fail_value;
  }
}

}  // namespace veltrix
