// Schedules stored in the adapter (by command and through the schedule flash) and the
// relay switch and rule set, for classic and CAN FD adapters.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "sim/device_services.hpp"
#include "sim/schedule_runner.hpp"
#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

constexpr uint32_t kFd = 0x53000001;

struct ScheduleSet {
  std::vector<CAN_MSG> frames;
  std::vector<uint8_t> counts;
  std::vector<uint8_t> params;
};

// `tables` tables of the given sizes; frame i has id i and timing value period_ms.
ScheduleSet make_set(std::vector<uint8_t> counts, uint32_t period_ms = 0) {
  ScheduleSet s;
  s.counts = counts;
  const size_t n = std::accumulate(counts.begin(), counts.end(), size_t(0));
  for (size_t i = 0; i < n; ++i) {
    CAN_MSG m = can_frame(uint32_t(i & 0x7FF), {uint8_t(i), 0x5C});
    m.TimeStamp = period_ms;
    s.frames.push_back(m);
  }
  for (size_t t = 0; t < counts.size(); ++t) {
    s.params.push_back(uint8_t(0xA0 + t));
    s.params.push_back(uint8_t(0xB0 + t));
  }
  return s;
}

int load(uint32_t h, uint8_t port, ScheduleSet& s) {
  return CAN_SetSchedule(h, port, s.frames.data(), s.counts.data(), s.params.data(),
                         uint8_t(s.counts.size()));
}

class CanSchedule : public CanTest {
 protected:
  // The adapter's clock, driven by the test.
  std::shared_ptr<uint64_t> now_ = std::make_shared<uint64_t>(0);
  void manual_clock(sim::Model& m) {
    std::scoped_lock g(sim::sim_mutex());
    sim::DeviceServices& s = sim::device_services(m);
    auto now = now_;
    s.clock_us = [now] { return *now; };
    s.timestamp_zero_us = 0;
  }
  void advance_ms(uint64_t ms) {
    std::scoped_lock g(sim::sim_mutex());
    *now_ += ms * 1000;
  }
  Bytes flash(sim::Model& m, size_t offset, size_t n) {
    std::scoped_lock g(sim::sim_mutex());
    const auto& d = sim::device_services(m).sch_data;
    return Bytes(d.begin() + long(offset), d.begin() + long(offset + n));
  }
};

// (table sizes, goes to flash)
class ScheduleSize : public CanSchedule,
                     public ::testing::WithParamInterface<std::pair<std::vector<uint8_t>, bool>> {};

TEST_P(ScheduleSize, CommandUpTo10239BytesFlashAbove) {
  auto m = open_both(kClassic);
  auto s = make_set(GetParam().first);
  ASSERT_EQ(load(kClassic, 0, s), 0);
  const size_t size = 20 * s.frames.size() + 3 * s.counts.size() + 2;
  if (GetParam().second) {
    EXPECT_TRUE(payloads(*m, 0x0C08).empty());
    EXPECT_EQ(payloads(*m, 0x10C).size(), 1u);
    EXPECT_FALSE(payloads(*m, 0x10A).empty());
  } else {
    auto sent = payloads(*m, 0x0C08);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].size(), size);
    EXPECT_TRUE(payloads(*m, 0x10C).empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ScheduleSize,
                         ::testing::Values(
                             // 500 frames in 2 tables: 10008 bytes
                             std::make_pair(std::vector<uint8_t>{250, 250}, false),
                             // 509 frames in 19 tables: 10239 bytes, the largest command
                             std::make_pair(std::vector<uint8_t>{255, 254, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                 0, 0, 0, 0, 0, 0, 0, 0, 0},
                                            false),
                             // 511 frames in 6 tables: 10240 bytes
                             std::make_pair(std::vector<uint8_t>{255, 255, 1, 0, 0, 0}, true),
                             // 512 frames in 3 tables: 10251 bytes
                             std::make_pair(std::vector<uint8_t>{255, 255, 2}, true)),
                         [](const auto& i) {
                           const auto& c = i.param.first;
                           return "Frames" +
                                  std::to_string(std::accumulate(c.begin(), c.end(), 0)) +
                                  "Tables" + std::to_string(c.size());
                         });

TEST_F(CanSchedule, CommandPayloadBytes) {
  auto m = open_both(kClassic);
  auto s = make_set({1, 2}, 0x01020304);
  s.frames[2].ExtFlag = 1;
  s.frames[2].ID = 0x1ABCDEF;
  ASSERT_EQ(load(kClassic, 1, s), 0);
  const Bytes p = payloads(*m, 0x0C08).back();
  ASSERT_EQ(p.size(), 2u + 2 + 4 + 60);
  EXPECT_EQ(Bytes(p.begin(), p.begin() + 8), (Bytes{1, 2, 1, 2, 0xA0, 0xB0, 0xA1, 0xB1}));
  // The record as given: the time field is the frame's timing value.
  EXPECT_EQ(Bytes(p.begin() + 48, p.end()),
            (Bytes{0xEF, 0xCD, 0xAB, 0x01, 4, 3, 2, 1, 0, 1, 2, 2, 0x5C, 0, 0, 0, 0, 0, 0, 0}));

  ASSERT_EQ(CAN_SetSchedule(kClassic, 0, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(payloads(*m, 0x0C08).back(), (Bytes{0, 0}));
  EXPECT_EQ(CAN_SetSchedule(kClassic, 0, nullptr, s.counts.data(), s.params.data(), 2),
            CAN_ERR_PARAMETER);

  sim::Fault refused = fault(sim::FaultKind::RawReply, 0x0C08);
  refused.raw = {0, 0, 0x0C, 0x08, 0, 0, 0, 1, 3};
  m->inject(refused);
  testing::internal::CaptureStdout();
  EXPECT_EQ(load(kClassic, 1, s), CAN_ERR_USB_READ_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "res = 3 ret = 0\n");
  m->inject(fault(sim::FaultKind::WrongCode, 0x0C08, 0x0C07));
  EXPECT_EQ(load(kClassic, 1, s), CAN_ERR_USB_READ_FAIL);
}

TEST_F(CanSchedule, FlashImageBytesPerPort) {
  auto m = open_both(kClassic);
  auto s = make_set({255, 255, 2}, 7);
  ASSERT_EQ(load(kClassic, 1, s), 0);
  EXPECT_EQ(payloads(*m, 0x10C).back(), (Bytes{0x08, 0x0E, 0, 0}));  // port 1's sector
  const Bytes h = flash(*m, 0x20000, 784);
  EXPECT_EQ(Bytes(h.begin(), h.begin() + 8), (Bytes{0x8B, 0x53, 0x21, 0x9A, 3, 0, 0, 0}));
  EXPECT_EQ(Bytes(h.begin() + 8, h.begin() + 12), (Bytes{255, 255, 2, 0xFF}));
  EXPECT_EQ(h[263], 0xFF);
  EXPECT_EQ(Bytes(h.begin() + 264, h.begin() + 271),
            (Bytes{0xA0, 0xB0, 0xA1, 0xB1, 0xA2, 0xB2, 0xFF}));
  EXPECT_EQ(h[775], 0xFF);
  EXPECT_EQ(Bytes(h.begin() + 776, h.end()),
            (Bytes{0x10, 0x03, 0x0E, 0x08, 0xFF, 0xFF, 0xFF, 0xFF}));
  const Bytes last = flash(*m, 0x20000 + 784 + 511 * 20, 20);
  EXPECT_EQ(last, (Bytes{0xFF, 0x01, 0, 0, 7, 0, 0, 0, 0, 0, 2, 0xFF, 0x5C, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(flash(*m, 0x20000 + 784 + 512 * 20, 1), Bytes{0xFF});

  m->inject(fault(sim::FaultKind::ExtraPayload, 0x10C, 1));
  EXPECT_EQ(load(kClassic, 1, s), CAN_ERR_USB_READ_FAIL);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x10A, 1));
  EXPECT_EQ(load(kClassic, 1, s), CAN_ERR_USB_READ_FAIL);
}

TEST_F(CanSchedule, RunnerPutsTablesOnTheBusAtTheirPeriods) {
  auto m = open_both(kClassic);
  manual_clock(*m);
  auto s = make_set({2, 1}, 10);
  s.frames[2].TimeStamp = 0;  // once per start
  ASSERT_EQ(load(kClassic, 0, s), 0);
  ASSERT_EQ(CAN_StartSchedule(kClassic, 0, 0xFF, 5, 6), 0);
  EXPECT_EQ(payloads(*m, 0x0C05).back(), (Bytes{0, 0xFF, 5, 6}));
  std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX);
  ASSERT_EQ(CAN_ReadMsg(kClassic, 1, rx.data()), 3);
  advance_ms(35);
  ASSERT_EQ(CAN_ReadMsg(kClassic, 1, rx.data()), 6);  // 3 more periods of frames 0 and 1
  EXPECT_EQ(rx[5].ID, 1u);
  ASSERT_EQ(CAN_StopSchedule(kClassic, 0), 0);
  EXPECT_EQ(payloads(*m, 0x0C06).back(), Bytes{0});
  advance_ms(100);
  EXPECT_EQ(CAN_ReadMsg(kClassic, 1, rx.data()), 0);

  // Only table 1, and refusals: a table that does not exist, a status byte not 0.
  ASSERT_EQ(CAN_StartSchedule(kClassic, 0, 1, 0, 0), 0);
  ASSERT_EQ(CAN_ReadMsg(kClassic, 1, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 2u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(CAN_StartSchedule(kClassic, 0, 2, 0, 0), CAN_ERR_USB_READ_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "res = 1 ret = 0\n");
  m->inject(fault(sim::FaultKind::NoReply, 0x0C06));
  EXPECT_EQ(CAN_StopSchedule(kClassic, 0), CAN_ERR_USB_READ_FAIL);
}

TEST_F(CanSchedule, RunnerReadsTheFlashImage) {
  auto m = open_both(kClassic);
  manual_clock(*m);
  auto s = make_set({255, 255, 1, 0, 0, 0}, 1000);
  ASSERT_EQ(load(kClassic, 0, s), 0);
  ASSERT_EQ(CAN_StartSchedule(kClassic, 0, 2, 0, 0), 0);  // the one-frame table
  std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX);
  ASSERT_EQ(CAN_ReadMsg(kClassic, 1, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 510u);
  EXPECT_EQ(rx[0].Data[1], 0x5C);
}

TEST_F(CanSchedule, CanFdSetsUseFrameElementsAndTheirOwnCommands) {
  auto m = open_fd(kFd);
  manual_clock(*m);
  std::vector<CANFD_MSG> f = {fd_frame(0x800, 13, CANFD_MSG_FLAG_FDF, 1), fd_frame(0x12, 2, 0)};
  f[0].TimeStamp = 20;
  f[1].TimeStamp = 0;
  uint8_t counts[1] = {2}, params[2] = {9, 8};
  ASSERT_EQ(CANFD_SetSchedule(kFd, 0, f.data(), counts, params, 1), 0);
  const Bytes p = payloads(*m, 0x400B).back();
  ASSERT_EQ(p.size(), 5u + 28 + 14);
  EXPECT_EQ(Bytes(p.begin(), p.begin() + 17),
            (Bytes{0, 1, 2, 9, 8, 0, 0, 0, 0x20, 0x4A, 0, 0, 0, 20, 0, 0, 0}));
  ASSERT_EQ(CANFD_StartSchedule(kFd, 0, 0xFF, 0, 0), 0);
  EXPECT_EQ(payloads(*m, 0x4006).back(), (Bytes{0, 0xFF, 0, 0}));
  advance_ms(45);
  std::vector<CANFD_MSG> rx(CANFD_READ_MSG_MAX);
  ASSERT_EQ(CANFD_ReadMsg(kFd, 1, rx.data()), 4);  // 0x800 at 0, 20, 40 ms; 0x12 once
  EXPECT_EQ(rx[0].ID, 0x800u);
  EXPECT_EQ(rx[0].DLC, 16);
  ASSERT_EQ(CANFD_StopSchedule(kFd, 0), 0);
  EXPECT_EQ(payloads(*m, 0x4007).back(), Bytes{0});

  // A classic set on this adapter: converted, with the timing values as given.
  auto s = make_set({1}, 0x123456);
  ASSERT_EQ(load(kFd, 1, s), 0);
  const Bytes q = payloads(*m, 0x400B).back();
  EXPECT_EQ(q, (Bytes{1, 1, 1, 0xA0, 0xB0, 0, 0, 0, 0, 2, 0, 0, 0, 0x56, 0x34, 0x12, 0, 0, 0x5C}));
  EXPECT_TRUE(payloads(*m, 0x0C08).empty());
}

TEST_F(CanSchedule, CanFdFlashAboveThe0x7FFFLimit) {
  auto m = open_fd(kFd);
  for (auto [frames, to_flash] : {std::pair{431u, false}, std::pair{432u, true}}) {
    m->clear_record();
    std::vector<CANFD_MSG> f(frames, fd_frame(0x1, 64));
    uint8_t counts[2] = {uint8_t(frames / 2), uint8_t(frames - frames / 2)}, params[4] = {};
    ASSERT_EQ(CANFD_SetSchedule(kFd, 0, f.data(), counts, params, 2), 0);
    EXPECT_EQ(payloads(*m, 0x400B).size(), to_flash ? 0u : 1u) << frames;
    EXPECT_EQ(payloads(*m, 0x10C).size(), to_flash ? 1u : 0u) << frames;
  }
  const Bytes h = flash(*m, 0, 12);
  EXPECT_EQ(h, (Bytes{0x8B, 0x53, 0x21, 0x9A, 2, 0, 0, 0, 216, 216, 0xFF, 0xFF}));
  EXPECT_EQ(flash(*m, 784 + 4, 1), Bytes{0x4F});  // the first element: FD format, 64 bytes
}

class CanRelay : public CanTest {};

TEST_F(CanRelay, ModeIsEchoed) {
  auto m = plug_and_open(kClassic);
  ASSERT_EQ(CAN_SetRelay(kClassic, 3), 0);
  EXPECT_EQ(payloads(*m, 0x0C07).back(), Bytes{3});
  sim::Fault other = fault(sim::FaultKind::RawReply, 0x0C07);
  other.raw = {0, 0, 0x0C, 0x07, 0, 0, 0, 1, 2};
  m->inject(other);
  EXPECT_EQ(CAN_SetRelay(kClassic, 3), CAN_ERR_USB_READ_FAIL);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x0C07, 1));
  EXPECT_EQ(CAN_SetRelay(kClassic, 1), CAN_ERR_USB_READ_FAIL);

  auto fd = plug_and_open(kFd);
  ASSERT_EQ(CAN_SetRelay(kFd, 1), 0);
  ASSERT_EQ(CANFD_SetRelay(kFd, 2), 0);
  EXPECT_EQ(payloads(*fd, 0x4008), (std::vector<Bytes>{{1}, {2}}));
  EXPECT_TRUE(payloads(*fd, 0x0C07).empty());
}

TEST_F(CanRelay, ModeCarriesFramesBetweenSeparateBuses) {
  auto m = open_both(kClassic);
  with_bus(*m, [](sim::CanBusState& b) { b.cable = false; });
  auto sent_on_1 = [&] {
    return with_bus(*m, [](sim::CanBusState& b) { return b.ports[1].sent.size(); });
  };
  ASSERT_EQ(CAN_SetRelay(kClassic, 2), 0);  // port 1 to port 0 only
  sim::can_inject_rx(*m, 0, {sim_frame(0x10, 1)});
  EXPECT_EQ(sent_on_1(), 0u);
  ASSERT_EQ(CAN_SetRelay(kClassic, 1), 0);
  sim::can_inject_rx(*m, 0, {sim_frame(0x11, 2), sim_frame(0x12, 3)});
  ASSERT_EQ(sent_on_1(), 2u);
  EXPECT_EQ(with_bus(*m, [](sim::CanBusState& b) { return b.ports[1].sent.back().id; }), 0x12u);
  std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX);
  EXPECT_EQ(CAN_ReadMsg(kClassic, 0, rx.data()), 3);  // port 0 received them all the same
}

CAN_RELAY_CONFIG relay_config(uint32_t rules) {
  CAN_RELAY_CONFIG c{};
  for (uint32_t i = 0; i < 11; ++i) c.Words[i] = 0x01010101u * (i + 1);
  c.RuleCount = rules;
  return c;
}

class RelayData : public CanTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(RelayData, RoundTripOnBothModels) {
  const uint32_t h = GetParam();
  auto m = plug_and_open(h);
  std::vector<CAN_RELAY_RULE> rules(CAN_RELAY_RULES_MAX);
  for (size_t i = 0; i < rules.size(); ++i) std::memset(rules[i].Data, int(i + 1), 168);
  CAN_RELAY_CONFIG c = relay_config(CAN_RELAY_RULES_MAX);
  ASSERT_EQ(CAN_SetRelayData(h, &c, rules.data()), 0);
  const Bytes w = payloads(*m, 0x107).back();
  ASSERT_EQ(w.size(), 4u + 10812);
  EXPECT_EQ(Bytes(w.begin(), w.begin() + 20),
            (Bytes{0, 0, 0, 0, 0xC0, 0xF5, 0xB0, 0x7B, 3, 0, 3, 0, 0x30, 0x2A, 0, 0, 1, 1, 1, 1}));
  EXPECT_EQ(payloads(*m, 0x109).size(), 1u);

  CAN_RELAY_CONFIG back{};
  std::vector<CAN_RELAY_RULE> got(CAN_RELAY_RULES_MAX);
  ASSERT_EQ(CANFD_GetRelayData(h, &back, got.data()), 0);
  EXPECT_EQ(std::memcmp(&back, &c, sizeof c), 0);
  EXPECT_EQ(std::memcmp(got.data(), rules.data(), rules.size() * sizeof rules[0]), 0);

  CAN_RELAY_CONFIG too_many = relay_config(65);
  m->clear_record();
  EXPECT_EQ(CANFD_SetRelayData(h, &too_many, rules.data()), CAN_ERR_PARAMETER);
  EXPECT_TRUE(m->commands().empty());
  // A read-back that fails or differs is an error.
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x108, 4));
  CAN_RELAY_CONFIG two = relay_config(2);
  EXPECT_EQ(CAN_SetRelayData(h, &two, rules.data()), CAN_ERR_USB_READ_FAIL);
}

INSTANTIATE_TEST_SUITE_P(Models, RelayData, ::testing::Values(kClassic, kFd),
                         [](const auto& i) { return i.param == kFd ? "CanFd" : "Classic"; });

TEST_F(CanRelay, ErasedAreaLeavesOutputsUntouched) {
  auto m = plug_and_open(kFd);
  CAN_RELAY_CONFIG c = relay_config(5);
  CAN_RELAY_RULE r{};
  r.Data[0] = 0x42;
  ASSERT_EQ(CAN_GetRelayData(kFd, &c, &r), 0);
  EXPECT_EQ(c.RuleCount, 5u);
  EXPECT_EQ(c.Words[0], 0x01010101u);
  EXPECT_EQ(r.Data[0], 0x42);
  EXPECT_EQ(payloads(*m, 0x108).back(), (Bytes{0, 0, 0, 0, 0, 0, 0x2A, 0x3C}));
  // A stored count beyond the stored length is not believed.
  CAN_RELAY_CONFIG one = relay_config(1);
  ASSERT_EQ(CAN_SetRelayData(kFd, &one, &r), 0);
  {
    std::scoped_lock g(sim::sim_mutex());
    auto& d = sim::device_services(*m).user_data;
    d[12 + 44] = 200;  // the stored rule count
  }
  std::vector<CAN_RELAY_RULE> got(CAN_RELAY_RULES_MAX);
  got[1].Data[0] = 0x77;
  ASSERT_EQ(CAN_GetRelayData(kFd, &c, got.data()), 0);
  EXPECT_EQ(c.RuleCount, 200u);
  EXPECT_EQ(got[0].Data[0], 0x42);
  EXPECT_EQ(got[1].Data[0], 0x77);
  EXPECT_EQ(CAN_GetRelayData(kFd, nullptr, got.data()), CAN_ERR_PARAMETER);
}

}  // namespace
}  // namespace veltrix::test
