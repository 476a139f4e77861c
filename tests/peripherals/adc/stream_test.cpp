#include <atomic>
#include <chrono>
#include <thread>

#include "peripherals/adc/adc_state.hpp"
#include "sim/adc.hpp"
#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/adc.h"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

using namespace std::chrono_literals;
constexpr uint32_t kDev = 0x42000E05;

class AdcStream : public PeriphTest {
 protected:
  void SetUp() override {
    PeriphTest::SetUp();
    open(kDev);
  }
  void TearDown() override { ADC_StopContinueRead(kDev); }

  adc::Stream& stream() { return adc::state().slots[usb_list_get_index(kDev)].stream; }

  // Waits (bounded, as a guard against a hang, not a timing check) until cond holds.
  template <typename Cond>
  bool wait_for(Cond cond, std::chrono::seconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  }

  // Drains the queue until `want` samples came; each must continue input 0's ramp.
  void expect_ramp(size_t want, uint32_t frame, uint16_t first = 0) {
    std::vector<short> buf(size_t(frame) * 16);
    size_t got = 0;
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (got < want) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "stream stalled at " << got;
      int n = ADC_GetData(kDev, buf.data(), int(buf.size()));
      ASSERT_GE(n, 0);
      ASSERT_EQ(n % int(frame), 0);
      for (int i = 0; i < n; ++i, ++got)
        ASSERT_EQ(uint16_t(buf[size_t(i)]), uint16_t(first + got)) << "gap at sample " << got;
      if (n == 0) std::this_thread::sleep_for(2ms);
    }
  }
  uint64_t sim_frames() {
    return with_sim([](sim::Model& m) { return sim::adc_sim(m).frames_sent; });
  }
};

TEST_F(AdcStream, StartCapsTheFrameAtTheLargestTheAdapterTakes) {
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 1000, 20000, nullptr), 0);
  EXPECT_EQ(sent(0x502), (std::vector<Bytes>{{0x01, 0, 0, 0x03, 0xE8, 0, 0, 0x28, 0x00}}));
  EXPECT_EQ(ADC_StartContinueRead(kDev, 0x01, 1000, 0, nullptr), ADC_ERR_PARAMETER);
  EXPECT_EQ(ADC_StartContinueRead(0x42FFFFFF, 0x01, 1000, 10, nullptr), ADC_ERR_PARAMETER);
}

TEST_F(AdcStream, StartRefusedByTheAdapterStartsNoReader) {
  fault(sim::FaultKind::ExtraPayload, 0x502, 4);
  EXPECT_EQ(ADC_StartContinueRead(kDev, 0x01, 1000, 100, nullptr), ADC_ERR_REPLY);
  fault(sim::FaultKind::WrongCode, 0x502, 0x500);
  EXPECT_EQ(ADC_StartContinueRead(kDev, 0x01, 1000, 100, nullptr), ADC_ERR_REPLY);
  EXPECT_FALSE(stream().thread.joinable());
  EXPECT_EQ(ADC_GetStreamState(kDev, nullptr), 0);
  // Each refused start is undone on the adapter; the stop after them has nothing to do.
  EXPECT_EQ(ADC_StopContinueRead(kDev), 0);
  EXPECT_EQ(m_->control_requests().size(), 2u);
  ASSERT_EQ(ADC_Init(kDev, 0x01, 1000), 0) << "stream bytes leaked into a reply";
}

TEST_F(AdcStream, TenSecondsAtOneHundredKilosamplesLoseNothing) {
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 1000, nullptr), 0);
  expect_ramp(1000000, 1000);
  unsigned int dropped = 99;
  EXPECT_EQ(ADC_GetStreamState(kDev, &dropped), 1);
  EXPECT_EQ(dropped, 0u);
  EXPECT_EQ(ADC_StopContinueRead(kDev), 0);
  with_sim([](sim::Model& m) { EXPECT_EQ(sim::adc_sim(m).frames_lost, 0u); });
}

TEST_F(AdcStream, GetDataBelowOneFrameLeavesTheQueueAlone) {
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 100, nullptr), 0);
  ASSERT_TRUE(wait_for([&] { return stream().queue.frames() >= 3; }));
  EXPECT_EQ(ADC_WaitForThreadExit(kDev), 1);  // still running: nothing to wait for
  ASSERT_EQ(ADC_StopContinueRead(kDev), 0);
  const size_t queued = stream().queue.frames();
  short buf[400];
  EXPECT_EQ(ADC_GetData(kDev, buf, 99), 0);
  EXPECT_EQ(stream().queue.frames(), queued);
  // Whole frames only: 250 samples of room take two frames of 100.
  EXPECT_EQ(ADC_GetData(kDev, buf, 250), 200);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(buf[i], i);
  EXPECT_EQ(ADC_GetData(kDev, nullptr, 250), ADC_ERR_PARAMETER);
}

TEST_F(AdcStream, StopSendsTheVendorRequestAndCommandsWorkAfterwards) {
  for (int cycle = 0; cycle < 4; ++cycle) {
    ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 50000, 500, nullptr), 0) << cycle;
    expect_ramp(2000, 500);  // every start begins a fresh ramp: nothing of the last one
    ASSERT_EQ(ADC_StopContinueRead(kDev), 0);
    EXPECT_EQ(ADC_StopContinueRead(kDev), 0);  // a second stop has nothing to do
    ASSERT_EQ(ADC_Init(kDev, 0x01, 1000), 0) << "stream bytes leaked into a reply";
  }
  int stops = 0;
  for (const sim::ControlRequest& rq : m_->control_requests())
    if (rq.request_type == 0x41 && rq.request == 0x40) {
      ++stops;
      EXPECT_EQ(rq.length, 0);
    }
  EXPECT_EQ(stops, 4);
  EXPECT_FALSE(stream().thread.joinable());
}

std::atomic<int> g_frames{0};
std::atomic<int> g_bad{0};

void on_frame(unsigned int h, const unsigned char* p, int samples, int bytes) {
  if (h != kDev || samples * 2 != bytes || bytes != 600 || p == nullptr) ++g_bad;
  ++g_frames;
}

TEST_F(AdcStream, CallbackTakesFramesInsteadOfTheQueue) {
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x03, 20000, 300, on_frame), 0);
  ASSERT_TRUE(wait_for([] { return g_frames.load() >= 20; }));
  ASSERT_EQ(ADC_StopContinueRead(kDev), 0);
  EXPECT_EQ(g_bad.load(), 0);
  short buf[600];
  EXPECT_EQ(ADC_GetData(kDev, buf, 600), 0);
}

TEST_F(AdcStream, UnplugEndsTheStreamAndARestartWorksAfterReplug) {
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 1000, nullptr), 0);
  ASSERT_TRUE(wait_for([&] { return sim_frames() >= 3; }));
  bed().unplug(kDev);
  ASSERT_TRUE(wait_for([] { return ADC_GetStreamState(kDev, nullptr) == 0; }));
  // The reader winds down by itself; once joined no thread handle is left to reuse.
  EXPECT_EQ(ADC_WaitForThreadExit(kDev), 0);
  EXPECT_FALSE(stream().thread.joinable());
  EXPECT_EQ(ADC_StopContinueRead(kDev), 0);
  bed().replug(kDev);
  ASSERT_GE(USB_ScanDevice(nullptr), 1);
  ASSERT_EQ(USB_OpenDevice(kDev), 1);
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 1000, nullptr), 0);
  expect_ramp(20000, 1000);
}

TEST_F(AdcStream, StallEndsTheStreamButKeepsWhatCame) {
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 1000, nullptr), 0);
  ASSERT_TRUE(wait_for([&] { return stream().queue.frames() >= 2; }));
  fault(sim::FaultKind::Stall, 0);
  ASSERT_TRUE(wait_for([] { return ADC_GetStreamState(kDev, nullptr) == 0; }));
  std::vector<short> buf(1000 * 64);
  const int n = ADC_GetData(kDev, buf.data(), int(buf.size()));
  ASSERT_GE(n, 2000);
  for (int i = 0; i < n; ++i) ASSERT_EQ(uint16_t(buf[size_t(i)]), uint16_t(i));
  EXPECT_EQ(ADC_StopContinueRead(kDev), 0);
  EXPECT_FALSE(stream().thread.joinable());
}

std::atomic<int> g_calls{0};
void count_frame(unsigned int, const unsigned char*, int, int) { ++g_calls; }

class AdcTakeaway : public AdcStream, public ::testing::WithParamInterface<Takeaway> {};

// A close, or an unplug and then a close, with the stream running: the reader thread is
// joined, no callback comes afterwards, and the adapter streams again once re-opened.
TEST_P(AdcTakeaway, ClosingJoinsTheReaderAndEndsTheCallbacks) {
  const size_t threads = thread_count();
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 1000, count_frame), 0);
  ASSERT_TRUE(wait_for([] { return g_calls.load() >= 5; }));
  take_away(GetParam());
  EXPECT_FALSE(stream().thread.joinable());
  // An unplug may leave the USB emulation a helper thread of its own for a moment.
  EXPECT_TRUE(wait_for([&] { return thread_count() == threads; }));
  EXPECT_EQ(ADC_GetStreamState(kDev, nullptr), 0);
  const int calls = g_calls.load();
  std::this_thread::sleep_for(100ms);  // the adapter would have sent ten more frames
  EXPECT_EQ(g_calls.load(), calls);

  if (GetParam() == Takeaway::UnplugThenClose) bed().replug(kDev);
  ASSERT_GE(USB_ScanDevice(nullptr), 1);
  ASSERT_EQ(USB_OpenDevice(kDev), 1);
  ASSERT_EQ(ADC_StartContinueRead(kDev, 0x01, 100000, 1000, nullptr), 0);
  expect_ramp(5000, 1000);
}

INSTANTIATE_TEST_SUITE_P(Ways, AdcTakeaway,
                         ::testing::Values(Takeaway::Close, Takeaway::UnplugThenClose),
                         takeaway_name);

}  // namespace
}  // namespace veltrix::test
