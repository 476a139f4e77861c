// The operations the reply fuzzer runs: every call of the library that reads an adapter
// reply, each with its arguments drawn from a few bytes of the fuzz input and its result
// checked against the codes its header documents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "veltrix/ldf.h"

namespace veltrix::fuzz {

// Argument bytes of one operation; reads past the end give zeros.
class Args {
 public:
  explicit Args(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  uint8_t u8() { return pos_ < bytes_.size() ? bytes_[pos_++] : 0; }
  uint16_t u16() { return uint16_t(u8() | u8() << 8); }
  uint32_t u32() { return uint32_t(u16()) | uint32_t(u16()) << 16; }
  // A value in [lo, hi].
  int range(int lo, int hi) { return lo + int(u16() % unsigned(hi - lo + 1)); }

 private:
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
};

struct Target {
  uint32_t handle;     // the adapter the operation talks to
  LDF_CODING* master;  // a description loaded with the adapter as master
  LDF_CODING* slave;   // the same description with the adapter as slave
};

struct Op {
  const char* name;
  void (*run)(const Target&, Args&);
};

std::span<const Op> ops();

// Stops the process, naming the operation being run, when a result is not one its header
// allows: a count in [0, max_count] or one of the listed failure codes.
void expect(int result, int max_count, std::initializer_list<int> failures);
// The operation expect() names in its report.
void set_current_op(const char* name);

}  // namespace veltrix::fuzz
