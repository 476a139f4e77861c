// Four senders and the receive thread keep working while the adapter is pulled out, put
// back, scanned and re-opened. Nothing may crash, hang or leak; every call ends with a CAN
// result code, and reception works again once the adapter is back.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/can/can_fixture.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

// Ends the process when the scenario does not finish in time: a library that hangs must
// fail this test instead of stalling the whole run.
class Watchdog {
 public:
  explicit Watchdog(std::chrono::seconds limit)
      : thread_([this, limit] {
          std::unique_lock l(m_);
          if (!cv_.wait_for(l, limit, [this] { return done_; })) {
            std::fprintf(stderr, "watchdog: the scenario hung; aborting\n");
            std::abort();
          }
        }) {}
  ~Watchdog() {
    {
      std::scoped_lock l(m_);
      done_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool done_ = false;
  std::thread thread_;
};

class ReplugStress : public CanTest {
 protected:
  // Application threads sending single frames until told to stop. A send to a vanished
  // adapter must end with the family's write or read failure, never anything else.
  void start_senders() {
    for (unsigned t = 0; t < 4; ++t) {
      senders_.emplace_back([this, t] {
        CAN_MSG f = can_frame(0x200 + t, {uint8_t(t)});
        while (!stop_.load()) {
          int r = CAN_SendMsg(kClassic, uint8_t(t & 1), &f, 1);
          if (r == 1) {
            ++sent_;
          } else if (r == CAN_ERR_USB_WRITE_FAIL || r == CAN_ERR_USB_READ_FAIL) {
            ++failed_;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
          } else {
            unexpected_.store(r);
          }
        }
      });
    }
  }
  void stop_senders() {
    stop_.store(true);
    for (auto& t : senders_) t.join();
    senders_.clear();
  }

  std::atomic<bool> stop_{false};
  std::atomic<int> sent_{0}, failed_{0}, unexpected_{0};
  std::vector<std::thread> senders_;
};

TEST_F(ReplugStress, SendersAndReceiverSurviveUnplugScanAndReopen) {
  Watchdog watchdog(std::chrono::seconds(100));
  open_both(kClassic);
  ASSERT_EQ(CAN_StartGetMsg(kClassic, 0), CAN_SUCCESS);
  start_senders();
  constexpr int kCycles = 3;
  unsigned int handles[4] = {0};
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    bed().unplug(kClassic);
    if (cycle % 2 == 0) {
      // Scanning while it is gone drops the adapter's record under the senders' feet.
      EXPECT_EQ(USB_ScanDevice(handles), 0) << "cycle " << cycle;
    } else {
      // Leave it to the senders' own re-connect attempts for a while.
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    bed().replug(kClassic);
    ASSERT_EQ(USB_ScanDevice(handles), 1) << "cycle " << cycle;
    EXPECT_EQ(handles[0], kClassic);
    ASSERT_EQ(USB_OpenDevice(kClassic), 1) << "cycle " << cycle;
    // The receive thread stops polling at its first failed read; the application starts
    // it again once the adapter is back.
    EXPECT_EQ(CAN_StartGetMsg(kClassic, 0), CAN_SUCCESS);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  stop_senders();
  EXPECT_EQ(unexpected_.load(), 0);
  EXPECT_GT(sent_.load(), 0);
  EXPECT_GT(failed_.load(), 0) << "the adapter never looked unplugged to the senders";

  // Reception resumes: frames sent from port 1 after the last re-plug arrive on port 0 in
  // order, through the receive thread that the last start left running. (A failing poll
  // of the old adapter must not have undone that start.)
  constexpr int kProbe = 20;
  std::vector<CAN_MSG> probe;
  for (int i = 0; i < kProbe; ++i) probe.push_back(can_frame(0x321, {uint8_t(i), 0x5A}));
  ASSERT_EQ(CAN_SendMsg(kClassic, 1, probe.data(), kProbe), kProbe);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE), got;
  for (int i = 0; i < 500 && got.size() < size_t(kProbe); ++i) {
    int n = CAN_GetMsg(kClassic, 0, rx.data());
    ASSERT_GE(n, 0);
    for (int k = 0; k < n; ++k)
      if (rx[size_t(k)].ID == 0x321) got.push_back(rx[size_t(k)]);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(got.size(), size_t(kProbe));
  for (int i = 0; i < kProbe; ++i) {
    EXPECT_EQ(got[size_t(i)].Data[0], i);
    EXPECT_EQ(got[size_t(i)].Data[1], 0x5A);
    EXPECT_EQ(got[size_t(i)].DataLen, 2);
  }
  EXPECT_EQ(CAN_StopGetMsg(kClassic, 0), CAN_SUCCESS);
  EXPECT_EQ(USB_CloseDevice(kClassic), 1);
}

}  // namespace
}  // namespace veltrix::test
