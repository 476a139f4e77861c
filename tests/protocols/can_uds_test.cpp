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
constexpr uint32_t kFdSend = 0x4002;
constexpr size_t kFdSendHeader = 12;  // then the frame elements

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
// The frames of every CAN FD send command, in order.
std::vector<sim::FdFrame> sent_fd_frames(const sim::Model& m) {
  std::vector<sim::FdFrame> out;
  for (const Bytes& p : payloads(m, kFdSend)) {
    size_t at = kFdSendHeader;
    for (size_t i = 0; i < p.at(11); ++i) {
      sim::FdFrame f;
      const size_t used = sim::fd_decode_element(p.data() + at, p.size() - at, f);
      EXPECT_NE(used, 0u) << "a send element cut short";
      if (used == 0) break;
      out.push_back(f);
      at += used;
    }
  }
  return out;
}
Bytes data_of(const sim::FdFrame& f) { return Bytes(f.data.begin(), f.data.begin() + f.len); }

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

  // The server of the adapter in use.
  template <typename F>
  void server(F f) {
    std::scoped_lock g(sim::sim_mutex());
    f(sim::uds_server(fd_model ? *fd_model : *model));
  }
  void use_extended() {
    addr.ExtAddressing = 1;
    addr.AddressExtension = 0xE0;
    server([](sim::UdsServer& s) { s.ext_addressing = true; });
  }
  // Moves the conversation to a CAN FD adapter's port 0 (500k/2M), planning with
  // frame_length, in CAN FD format with bit rate switching; the server answers alike.
  void use_fd(uint8_t frame_length) {
    fd_model = open_fd(kFdModel);
    dev = kFdModel;
    addr.FrameLength = frame_length;
    addr.IdFlags |= CAN_UDS_ID_BRS | CAN_UDS_ID_FD;
    std::scoped_lock g(sim::sim_mutex());
    sim::uds_server(*fd_model).frame_length = frame_length;
  }
  int request(const Bytes& b) { return CAN_UDS_Request(dev, 0, &addr, b.data(), int(b.size())); }
  // The answer, or the code as a one-element negative marker.
  Bytes response(int* code, size_t room = 8192, unsigned timeout_ms = 1000) {
    Bytes out(room);
    *code = CAN_UDS_ResponseWithSize(dev, 0, &addr, out.data(), unsigned(room), timeout_ms);
    out.resize(*code > 0 ? size_t(*code) : 0);
    return out;
  }

  std::shared_ptr<sim::Model> model;
  std::shared_ptr<sim::Model> fd_model;
  uint32_t dev = kClassic;
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

struct PollCase {
  const char* name;
  uint8_t fd_length;  // 0: a classic adapter
  uint32_t read_code;
};

class Polls : public CanUds, public ::testing::WithParamInterface<PollCase> {};

// Without a receive thread the reader polls the adapter itself: once for the first frame
// and once for the consecutive frames its flow control released, all of which one read
// returns. Frames already queued are not worth another read each.
TEST_P(Polls, LongResponseTakesOneReadPerBurst) {
  if (GetParam().fd_length) use_fd(GetParam().fd_length);
  server([](sim::UdsServer& s) { s.enabled = true; });
  ASSERT_EQ(request({0x22, 0x50, 0x00}), 0);
  sim::Model& m = fd_model ? *fd_model : *model;
  EXPECT_EQ(payloads(m, GetParam().read_code).size(), 0u);
  int code = 0;
  const Bytes got = response(&code);
  ASSERT_EQ(code, 5000);
  server([&](sim::UdsServer& s) {
    EXPECT_TRUE(std::equal(got.begin() + 3, got.end(), s.dids.at(sim::kDidLong5000).begin()));
  });
  EXPECT_EQ(payloads(m, GetParam().read_code).size(), 2u);
}
INSTANTIATE_TEST_SUITE_P(Cases, Polls,
                         ::testing::Values(PollCase{"classic", 0, 0x0C03},
                                           PollCase{"fd64", 64, 0x4003},
                                           PollCase{"fd8", 8, 0x4003}),
                         [](const auto& info) { return std::string(info.param.name); });

struct RoundTrip {
  bool extended;
  size_t length;
  uint8_t fd_length;  // 0: a classic adapter; else a CAN FD adapter planning with it
};

class RoundTrips : public CanUds, public ::testing::WithParamInterface<RoundTrip> {};

// The server echoes the request: both directions of the segmentation at the boundaries of
// every frame kind.
TEST_P(RoundTrips, EchoComesBackIntact) {
  if (GetParam().fd_length) use_fd(GetParam().fd_length);
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
  if (GetParam().fd_length == 0) {
    if (GetParam().extended) {
      for (const Bytes& f : sent_frames(*model)) EXPECT_EQ(f.at(0), 0xE0);
    }
    return;
  }
  // Every frame is the planned length, in CAN FD format with bit rate switching.
  const auto frames = sent_fd_frames(*fd_model);
  ASSERT_FALSE(frames.empty());
  for (const sim::FdFrame& f : frames) {
    EXPECT_EQ(f.len, GetParam().fd_length);
    EXPECT_TRUE(f.fdf && f.brs);
    if (GetParam().extended) {
      EXPECT_EQ(f.data[0], 0xE0);
    }
  }
}

std::vector<RoundTrip> round_trips() {
  std::vector<RoundTrip> v;
  for (bool ext : {false, true}) {
    for (size_t n :
         {1, 2, 5, 6, 7, 8, 12, 13, 14, 19, 20, 21, 111, 112, 113, 4094, 4095, 4096, 4999, 5000})
      v.push_back({ext, n, 0});
    // CAN FD: 8 plans as classic; 16 and 64 put the single-frame, first-frame and
    // consecutive-frame boundaries (L-2/L-3, L-2/L-3 or L-6/L-7, L-1/L-2) elsewhere.
    for (uint8_t l : {8, 16, 64})
      for (size_t n : {1, 6, 7, 13, 14, 15, 61, 62, 63, 64, 125, 126, 127, 4095, 4096, 5000})
        v.push_back({ext, n, l});
  }
  return v;
}
INSTANTIATE_TEST_SUITE_P(Cases, RoundTrips, ::testing::ValuesIn(round_trips()),
                         [](const auto& info) {
                           const RoundTrip& c = info.param;
                           return (c.fd_length ? "fd" + std::to_string(c.fd_length) + "_"
                                               : std::string("classic_")) +
                                  (c.extended ? "ext_" : "normal_") + std::to_string(c.length);
                         });

// Exact frames on a CAN FD port: a piece of the message between protocol bytes and padding.
struct FdPiece {
  Bytes head;
  size_t from, count;
};
struct FdWireCase {
  const char* name;
  uint8_t length;
  bool extended;
  size_t message;
  std::vector<FdPiece> frames;
};

class FdWire : public CanUds, public ::testing::WithParamInterface<FdWireCase> {};

TEST_P(FdWire, FramesCarryThePlannedBytes) {
  const FdWireCase& c = GetParam();
  use_fd(c.length);
  if (c.extended) use_extended();
  server([](sim::UdsServer& s) { s.enabled = true; });
  const Bytes msg = counting(c.message);
  ASSERT_EQ(request(msg), 0);
  const auto frames = sent_fd_frames(*fd_model);
  ASSERT_EQ(frames.size(), c.frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    Bytes want = c.frames[i].head;
    want.insert(want.end(), msg.begin() + long(c.frames[i].from),
                msg.begin() + long(c.frames[i].from + c.frames[i].count));
    want.resize(c.length, 0x55);
    EXPECT_THAT(data_of(frames[i]), BytesEq(want)) << "frame " << i;
    EXPECT_EQ(frames[i].id, 0x7E0u);
    EXPECT_TRUE(frames[i].fdf && frames[i].brs && !frames[i].ext);
  }
  server([&](sim::UdsServer& s) { EXPECT_THAT(s.requests.at(0), BytesEq(msg)); });
}
INSTANTIATE_TEST_SUITE_P(
    Cases, FdWire,
    ::testing::Values(
        FdWireCase{"single_64", 64, false, 21, {{{0x00, 0x15}, 0, 21}}},
        FdWireCase{"single_64_longest", 64, false, 62, {{{0x00, 0x3E}, 0, 62}}},
        FdWireCase{"single_16_ext", 16, true, 13, {{{0xE0, 0x00, 0x0D}, 0, 13}}},
        FdWireCase{
            "first_16_ext", 16, true, 14, {{{0xE0, 0x10, 0x0E}, 0, 13}, {{0xE0, 0x21}, 13, 1}}},
        FdWireCase{"first_12", 12, false, 11, {{{0x10, 0x0B}, 0, 10}, {{0x21}, 10, 1}}},
        FdWireCase{"first_64_two_consecutive",
                   64,
                   false,
                   200,
                   {{{0x10, 0xC8}, 0, 62}, {{0x21}, 62, 63}, {{0x22}, 125, 63}, {{0x23}, 188, 12}}},
        FdWireCase{"single_8_classic_form", 8, false, 7, {{{0x07}, 0, 7}}}),
    [](const auto& info) { return std::string(info.param.name); });

// Above 4095 bytes the first frame takes the escape length and carries L-6 bytes.
TEST_F(CanUds, FdEscapeFirstFrameCarriesLengthMinusSix) {
  use_fd(64);
  server([](sim::UdsServer& s) { s.enabled = true; });
  const Bytes msg = counting(5000);
  ASSERT_EQ(request(msg), 0);
  const auto frames = sent_fd_frames(*fd_model);
  // 58 bytes in the first frame, then 63 per consecutive frame.
  ASSERT_EQ(frames.size(), 1u + (5000 - 58 + 62) / 63);
  Bytes ff{0x10, 0x00, 0x00, 0x00, 0x13, 0x88};
  ff.insert(ff.end(), msg.begin(), msg.begin() + 58);
  EXPECT_THAT(data_of(frames[0]), BytesEq(ff));
  EXPECT_EQ(frames[16].data[0], 0x20);  // the sixteenth consecutive frame wraps to 0
  server([&](sim::UdsServer& s) { EXPECT_THAT(s.requests.at(0), BytesEq(msg)); });
}

// The reader answers the server's first frame with a flow control padded to L, and takes
// its 64-byte frames back into the 4095-byte record.
TEST_F(CanUds, FdResponseOfLongRecordWithExtendedIds) {
  use_fd(64);
  addr.RequestID = 0x18DA10F1;
  addr.ResponseID = 0x18DAF110;
  addr.IdFlags |= CAN_UDS_ID_EXTENDED;
  server([](sim::UdsServer& s) {
    s.enabled = true;
    s.ext_id = true;
    s.rx_id = 0x18DA10F1;
    s.tx_id = 0x18DAF110;
  });
  ASSERT_EQ(request({0x22, 0x40, 0x95}), 0);
  int code = 0;
  const Bytes got = response(&code);
  ASSERT_EQ(code, 4095);
  EXPECT_THAT(Bytes(got.begin(), got.begin() + 3), BytesEq(W{0x62, 0x40, 0x95}));
  server([&](sim::UdsServer& s) {
    EXPECT_TRUE(std::equal(got.begin() + 3, got.end(), s.dids.at(sim::kDidLong4095).begin()));
  });
  const auto frames = sent_fd_frames(*fd_model);
  ASSERT_EQ(frames.size(), 2u);
  Bytes fc{0x30, 0x00, 0x00};
  fc.resize(64, 0x55);
  EXPECT_THAT(data_of(frames[1]), BytesEq(fc));
  EXPECT_TRUE(frames[1].ext);
  EXPECT_EQ(frames[1].id, 0x18DA10F1u);
}

struct FdFlowCase {
  const char* name;
  uint8_t block_size;
  bool overflow;
  int want;
  size_t batches;  // send commands, the first frame's included
};

class FdFlowControls : public CanUds, public ::testing::WithParamInterface<FdFlowCase> {};

// 200 bytes at L = 64: a first frame and three consecutive frames.
TEST_P(FdFlowControls, FollowTheReceiver) {
  const FdFlowCase& c = GetParam();
  use_fd(64);
  server([&](sim::UdsServer& s) {
    s.enabled = true;
    s.block_size = c.block_size;
    s.overflow = c.overflow;
  });
  EXPECT_EQ(request(counting(200)), c.want);
  EXPECT_EQ(payloads(*fd_model, kFdSend).size(), c.batches);
}
INSTANTIATE_TEST_SUITE_P(Cases, FdFlowControls,
                         ::testing::Values(FdFlowCase{"block_size_1", 1, false, 0, 4},
                                           FdFlowCase{"block_size_2", 2, false, 0, 3},
                                           FdFlowCase{"overflow", 0, true, CAN_UDS_ERR_OVERFLOW,
                                                      1}),
                         [](const auto& info) { return std::string(info.param.name); });

// A classic adapter carries 8 bytes per frame whatever length the record asks for.
TEST_F(CanUds, ClassicAdapterPlansLongFrameLengthsAs8) {
  server([](sim::UdsServer& s) { s.enabled = true; });
  addr.FrameLength = 12;
  ASSERT_EQ(request(counting(10)), 0);
  EXPECT_EQ(addr.FrameLength, 12);
  const Bytes msg = counting(10);
  EXPECT_THAT(sent_frames(*model).at(0),
              BytesEq(W{0x10, 0x0A, msg[0], msg[1], msg[2], msg[3], msg[4], msg[5]}));
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
