// Message lengths 0..5000 through the library, libusb and the virtual adapter's diagnostic
// ECU in echo mode: normal and extended addressing, classic 8-byte frames and 64-byte CAN
// FD frames; every length in every mode (see kModes). Each (mode, shard) is a
// test case of its own, so CTest runs the shards in parallel, one opened adapter per
// process. Time runs on a virtual clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "protocols/isotp_clock.hpp"
#include "sim/uds_server.hpp"
#include "tests/can/can_fixture.hpp"
#include "veltrix/can_uds.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kLongest = 5000;
constexpr unsigned kShards = 8;
// Every mode takes every length, and every boundary of its frame kinds is named again in
// case a stride skips it. A sanitizer build, several times slower, takes every
// VELTRIX_SWEEP_STRIDE_SCALE-th length only (the boundaries still all).
#ifndef VELTRIX_SWEEP_STRIDE_SCALE
#define VELTRIX_SWEEP_STRIDE_SCALE 1
#endif
constexpr uint32_t kScale = VELTRIX_SWEEP_STRIDE_SCALE;

uint64_t g_now_us = 0;
uint64_t fake_now() { return g_now_us; }
void fake_sleep(uint32_t us) { g_now_us += us; }

struct Mode {
  const char* name;
  bool extended;
  bool fd;
  uint32_t stride, residue;  // the lengths n with n % stride == residue, and the boundaries
};

const Mode kModes[] = {{"classic_normal", false, false, kScale, 0},
                       {"classic_ext", true, false, kScale, 1 % kScale},
                       {"fd64_normal", false, true, kScale, 2 % kScale},
                       {"fd64_ext", true, true, kScale, 3 % kScale}};

// Payload per frame kind, written out from the frame tables rather than taken from the
// library, so the frame counts below check its planning too.
struct Capacity {
  uint32_t single, first, first_escaped, consecutive;
};
Capacity capacity(const Mode& m) {
  const uint32_t x = m.extended ? 1 : 0;
  if (!m.fd) return {7 - x, 6 - x, 2 - x, 7 - x};
  return {62 - x, 62 - x, 58 - x, 63 - x};
}

// Frames of an n-byte message.
uint32_t frames_of(const Mode& m, uint32_t n) {
  const Capacity c = capacity(m);
  if (n <= c.single) return 1;
  const uint32_t first = n > 4095 ? c.first_escaped : c.first;
  return 1 + (n - first + c.consecutive - 1) / c.consecutive;
}

// The lengths where a frame kind, the escape length, a sequence wrap or a batch of 20
// ends, each with its neighbours.
std::vector<uint32_t> boundaries(const Mode& m) {
  const Capacity c = capacity(m);
  std::vector<uint32_t> v{0, 1, 2, 4094, 4095, 4096, 4097, kLongest - 1, kLongest};
  for (uint32_t cfs : {1u, 15u, 16u, 20u, 21u, 40u}) {
    const uint32_t at = c.first + cfs * c.consecutive;
    v.insert(v.end(), {at - 1, at, at + 1});
  }
  v.insert(v.end(), {c.single - 1, c.single, c.single + 1});
  return v;
}

// The mode's lengths in ascending order.
std::vector<uint32_t> lengths(const Mode& m) {
  std::vector<uint32_t> v = boundaries(m);
  for (uint32_t n = m.residue; n <= kLongest; n += m.stride) v.push_back(n);
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  return v;
}

Bytes message(uint32_t n) {
  Bytes b(n);
  for (uint32_t i = 0; i < n; ++i) b[i] = uint8_t(i * 13 + n);  // differs per length
  return b;
}

// Frames the library put on the bus since the record was cleared.
size_t frames_sent(const sim::Model& m, bool fd) {
  size_t n = 0;
  for (const Bytes& p : payloads(m, fd ? 0x4002 : 0x0C02))
    n += fd ? (p.size() > 11 ? p[11] : 0) : (p.size() - 1) / 20;
  return n;
}

struct Shard {
  Mode mode;
  unsigned index;
};

class IsoTpSweep : public CanTest, public ::testing::WithParamInterface<Shard> {
 protected:
  void SetUp() override {
    CanTest::SetUp();
    isotp::active_clock = {fake_now, fake_sleep};
  }
  void TearDown() override { isotp::active_clock = isotp::system_clock(); }
};

TEST_P(IsoTpSweep, EchoOfEveryLengthComesBackExactly) {
  const Mode& m = GetParam().mode;
  const uint32_t dev = m.fd ? kFdModel : kClassic;
  auto model = m.fd ? open_fd(dev) : open_both(dev);
  CAN_UDS_ADDR a{0x7E0, 0x7E8, 0, 0, 0, 8};
  if (m.fd) {
    a.IdFlags = CAN_UDS_ID_BRS | CAN_UDS_ID_FD;
    a.FrameLength = 64;
  }
  if (m.extended) {
    a.ExtAddressing = 1;
    a.AddressExtension = 0xE0;
  }
  {
    std::scoped_lock g(sim::sim_mutex());
    sim::UdsServer& s = sim::uds_server(*model);
    s.enabled = true;
    s.echo = true;
    s.ext_addressing = m.extended;
    s.frame_length = m.fd ? 64 : 0;
  }
  Bytes out(kLongest + 64);
  const std::vector<uint32_t> all = lengths(m);
  ASSERT_GT(all.size(), GetParam().index);
  for (size_t i = GetParam().index; i < all.size(); i += kShards) {
    const uint32_t n = all[i];
    const Bytes msg = message(n);
    model->clear_record();
    ASSERT_EQ(CAN_UDS_Request(dev, 0, &a, msg.data(), int(n)), 0) << "length " << n;
    // An empty single frame carries no request: the ECU stays silent.
    const unsigned timeout_ms = n == 0 ? 5 : 1000;
    const int got =
        CAN_UDS_ResponseWithSize(dev, 0, &a, out.data(), unsigned(out.size()), timeout_ms);
    if (n == 0) {
      ASSERT_EQ(got, CAN_UDS_ERR_TIMEOUT);
      ASSERT_EQ(frames_sent(*model, m.fd), 1u);
      continue;
    }
    ASSERT_EQ(got, int(n)) << "length " << n;
    ASSERT_TRUE(std::equal(msg.begin(), msg.end(), out.begin())) << "length " << n;
    // The request's frames, and a flow control for an answer of several frames.
    const size_t want = frames_of(m, n) + (frames_of(m, n) > 1 ? 1 : 0);
    ASSERT_EQ(frames_sent(*model, m.fd), want) << "length " << n;
  }
}

std::vector<Shard> shards() {
  std::vector<Shard> v;
  for (const Mode& m : kModes)
    for (unsigned i = 0; i < kShards; ++i) v.push_back({m, i});
  return v;
}
INSTANTIATE_TEST_SUITE_P(Lengths, IsoTpSweep, ::testing::ValuesIn(shards()), [](const auto& info) {
  return std::string(info.param.mode.name) + "_shard" + std::to_string(info.param.index);
});

}  // namespace
}  // namespace veltrix::test
