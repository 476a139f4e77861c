// Command packets on the wire: framing, zero-length packets, replies good and bad, locks.
#include "device/transport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "device/registry.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kEcho = 0x0E01;
constexpr uint32_t kBig = 0x0E02;    // answers 100 bytes
constexpr uint32_t kEmpty = 0x0E03;  // answers a bare header

class Transport : public SimTest {
 protected:
  std::shared_ptr<sim::Model> open_with_handlers(uint32_t serial,
                                                 sim::Speed speed = sim::Speed::High) {
    auto m = plug_and_open(serial, "", speed);
    m->on(kEcho, [](sim::Model&, const sim::Command& c) {
      return std::optional<sim::Reply>(sim::Reply{kEcho, c.payload});
    });
    m->on(kBig, [](sim::Model&, const sim::Command&) {
      Bytes p(100);
      for (size_t i = 0; i < p.size(); ++i) p[i] = uint8_t(i);
      return std::optional<sim::Reply>(sim::Reply{kBig, p});
    });
    m->on(kEmpty, [](sim::Model&, const sim::Command&) {
      return std::optional<sim::Reply>(sim::Reply{kEmpty, {}});
    });
    return m;
  }

  bool echo_works(uint32_t h) {
    const uint8_t ping[3] = {7, 8, 9};
    uint8_t back[3] = {0};
    return exchange(h, {.cmd = kEcho, .payload = ping, .reply = back}).ok() && back[2] == 9;
  }

  std::vector<size_t> out_lengths(const sim::Model& m) {
    std::vector<size_t> v;
    for (const sim::OutTransfer& t : m.out_transfers()) v.push_back(t.length);
    return v;
  }
};

TEST_F(Transport, FrameIsBigEndianHeaderThenPayload) {
  auto m = open_with_handlers(0x51000020);
  uint8_t payload[3] = {0xDE, 0xAD, 0xBE};
  USB_MSG msg{0x01020304, 3, payload};
  ASSERT_EQ(USB_MSG_Send(0x51000020, &msg, 100), 0);
  auto cmds = m->commands();
  ASSERT_EQ(cmds.size(), 1u);
  EXPECT_EQ(cmds[0].endpoint, 1);
  EXPECT_EQ(cmds[0].code, 0x01020304u);
  EXPECT_THAT(cmds[0].payload, BytesEq({0xDE, 0xAD, 0xBE}));
  EXPECT_EQ(out_lengths(*m), (std::vector<size_t>{11}));
}

TEST_F(Transport, ZeroLengthPacketAfterFullPacketsAtFullSpeed) {
  auto m = open_with_handlers(0x51000021, sim::Speed::Full);
  Bytes p56(56), p57(57), p120(120);
  USB_MSG a{kEcho, 56, p56.data()}, b{kEcho, 57, p57.data()}, c{kEcho, 120, p120.data()};
  ASSERT_EQ(USB_MSG_Send(0x51000021, &a, 100), 0);
  ASSERT_EQ(USB_MSG_Send(0x51000021, &b, 100), 0);
  ASSERT_EQ(USB_MSG_Send(0x51000021, &c, 100), 0);
  EXPECT_EQ(out_lengths(*m), (std::vector<size_t>{64, 0, 65, 128, 0}));
  EXPECT_EQ(m->commands().size(), 3u);  // the empty packets carry no command
}

TEST_F(Transport, ZeroLengthPacketAfterFullPacketsAtHighSpeed) {
  auto m = open_with_handlers(0x51000022, sim::Speed::High);
  Bytes p56(56), p504(504);
  USB_MSG a{kEcho, 56, p56.data()}, b{kEcho, 504, p504.data()};
  ASSERT_EQ(USB_MSG_Send(0x51000022, &a, 100), 0);
  ASSERT_EQ(USB_MSG_Send(0x51000022, &b, 100), 0);
  EXPECT_EQ(out_lengths(*m), (std::vector<size_t>{64, 512, 0}));
}

TEST_F(Transport, CanFdChannelParityPicksTheEndpoint) {
  auto m = open_with_handlers(0x53000023);
  uint8_t p[1] = {1};
  USB_MSG msg{kEcho, 1, p};
  ASSERT_EQ(CANFD_MSG_Send(0x53000023, 0, &msg, 100), 0);
  ASSERT_EQ(CANFD_MSG_Send(0x53000023, 1, &msg, 100), 0);
  ASSERT_EQ(CANFD_MSG_Send(0x53000023, 3, &msg, 100), 0);
  auto cmds = m->commands();
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[0].endpoint, 1);
  EXPECT_EQ(cmds[1].endpoint, 2);
  EXPECT_EQ(cmds[2].endpoint, 2);
}

TEST_F(Transport, HeaderOnlyReplyLeavesBufferUntouched) {
  open_with_handlers(0x51000024);
  uint8_t buf[4] = {0x11, 0x22, 0x33, 0x44};
  ExchangeResult r = exchange(0x51000024, {.cmd = kEmpty, .reply = buf});
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.reply_len, 0u);
  EXPECT_EQ(buf[0], 0x11);
  EXPECT_EQ(buf[3], 0x44);
}

TEST_F(Transport, ReplyLongerThanBufferIsCutAndStreamStaysFramed) {
  open_with_handlers(0x51000025);
  uint8_t buf[8];
  std::memset(buf, 0xCC, sizeof buf);
  ExchangeResult r = exchange(0x51000025, {.cmd = kBig, .reply = std::span(buf, 4)});
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.reply_len, 100u);
  EXPECT_EQ(r.copied, 4u);
  EXPECT_EQ(buf[3], 3);
  EXPECT_EQ(buf[4], 0xCC);  // guard bytes past the capacity
  EXPECT_TRUE(echo_works(0x51000025));

  // The exported reader takes len as the buffer's capacity.
  uint8_t one[2] = {0xCC, 0xCC};
  USB_MSG out{kBig, 0, nullptr};
  ASSERT_EQ(USB_MSG_Send(0x51000025, &out, 100), 0);
  USB_MSG in{kBig, 1, one};
  EXPECT_EQ(USB_MSG_Get(0x51000025, &in, 100), 0);
  EXPECT_EQ(in.len, 100u);
  EXPECT_EQ(one[0], 0);
  EXPECT_EQ(one[1], 0xCC);
}

TEST_F(Transport, MismatchedReplyCodeIsDrainedAndReported) {
  auto m = open_with_handlers(0x51000026);
  m->inject({.kind = sim::FaultKind::WrongCode, .match_code = kEcho, .arg = 0x0BAD});
  uint8_t p[5] = {1, 2, 3, 4, 5};
  USB_MSG out{kEcho, 5, p};
  ASSERT_EQ(USB_MSG_Send(0x51000026, &out, 100), 0);
  uint8_t buf[8] = {0};
  USB_MSG in{kEcho, sizeof buf, buf};
  EXPECT_EQ(USB_MSG_Get(0x51000026, &in, 100), -3);
  EXPECT_EQ(in.cmd, 0x0BADu);
  EXPECT_EQ(in.len, 5u);
  EXPECT_EQ(buf[0], 0);  // a foreign reply never lands in the caller's buffer
  EXPECT_TRUE(echo_works(0x51000026));
}

TEST_F(Transport, BareHeaderWithAForeignCodeFailsTheExchange) {
  auto m = open_with_handlers(0x5100002C);
  m->inject({.kind = sim::FaultKind::WrongCode, .match_code = kEmpty, .arg = 0x0BAD});
  uint8_t buf[4];
  ExchangeResult r = exchange(0x5100002C, {.cmd = kEmpty, .reply = buf});
  EXPECT_EQ(r.code, veltrix::Transport::WrongCode);
  EXPECT_EQ(r.reply_cmd, 0x0BADu);
  EXPECT_EQ(r.reply_len, 0u);
}

TEST_F(Transport, ShortHeaderIsAShortReply) {
  auto m = open_with_handlers(0x51000027);
  m->inject({.kind = sim::FaultKind::ShortHeader, .match_code = kEcho});
  uint8_t p[1] = {1};
  uint8_t buf[4] = {0};
  ExchangeResult r = exchange(0x51000027, {.cmd = kEcho, .payload = p, .reply = buf});
  EXPECT_EQ(r.code, veltrix::Transport::ShortReply);
  EXPECT_EQ(r.reply_cmd, 0u);
  EXPECT_EQ(r.reply_len, 0u);
  EXPECT_GE(m->resets(), 1);  // a failed transfer resets the device
  EXPECT_TRUE(echo_works(0x51000027));
}

TEST_F(Transport, MissingReplyTimesOutAndStallIsAReadFailure) {
  auto m = open_with_handlers(0x51000028);
  uint8_t buf[4];
  m->inject({.kind = sim::FaultKind::NoReply, .match_code = kEmpty});
  EXPECT_EQ(exchange(0x51000028, {.cmd = kEmpty, .reply = buf}).code, veltrix::Transport::Timeout);
  m->inject({.kind = sim::FaultKind::Stall});
  EXPECT_EQ(exchange(0x51000028, {.cmd = kEmpty, .reply = buf}).code,
            veltrix::Transport::ReadFailed);
  EXPECT_TRUE(echo_works(0x51000028));
}

TEST_F(Transport, HostileLengthNeverReadsGigabytes) {
  auto m = open_with_handlers(0x51000029);
  Bytes raw = {0x00, 0x00, 0x0E, 0x01, 0x7F, 0xFF, 0xFF, 0xF0, 1, 2, 3};
  m->inject({.kind = sim::FaultKind::RawReply, .match_code = kEcho, .raw = raw});
  uint8_t p[1] = {1};
  uint8_t buf[4] = {0};
  ExchangeResult r = exchange(0x51000029, {.cmd = kEcho, .payload = p, .reply = buf});
  EXPECT_EQ(r.value(), -3);
  EXPECT_EQ(r.reply_len, 0x7FFFFFF0u);
  EXPECT_TRUE(echo_works(0x51000029));
}

TEST_F(Transport, NeverScannedHandleFailsWithoutUsbThenRetriesForASecond) {
  uint8_t p[1] = {0};
  USB_MSG msg{kEcho, 1, p};
  EXPECT_EQ(USB_MSG_Send(0x5100DEAD, &msg, 100), -2);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(MSG_Send(0x5100DEAD, &msg, 100), -2);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
  EXPECT_EQ(MSG_SendInt(0x5100DEAD, &msg, 100), -2);  // terminates like MSG_Send
  USB_MSG in{kEcho, 1, p};
  EXPECT_EQ(USB_MSG_Get(0x5100DEAD, &in, 100), -3);
  EXPECT_EQ(in.cmd, 0u);
}

TEST_F(Transport, UnplugDuringAnExchangeFailsCleanlyAndRecovers) {
  auto m = open_with_handlers(0x5100002A, sim::Speed::High);
  m->inject({.kind = sim::FaultKind::Unplug, .match_code = kEcho});
  const uint8_t p[1] = {1};
  uint8_t buf[4];
  ExchangeResult r = exchange(0x5100002A, {.cmd = kEcho, .payload = p, .reply = buf});
  EXPECT_EQ(r.value(), -3);
  bed().replug(0x5100002A, "", /*same_address=*/false);
  ASSERT_EQ(USB_ScanDevice(nullptr), 1);
  ASSERT_EQ(USB_OpenDevice(0x5100002A), 1);
  EXPECT_TRUE(echo_works(0x5100002A));
}

// An application may call the packet functions without taking the adapter's lock. Each
// transfer then takes it itself, so closing and re-opening the adapter in another thread
// never pulls a handle from under a running transfer: every send either reaches the
// adapter whole or fails with -2.
TEST_F(Transport, UnlockedSendsMeetOnlyOpenOrNoHandle) {
  auto m = open_with_handlers(0x5100002C);
  std::atomic<bool> stop{false};
  std::atomic<int> ok{0}, failed{0}, other{0};
  std::thread sender([&] {
    uint8_t p[3] = {0x10, 0x20, 0x30};
    while (!stop.load()) {
      USB_MSG msg{kEmpty, sizeof p, p};
      int r = USB_MSG_Send(0x5100002C, &msg, 100);
      (r == 0 ? ok : r == -2 ? failed : other)++;
    }
  });
  auto sent_more_than = [&](int n) {
    for (int i = 0; i < 2000 && ok.load() <= n; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return ok.load() > n;
  };
  ASSERT_TRUE(sent_more_than(0));
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(USB_CloseDevice(0x5100002C), 1);
    EXPECT_EQ(USB_OpenDevice(0x5100002C), 1);
    const int before = ok.load();
    EXPECT_TRUE(sent_more_than(before));  // the sender works between re-opens
  }
  stop.store(true);
  sender.join();
  EXPECT_EQ(other.load(), 0);
  // Every frame that went out arrived whole: the adapter saw exactly the sent payloads.
  std::vector<Bytes> seen = payloads(*m, kEmpty);
  EXPECT_EQ(seen.size(), size_t(ok.load()));
  for (const Bytes& b : seen) EXPECT_EQ(b, (Bytes{0x10, 0x20, 0x30}));
}

TEST_F(Transport, ReadWaitingBeforeDataArrivesCompletesWhenItComes) {
  open_with_handlers(0x5100002B);
  std::thread producer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::scoped_lock g(sim::sim_mutex());
    bed().device(0x5100002B)->push_in({0x00, 0x00, 0x0E, 0x01, 0x00, 0x00, 0x00, 0x02, 0xAB, 0xCD});
  });
  uint8_t buf[2] = {0};
  USB_MSG in{kEcho, sizeof buf, buf};
  EXPECT_EQ(USB_MSG_Get(0x5100002B, &in, 2000), 0);
  producer.join();
  EXPECT_EQ(in.len, 2u);
  EXPECT_EQ(buf[0], 0xAB);
  EXPECT_EQ(buf[1], 0xCD);
}

// Each lock of the library as a pair of calls, so that one table covers them all.
struct LockPair {
  const char* name;
  void (*take)();
  void (*give)();
};

void PrintTo(const LockPair& p, std::ostream* os) { *os << p.name; }

class StrayUnlock : public ::testing::TestWithParam<LockPair> {};

// An unlock from a thread that does not hold the lock does nothing: not before the lock
// was ever taken, and not while another thread holds it. The holder keeps the lock until
// a contender has had its chance; the contender may only get in after the holder left.
TEST_P(StrayUnlock, LeavesAnotherThreadsLockHeld) {
  const LockPair& p = GetParam();
  p.give();  // never taken by anyone yet
  std::mutex m;
  std::condition_variable cv;
  bool held = false, stray_done = false, contender_in = false;
  std::atomic<bool> holder_left{false}, contender_saw_holder_left{false};
  std::thread holder([&] {
    p.take();
    {
      std::unique_lock l(m);
      held = true;
      cv.notify_all();
      cv.wait(l, [&] { return stray_done; });
      // A broken lock lets the contender in now; give it time to show that.
      cv.wait_for(l, std::chrono::milliseconds(200), [&] { return contender_in; });
    }
    holder_left.store(true);
    p.give();
  });
  {
    std::unique_lock l(m);
    cv.wait(l, [&] { return held; });
  }
  p.give();  // this thread does not hold it
  std::thread contender([&] {
    {
      std::scoped_lock l(m);
      stray_done = true;
    }
    cv.notify_all();
    p.take();
    contender_saw_holder_left.store(holder_left.load());
    {
      std::scoped_lock l(m);
      contender_in = true;
    }
    cv.notify_all();
    p.give();
  });
  holder.join();
  contender.join();
  EXPECT_TRUE(contender_saw_holder_left.load()) << p.name << " was released by a stray unlock";
  // And it still works as a lock afterwards.
  p.take();
  p.give();
}

INSTANTIATE_TEST_SUITE_P(
    EveryLock, StrayUnlock,
    ::testing::Values(LockPair{"adapter", [] { lock(0x51000030); }, [] { unlock(0x51000030); }},
                      LockPair{"global", [] { lock_all(); }, [] { unlock_all(); }},
                      LockPair{"can_data", [] { can_data_lock(0x51000030, 1); },
                               [] { can_data_unlock(0x51000030, 1); }},
                      LockPair{"lin", [] { lin_lock(0x51000030, 0); },
                               [] { lin_unlock(0x51000030, 0); }}),
    [](const ::testing::TestParamInfo<LockPair>& i) { return std::string(i.param.name); });

TEST_F(Transport, UnlockFromAnotherThreadDoesNotReleaseTheLock) {
  lock(0x51000031);
  std::thread([] { unlock(0x51000031); }).join();
  bool got = false;
  std::thread t([&] {
    lock(0x51000031);
    got = true;
    unlock(0x51000031);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(got);  // still held by this thread
  unlock(0x51000031);
  t.join();
  EXPECT_TRUE(got);
}

TEST_F(Transport, ConcurrentCommandsOnOneAdapterStayPaired) {
  open_with_handlers(0x51000032);
  constexpr int kThreads = 4, kRounds = 100;
  std::atomic<int> mismatches{0}, failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        const uint8_t p[2] = {uint8_t(t), uint8_t(i)};
        uint8_t back[2] = {0xFF, 0xFF};
        ExchangeResult r = exchange(0x51000032, {.cmd = kEcho, .payload = p, .reply = back});
        if (!r.ok()) ++failures;
        else if (back[0] != t || back[1] != i) ++mismatches;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(mismatches.load(), 0);
}

TEST(TimeHelpers, WallClockAndDebugSlot) {
  uint64_t a = GetTimestampOfDay();
  delay_ms(2);
  uint64_t b = GetTimestampOfDay();
  EXPECT_GT(a, 1600000000000ull);  // milliseconds since the epoch, not seconds
  EXPECT_GE(b, a + 1);
  uint64_t* slot = DEBUG_SetHandle(0x1122334455667788ull);
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(*slot, 0x1122334455667788ull);
  EXPECT_EQ(DEBUG_SetHandle(5), slot);
}

}  // namespace
}  // namespace veltrix::test
