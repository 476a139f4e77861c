// CAN FD sending with transmit events, direct reads, the queues and the receive thread,
// end to end through the virtual cable between ports 0 and 1.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "can/fd_state.hpp"
#include "device/locks.hpp"
#include "sim/canfd_bus.hpp"
#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

constexpr uint32_t kFd = 0x53000001;

Bytes element_of(const Bytes& payload, size_t at, size_t n) {
  return Bytes(payload.begin() + long(at), payload.begin() + long(at + n));
}

std::vector<CANFD_MSG> numbered(size_t n, uint8_t len = 8) {
  std::vector<CANFD_MSG> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = fd_frame(uint32_t(i & 0x7FF), len, 0, uint8_t(i));
  return v;
}

class CanFdSend : public CanTest {};

TEST_F(CanFdSend, ElementBytesLengthsAndBitRateSwitch) {
  auto m = open_fd(kFd);
  std::vector<CANFD_MSG> f = {
      fd_frame(0x800, 13, CANFD_MSG_FLAG_FDF | CANFD_MSG_FLAG_ESI, 0x10),
      fd_frame(0x12345678u | CANFD_MSG_FLAG_IDE, 12, 0, 0x20),
      fd_frame(0x7FF | CANFD_MSG_FLAG_RTR, 0, 0),
  };
  ASSERT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 3), 3);
  auto sent = payloads(*m, 0x4002);
  ASSERT_EQ(sent.size(), 1u);
  const Bytes& p = sent[0];
  ASSERT_EQ(p.size(), 12u + (12 + 16) + (12 + 12) + 12);
  EXPECT_EQ(element_of(p, 0, 12), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3}));
  // 0x800: standard id 0, bit 11 in W bit 29; 13 bytes go as code 10 = 16 bytes.
  EXPECT_EQ(element_of(p, 12, 12), (Bytes{0, 0, 0, 0x20, 0xCA, 0x01, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(p[12 + 12 + 15], 0x1F);  // the 16th byte comes from the caller's Data
  // Extended 0x12345678: W = (id & 0x3FFFF) << 11 | id >> 18 = 0x02B3C48D; 12 bytes with
  // Flags 0 gain BRS (byte 4 bit 7); index 1 in byte 5.
  const size_t e1 = 12 + 28;
  EXPECT_EQ(element_of(p, e1, 12), (Bytes{0x8D, 0xC4, 0xB3, 0x02, 0x99, 0x02, 0, 0, 0, 0, 0, 0}));
  const size_t e2 = e1 + 24;
  EXPECT_EQ(element_of(p, e2, 12), (Bytes{0xFF, 0x07, 0, 0, 0x20, 0x04, 0, 0, 0, 0, 0, 0}));

  EXPECT_EQ(f[1].Flags & 0x7F, CANFD_MSG_FLAG_BRS);  // the caller's record changed
  // Each record now holds its transmit event.
  EXPECT_EQ(f[0].ID, 0x800u);
  EXPECT_EQ(f[0].Flags,
            CANFD_MSG_FLAG_TX_ECHO | CANFD_MSG_FLAG_FDF | CANFD_MSG_FLAG_ESI | CANFD_MSG_FLAG_BRS);
  EXPECT_EQ(f[1].ID, 0x92345678u);
  EXPECT_EQ(f[1].Flags, CANFD_MSG_FLAG_TX_ECHO | CANFD_MSG_FLAG_BRS);
  EXPECT_EQ(f[2].ID, 0x7FFu | CANFD_MSG_FLAG_RTR);
  EXPECT_EQ(f[1].DLC, 12);  // events carry no length: DLC and data stay

  std::vector<CANFD_MSG> rx(CANFD_READ_MSG_MAX);
  ASSERT_EQ(CANFD_ReadMsg(kFd, 1, rx.data()), 3);
  EXPECT_EQ(rx[0].ID, 0x800u);
  EXPECT_EQ(rx[0].DLC, 16);
  EXPECT_EQ(rx[0].Flags,
            CANFD_MSG_FLAG_FDF | CANFD_MSG_FLAG_ESI | CANFD_MSG_FLAG_BRS | CANFD_MSG_FLAG_PORT);
  EXPECT_EQ(rx[0].Data[15], 0x1F);
  EXPECT_EQ(rx[1].ID, 0x92345678u);
  EXPECT_EQ(rx[2].ID, 0x7FFu | CANFD_MSG_FLAG_RTR);
}

TEST_F(CanFdSend, ChunksOf128WithEventsWrittenBack) {
  auto m = open_fd(kFd);
  auto f = numbered(129);
  ASSERT_EQ(CANFD_SendMsg(kFd, 1, f.data(), 129), 129);
  auto sent = payloads(*m, 0x4002);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].size(), 12u + 128 * 20);
  EXPECT_EQ(sent[0][10], 1);
  EXPECT_EQ(sent[0][11], 128);
  EXPECT_EQ(sent[0][12 + 127 * 20 + 5], 254);  // index 127 x 2
  EXPECT_EQ(sent[1].size(), 12u + 20);
  EXPECT_EQ(sent[1][11], 1);
  EXPECT_EQ(sent[1][12 + 5], 0);  // the index restarts with the chunk
  EXPECT_EQ(payloads(*m, 0x4009).size(), 2u);
  for (size_t i : {size_t(0), size_t(127), size_t(128)}) {
    EXPECT_EQ(f[i].ID, i & 0x7FF);
    EXPECT_EQ(f[i].Flags, CANFD_MSG_FLAG_TX_ECHO | 0x20) << i;  // port 1
  }
  // The bus time of the events: the adapter counts 10 us units from its start.
  EXPECT_LE(f[0].TimeStamp, f[128].TimeStamp);
}

struct AbortCase {
  int skip_batches;  // batches that go through before the one that aborts
  int abort_after;   // frames of that batch on the bus before the abort
  int result;
  size_t batches, event_reads;
};

class CanFdAbort : public CanTest, public ::testing::WithParamInterface<AbortCase> {};

TEST_P(CanFdAbort, AbortedBatchCountsWhatWasSent) {
  const AbortCase& k = GetParam();
  auto m = open_fd(kFd);
  auto f = numbered(200);
  sim::canfd_abort_next_batch(*m, 0, k.abort_after, k.skip_batches);
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 200), k.result);
  EXPECT_EQ(payloads(*m, 0x4002).size(), k.batches);
  EXPECT_EQ(payloads(*m, 0x4009).size(), k.event_reads);
}

INSTANTIATE_TEST_SUITE_P(Cases, CanFdAbort,
                         ::testing::Values(AbortCase{0, -1, 200, 2, 2}, AbortCase{0, 5, 5, 1, 1},
                                           // nothing sent: no events asked for
                                           AbortCase{0, 0, 0, 1, 0},
                                           // a later batch: the total so far plus its own
                                           AbortCase{1, 5, 133, 2, 2}, AbortCase{1, 0, 128, 2, 1}),
                         [](const ::testing::TestParamInfo<AbortCase>& i) {
                           return "Skip" + std::to_string(i.param.skip_batches) + "After" +
                                  (i.param.abort_after < 0 ? std::string("Never")
                                                           : std::to_string(i.param.abort_after));
                         });

TEST_F(CanFdSend, DroppedEventsCountNothing) {
  auto m = open_fd(kFd);
  sim::canfd_drop_events(*m, 0, true);
  auto f = numbered(3);
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 3), 0);
  EXPECT_EQ(f[0].Flags, 0);  // no event came back: the record is as it was sent
  std::vector<CANFD_MSG> rx(CANFD_READ_MSG_MAX);
  EXPECT_EQ(CANFD_ReadMsg(kFd, 1, rx.data()), 3);  // they were on the bus all the same
}

TEST_F(CanFdSend, FaultsGiveTheirCodes) {
  auto m = open_fd(kFd);
  auto f = numbered(2);
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, nullptr, 0), 0);
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, nullptr, 1), CANFD_ERR_PARAMETER);
  m->inject(fault(sim::FaultKind::WrongCode, 0x4002, 0x4003));
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 2), CANFD_ERR_USB_READ_FAIL);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x400A, 1));
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 2), CANFD_ERR_USB_READ_FAIL);
  m->inject(fault(sim::FaultKind::NoReply, 0x4009));
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 2), CANFD_ERR_USB_READ_FAIL);
  // More events than frames: only the batch's frames are written and counted.
  sim::Fault many = fault(sim::FaultKind::ExtraPayload, 0x4009, 5 * 12);
  m->inject(many);
  auto g = numbered(2);
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, g.data(), 2), 2);
  EXPECT_EQ(CANFD_SendMsg(0x53000077, 0, g.data(), 2), CANFD_ERR_USB_WRITE_FAIL);
}

class CanFdReceive : public CanTest {};

TEST_F(CanFdReceive, SixtyFourByteFramesWithBitRateSwitchEndToEnd) {
  auto m = open_fd(kFd);
  ASSERT_EQ(CANFD_StartGetMsg(kFd, 1), 0);
  auto f = numbered(300, 64);
  for (auto& x : f) x.Flags = CANFD_MSG_FLAG_FDF;
  ASSERT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 300), 300);
  std::vector<CANFD_MSG> rx(400);
  int got = 0;
  for (int i = 0; i < 500 && got < 300; ++i) {
    int n = CANFD_GetMsg(kFd, 1, rx.data() + got, 400 - got);
    ASSERT_GE(n, 0);
    got += n;
    if (got < 300) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(got, 300);
  for (int i : {0, 127, 128, 299}) {
    EXPECT_EQ(rx[i].ID, uint32_t(i));
    EXPECT_EQ(rx[i].DLC, 64);
    EXPECT_EQ(rx[i].Flags, CANFD_MSG_FLAG_FDF | CANFD_MSG_FLAG_BRS | CANFD_MSG_FLAG_PORT) << i;
    EXPECT_EQ(rx[i].Data[63], uint8_t(i + 63));
  }
  // The ISO-TP queue got the same frames.
  std::vector<CANFD_MSG> uds(400);
  EXPECT_EQ(CANFD_GetCANMsgFromUDSBuffer(kFd, 1, uds.data(), 400), 300);
  EXPECT_EQ(uds[299].Data[0], uint8_t(299));
  EXPECT_EQ(CANFD_StopGetMsg(kFd, 1), 0);
  EXPECT_EQ(CANFD_StopGetMsg(kFd, 1), CANFD_ERR_USB_READ_FAIL);  // no thread any more
}

TEST_F(CanFdReceive, DataRateMismatchKeepsBitRateSwitchedFramesOff) {
  auto m = plug_and_open(kFd);
  CANFD_CHANNEL_CONFIG a{}, b{};
  ASSERT_EQ(CANFD_GetCANSpeedArg(kFd, &a, 500000, 2000000), 0);
  ASSERT_EQ(CANFD_GetCANSpeedArg(kFd, &b, 500000, 4000000), 0);
  a.AutoRetransmit = 0;  // the model gives a refused batch up at once
  ASSERT_EQ(CANFD_Init(kFd, 0, &a), 0);
  ASSERT_EQ(CANFD_Init(kFd, 1, &b), 0);
  std::vector<CANFD_MSG> f = {fd_frame(0x10, 8), fd_frame(0x11, 64)};
  EXPECT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 2), 1);  // the 64-byte one switches rate
  CANFD_BUS_ERROR e{};
  ASSERT_EQ(CANFD_GetBusError(kFd, 0, &e), 0);
  EXPECT_EQ(e.TxErrorCounter, 8);
  std::vector<CANFD_MSG> rx(CANFD_READ_MSG_MAX);
  ASSERT_EQ(CANFD_ReadMsg(kFd, 1, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 0x10u);
}

TEST_F(CanFdReceive, StartEmptiesTheQueueAndFiltersApply) {
  auto m = open_fd(kFd);
  CANFD_MSG old = fd_frame(0x1, 1);
  ASSERT_EQ(CANFD_SetCANMsgToBuffer(kFd, 3, &old, 1), 0);  // port 3 & 1 = 1
  {
    auto& ps = can::fd_state().slot[*can::fd_slot_of(kFd)].port[1];
    ChannelLock g(LockFamily::CanData, kFd, 1);
    ASSERT_EQ(ps.rx.size(), 1u);
  }
  CANFD_FILTER_RULE r{1, 0, {0, 0}, 0x80000000u | 0x100, 0x9FFFFF00u};
  ASSERT_EQ(CANFD_SetFilter(kFd, 1, &r, 1), 0);
  ASSERT_EQ(CANFD_StartGetMsg(kFd, 1), 0);
  ASSERT_EQ(CANFD_StopGetMsg(kFd, 1), 0);
  std::vector<CANFD_MSG> f = {fd_frame(0x80000123u, 1), fd_frame(0x123, 1),
                              fd_frame(0x80000245u, 1)};
  ASSERT_EQ(CANFD_SendMsg(kFd, 0, f.data(), 3), 3);
  std::vector<CANFD_MSG> rx(10);
  ASSERT_EQ(CANFD_GetMsg(kFd, 1, rx.data(), 10), 1);  // polled once: the old frame is gone
  EXPECT_EQ(rx[0].ID, 0x80000123u);
  EXPECT_EQ(CANFD_GetMsg(kFd, 1, rx.data(), 0), 0);
  EXPECT_EQ(CANFD_GetMsg(kFd, 1, nullptr, 1), CANFD_ERR_PARAMETER);
  EXPECT_EQ(CANFD_GetMsg(kFd, 2, rx.data(), 10), 0);
}

TEST_F(CanFdReceive, HostileReadRepliesAreCut) {
  auto m = open_fd(kFd);
  // One good element (id 0x55, 12 bytes), then one whose DLC needs more than is left.
  Bytes payload = {0x55, 0, 0, 0, 0x49, 0, 0, 0, 7, 0, 0, 0};
  payload.resize(24, 0xCC);
  Bytes bad = {0x66, 0, 0, 0, 0x4F, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3};
  payload.insert(payload.end(), bad.begin(), bad.end());
  Bytes raw = {0, 0, 0x40, 0x03, 0, 0, 0, uint8_t(payload.size())};
  raw.insert(raw.end(), payload.begin(), payload.end());
  sim::Fault f = fault(sim::FaultKind::RawReply, 0x4003);
  f.raw = raw;
  m->inject(f);
  std::vector<CANFD_MSG> rx(CANFD_READ_MSG_MAX);
  ASSERT_EQ(CANFD_ReadMsg(kFd, 0, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 0x55u);
  EXPECT_EQ(rx[0].DLC, 12);
  EXPECT_EQ(rx[0].Flags, CANFD_MSG_FLAG_FDF);
  EXPECT_EQ(rx[0].Data[11], 0xCC);
  m->inject(fault(sim::FaultKind::WrongCode, 0x4003, 0x4004));
  EXPECT_EQ(CANFD_ReadMsg(kFd, 0, rx.data()), CANFD_ERR_USB_READ_FAIL);
  EXPECT_EQ(CANFD_ReadMsg(kFd, 0, nullptr), CANFD_ERR_PARAMETER);
  EXPECT_EQ(payloads(*m, 0x4003).back(), Bytes{0});
  EXPECT_EQ(CANFD_ReadMsg(kFd, 3, rx.data()), 0);
  EXPECT_EQ(payloads(*m, 0x4003).back(), Bytes{1});  // port 3 reads port 1
}

TEST_F(CanFdReceive, FailedPollStopsPollingAndStopClearsThePort) {
  auto m = open_fd(kFd);
  ASSERT_EQ(CANFD_StartGetMsg(kFd, 0), 0);
  m->inject(fault(sim::FaultKind::WrongCode, 0x4003, 0x4004));
  auto& ps = can::fd_state().slot[*can::fd_slot_of(kFd)].port[0];
  for (int i = 0; i < 500 && ps.run.load(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(ps.run.load(), 0);
  m->inject(fault(sim::FaultKind::NoReply, 0x4003));
  EXPECT_EQ(CANFD_ClearMsg(kFd, 0), CANFD_ERR_USB_READ_FAIL);
  EXPECT_EQ(CANFD_Stop(kFd, 0), 0);
  EXPECT_EQ(payloads(*m, 0x400C).back(), Bytes{0});
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x400C, 1));
  EXPECT_EQ(CANFD_Stop(kFd, 0), CANFD_ERR_USB_READ_FAIL);
}

}  // namespace
}  // namespace veltrix::test
