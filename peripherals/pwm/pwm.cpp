// PWM outputs (configuration, start/stop, pulse, frequency, phase) and the capture input.
#include "device/abi.hpp"
#include "device/wire.hpp"
#include "peripherals/command.hpp"
#include "peripherals/pwm/commands.hpp"
#include "peripherals/pwm/models.hpp"

namespace veltrix::pwm {
namespace {

constexpr size_t kCapBytes = 12;

// Eight 16-bit values, one per output, big-endian.
void put_values(wire::PayloadBuilder& b, const uint16_t* v) {
  for (int i = 0; i < kOutputs; ++i) b.be16(v[i]);
}

int cap_get(uint32_t h, uint8_t ch, PWM_CAP_DATA* out) {
  if (out == nullptr) return PWM_ERR_PARAMETER;
  const uint8_t payload[1] = {ch};
  uint8_t got[kCapBytes];
  int n = periph::query(h, kCmdCapGetData, payload, got);
  if (n < 0) return n;
  if (size_t(n) != kCapBytes) return PWM_ERR_REPLY;
  wire::PayloadReader r(got, kCapBytes);
  PWM_CAP_DATA d;
  d.PeriodTicks = r.be32();
  d.HighTicks = r.be32();
  d.ClockHz = r.be32();
  *out = d;
  return PWM_SUCCESS;
}

}  // namespace

// The record goes out as the adapter stores it: 16-bit values little-endian.
int init(uint32_t h, const PWM_CONFIG& c) {
  wire::PayloadBuilder b(kConfigBytes);
  for (auto* arr : {c.Prescaler, c.Precision, c.Pulse, c.Phase})
    for (int i = 0; i < kOutputs; ++i) b.le16(arr[i]);
  b.bytes(c.Polarity, kOutputs).u8(c.ChannelMask).u8(c.Reserved);
  return periph::ack(h, kCmdInit, b.span());
}

int start(uint32_t h, uint8_t mask, uint32_t run_time_us) {
  wire::PayloadBuilder b(5);
  b.u8(mask).be32(run_time_us);
  return periph::ack(h, kCmdStart, b.span());
}

int stop(uint32_t h, uint8_t mask) {
  const uint8_t payload[1] = {mask};
  return periph::ack(h, kCmdStop, payload);
}

int set_values(uint32_t h, uint32_t cmd, uint8_t mask, const uint16_t* a, const uint16_t* b) {
  if (a == nullptr) return PWM_ERR_PARAMETER;
  wire::PayloadBuilder p(33);
  p.u8(mask);
  put_values(p, a);
  if (b) put_values(p, b);
  return periph::ack(h, cmd, p.span());
}

}  // namespace veltrix::pwm

using namespace veltrix;
using namespace veltrix::pwm;

VELTRIX_EXPORT(int, PWM_Init, (unsigned int h, const PWM_CONFIG* c), PWM_ERR_REPLY, {
  if (c == nullptr) return int(PWM_ERR_PARAMETER);
  return init(h, *c);
})

VELTRIX_EXPORT(int, PWM_Start, (unsigned int h, unsigned char mask, unsigned int run_time),
               PWM_ERR_REPLY, { return start(h, mask, run_time); })

VELTRIX_EXPORT(int, PWM_Stop, (unsigned int h, unsigned char mask), PWM_ERR_REPLY,
               { return stop(h, mask); })

VELTRIX_EXPORT(int, PWM_SetPulse, (unsigned int h, unsigned char mask, const unsigned short* p),
               PWM_ERR_REPLY, { return set_values(h, kCmdSetPulse, mask, p, nullptr); })

VELTRIX_EXPORT(int, PWM_SetFrequency,
               (unsigned int h, unsigned char mask, const unsigned short* prescaler,
                const unsigned short* period),
               PWM_ERR_REPLY, {
                 if (prescaler == nullptr || period == nullptr) return int(PWM_ERR_PARAMETER);
                 return set_values(h, kCmdSetFrequency, mask, prescaler, period);
               })

VELTRIX_EXPORT(int, PWM_SetPhase, (unsigned int h, unsigned char mask, const unsigned short* p),
               PWM_ERR_REPLY, { return set_values(h, kCmdSetPhase, mask, p, nullptr); })

VELTRIX_EXPORT(unsigned char, PWM_GetChannelMask, (unsigned int h, unsigned char ch), 0,
               { return channel_mask(h, ch); })

VELTRIX_EXPORT(int, PWM_GetChannelIndex, (unsigned int h, unsigned char ch), 0,
               { return channel_index(h, ch); })

VELTRIX_EXPORT(unsigned int, PWM_GetMCUFrequency, (unsigned int h), 0u, { return timer_clock(h); })

VELTRIX_EXPORT(int, PWM_CAP_Init, (unsigned int h, unsigned char ch, unsigned char mode),
               PWM_ERR_REPLY, {
                 const uint8_t payload[2] = {ch, mode};
                 return periph::ack(h, kCmdCapInit, payload);
               })

VELTRIX_EXPORT(int, PWM_CAP_GetData, (unsigned int h, unsigned char ch, PWM_CAP_DATA* out),
               PWM_ERR_REPLY, { return cap_get(h, ch, out); })
