// An ADS1256 converter attached to the adapter.
#include "device/abi.hpp"
#include "device/wire.hpp"
#include "peripherals/command.hpp"
#include "veltrix/adc.h"

namespace veltrix::adc {
namespace {

constexpr uint32_t kCmdInit = 0x219;
constexpr uint32_t kCmdStart = 0x21A;
constexpr uint32_t kCmdRead = 0x21B;
constexpr uint32_t kCmdStop = 0x21C;
constexpr int kSlowReplyMs = 2000;  // the converter calibrates itself on init and stop
constexpr size_t kSampleBytes = 3;

// 24-bit two's complement, most significant byte first:
//   byte 0: s d22..d16   byte 1: d15..d8   byte 2: d7..d0
int32_t sign_extend24(const uint8_t* p) {
  const uint32_t raw = uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
  return int32_t(raw ^ 0x800000u) - 0x800000;
}

int init(uint32_t h, uint8_t idx, const ADS1256_CONFIG* c) {
  if (c == nullptr) return ADC_ERR_PARAMETER;
  wire::PayloadBuilder b(9);
  b.u8(idx).be16(c->SampleRate).u8(c->Gain).u8(c->BufferEn).be32(c->Channels);
  return periph::ack(h, kCmdInit, b.span(), kSlowReplyMs);
}

int read(uint32_t h, uint8_t idx, int* out) {
  if (out == nullptr) return ADC_ERR_PARAMETER;
  const uint8_t payload[1] = {idx};
  uint8_t raw[ADS1256_READ_MAX_SAMPLES * kSampleBytes];
  int n = periph::query(h, kCmdRead, payload, raw);
  if (n < 0) return n;
  const int samples = n / int(kSampleBytes);
  for (int i = 0; i < samples; ++i) out[i] = sign_extend24(raw + size_t(i) * kSampleBytes);
  return samples;
}

}  // namespace
}  // namespace veltrix::adc

using namespace veltrix;
using namespace veltrix::adc;

VELTRIX_EXPORT(int, ADS1256_Init, (unsigned int h, unsigned char idx, const ADS1256_CONFIG* c),
               ADC_ERR_REPLY, { return init(h, idx, c); })

VELTRIX_EXPORT(int, ADS1256_Start, (unsigned int h, unsigned char idx), ADC_ERR_REPLY, {
  const uint8_t payload[1] = {idx};
  return periph::ack(h, kCmdStart, payload);
})

VELTRIX_EXPORT(int, ADS1256_Read, (unsigned int h, unsigned char idx, int* out), ADC_ERR_REPLY,
               { return read(h, idx, out); })

VELTRIX_EXPORT(int, ADS1256_Stop, (unsigned int h, unsigned char idx), ADC_ERR_REPLY, {
  const uint8_t payload[1] = {idx};
  return periph::ack(h, kCmdStop, payload, kSlowReplyMs);
})
