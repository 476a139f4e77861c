// A stand-in for libusb in the reply fuzzer: two adapters that are always present and
// always accept commands, whose bulk IN endpoint serves whatever bytes the harness queued.
// No USB stack, no kernel, no waiting: an IN transfer with nothing queued times out at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace veltrix::fuzz {

// Serials of the two adapters: a classic model and a CAN FD model (top byte 0x53), so the
// CAN calls also take the path that hands them to the CAN FD commands.
inline constexpr uint32_t kClassicSerial = 0x31A00001u;
inline constexpr uint32_t kFdSerial = 0x53A00002u;

// Called for every command frame written to an adapter (its serial, the endpoint, the
// code and the payload). A responder may queue the reply with queue_in().
using Responder =
    std::function<void(uint32_t serial, uint8_t ep, uint32_t cmd, std::span<const uint8_t>)>;

void set_responder(Responder r);
// Drops everything queued and not yet read.
void reset_in();
void queue_in(std::span<const uint8_t> bytes);
// Queues a reply frame: code and length big-endian, then the payload.
void queue_reply(uint32_t cmd, std::span<const uint8_t> payload);
// How many command frames were written since the last reset_in().
size_t commands_written();

}  // namespace veltrix::fuzz
