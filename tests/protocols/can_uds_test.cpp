// ISO-TP requests and responses through the real library, libusb and the virtual
// adapter's diagnostic server on port 0's bus; time runs on a virtual clock.
#include "veltrix/can_uds.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "protocols/isotp_clock.hpp"
#include "sim/uds_server.hpp"
#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

constexpr uint32_t kSend = 0x0C02;

// Virtual time: it moves only when the library pauses, so every pause is on record.
uint64_t g_now_us = 0;
std::vector<uint32_t> g_sleeps;
uint64_t fake_now() { return g_now_us; }
void fake_sleep(uint32_t us) {
  g_now_us += us;
  g_sleeps.push_back(us);
}

// The frames of every send command, in order: each payload is the port and 20-byte records.
std::vector<std::vector<Bytes>> sent_batches(const sim::Model& m) {
  std::vector<std::vector<Bytes>> out;
  for (const Bytes& p : payloads(m, kSend)) {
    std::vector<Bytes> batch;
    for (size_t at = 1; at + 20 <= p.size(); at += 20)
      batch.emplace_back(p.begin() + long(at) + 11, p.begin() + long(at) + 11 + p[at + 10]);
    out.push_back(batch);
  }
  return out;
}
std::vector<Bytes> sent_frames(const sim::Model& m) {
  std::vector<Bytes> all;
  for (auto& b : sent_batches(m)) all.insert(all.end(), b.begin(), b.end());
  return all;
}

Bytes counting(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t(i * 13 + 5);
  return b;
}

class CanUds : public CanTest {
 protected:
  void SetUp() override {
    CanTest::SetUp();
    isotp::active_clock = {fake_now, fake_sleep};
    model = open_both(kClassic);
  }
  void TearDown() override { isotp::active_clock = isotp::system_clock(); }

  template <typename F>
  void server(F f) {
    std::scoped_lock g(sim::sim_mutex());
    f(sim::uds_server(*model));
  }
  void use_extended() {
    addr.ExtAddressing = 1;
    addr.AddressExtension = 0xE0;
    server([](sim::UdsServer& s) { s.ext_addressing = true; });
  }
  int request(const Bytes& b) {
    return CAN_UDS_Request(kClassic, 0, &addr, b.data(), int(b.size()));
  }
  // The answer, or the code as a one-element negative marker.
  Bytes response(int* code, size_t room = 8192, unsigned timeout_ms = 1000) {
    Bytes out(room);
    *code = CAN_UDS_ResponseWithSize(kClassic, 0, &addr, out.data(), unsigned(room), timeout_ms);
    out.resize(*code > 0 ? size_t(*code) : 0);
    return out;
  }

  std::shared_ptr<sim::Model> model;
  CAN_UDS_ADDR addr{0x7E0, 0x7E8, 0, 0, 0, 8};
};

using W = Bytes;

TEST_F(CanUds, ShortRequestsGoAsOnePaddedSingleFrame) {
  ASSERT_EQ(request({1, 2, 3, 4, 5, 6, 7}), 0);
  ASSERT_EQ(request({0x22, 0xF1, 0x90}), 0);
  const auto frames = sent_frames(*model);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_THAT(frames[0], BytesEq(W{0x07, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_THAT(frames[1], BytesEq(W{0x03, 0x22, 0xF1, 0x90, 0x55, 0x55, 0x55, 0x55}));
  const Bytes rec = payloads(*model, kSend)[1];
  EXPECT_EQ(wire::get_le32(&rec[1]), 0x7E0u);
}

TEST_F(CanUds, TwentyOneBytesGoAsFirstAndThreeConsecutiveFrames) {
  server([](sim::UdsServer& s) { s.enabled = true; });
  const Bytes msg = counting(21);
  ASSERT_EQ(request(msg), 0);
  const auto batches = sent_batches(*model);
  ASSERT_EQ(batches.size(), 2u);  // the first frame, then the three at STmin 0 in one go
  ASSERT_EQ(batches[1].size(), 3u);
  Bytes ff{0x10, 0x15};
  ff.insert(ff.end(), msg.begin(), msg.begin() + 6);
  EXPECT_THAT(batches[0][0], BytesEq(ff));
  Bytes cf1{0x21}, cf2{0x22}, cf3{0x23, msg[20], 0x55, 0x55, 0x55, 0x55, 0x55, 0x55};
  cf1.insert(cf1.end(), msg.begin() + 6, msg.begin() + 13);
  cf2.insert(cf2.end(), msg.begin() + 13, msg.begin() + 20);
  EXPECT_THAT(batches[1][0], BytesEq(cf1));
  EXPECT_THAT(batches[1][1], BytesEq(cf2));
  EXPECT_THAT(batches[1][2], BytesEq(cf3));
  server([&](sim::UdsServer& s) { EXPECT_THAT(s.requests.at(0), BytesEq(msg)); });
}

// 5000 bytes: the escape first frame, 714 consecutive frames whose numbers wrap 0x2F ->
// 0x20, sent 20 to a command; STmin 0xF5 (a microsecond code) counts as no pause.
TEST_F(CanUds, LongRequestUsesEscapeLengthWrapsSequenceAndBatchesOf20) {
  server([](sim::UdsServer& s) {
    s.enabled = true;
    s.st_min = 0xF5;
  });
  const Bytes msg = counting(5000);
  ASSERT_EQ(request(msg), 0);
  const auto batches = sent_batches(*model);
  ASSERT_EQ(batches.size(), 1u + 36u);
  EXPECT_THAT(batches[0][0], BytesEq(W{0x10, 0x00, 0x00, 0x00, 0x13, 0x88, msg[0], msg[1]}));
  for (size_t i = 1; i < 36; ++i) EXPECT_EQ(batches[i].size(), 20u) << i;
  EXPECT_EQ(batches[36].size(), 714u - 35 * 20);
  EXPECT_EQ(batches[1][14][0], 0x2F);
  EXPECT_EQ(batches[1][15][0], 0x20);
  for (uint32_t us : g_sleeps) EXPECT_LT(us, 1000u) << "no STmin pause expected";
  server([&](sim::UdsServer& s) { EXPECT_THAT(s.requests.at(0), BytesEq(msg)); });
}

TEST_F(CanUds, StminInMillisecondsSendsEachFrameAloneAndPauses) {
  server([](sim::UdsServer& s) {
    s.enabled = true;
    s.st_min = 5;
  });
  ASSERT_EQ(request(counting(40)), 0);  // first frame and 5 consecutive frames
  const auto batches = sent_batches(*model);
  ASSERT_EQ(batches.size(), 6u);
  for (const auto& b : batches) EXPECT_EQ(b.size(), 1u);
  EXPECT_EQ(std::count(g_sleeps.begin(), g_sleeps.end(), 5000u), 5);
}

class BlockSizes : public CanUds, public ::testing::WithParamInterface<int> {};

TEST_P(BlockSizes, FlowControlAwaitedAfterEachBlock) {
  const int bs = GetParam();
  server([&](sim::UdsServer& s) {
    s.enabled = true;
    s.block_size = uint8_t(bs);
  });
  const Bytes msg = counting(6 + 7 * 24);  // 24 consecutive frames
  ASSERT_EQ(request(msg), 0);
  const auto batches = sent_batches(*model);
  ASSERT_EQ(batches.size(), 1u + size_t(24 / bs));
  for (size_t i = 1; i < batches.size(); ++i) EXPECT_EQ(batches[i].size(), size_t(bs)) << i;
  server([&](sim::UdsServer& s) { EXPECT_THAT(s.requests.at(0), BytesEq(msg)); });
}
INSTANTIATE_TEST_SUITE_P(Cases, BlockSizes, ::testing::Values(1, 8));

struct FlowCase {
  const char* name;
  bool overflow;
  int waits;
  bool enabled;
  int want;
};

class FlowControls : public CanUds, public ::testing::WithParamInterface<FlowCase> {};

TEST_P(FlowControls, ResultFollowsTheReceiversAnswer) {
  const FlowCase& c = GetParam();
  server([&](sim::UdsServer& s) {
    s.enabled = c.enabled;
    s.overflow = c.overflow;
    s.wait_frames = c.waits;
  });
  EXPECT_EQ(request(counting(100)), c.want);
  // Only the first frame went when the receiver refused or stayed silent.
  EXPECT_EQ(sent_frames(*model).size(), c.want == 0 ? 15u : 1u);
}
INSTANTIATE_TEST_SUITE_P(
    Cases, FlowControls,
    ::testing::Values(FlowCase{"overflow", true, 0, true, CAN_UDS_ERR_OVERFLOW},
                      FlowCase{"three_waits", false, 3, true, 0},
                      FlowCase{"silent", false, 0, false, CAN_UDS_ERR_TIMEOUT}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CanUds, ResponseTimesOutOnSilence) {
  int code = 0;
  response(&code, 16, 100);
  EXPECT_EQ(code, CAN_UDS_ERR_TIMEOUT);
  EXPECT_EQ(g_now_us, 100000u);  // the time-out counts from the call's start, not longer
}

TEST_F(CanUds, FrameLengthZeroIsSetTo8) {
  addr.FrameLength = 0;
  uint8_t out[8];
  EXPECT_EQ(CAN_UDS_Response(kClassic, 0, &addr, out, 10), CAN_UDS_ERR_TIMEOUT);
  EXPECT_EQ(addr.FrameLength, 8);
  addr.FrameLength = 65;
  EXPECT_EQ(request({0x3E, 0x00}), 0);
  EXPECT_EQ(addr.FrameLength, 8);
}

void inject(sim::Model& m, std::vector<W> frames) {
  std::vector<sim::CanFrame> fs;
  for (const W& d : frames) {
    sim::CanFrame f;
    f.id = 0x7E8;
    f.len = uint8_t(d.size());
    std::copy(d.begin(), d.end(), f.data.begin());
    fs.push_back(f);
  }
  sim::can_inject_rx(m, 0, fs);
}

struct ReplyCase {
  const char* name;
  std::vector<W> frames;
  int want;
};

class HostileReplies : public CanUds, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(HostileReplies, GiveTheirCode) {
  inject(*model, GetParam().frames);
  int code = 0;
  response(&code, 64);
  EXPECT_EQ(code, GetParam().want);
}
INSTANTIATE_TEST_SUITE_P(
    Cases, HostileReplies,
    ::testing::Values(
        ReplyCase{"out_of_sequence",
                  {{0x10, 0x14, 1, 2, 3, 4, 5, 6},
                   {0x21, 1, 2, 3, 4, 5, 6, 7},
                   {0x23, 1, 2, 3, 4, 5, 6, 7}},
                  CAN_UDS_ERR_SEQUENCE},
        ReplyCase{"unknown_type", {{0x40, 1, 2}}, CAN_UDS_ERR_FRAME},
        ReplyCase{"single_too_long", {{0x00, 0x55, 1, 2, 3, 4, 5, 6}}, CAN_UDS_ERR_FRAME},
        ReplyCase{
            "first_frame_of_4_gib", {{0x10, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}}, CAN_UDS_ERR_FRAME},
        ReplyCase{"longer_than_room", {{0x10, 0x41, 1, 2, 3, 4, 5, 6}}, CAN_UDS_ERR_TIMEOUT},
        ReplyCase{"foreign_and_short_frames_skipped", {{0x05}, {0x03, 0x7F, 0x22, 0x31}}, 3}),
    [](const auto& info) { return std::string(info.param.name); });

// A message longer than the buffer is received to its end, only the room is written, and
// the next transfer starts clean.
TEST_F(CanUds, ResponseLongerThanBufferIsDrainedAndRefused) {
  server([](sim::UdsServer& s) { s.enabled = true; });
  ASSERT_EQ(request({0x22, 0x50, 0x00}), 0);
  Bytes room(100 + 16, 0xEE);
  EXPECT_EQ(CAN_UDS_ResponseWithSize(kClassic, 0, &addr, room.data(), 100, 1000),
            CAN_UDS_ERR_BUFFER);
  EXPECT_THAT(Bytes(room.begin(), room.begin() + 3), BytesEq(W{0x62, 0x50, 0x00}));
  EXPECT_EQ(std::count(room.begin() + 100, room.end(), 0xEE), 16);
  ASSERT_EQ(request({0x3E, 0x00}), 0);
  int code = 0;
  EXPECT_THAT(response(&code), BytesEq(W{0x7E, 0x00}));
}

struct ServiceCase {
  const char* name;
  W req;
  std::vector<W> answers;  // prefix of each answer expected in turn
  size_t length;           // length of the last answer
};

class Services : public CanUds, public ::testing::WithParamInterface<ServiceCase> {};

TEST_P(Services, AnswerAsAnEcuDoes) {
  const ServiceCase& c = GetParam();
  server([](sim::UdsServer& s) { s.enabled = true; });
  ASSERT_EQ(request(c.req), 0);
  for (size_t i = 0; i < c.answers.size(); ++i) {
    int code = 0;
    const Bytes got = response(&code);
    ASSERT_GT(code, 0) << i;
    EXPECT_THAT(Bytes(got.begin(), got.begin() + long(std::min(got.size(), c.answers[i].size()))),
                BytesEq(c.answers[i]));
    if (i + 1 == c.answers.size()) {
      EXPECT_EQ(got.size(), c.length);
    }
  }
}
INSTANTIATE_TEST_SUITE_P(
    Cases, Services,
    ::testing::Values(
        ServiceCase{"session", {0x10, 0x03}, {{0x50, 0x03, 0x00, 0x32, 0x01, 0xF4}}, 6},
        ServiceCase{"vin", {0x22, 0xF1, 0x90}, {{0x62, 0xF1, 0x90, 'V', 'L', 'T', 'X'}}, 20},
        ServiceCase{"record_4095", {0x22, 0x40, 0x95}, {{0x62, 0x40, 0x95, 1, 8}}, 4095},
        ServiceCase{"record_5000", {0x22, 0x50, 0x00}, {{0x62, 0x50, 0x00, 2, 9}}, 5000},
        ServiceCase{"unknown_did", {0x22, 0x12, 0x34}, {{0x7F, 0x22, 0x31}}, 3},
        ServiceCase{"unsupported", {0x85, 0x01}, {{0x7F, 0x85, 0x11}}, 3},
        ServiceCase{"slow_routine",
                    {0x31, 0x01, 0xFF, 0x00},
                    {{0x7F, 0x31, 0x78}, {0x71, 0x01, 0xFF, 0x00, 0x00}},
                    5},
        ServiceCase{"tester_present", {0x3E, 0x00}, {{0x7E, 0x00}}, 2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CanUds, DownloadOf4KBlocksReachesTheServer) {
  server([](sim::UdsServer& s) { s.enabled = true; });
  const Bytes image = counting(8192);
  ASSERT_EQ(request({0x34, 0x00, 0x44, 0, 0, 0, 0, 0, 0, 0x20, 0x00}), 0);
  int code = 0;
  EXPECT_THAT(response(&code), BytesEq(W{0x74, 0x20, 0x10, 0x02}));
  for (uint8_t blk = 1; blk <= 2; ++blk) {
    Bytes req{0x36, blk};
    req.insert(req.end(), image.begin() + (blk - 1) * 4096, image.begin() + blk * 4096);
    ASSERT_EQ(request(req), 0);
    EXPECT_THAT(response(&code), BytesEq(W{0x76, blk}));
  }
  ASSERT_EQ(request({0x37}), 0);
  EXPECT_THAT(response(&code), BytesEq(W{0x77}));
  server([&](sim::UdsServer& s) { EXPECT_THAT(s.image, BytesEq(image)); });
}

struct RoundTrip {
  bool extended;
  size_t length;
};

class RoundTrips : public CanUds, public ::testing::WithParamInterface<RoundTrip> {};

// The server echoes the request: both directions of the segmentation at the boundaries of
// every frame kind.
TEST_P(RoundTrips, EchoComesBackIntact) {
  if (GetParam().extended) use_extended();
  server([](sim::UdsServer& s) {
    s.enabled = true;
    s.echo = true;
  });
  const Bytes msg = counting(GetParam().length);
  ASSERT_EQ(request(msg), 0);
  int code = 0;
  const Bytes got = response(&code);
  EXPECT_EQ(code, int(msg.size()));
  EXPECT_THAT(got, BytesEq(msg));
  if (GetParam().extended) {
    for (const Bytes& f : sent_frames(*model)) EXPECT_EQ(f.at(0), 0xE0);
  }
}

std::vector<RoundTrip> round_trips() {
  std::vector<RoundTrip> v;
  for (bool ext : {false, true})
    for (size_t n :
         {1, 2, 5, 6, 7, 8, 12, 13, 14, 19, 20, 21, 111, 112, 113, 4094, 4095, 4096, 4999, 5000})
      v.push_back({ext, n});
  return v;
}
INSTANTIATE_TEST_SUITE_P(Cases, RoundTrips, ::testing::ValuesIn(round_trips()),
                         [](const auto& info) {
                           return std::string(info.param.extended ? "ext_" : "normal_") +
                                  std::to_string(info.param.length);
                         });

// A classic adapter carries 8 bytes per frame whatever length the record asks for.
TEST_F(CanUds, ClassicAdapterPlansLongFrameLengthsAs8) {
  server([](sim::UdsServer& s) { s.enabled = true; });
  addr.FrameLength = 12;
  ASSERT_EQ(request(counting(10)), 0);
  EXPECT_EQ(addr.FrameLength, 12);
  const Bytes msg = counting(10);
  EXPECT_THAT(sent_frames(*model).at(0),
              BytesEq(W{0x10, 0x0A, msg[0], msg[1], msg[2], msg[3], msg[4], msg[5]}));
  EXPECT_EQ(CAN_UDS_Request(kFdModel, 0, &addr, msg.data(), 10), CAN_UDS_ERR_SEND);
}

TEST_F(CanUds, EmptyRequestIsAHeaderOnlySingleFrame) {
  ASSERT_EQ(CAN_UDS_Request(kClassic, 0, &addr, nullptr, 0), 0);
  EXPECT_THAT(sent_frames(*model).at(0), BytesEq(W{0, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}));
}

TEST_F(CanUds, SentFramesAreEchoedIntoTheApplicationQueue) {
  ASSERT_EQ(request({0x3E, 0x00}), 0);
  CAN_MSG got[CAN_MSG_QUEUE_SIZE];
  ASSERT_EQ(CAN_GetMsg(kClassic, 0, got), 1);
  EXPECT_EQ(got[0].ID, 0x7E0u);
  EXPECT_EQ(got[0].FrameFlags, CAN_MSG_FLAG_TX);
}

TEST_F(CanUds, SendFailuresMapToTheirCodes) {
  const Bytes msg{0x3E, 0x00};
  EXPECT_EQ(CAN_UDS_Request(0x31000099, 0, &addr, msg.data(), 2), CAN_UDS_ERR_SEND);
  EXPECT_EQ(CAN_UDS_Request(kClassic, 0, nullptr, msg.data(), 2), CAN_UDS_ERR_SEND);
  EXPECT_EQ(CAN_UDS_Request(kClassic, 0, &addr, nullptr, 2), CAN_UDS_ERR_SEND);
  EXPECT_EQ(CAN_UDS_Response(kClassic, 0, &addr, nullptr, 10), CAN_UDS_ERR_SEND);
  ASSERT_EQ(CAN_Stop(kClassic, 0), 0);  // a stopped port takes no frames: retried for 3 s
  g_sleeps.clear();
  EXPECT_EQ(request(msg), CAN_UDS_ERR_SEND_TIMEOUT);
  EXPECT_EQ(g_sleeps.size(), 300u);
}

}  // namespace
}  // namespace veltrix::test
