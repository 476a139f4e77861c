// ADC set-up and one-shot reads.
#include <bit>

#include "device/abi.hpp"
#include "device/wire.hpp"
#include "peripherals/adc/adc_state.hpp"

namespace veltrix::adc {
namespace {

constexpr uint32_t kCmdInit = 0x500;
constexpr uint32_t kCmdRead = 0x501;
constexpr int kSingleSampleMs = 100;

int init(uint32_t h, uint8_t mask, int rate) {
  const int slot = periph::slot_of(h);
  if (slot < 0) return ADC_ERR_PARAMETER;
  wire::PayloadBuilder b(5);
  b.u8(mask).be32(uint32_t(rate));
  int code = periph::ack(h, kCmdInit, b.span());
  if (code != ADC_SUCCESS) return code;
  state().slots[slot].mask.store(mask);
  state().slots[slot].rate.store(rate);
  return ADC_SUCCESS;
}

// The adapter answers once the last sample is taken: (n - 1) sample periods after the
// first, plus a second.
int read_timeout_ms(int n, int rate) {
  if (n <= 1) return kSingleSampleMs;
  // Without a rate there is no sampling time to wait for: a stuck adapter must not hold
  // the caller forever.
  if (rate <= 0) return 1000;
  return periph::clamp_timeout(int64_t(n - 1) * 1000 / rate + 1000);
}

int read(uint32_t h, short* out, int n) {
  const int slot = periph::slot_of(h);
  if (slot < 0 || out == nullptr || n <= 0) return ADC_ERR_PARAMETER;
  const int inputs = std::popcount(state().slots[slot].mask.load());
  if (inputs == 0) return ADC_ERR_PARAMETER;
  const size_t samples = size_t(n) * size_t(inputs);
  if (samples * 2 > kMaxReplyBytes) return ADC_ERR_PARAMETER;
  wire::PayloadBuilder b(4);
  b.be32(uint32_t(n));
  int got = periph::query(h, kCmdRead, b.span(), {reinterpret_cast<uint8_t*>(out), samples * 2},
                          read_timeout_ms(n, state().slots[slot].rate.load()));
  if (got < 0) return got;
  return size_t(got) == samples * 2 ? int(samples) : ADC_ERR_REPLY;
}

}  // namespace
}  // namespace veltrix::adc

using namespace veltrix;
using namespace veltrix::adc;

VELTRIX_EXPORT(int, ADC_Init, (unsigned int h, unsigned char mask, int rate), ADC_ERR_REPLY,
               { return init(h, mask, rate); })

VELTRIX_EXPORT(int, ADC_Read, (unsigned int h, short* out, int n), ADC_ERR_REPLY,
               { return read(h, out, n); })
