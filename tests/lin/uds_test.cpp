// UDS over LIN against the virtual diagnostic slave, and the frame buffer.
#include <chrono>
#include <numeric>

#include "lin/lin_queue.hpp"
#include "tests/lin/lin_fixture.hpp"
#include "veltrix/lin_uds.h"

namespace veltrix::test {
namespace {

constexpr uint8_t kCh = 1;
constexpr uint8_t kNad = 0x02;

class LinUds : public LinTest {
 protected:
  void SetUp() override { open_master(kCh); }
  LIN_UDS_ADDR addr_{0x3C, 0x3D, kNad, 0, 0};
  sim::LinUdsSlave& slave(sim::LinBus& b) { return b.ch[kCh].diag; }
  // The data bytes of every request frame sent so far.
  std::vector<Bytes> request_frames() {
    std::vector<Bytes> out;
    for (const Bytes& p : sent(0x0F07)) {
      Bytes r = sent_record(p, 0);
      if (r[4] == 1) out.emplace_back(r.begin() + 9, r.begin() + 17);
    }
    return out;
  }
  int exchange(const Bytes& req, uint8_t* resp, int timeout_ms = 2000) {
    int r = LIN_UDS_Request(kLinDev, kCh, &addr_, req.data(), int(req.size()));
    return r != 0 ? r : LIN_UDS_Response(kLinDev, kCh, &addr_, resp, timeout_ms);
  }
};

TEST_F(LinUds, SixBytesGoAsOneSingleFrame) {
  addr_.STmin = 3;
  addr_.CheckType = 1;
  const Bytes req{0x31, 0x01, 0xAA, 0xBB, 0xCC, 0xDD};
  ASSERT_EQ(LIN_UDS_Request(kLinDev, kCh, &addr_, req.data(), 6), 0);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 1u);
  // Enhanced over PID 0x3C and the data.
  EXPECT_EQ(sent_record(p[0], 0),
            wire_record(3, 1, 1, 8, 0x3C, {kNad, 0x06, 0x31, 0x01, 0xAA, 0xBB, 0xCC, 0xDD}, 0x78));
  with_bus([&](sim::LinBus& b) { EXPECT_EQ(slave(b).requests, (std::vector<Bytes>{req})); });
}

TEST_F(LinUds, SevenBytesGoAsFirstAndConsecutiveFrame) {
  const Bytes req{1, 2, 3, 4, 5, 6, 7};
  ASSERT_EQ(LIN_UDS_Request(kLinDev, kCh, &addr_, req.data(), 7), 0);
  EXPECT_EQ(request_frames(), (std::vector<Bytes>{{kNad, 0x10, 0x07, 1, 2, 3, 4, 5},
                                                  {kNad, 0x21, 6, 7, 0xFF, 0xFF, 0xFF, 0xFF}}));
}

TEST_F(LinUds, LongRequestsAreCutTo4095BytesAndSequenceNumbersWrap) {
  Bytes req(4096);
  std::iota(req.begin(), req.end(), 0);
  ASSERT_EQ(LIN_UDS_Request(kLinDev, kCh, &addr_, req.data(), 4096), 0);
  auto f = request_frames();
  ASSERT_EQ(f.size(), 683u);  // first frame + ceil(4090 / 6)
  EXPECT_THAT(f[0], BytesEq({kNad, 0x1F, 0xFF, 0, 1, 2, 3, 4}));
  EXPECT_EQ(f[15][1], 0x2F);
  EXPECT_EQ(f[16][1], 0x20);
  EXPECT_THAT(f[682], BytesEq({kNad, 0x2A, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF, 0xFF}));
  with_bus([&](sim::LinBus& b) {
    ASSERT_EQ(slave(b).requests.size(), 1u);
    EXPECT_EQ(slave(b).requests[0], Bytes(req.begin(), req.begin() + 4095));
  });
}

TEST_F(LinUds, ReadsSingleAndSegmentedResponses) {
  uint8_t resp[LIN_UDS_MAX_LEN];
  ASSERT_EQ(exchange({0x3E, 0x00}, resp), 2);
  EXPECT_THAT(Bytes(resp, resp + 2), BytesEq({0x7E, 0x00}));

  ASSERT_EQ(exchange({0x22, 0xF1, 0x90}, resp), 20);
  EXPECT_THAT(Bytes(resp, resp + 3), BytesEq({0x62, 0xF1, 0x90}));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(resp) + 3, 17), "VLTX0000000000017");

  Bytes big(300);
  std::iota(big.begin(), big.end(), 7);
  with_bus([&](sim::LinBus& b) { slave(b).responses[{0x22, 0x01, 0x02}] = big; });
  ASSERT_EQ(exchange({0x22, 0x01, 0x02}, resp), 300);
  EXPECT_EQ(Bytes(resp, resp + 300), big);
}

TEST_F(LinUds, ResponsePendingComesBackAsItsOwnAnswer) {
  with_bus([&](sim::LinBus& b) { slave(b).pending_before_answer = 2; });
  uint8_t resp[LIN_UDS_MAX_LEN];
  ASSERT_EQ(exchange({0x31, 0x01, 0xFF, 0x00}, resp), 3);
  EXPECT_THAT(Bytes(resp, resp + 3), BytesEq({0x7F, 0x31, 0x78}));
  ASSERT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), 3);
  ASSERT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), 4);
  EXPECT_THAT(Bytes(resp, resp + 4), BytesEq({0x71, 0x01, 0xFF, 0x00}));
}

TEST_F(LinUds, MalformedResponsesGiveTheirCodes) {
  uint8_t resp[LIN_UDS_MAX_LEN];
  with_bus([&](sim::LinBus& b) { slave(b).wrong_sequence = true; });
  EXPECT_EQ(exchange({0x22, 0xF1, 0x90}, resp), LIN_UDS_ERR_SEQUENCE);

  auto queue = [&](std::vector<Bytes> frames) {
    with_bus([&](sim::LinBus& b) {
      slave(b).outbox.assign(frames.begin(), frames.end());
    });
  };
  queue({{kNad, 0x10, 0x08, 1, 2, 3, 4, 5}, {kNad, 0x22, 6, 7, 8, 0xFF, 0xFF, 0xFF}});
  EXPECT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), LIN_UDS_ERR_SEQUENCE);
  queue({{kNad, 0x21, 6, 7, 8, 0xFF, 0xFF, 0xFF}});  // no first frame before it
  EXPECT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), LIN_UDS_ERR_SEQUENCE);
  queue({{kNad, 0x07, 1, 2, 3, 4, 5, 6}});
  EXPECT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), LIN_UDS_ERR_PCI);
  queue({{kNad, 0x30, 0, 0, 0, 0, 0, 0}});
  EXPECT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), LIN_UDS_ERR_PCI);
  queue({{kNad, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}});
  EXPECT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 2000), 0);
}

TEST_F(LinUds, SilentSlaveTimesOut) {
  with_bus([&](sim::LinBus& b) { slave(b).enabled = false; });
  uint8_t resp[LIN_UDS_MAX_LEN];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(LIN_UDS_Response(kLinDev, kCh, &addr_, resp, 100), LIN_UDS_ERR_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  EXPECT_GT(sent(0x0F07).size(), 1u);  // polled back to back
}

TEST_F(LinUds, FrameFailuresMapToUdsCodes) {
  const uint64_t a = LIN_UDS_PackAddr(&addr_);
  EXPECT_EQ(a, 0x0000000002'3D3Cull);
  const uint8_t pci[2] = {0x01, 0x3E};
  EXPECT_EQ(LIN_UDS_SendMsg(kLinDev, 0, a, pci, 2), LIN_UDS_ERR_SEND);  // channel 0 not set up
  EXPECT_EQ(LIN_UDS_SendMsg(kLinDev, kCh, a, pci, 8), LIN_UDS_ERR_SEND);
  // An echo that differs from the frame sent is no confirmation.
  raw_reply(0x0F07, wire_record(0, 9, 0, 8, 0x3C, {kNad, 0x01, 0x3F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 0));
  EXPECT_EQ(LIN_UDS_SendMsg(kLinDev, kCh, a, pci, 2), LIN_UDS_ERR_NO_FRAME);
  raw_reply(0x0F07, {});
  EXPECT_EQ(LIN_UDS_SendMsg(kLinDev, kCh, a, pci, 2), LIN_UDS_ERR_NO_FRAME);
  // A poll with a bad checksum is refused but kept in the buffer.
  LIN_USD_ClearCANMsgFromUDSBuffer(kLinDev, kCh);
  raw_reply(0x0F07, wire_record(0, 9, 0, 8, 0x7D, {kNad, 0x01, 0x7E, 0, 0, 0, 0, 0}, 0x00));
  uint8_t out[7];
  EXPECT_EQ(LIN_UDS_GetMsg(kLinDev, kCh, a, out), LIN_UDS_ERR_NO_FRAME);
  LIN_EX_MSG kept[2];
  ASSERT_EQ(LIN_UDS_GetMsgFromUDSBuffer(kLinDev, kCh, kept, 2), 1);
  EXPECT_EQ(kept[0].CheckType, 4);
  EXPECT_EQ(kept[0].Reserved, kCh | 2 << 2);
}

TEST_F(LinUds, BufferHoldsTheFramesOfTheLastExchange) {
  uint8_t resp[LIN_UDS_MAX_LEN];
  ASSERT_EQ(exchange({0x3E, 0x00}, resp), 2);
  ASSERT_EQ(exchange({0x22, 0xF1, 0x90, 0, 0, 0, 0}, resp), 7);
  LIN_EX_MSG b[10];
  ASSERT_EQ(LIN_UDS_GetMsgFromUDSBuffer(kLinDev, kCh, b, 10), 4);  // FF, CF, 2 polls
  EXPECT_EQ(b[0].Reserved, kCh | 1 << 2);
  EXPECT_EQ(b[0].Data[1], 0x10);
  EXPECT_EQ(b[1].Data[1], 0x21);
  EXPECT_EQ(b[2].Reserved, kCh | 2 << 2);
  EXPECT_EQ(b[2].Data[1], 0x10);
  EXPECT_EQ(b[3].Data[1], 0x21);
  EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(kLinDev, kCh, b, 10), 0);
}

TEST_F(LinUds, BufferDropsTheOldestBeyond1000) {
  std::vector<LIN_EX_MSG> recs(1001);
  for (uint32_t i = 0; i < recs.size(); ++i) recs[i].Timestamp = i;
  ASSERT_EQ(LIN_USD_SetLINMsgToBuffer(kLinDev, kCh + 4, recs.data(), 1001), 0);  // channel mod 4
  std::vector<LIN_EX_MSG> out(1100);
  ASSERT_EQ(LIN_UDS_GetMsgFromUDSBuffer(kLinDev, kCh, out.data(), 1100), 1000);
  EXPECT_EQ(out[0].Timestamp, 1u);
  EXPECT_EQ(out[999].Timestamp, 1000u);
  EXPECT_EQ(LIN_USD_SetLINMsgToBuffer(0x12345678, 0, recs.data(), 1), LIN_UDS_ERR_SEND);
  EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(kLinDev, kCh, nullptr, 1), LIN_UDS_ERR_SEND);
}

TEST(LinQueue, RingRefusesWhenFullOrEmptyAndWraps) {
  QUEUE q;
  ASSERT_EQ(lin_queue_init(&q, 3), 1);
  LIN_EX_MSG m{}, got{};
  EXPECT_EQ(lin_queue_dequeue(&q, &got), 0);
  for (uint32_t i = 0; i < 3; ++i) {
    m.Timestamp = i;
    EXPECT_EQ(lin_queue_enqueue(&q, &m), 1);
  }
  EXPECT_EQ(lin_queue_enqueue(&q, &m), 0);
  ASSERT_EQ(lin_queue_dequeue(&q, &got), 1);
  EXPECT_EQ(got.Timestamp, 0u);
  m.Timestamp = 3;
  ASSERT_EQ(lin_queue_enqueue(&q, &m), 1);  // wraps to index 0
  EXPECT_EQ(q.write_index, 1);
  ASSERT_EQ(lin_queue_resize(&q, 2), 1);  // keeps the oldest two: 1, 2
  ASSERT_EQ(lin_queue_dequeue(&q, &got), 1);
  EXPECT_EQ(got.Timestamp, 1u);
  lin_queue_clear(&q);
  EXPECT_EQ(lin_queue_empty(&q), 1);
  EXPECT_EQ(q.read_index + q.write_index, 0);
  lin_queue_free(&q);
  EXPECT_EQ(lin_queue_enqueue(&q, &m), 0);
}

}  // namespace
}  // namespace veltrix::test
