// Shared by the reply fuzzer and its seed writer: the fixed adapters, the description
// files loaded against them, and the layout of one input.
//
// Input layout: one byte choosing how many steps run (1 + byte % kMaxSteps), then per step
// kStepBytes bytes (operation, adapter, argument bytes), then the raw bytes the adapter's
// IN endpoint delivers, shared by the steps in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/reply/fake_usb.hpp"
#include "fuzz/reply/ops.hpp"

namespace veltrix::fuzz {

inline constexpr size_t kMaxSteps = 3;
inline constexpr size_t kArgBytes = 24;
inline constexpr size_t kStepBytes = 2 + kArgBytes;

// Finds and opens both adapters and loads the descriptions; every command is acknowledged
// with an empty reply meanwhile. Runs once.
void set_up();

// The firmware version each adapter reports. It decides the command set of the older LIN
// calls: the classic adapter plays firmware before the newer LIN commands, the CAN FD
// model firmware after, so both sets are fuzzed.
uint32_t firmware_of(uint32_t serial);

// Puts the host state back to the same starting point before each input: the older LIN
// interface set up on channels 0 and 1 (so each adapter's command set is chosen), every
// LIN channel set up as master at 19200 baud, receive queues empty. `answer` replies to
// the commands this sends; nothing answers afterwards until the caller sets a responder.
void restore_baseline(const Responder& answer);
// A responder that acknowledges every command with an empty reply, except the identity
// request, which it answers with a record carrying firmware_of() the adapter.
Responder acknowledge_everything();

// The target of a step's adapter byte.
Target target(uint8_t selector);

// Runs the steps of an input; the IN bytes must already be queued.
void run_steps(std::span<const uint8_t> steps, size_t count);

}  // namespace veltrix::fuzz
