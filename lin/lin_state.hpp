// Process-wide state of the LIN family and the helpers every LIN operation starts with.
//
// The per-slot tables are written by LIN_EX_Init / LIN_Init and read by every operation;
// each entry is a relaxed atomic so a reader on another thread never sees a torn value.
// No lock is needed: an entry is one word and the adapter lock orders the exchanges.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "device/transport.hpp"
#include "veltrix/lin.h"

namespace veltrix::lin {

inline constexpr int kSlots = 30;

struct LinState {
  std::array<std::array<std::atomic<int32_t>, LIN_EX_MAX_CHANNELS>, kSlots> ex_baud{};
  std::array<std::array<std::atomic<uint8_t>, LIN_EX_MAX_CHANNELS>, kSlots> ex_init{};
  std::array<std::array<std::atomic<int32_t>, LIN_MAX_CHANNELS>, kSlots> old_baud{};
  std::array<std::atomic<uint8_t>, kSlots> use_new_api{};
  std::atomic<uint64_t> clamped_records{0};  // received records whose DataLen was cut
};

LinState& state();

// The registry slot of an open adapter's handle, or -1.
int slot_of(int handle);

// The one exchange of a LIN operation (the device handle is signed in this family).
ExchangeResult lin_exchange(int handle, const Exchange& x);

// Transport result to the LIN family's code (0, -2 or -4).
int lin_code(const ExchangeResult& r);
// The same for commands acknowledged by an empty reply: a payload is a failure (-4).
int lin_ack_code(const ExchangeResult& r);

// Where a channel operation stands after the common checks.
struct Channel {
  int code = 0;  // 0, or the LIN code to return
  int slot = -1;
};
// Slot valid and channel < LIN_EX_MAX_CHANNELS (-7); with need_init also the init flag (-5).
Channel check_channel(int handle, uint8_t channel, bool need_init);

}  // namespace veltrix::lin
