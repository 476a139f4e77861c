#include "sim/adc.hpp"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <numbers>
#include <thread>

#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

using Clock = std::chrono::steady_clock;

Reply ack(const Command& c) { return Reply{c.code, {}}; }

// A small deterministic hash, so noise is the same for the same (seed, set).
double unit_noise(uint32_t seed, uint64_t k) {
  uint64_t x = (uint64_t(seed) << 32) ^ k;
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return double(x >> 11) / double(1ULL << 53) * 2.0 - 1.0;
}

// Pushes each frame when its last sample is due, until told to stop or unplugged.
void produce(Model* m, std::shared_ptr<AdcStreamRun> run, double frame_seconds, uint64_t plug) {
  const Clock::time_point start = Clock::now();
  uint64_t frames = 0;
  while (!run->stop.load()) {
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const uint64_t due = uint64_t(elapsed / frame_seconds);
    while (frames < due && !run->stop.load()) {
      std::scoped_lock g(sim_mutex());
      // An unplug ends the stream, even if the adapter is back by now.
      if (run->stop.load() || m->plug_generation() != plug) return;
      AdcSim& s = adc_sim(*m);
      std::vector<uint8_t> frame = s.take(s.frame_samples);
      ++frames;
      if (m->stream_backlog() > kAdcBacklogBytes) {
        ++s.frames_lost;
        continue;
      }
      if (!m->stream_in(frame.data(), frame.size())) return;  // unplugged
      ++s.frames_sent;
    }
    const auto next =
        start + std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(frame_seconds * double(frames + 1)));
    std::this_thread::sleep_until(std::min(next, Clock::now() + std::chrono::milliseconds(2)));
  }
}

void stop_stream(AdcSim& s) {
  if (s.run) s.run->stop.store(true);
  s.run.reset();
}

std::optional<Reply> start_stream(Model& m, const Command& c) {
  if (c.payload.size() != 9) return std::nullopt;
  AdcSim& s = adc_sim(m);
  stop_stream(s);
  s.mask = c.payload[0];
  s.rate = int32_t(wire::get_be32(c.payload.data() + 1));
  s.frame_samples = wire::get_be32(c.payload.data() + 5);
  s.next_sample = 0;
  const int inputs = std::popcount(s.mask);
  if (inputs == 0 || s.rate <= 0 || s.frame_samples == 0 || s.frame_samples > 10240)
    return std::nullopt;
  s.run = std::make_shared<AdcStreamRun>();
  const double frame_seconds = double(s.frame_samples) / (double(s.rate) * inputs);
  // The model outlives the thread (the testbed keeps every model); the run flag ends it.
  std::thread(produce, &m, s.run, frame_seconds, m.plug_generation()).detach();
  return ack(c);
}

}  // namespace

AdcSim::AdcSim() {
  for (int i = 0; i < kAdcInputs; ++i) inputs[i].value = i * 0x1000;
}

uint16_t AdcSim::sample(int input, uint64_t k) const {
  const Waveform& w = inputs[input];
  double v = w.value;
  switch (w.kind) {
    case Wave::Constant:
      break;
    case Wave::Ramp:
      return uint16_t(uint64_t(w.value) + k * w.step);
    case Wave::Sine:
      v += w.amplitude *
           std::sin(2 * std::numbers::pi * w.freq_hz * double(k) / double(std::max(rate, 1)));
      break;
    case Wave::Noise:
      v += w.amplitude * unit_noise(w.seed, k);
      break;
  }
  return uint16_t(std::clamp(std::lround(v), 0L, 65535L));
}

std::vector<uint8_t> AdcSim::take(uint64_t n) {
  int enabled[kAdcInputs];
  int count = 0;
  for (int i = 0; i < kAdcInputs; ++i)
    if (mask >> i & 1) enabled[count++] = i;
  std::vector<uint8_t> out(n * 2);
  if (count == 0) return out;
  for (uint64_t i = 0; i < n; ++i, ++next_sample)
    wire::put_le16(out.data() + 2 * i,
                   sample(enabled[next_sample % count], next_sample / uint64_t(count)));
  return out;
}

AdcSim& adc_sim(Model& m) { return m.state<AdcSim>(); }

void install_adc(Model& m) {
  m.on(0x500, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 5) return std::nullopt;
    AdcSim& s = adc_sim(m);
    s.mask = c.payload[0];
    s.rate = int32_t(wire::get_be32(c.payload.data() + 1));
    s.next_sample = 0;
    return ack(c);
  });
  m.on(0x501, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 4) return std::nullopt;
    AdcSim& s = adc_sim(m);
    const uint64_t n = uint64_t(wire::get_be32(c.payload.data())) * std::popcount(s.mask);
    if (n == 0 || n * 2 > kAdcReadMaxBytes) return std::nullopt;
    return Reply{c.code, s.take(n)};
  });
  m.on(0x502, start_stream);
  m.on_control(0x41, 0x40, [](Model& m, const ControlRequest&) {
    AdcSim& s = adc_sim(m);
    stop_stream(s);
    ++s.stops;
    // What the host has not collected is gone with the stream; it must not be read as
    // the reply to the next command.
    m.drop_stream();
    return true;
  });
  m.on(0x219, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 9 || c.payload[0] >= kAds1256Count) return std::nullopt;
    adc_sim(m).ads[c.payload[0]].config.assign(c.payload.begin() + 1, c.payload.end());
    return ack(c);
  });
  m.on(0x21A, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 1 || c.payload[0] >= kAds1256Count) return std::nullopt;
    adc_sim(m).ads[c.payload[0]].running = true;
    return ack(c);
  });
  m.on(0x21B, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 1 || c.payload[0] >= kAds1256Count) return std::nullopt;
    auto& q = adc_sim(m).ads[c.payload[0]].samples;
    Reply r{c.code, {}};
    for (; !q.empty() && r.payload.size() < 1024 * 3; q.pop_front()) {
      const uint32_t v = uint32_t(q.front()) & 0xFFFFFF;
      r.payload.insert(r.payload.end(), {uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    return r;
  });
  m.on(0x21C, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 1 || c.payload[0] >= kAds1256Count) return std::nullopt;
    adc_sim(m).ads[c.payload[0]].running = false;
    return ack(c);
  });
}

}  // namespace veltrix::sim
