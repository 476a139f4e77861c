// Two application threads send while the receive thread polls both ports.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

class CanStress : public CanTest {};

TEST_F(CanStress, TwoSendersAndReceiveThreadLoseNothingBelowCapacity) {
  open_both(kClassic);
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 0), 0);
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 1), 0);
  constexpr int kBatches = 40, kPerBatch = 100;  // 4000 per direction, below 10000
  auto sender = [](unsigned port, int* accepted) {
    std::vector<CAN_MSG> batch(kPerBatch);
    for (int b = 0; b < kBatches; ++b) {
      for (int i = 0; i < kPerBatch; ++i) {
        int seq = b * kPerBatch + i;
        batch[size_t(i)] = can_frame(0x100 + port, {uint8_t(seq), uint8_t(seq >> 8)});
      }
      int r = CAN_SendMsg(kClassic, uint8_t(port), batch.data(), kPerBatch);
      if (r > 0) *accepted += r;
    }
  };
  int acc0 = 0, acc1 = 0;
  std::vector<CAN_MSG> got[2];
  std::thread t0(sender, 0, &acc0), t1(sender, 1, &acc1);
  // The application drains meanwhile, as it would in its loop.
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  auto drain = [&] {
    for (unsigned p = 0; p < 2; ++p) {
      int n = CAN_GetMsg(kClassic, uint8_t(p), rx.data());
      got[p].insert(got[p].end(), rx.begin(), rx.begin() + std::max(n, 0));
    }
  };
  for (int i = 0; i < 20; ++i) {
    drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  t0.join();
  t1.join();
  for (int i = 0; i < 500 && (got[0].size() < 4000 || got[1].size() < 4000); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    drain();
  }
  EXPECT_EQ(CAN_StopGetMsg(kClassic, 0), 0);
  EXPECT_EQ(CAN_StopGetMsg(kClassic, 1), 0);
  EXPECT_EQ(acc0, kBatches * kPerBatch);
  EXPECT_EQ(acc1, kBatches * kPerBatch);
  for (unsigned p = 0; p < 2; ++p) {
    ASSERT_EQ(got[p].size(), size_t(kBatches * kPerBatch)) << "port " << p;
    for (size_t i = 0; i < got[p].size(); ++i) {
      // Port p receives what the other port sent, in order.
      ASSERT_EQ(got[p][i].ID, 0x100u + (p ^ 1)) << i;
      ASSERT_EQ(got[p][i].Data[0] | got[p][i].Data[1] << 8, int(i)) << i;
      ASSERT_EQ(got[p][i].FrameFlags, p << 5);
    }
  }
}

}  // namespace
}  // namespace veltrix::test
