// General-purpose pins: direction and pull, levels, and pulse trains.
#include "veltrix/gpio.h"

#include <cstdint>

#include "device/abi.hpp"
#include "device/wire.hpp"
#include "peripherals/command.hpp"

namespace veltrix::gpio {
namespace {

constexpr uint32_t kCmdSetInput = 0x600;
constexpr uint32_t kCmdSetOutput = 0x601;
constexpr uint32_t kCmdSetOpenDrain = 0x602;
constexpr uint32_t kCmdWrite = 0x603;
constexpr uint32_t kCmdRead = 0x604;
constexpr uint32_t kCmdSendPulses = 0x806;
constexpr size_t kLevelsBytes = 4;

int set_mode(uint32_t h, uint32_t cmd, uint32_t mask, uint8_t pull) {
  wire::PayloadBuilder b(5);
  b.be32(mask).u8(pull);
  return periph::ack(h, cmd, b.span());
}

int read(uint32_t h, uint32_t mask, unsigned int* out) {
  if (out == nullptr) return GPIO_ERR_PARAMETER;
  wire::PayloadBuilder b(4);
  b.be32(mask);
  uint8_t levels[kLevelsBytes];
  int n = periph::query(h, kCmdRead, b.span(), levels);
  if (n < 0) return n;
  if (size_t(n) != kLevelsBytes) return GPIO_ERR_REPLY;
  *out = wire::get_be32(levels);
  return GPIO_SUCCESS;
}

// The adapter answers after the last pulse: period (us) x count, plus the usual second.
int send_pulses(uint32_t h, uint32_t mask, uint32_t width, uint32_t period, uint32_t count) {
  // A period that leaves no low time would make one long pulse. The widest pulse has no
  // longer period to go to.
  if (period <= width) period = width == UINT32_MAX ? width : width + 1;
  wire::PayloadBuilder b(16);
  b.be32(mask).be32(width).be32(period).be32(count);
  return periph::ack(h, kCmdSendPulses, b.span(),
                     periph::clamp_timeout(int64_t(uint64_t(period) * count / 1000) + 1000));
}

}  // namespace
}  // namespace veltrix::gpio

using namespace veltrix;
using namespace veltrix::gpio;

VELTRIX_EXPORT(int, GPIO_SetInput, (unsigned int h, unsigned int mask, unsigned char pull),
               GPIO_ERR_REPLY, { return set_mode(h, kCmdSetInput, mask, pull); })

VELTRIX_EXPORT(int, GPIO_SetOutput, (unsigned int h, unsigned int mask, unsigned char pull),
               GPIO_ERR_REPLY, { return set_mode(h, kCmdSetOutput, mask, pull); })

VELTRIX_EXPORT(int, GPIO_SetOpenDrain, (unsigned int h, unsigned int mask, unsigned char pull),
               GPIO_ERR_REPLY, { return set_mode(h, kCmdSetOpenDrain, mask, pull); })

VELTRIX_EXPORT(int, GPIO_Write, (unsigned int h, unsigned int mask, unsigned int value),
               GPIO_ERR_REPLY, {
                 wire::PayloadBuilder b(8);
                 b.be32(mask).be32(value);
                 return periph::ack(h, kCmdWrite, b.span());
               })

VELTRIX_EXPORT(int, GPIO_Read, (unsigned int h, unsigned int mask, unsigned int* out),
               GPIO_ERR_REPLY, { return read(h, mask, out); })

VELTRIX_EXPORT(int, GPIO_SendPulses,
               (unsigned int h, unsigned int mask, unsigned int width, unsigned int period,
                unsigned int count),
               GPIO_ERR_REPLY, { return send_pulses(h, mask, width, period, count); })
