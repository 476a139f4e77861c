// Sending, direct reads, the queues and the receive thread, end to end through the
// virtual cable between ports 0 and 1.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "can/can_state.hpp"
#include "device/locks.hpp"
#include "sim/device_services.hpp"
#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

std::vector<CAN_MSG> numbered(size_t n) {
  std::vector<CAN_MSG> v(n);
  for (size_t i = 0; i < n; ++i) {
    v[i] = can_frame(uint32_t(i & 0x7FF), {uint8_t(i), uint8_t(i >> 8)});
    v[i].TimeStamp = 0xAAAAAAAA;
    v[i].FrameFlags = 0x7F;  // only the RTR bit survives
  }
  return v;
}

// Waits (bounded) until the port's queue holds n frames; returns what it held last.
size_t wait_queued(uint32_t h, unsigned port, size_t n) {
  auto& ps = can::state().slot[*can::slot_of(h)].port[port];
  for (int i = 0; i < 500; ++i) {
    {
      ChannelLock g(LockFamily::CanData, h, int(port));
      if (ps.rx.size() >= n) return ps.rx.size();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ChannelLock g(LockFamily::CanData, h, int(port));
  return ps.rx.size();
}

class CanSend : public CanTest {};

TEST_F(CanSend, ChunksOf500AndExactRecordBytes) {
  auto m = open_both(kClassic);
  auto frames = numbered(1001);
  frames[7].ExtFlag = 0xFF;
  frames[7].ID = 0x1234567;
  frames[7].TimeStampHigh = 0x42;
  ASSERT_EQ(CAN_SendMsg(kClassic, 1, frames.data(), 1000), 1000);
  auto sent = payloads(*m, 0x0C02);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].size(), 10001u);
  EXPECT_EQ(sent[1].size(), 10001u);
  EXPECT_EQ(sent[0][0], 1);
  const Bytes rec7(sent[0].begin() + 1 + 7 * 20, sent[0].begin() + 1 + 8 * 20);
  EXPECT_THAT(rec7, BytesEq({0x67, 0x45, 0x23, 0x01, 0, 0, 0, 0, 0x01, 0x01, 2, 7, 0, 0, 0, 0, 0,
                         0, 0, 0x42}));

  m->clear_record();
  ASSERT_EQ(CAN_SendMsg(kClassic, 0, frames.data(), 1001), 1001);
  sent = payloads(*m, 0x0C02);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[2].size(), 21u);
  EXPECT_EQ(CAN_SendMsg(kClassic, 0, nullptr, 0), 0);
  EXPECT_EQ(CAN_SendMsg(kClassic, 0, nullptr, 1), CAN_ERR_PARAMETER);
  EXPECT_EQ(payloads(*m, 0x0C02).size(), 3u);
}

TEST_F(CanSend, CallerRecordsAreStampedAsSentByHost) {
  auto m = open_both(kClassic);
  unsigned int counter = 0;
  auto frames = numbered(3);
  frames[1].FrameFlags = 0x01;
  ASSERT_EQ(CAN_SendMsg(kClassic, 1, frames.data(), 3), 3);
  {
    std::scoped_lock g(sim::sim_mutex());
    counter = uint32_t((sim::device_services(*m).clock_us() -
                        sim::device_services(*m).timestamp_zero_us) / 100);
  }
  for (const CAN_MSG& f : frames) {
    EXPECT_EQ(f.FrameFlags, 0x80 | 0x20 | 0x01);
    EXPECT_NE(f.TimeStamp, 0xAAAAAAAAu);
    // Host-made times follow the adapter's counter (100 us units) within a second.
    EXPECT_NEAR(double(f.TimeStamp), double(counter), 10000.0);
  }
}

TEST_F(CanSend, ReplyFaultsGiveTheirCodes) {
  auto m = open_both(kClassic);
  auto frames = numbered(600);
  m->inject(fault(sim::FaultKind::WrongCode, 0x0C02, 0x0C03));
  EXPECT_EQ(CAN_SendMsg(kClassic, 0, frames.data(), 600), -4);
  sim::Fault late = fault(sim::FaultKind::NoReply, 0x0C02);
  m->clear_record();
  ASSERT_EQ(CAN_SendMsg(kClassic, 0, frames.data(), 1), 1);
  m->inject(late);
  EXPECT_EQ(CAN_SendMsg(kClassic, 0, frames.data(), 1), -4);
  EXPECT_EQ(CAN_SendMsg(0x31000099, 0, frames.data(), 1), CAN_ERR_USB_WRITE_FAIL);
}

TEST_F(CanSend, SynchronousChunksWaitForDelivery) {
  auto m = open_both(kClassic);
  auto frames = numbered(251);
  ASSERT_EQ(CAN_SendMsgSynch(kClassic, 1, frames.data(), 251), 251);
  auto sent = payloads(*m, 0x0C0A);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].size(), 5012u);
  EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 12),
            (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 250}));
  EXPECT_EQ(Bytes(sent[1].begin(), sent[1].begin() + 12),
            (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}));
  EXPECT_EQ(sent[1].size(), 32u);
  EXPECT_EQ(frames[250].FrameFlags, 0xA0 | 0x01);
  // Port 1's commands travel on the second OUT endpoint.
  for (const auto& c : m->commands_with_code(0x0C0A)) EXPECT_EQ(c.endpoint, 2);
  EXPECT_EQ(payloads(*m, 0x0C0B), (std::vector<Bytes>{{1}, {1}}));
  EXPECT_EQ(with_bus(*m, [](auto& b) { return b.ports[1].sent.size(); }), 251u);
}

TEST_F(CanSend, AbortInLaterChunkReturnsThatChunksCountAlone) {
  auto m = open_both(kClassic);
  auto frames = numbered(600);
  // The first batch goes whole; its first progress report arms the abort of the next.
  m->on(0x0C0B, [first = true](sim::Model& mm, const sim::Command& c) mutable
                -> std::optional<sim::Reply> {
    auto& p = sim::can_bus(mm).ports[0];
    sim::Reply r{c.code, {uint8_t(p.queued), 0, uint8_t(p.delivered), uint8_t(p.aborted)}};
    if (first) p.abort_after = 17;
    first = false;
    return r;
  });
  EXPECT_EQ(CAN_SendMsgSynch(kClassic, 0, frames.data(), 600), 17);
  EXPECT_EQ(payloads(*m, 0x0C0A).size(), 2u);  // no third batch
}

// An adapter that claims more frames than it was given is believed only up to the batch.
// An accepted count above the batch is a broken reply; a synchronous send's sent count
// never exceeds the batch.
TEST_F(CanSend, AdapterCountsBeyondTheBatchAreRefusedOrCapped) {
  auto m = open_both(kClassic);
  auto frames = numbered(3);
  m->on(0x0C02, [](sim::Model&, const sim::Command& c) -> std::optional<sim::Reply> {
    return sim::Reply{c.code, {0x72, 0, 0, 0}};  // 114 accepted
  });
  EXPECT_EQ(CAN_SendMsg(kClassic, 0, frames.data(), 3), CAN_ERR_USB_READ_FAIL);
  m->on(0x0C0B, [](sim::Model&, const sim::Command& c) -> std::optional<sim::Reply> {
    return sim::Reply{c.code, {0, 0, 200, 1}};  // aborted after 200 sent
  });
  EXPECT_EQ(CAN_SendMsgSynch(kClassic, 0, frames.data(), 3), 3);
  EXPECT_EQ(payloads(*m, 0x0C0A).size(), 1u);
  EXPECT_EQ(payloads(*m, 0x0C0B), (std::vector<Bytes>{{0}}));
}

TEST_F(CanSend, SendInfoNeedsExactlyFourBytes) {
  auto m = open_both(kClassic);
  CAN_TX_INFO info{9, 9, 9, 9};
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x0C0B, 1));
  EXPECT_EQ(CAN_GetSendMsgInfo(kClassic, 0, &info), -4);
  EXPECT_EQ(info.QueuedCount, 9);
  auto f = numbered(3);
  sim::can_abort_next_batch(*m, 0, 2);
  ASSERT_EQ(CAN_SendMsg(kClassic, 0, f.data(), 3), 3);
  ASSERT_EQ(CAN_GetSendMsgInfo(kClassic, 0, &info), 0);
  EXPECT_EQ(info.QueuedCount, 3);
  EXPECT_EQ(info.SentCount, 2);
  EXPECT_EQ(info.Aborted, 1);
  EXPECT_EQ(CAN_GetSendMsgInfo(kClassic, 0, nullptr), CAN_ERR_PARAMETER);
}

class CanReceive : public CanTest {};

TEST_F(CanReceive, LoopbackWithFiltersPort0ToPort1) {
  auto m = open_both(kClassic);
  CAN_FILTER_RULE f{};
  f.Enable = 1;
  f.FilterIndex = 0;
  f.ID = 0x120;
  f.MaskID = 0x7F0;  // 0x120..0x12F
  ASSERT_EQ(CAN_Filter_Init(kClassic, 1, &f), 0);
  f.FilterIndex = 1;
  f.ExtFrame = 1;
  f.FilterMode = 1;
  f.ID = 0x18DAF110;
  f.IDE = 1;
  ASSERT_EQ(CAN_Filter_Init(kClassic, 1, &f), 0);

  std::vector<CAN_MSG> tx = {can_frame(0x123, {0xDE, 0xAD}), can_frame(0x130, {1}),
                             can_frame(0x18DAF110, {2, 3}, true),
                             can_frame(0x18DAF111, {4}, true), can_frame(0x12F, {})};
  ASSERT_EQ(CAN_SendMsg(kClassic, 0, tx.data(), uint32_t(tx.size())), 5);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kClassic, 1, rx.data()), 3);
  EXPECT_EQ(rx[0].ID, 0x123u);
  EXPECT_EQ(rx[0].DataLen, 2);
  EXPECT_EQ(rx[0].Data[1], 0xAD);
  EXPECT_EQ(rx[0].FrameFlags, 0x20);
  EXPECT_EQ(rx[1].ID, 0x18DAF110u);
  EXPECT_EQ(rx[1].ExtFlag, 1);
  EXPECT_EQ(rx[2].ID, 0x12Fu);
  // The ISO-TP queue got the same frames.
  std::vector<CAN_MSG> uds(10);
  ASSERT_EQ(CAN_GetCANMsgFromUDSBuffer(kClassic, 1, uds.data(), 10), 3);
  EXPECT_EQ(uds[1].ID, 0x18DAF110u);
  EXPECT_EQ(CAN_ClearCANMsgFromUDSBuffer(kClassic, 1), 0);
  // Nothing came back to the sender.
  EXPECT_EQ(CAN_GetMsg(kClassic, 0, rx.data()), 0);
}

TEST_F(CanReceive, DifferentRatesMeanNoDelivery) {
  auto m = open_both(kClassic);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kClassic, &c, 250000), 0);
  ASSERT_EQ(CAN_Init(kClassic, 1, &c), 0);
  CAN_MSG f = can_frame(0x1, {1});
  ASSERT_EQ(CAN_SendMsg(kClassic, 0, &f, 1), 1);
  CAN_TX_INFO info{};
  ASSERT_EQ(CAN_GetSendMsgInfo(kClassic, 0, &info), 0);
  EXPECT_EQ(info.QueuedCount, 1);
  EXPECT_EQ(info.SentCount, 0);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  EXPECT_EQ(CAN_GetMsg(kClassic, 1, rx.data()), 0);
}

TEST_F(CanReceive, BatchEntersQueueInTimeOrder) {
  auto m = open_both(kClassic);
  sim::can_inject_rx(*m, 0, {sim_frame(0x30, 30), sim_frame(0x10, 10), sim_frame(0x20, 20)});
  ASSERT_EQ(CAN_ReadMsgToBuffer(kClassic, 0), 0);
  std::vector<CAN_MSG> rx(4);
  ASSERT_EQ(CAN_GetMsgWithSize(kClassic, 0, rx.data(), 4), 3);
  EXPECT_EQ(rx[0].TimeStamp, 10u);
  EXPECT_EQ(rx[1].TimeStamp, 20u);
  EXPECT_EQ(rx[2].TimeStamp, 30u);
  EXPECT_EQ(rx[2].ID, 0x30u);
  EXPECT_EQ(payloads(*m, 0x0C03), (std::vector<Bytes>{{0}, {0}}));
}

TEST_F(CanReceive, FullQueueDropsOldest) {
  auto m = open_both(kClassic);
  std::vector<sim::CanFrame> burst;
  for (uint64_t t = 0; t < 10005; ++t) burst.push_back(sim_frame(uint32_t(t & 0x7FF), t));
  sim::can_inject_rx(*m, 1, {burst.begin(), burst.begin() + 10000});
  for (int i = 0; i < 5; ++i) ASSERT_EQ(CAN_ReadMsgToBuffer(kClassic, 1), 0);
  EXPECT_EQ(payloads(*m, 0x0C03).size(), 5u);  // 2000 frames a reply
  sim::can_inject_rx(*m, 1, {burst.begin() + 10000, burst.end()});
  ASSERT_EQ(CAN_ReadMsgToBuffer(kClassic, 1), 0);

  std::vector<CAN_MSG> none(1);
  EXPECT_EQ(CAN_GetMsgWithSize(kClassic, 1, none.data(), 0), 0);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kClassic, 1, rx.data()), 10000);
  EXPECT_EQ(rx.front().TimeStamp, 5u);
  EXPECT_EQ(rx.back().TimeStamp, 10004u);
}

TEST_F(CanReceive, DirectReadCutsOverlongReply) {
  auto m = open_both(kClassic);
  // 2001 records and a half: more than the room, and a broken tail.
  Bytes raw{0, 0, 0x0C, 0x03};
  Bytes payload(2001 * 20 + 10, 0);
  for (size_t i = 0; i < 2001; ++i) payload[i * 20] = uint8_t(i);
  uint8_t len[4];
  wire::put_be32(len, uint32_t(payload.size()));
  raw.insert(raw.end(), len, len + 4);
  raw.insert(raw.end(), payload.begin(), payload.end());
  sim::Fault f = fault(sim::FaultKind::RawReply, 0x0C03);
  f.raw = raw;
  m->inject(f);
  std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX + 1);
  rx.back().ID = 0xABCDEF;
  ASSERT_EQ(CAN_ReadMsg(kClassic, 0, rx.data()), 2000);
  EXPECT_EQ(rx[1999].ID, uint32_t(1999 & 0xFF));
  EXPECT_EQ(rx.back().ID, 0xABCDEFu);
  // The stream stayed framed: the next read works.
  sim::can_inject_rx(*m, 0, {sim_frame(0x55, 1)});
  ASSERT_EQ(CAN_ReadMsg(kClassic, 0, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 0x55u);
}

TEST_F(CanReceive, OneThreadServesBothPorts) {
  auto m = open_both(kClassic);
  auto& slot = can::state().slot[*can::slot_of(kClassic)];
  EXPECT_EQ(CAN_StopGetMsg(kClassic, 0), -4);  // no thread yet
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 0), 0);
  std::thread::id first;
  {
    std::scoped_lock g(slot.thread_mutex);
    first = slot.reader.get_id();
  }
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 3), 0);  // bit 0 only: port 1
  {
    std::scoped_lock g(slot.thread_mutex);
    EXPECT_EQ(slot.reader.get_id(), first);
  }
  EXPECT_EQ(slot.port[1].run.load(), 1);
  std::vector<CAN_MSG> tx = numbered(40);
  ASSERT_EQ(CAN_SendMsg(kClassic, 0, tx.data(), 20), 20);
  ASSERT_EQ(CAN_SendMsg(kClassic, 1, tx.data() + 20, 20), 20);
  EXPECT_EQ(wait_queued(kClassic, 1, 20), 20u);
  EXPECT_EQ(wait_queued(kClassic, 0, 20), 20u);

  EXPECT_EQ(CAN_StopGetMsg(kClassic, 0), 0);  // port 1 still polled: no join
  {
    std::scoped_lock g(slot.thread_mutex);
    EXPECT_TRUE(slot.reader.joinable());
  }
  EXPECT_EQ(CAN_StopGetMsg(kClassic, 1), 0);
  {
    std::scoped_lock g(slot.thread_mutex);
    EXPECT_FALSE(slot.reader.joinable());
  }
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kClassic, 1, rx.data()), 20);
  EXPECT_EQ(rx[19].Data[0], 19);
}

TEST_F(CanReceive, FailedPollStopsPollingThatPort) {
  auto m = open_both(kClassic);
  auto& slot = can::state().slot[*can::slot_of(kClassic)];
  // A reply with payload under the wrong code: drained, and the poll fails.
  m->inject(fault(sim::FaultKind::WrongCode, 0x0C03, 0x0C04));
  sim::can_inject_rx(*m, 0, {sim_frame(0x66, 4)});
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 0), 0);
  for (int i = 0; i < 500 && slot.port[0].run.load(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(slot.port[0].run.load(), 0);
  // The thread ended by itself; a new start collects it and starts another.
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 0), 0);
  sim::can_inject_rx(*m, 0, {sim_frame(0x77, 5)});
  EXPECT_EQ(wait_queued(kClassic, 0, 1), 1u);
  EXPECT_EQ(CAN_Stop(kClassic, 0), 0);
  EXPECT_EQ(payloads(*m, 0x0C09), (std::vector<Bytes>{{0}}));
  EXPECT_EQ(wait_queued(kClassic, 0, 0), 0u);  // emptied by the stop
}

TEST_F(CanReceive, InitStopsPollingOfThatPort) {
  auto m = open_both(kClassic);
  auto& slot = can::state().slot[*can::slot_of(kClassic)];
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 1), 0);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kClassic, &c, 500000), 0);
  ASSERT_EQ(CAN_Init(kClassic, 1, &c), 0);
  EXPECT_EQ(slot.port[1].run.load(), 0);
  EXPECT_EQ(CAN_StopGetMsg(kClassic, 1), 0);  // joins the ending thread
}

TEST_F(CanReceive, ClearAndInjectedFramesKeepIsoTpQueue) {
  auto m = open_both(kClassic);
  std::vector<CAN_MSG> mine = numbered(3);
  ASSERT_EQ(CAN_SetCANMsgToBuffer(kClassic, 1, mine.data(), 3), 0);
  ASSERT_EQ(CAN_SetCANMsgToBuffer(kClassic, 1, mine.data(), 0), 0);
  EXPECT_EQ(CAN_SetCANMsgToBuffer(kClassic, 1, nullptr, 2), CAN_ERR_PARAMETER);
  sim::can_inject_rx(*m, 1, {sim_frame(0x99, 1)});
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsgWithSize(kClassic, 1, rx.data(), 2), 2);  // polls once first
  EXPECT_EQ(rx[0].Data[0], 0);
  sim::can_inject_rx(*m, 1, {sim_frame(0x9A, 2)});
  EXPECT_EQ(CAN_ClearMsg(kClassic, 1), 0);  // fetches 0x9A and discards it
  EXPECT_EQ(CAN_GetMsgWithSize(kClassic, 1, rx.data(), 10), 0);
  ASSERT_EQ(CAN_GetCANMsgFromUDSBuffer(kClassic, 1, rx.data(), 10), 2);
  EXPECT_EQ(rx[0].ID, 0x99u);
  EXPECT_EQ(rx[1].ID, 0x9Au);
  EXPECT_EQ(rx[1].FrameFlags, 0x20);
}

TEST_F(CanReceive, UnknownAdapterOrPortReadsNothing) {
  auto m = open_both(kClassic);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  EXPECT_EQ(CAN_GetMsg(0x31000099, 0, rx.data()), 0);
  EXPECT_EQ(CAN_GetMsg(kClassic, 2, rx.data()), 0);
  EXPECT_EQ(CAN_GetMsgWithSize(0x31000099, 0, rx.data(), 5), 0);
  EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(kClassic, 7, rx.data(), 5), 0);
  EXPECT_EQ(CAN_ClearMsg(0x31000099, 0), 0);
  EXPECT_EQ(CAN_StartGetMsg(0x31000099, 0), CAN_ERR_USB_WRITE_FAIL);
  EXPECT_EQ(CAN_ReadMsg(kClassic, 0, nullptr), CAN_ERR_PARAMETER);
  EXPECT_TRUE(m->commands().empty());
}

TEST_F(CanReceive, QuickSortOrdersByLowTimeWord) {
  std::vector<CAN_MSG> v(200);
  for (size_t i = 0; i < v.size(); ++i) {
    v[i].TimeStamp = uint32_t((i * 7919) % 97);
    v[i].TimeStampHigh = uint8_t(200 - i);  // ignored
  }
  CAN_QuickSort(v.data(), 0, int(v.size()) - 1, 0);
  for (size_t i = 1; i < v.size(); ++i) ASSERT_LE(v[i - 1].TimeStamp, v[i].TimeStamp);
  std::vector<CAN_MSG> desc(5000);
  for (size_t i = 0; i < desc.size(); ++i) desc[i].TimeStamp = uint32_t(desc.size() - i);
  CAN_QuickSort(desc.data(), 0, int(desc.size()) - 1, 0);
  EXPECT_EQ(desc.front().TimeStamp, 1u);
  EXPECT_EQ(desc.back().TimeStamp, 5000u);
  CAN_QuickSort(nullptr, 0, 5, 0);
  CAN_QuickSort(v.data(), -1, 5, 0);
}

}  // namespace
}  // namespace veltrix::test
