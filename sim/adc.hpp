// The virtual adapter's eight analog inputs, fed by waveforms and sampled at the
// configured rate, its continuous stream and an attached ADS1256.
//
// Samples are 16-bit little-endian, one per enabled input in input order, then the next
// set. Set k of an input (k counts from the last 0x500 or 0x502) is:
//   constant  value
//   ramp      value + k x step (wrapping at 16 bits), so a lost sample shows as a gap
//   sine      value + amplitude x sin(2 pi freq k / rate)
//   noise     value + amplitude x a uniform number in [-1, 1] from (seed, k)
// clamped to 0..65535. By default input i is a ramp starting at i x 0x1000, step 1.
//
// A stream pushes one frame on the bulk IN pipe as soon as its last sample is due in real
// time, from a thread of its own, until the stop request (vendor OUT 0x40), another start,
// or an unplug. Frames the host does not collect pile up to kAdcBacklogBytes; beyond that
// they are lost on the adapter and counted.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr int kAdcInputs = 8;
inline constexpr size_t kAdcBacklogBytes = 4u << 20;
inline constexpr size_t kAdcReadMaxBytes = 1u << 20;
inline constexpr int kAds1256Count = 2;

enum class Wave { Constant, Ramp, Sine, Noise };

struct Waveform {
  Wave kind = Wave::Ramp;
  double value = 0;
  double amplitude = 0;
  double freq_hz = 0;
  uint16_t step = 1;
  uint32_t seed = 1;
};

struct AdsConverter {
  std::vector<uint8_t> config;  // the 8 bytes after the index
  bool running = false;
  std::deque<int32_t> samples;  // handed out by the next read (24-bit range)
};

struct AdcStreamRun {
  std::atomic<bool> stop{false};
};

struct AdcSim {
  std::array<Waveform, kAdcInputs> inputs;
  uint8_t mask = 0;
  int32_t rate = 0;
  uint64_t next_sample = 0;  // samples taken (all inputs) since the last start

  // The stream.
  std::shared_ptr<AdcStreamRun> run;
  uint32_t frame_samples = 0;
  uint64_t frames_sent = 0;
  uint64_t frames_lost = 0;
  int stops = 0;  // stop requests seen

  std::array<AdsConverter, kAds1256Count> ads;

  AdcSim();
  uint16_t sample(int input, uint64_t set) const;
  // The next n samples across the enabled inputs, little-endian.
  std::vector<uint8_t> take(uint64_t n);
};

AdcSim& adc_sim(Model& m);  // caller holds sim_mutex()
void install_adc(Model& m);

}  // namespace veltrix::sim
