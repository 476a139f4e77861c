// Replies that announce more than arrives, and adapter values out of range, seen through
// every family's public calls: nothing made up from bytes that never came, exact codes, and
// the reply stream framed for the next command.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <ostream>
#include <string>

#include "can/can_state.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "lin/lin_state.hpp"
#include "sim/can_bus.hpp"
#include "sim/device_services.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/can.h"
#include "veltrix/device.h"
#include "veltrix/lin.h"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kEcho = 0x0E01;

sim::Fault fault(sim::FaultKind kind, uint32_t code, uint32_t arg = 0, Bytes raw = {}) {
  sim::Fault f;
  f.kind = kind;
  f.match_code = code;
  f.arg = arg;
  f.raw = std::move(raw);
  return f;
}

// A reply frame as the adapter would put it on the IN endpoint.
Bytes reply_frame(uint32_t code, uint32_t announced, const Bytes& payload) {
  wire::PayloadBuilder b;
  b.be32(code).be32(announced).bytes(payload);
  return b.vec();
}

CAN_CHANNEL_CONFIG config_500k(uint32_t h) {
  CAN_CHANNEL_CONFIG c{};
  EXPECT_EQ(CAN_GetCANSpeedArg(h, &c, 500000), 0);
  return c;
}

sim::CanFrame bus_frame(uint32_t id) {
  sim::CanFrame f;
  f.id = id;
  f.time = id;
  f.len = 2;
  f.data[0] = 0xA0;
  f.data[1] = uint8_t(id);
  return f;
}

// One representative operation per family. `prepare` brings the adapter to where the
// operation makes sense; `run` is called once with the fault in place and once without.
struct FamilyCase {
  std::string name;
  uint32_t serial;
  uint32_t command;  // the command whose reply is cut short
  std::function<void(uint32_t, sim::Model&)> prepare;
  std::function<int(uint32_t)> run;
  int when_short;
  int when_whole;
};

void PrintTo(const FamilyCase& c, std::ostream* os) { *os << c.name; }

void nothing(uint32_t, sim::Model&) {}

void can_ports_with_frames(uint32_t h, sim::Model& m) {
  CAN_CHANNEL_CONFIG c = config_500k(h);
  ASSERT_EQ(CAN_Init(h, 0, &c), 0);
  std::scoped_lock g(sim::sim_mutex());
  sim::can_inject_rx(m, 0, {bus_frame(1), bus_frame(2), bus_frame(3), bus_frame(4), bus_frame(5)});
}

void lin_master(uint32_t h, sim::Model&) { ASSERT_EQ(LIN_EX_Init(int(h), 0, 19200, 1), 0); }

const FamilyCase kFamilies[] = {
    {"DeviceUserData", 0x51000070, 0x108, nothing,
     [](uint32_t h) {
       std::array<uint8_t, 16> buf{};
       return DEV_ReadUserData(h, 0, buf.data(), int(buf.size()));
     },
     0, 1},
    {"DeviceTimestamp", 0x51000071, 0x11, nothing,
     [](uint32_t h) {
       unsigned int ts = 0;
       return DEV_GetTimestamp(h, 0, &ts);
     },
     0, 1},
    {"ParameterStore", 0x51000072, 0x5000, nothing, [](uint32_t h) { return ARG_Init(h); },
     ARG_ERR_REPLY, ARG_SUCCESS},
    // Five frames queued: 100 bytes arrive where the header announces 150.
    {"CanDirectRead", 0x31000073, 0x0C03, can_ports_with_frames,
     [](uint32_t h) {
       std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX);
       return CAN_ReadMsg(h, 0, rx.data());
     },
     CAN_ERR_USB_READ_FAIL, 0},
    {"CanSend", 0x31000074, 0x0C02,
     [](uint32_t h, sim::Model&) {
       CAN_CHANNEL_CONFIG c = config_500k(h);
       ASSERT_EQ(CAN_Init(h, 0, &c), 0);
     },
     [](uint32_t h) {
       CAN_MSG m{};
       m.ID = 0x123;
       m.DataLen = 1;
       return CAN_SendMsg(h, 0, &m, 1);
     },
     CAN_ERR_USB_READ_FAIL, 1},
    {"LinMasterSync", 0x51000075, 0x0F07, lin_master,
     [](uint32_t h) {
       LIN_EX_MSG in{};
       in.MsgType = LIN_EX_MSG_TYPE_BK;
       in.Timestamp = 10;
       LIN_EX_MSG out{};
       return LIN_EX_MasterSync(int(h), 0, &in, &out, 1);
     },
     LIN_EX_ERR_REPLY, 1},
    {"LinBattery", 0x51000076, 0x0F0B, nothing,
     [](uint32_t h) {
       unsigned short v = 0;
       return LIN_EX_GetVbatValue(int(h), &v);
     },
     LIN_EX_ERR_REPLY, LIN_EX_SUCCESS},
};

class ShortReplyPerFamily : public SimTest, public ::testing::WithParamInterface<FamilyCase> {};

TEST_P(ShortReplyPerFamily, FailsWithTheFamilysReadCodeAndKeepsTheStreamFramed) {
  const FamilyCase& c = GetParam();
  auto m = plug_and_open(c.serial);
  c.prepare(c.serial, *m);
  m->inject(fault(sim::FaultKind::LongLength, c.command, 50));
  EXPECT_EQ(c.run(c.serial), c.when_short);
  EXPECT_GE(m->resets(), 1);  // the cut transfer reset the adapter's pipes
  EXPECT_EQ(c.run(c.serial), c.when_whole);
}

INSTANTIATE_TEST_SUITE_P(Families, ShortReplyPerFamily, ::testing::ValuesIn(kFamilies),
                         [](const auto& info) { return info.param.name; });

class HonestReply : public SimTest {
 protected:
  std::shared_ptr<sim::Model> open_echo(uint32_t serial) {
    auto m = plug_and_open(serial);
    m->on(kEcho, [](sim::Model&, const sim::Command& c) {
      return std::optional<sim::Reply>(sim::Reply{kEcho, c.payload});
    });
    return m;
  }
  bool echo_works(uint32_t h) {
    const uint8_t ping[3] = {7, 8, 9};
    uint8_t back[3] = {0};
    return exchange(h, {.cmd = kEcho, .payload = ping, .reply = back}).ok() && back[2] == 9;
  }
};

TEST_F(HonestReply, ShortPayloadCountsOnlyTheBytesThatCame) {
  auto m = open_echo(0x51000077);
  m->inject(fault(sim::FaultKind::LongLength, kEcho, 6));
  const uint8_t p[4] = {1, 2, 3, 4};
  uint8_t buf[16] = {0};
  ExchangeResult r = exchange(0x51000077, {.cmd = kEcho, .payload = p, .reply = buf});
  EXPECT_EQ(r.code, veltrix::Transport::ShortReply);
  EXPECT_EQ(r.reply_len, 10u);
  EXPECT_EQ(r.copied, 4u);
  EXPECT_TRUE(echo_works(0x51000077));
  // The exported reader keeps its one failure code for the same fault.
  m->inject(fault(sim::FaultKind::LongLength, kEcho, 6));
  USB_MSG out{kEcho, 4, const_cast<uint8_t*>(p)};
  ASSERT_EQ(USB_MSG_Send(0x51000077, &out, 100), 0);
  USB_MSG in{kEcho, sizeof buf, buf};
  EXPECT_EQ(USB_MSG_Get(0x51000077, &in, 100), -3);
}

TEST_F(HonestReply, LengthWithTopBitSetIsAFramingErrorNotAnEmptyReply) {
  auto m = open_echo(0x51000078);
  m->inject(
      fault(sim::FaultKind::RawReply, kEcho, 0, reply_frame(kEcho, 0x80000004, {1, 2, 3, 4})));
  const uint8_t p[1] = {1};
  uint8_t buf[4] = {0};
  ExchangeResult r = exchange(0x51000078, {.cmd = kEcho, .payload = p, .reply = buf});
  EXPECT_EQ(r.code, veltrix::Transport::ReadFailed);
  EXPECT_EQ(r.reply_len, 0x80000004u);
  EXPECT_EQ(buf[0], 0);
  EXPECT_GE(m->resets(), 1);
  // The four stray bytes were flushed: the next reply is read from its own header.
  EXPECT_TRUE(echo_works(0x51000078));
  m->inject(fault(sim::FaultKind::RawReply, kEcho, 0, reply_frame(kEcho, 0x80000004, {1})));
  USB_MSG out{kEcho, 1, const_cast<uint8_t*>(p)};
  ASSERT_EQ(USB_MSG_Send(0x51000078, &out, 100), 0);
  USB_MSG in{kEcho, 0, buf};
  EXPECT_EQ(USB_MSG_Get(0x51000078, &in, 100), -3);
  EXPECT_TRUE(echo_works(0x51000078));
}

TEST_F(HonestReply, ExportedReaderWithoutCapacityReturnsTheWholeReply) {
  open_echo(0x51000079);
  Bytes p(100);
  for (size_t i = 0; i < p.size(); ++i) p[i] = uint8_t(i + 1);
  for (uint32_t given : {0u, 40u}) {
    USB_MSG out{kEcho, uint32_t(p.size()), p.data()};
    ASSERT_EQ(USB_MSG_Send(0x51000079, &out, 100), 0);
    Bytes buf(120, 0xCC);
    USB_MSG in{kEcho, given, buf.data()};
    ASSERT_EQ(MSG_Get(0x51000079, &in, 100), 0);
    EXPECT_EQ(in.len, 100u);
    const size_t expect_written = given ? given : 100;
    EXPECT_EQ(buf[expect_written - 1], uint8_t(expect_written));
    EXPECT_EQ(buf[expect_written], 0xCC) << "given capacity " << given;
  }
}

class AdapterValues : public SimTest {};

TEST_F(AdapterValues, SendCountAboveTheBatchIsABrokenReply) {
  constexpr uint32_t h = 0x31000080;
  auto m = plug_and_open(h);
  CAN_CHANNEL_CONFIG c = config_500k(h);
  ASSERT_EQ(CAN_Init(h, 0, &c), 0);
  std::vector<CAN_MSG> frames(10);
  for (uint32_t count : {0xFFFFFFFFu, 65536u, 11u}) {
    Bytes le(4);
    wire::put_le32(le.data(), count);
    m->inject(fault(sim::FaultKind::RawReply, 0x0C02, 0, reply_frame(0x0C02, 4, le)));
    EXPECT_EQ(CAN_SendMsg(h, 0, frames.data(), 10), CAN_ERR_USB_READ_FAIL) << count;
  }
  // A reply too short to hold a count is no count either.
  m->inject(fault(sim::FaultKind::RawReply, 0x0C02, 0, reply_frame(0x0C02, 2, {10, 0})));
  EXPECT_EQ(CAN_SendMsg(h, 0, frames.data(), 10), CAN_ERR_USB_READ_FAIL);
  EXPECT_EQ(CAN_SendMsg(h, 0, frames.data(), 10), 10);
}

TEST_F(AdapterValues, OverlongCanRecordIsCutToItsEightBytesAndCounted) {
  constexpr uint32_t h = 0x31000081;
  auto m = plug_and_open(h);
  Bytes rec(20, 0);
  wire::put_le32(rec.data(), 0x321);
  rec[10] = 200;  // DataLen
  for (int i = 0; i < 8; ++i) rec[size_t(11 + i)] = uint8_t(0x10 + i);
  m->inject(fault(sim::FaultKind::RawReply, 0x0C03, 0, reply_frame(0x0C03, 20, rec)));
  std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX);
  ASSERT_EQ(CAN_ReadMsg(h, 0, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 0x321u);
  EXPECT_EQ(rx[0].DataLen, 8);
  EXPECT_EQ(rx[0].Data[7], 0x17);
  EXPECT_EQ(can::clamped_records(h), 1u);
}

TEST_F(AdapterValues, OlderFirmwareLinRecordNeverClaimsMoreThanDataAndCheck) {
  constexpr int h = 0x51000082;
  auto m = plug_and_open(uint32_t(h));
  {
    std::scoped_lock g(sim::sim_mutex());
    sim::device_services(*m).firmware_version = 0x0105001D;
  }
  LIN_CONFIG cfg{19200, 0, 1};
  ASSERT_EQ(LIN_Init(h, 0, &cfg), 0);
  // Two captured frames: one claiming 200 bytes, one a plain 9 (8 data and the checksum).
  Bytes frames = {0x10, 200, 1, 2, 3, 4, 5, 6, 7, 8, 0x55, 0x11, 9, 1, 2, 3, 4, 5, 6, 7, 8, 0x66};
  m->inject(fault(sim::FaultKind::RawReply, 0x0F04, 0,
                  reply_frame(0x0F04, uint32_t(frames.size()), frames)));
  const uint64_t before = lin::state().clamped_records.load();
  std::vector<LIN_MSG> cap(LIN_EX_MAX_CAPTURE_MSGS);
  ASSERT_EQ(LIN_SlaveGetData(h, 0, cap.data()), 2);
  EXPECT_EQ(cap[0].DataLen, 9);
  EXPECT_EQ(cap[0].Check, 0x55);
  EXPECT_EQ(cap[1].DataLen, 9);
  EXPECT_EQ(lin::state().clamped_records.load() - before, 1u);
}

TEST_F(AdapterValues, ShortUserDataReplyIsAFailureNotStaleBytes) {
  constexpr uint32_t h = 0x51000083;
  auto m = plug_and_open(h);
  const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_EQ(DEV_WriteUserData(h, 0, data, 8), 1);
  // Four bytes arrive where eight are announced.
  m->inject(fault(sim::FaultKind::RawReply, 0x108, 0, reply_frame(0x108, 8, {9, 9, 9, 9})));
  uint8_t buf[8] = {0};
  EXPECT_EQ(DEV_ReadUserData(h, 0, buf, 8), 0);
  EXPECT_EQ(payloads(*m, 0x108), (std::vector<Bytes>{{0, 0, 0, 0, 0, 0, 0, 8}}));
  ASSERT_EQ(DEV_ReadUserData(h, 0, buf, 8), 1);
  EXPECT_EQ(buf[7], 8);
}

TEST_F(AdapterValues, CanInitKeepsItsCounterWhenTheTimestampReplyIsEmpty) {
  constexpr uint32_t h = 0x31000084;
  auto m = plug_and_open(h);
  CAN_CHANNEL_CONFIG c = config_500k(h);
  Bytes counter(4);
  wire::put_le32(counter.data(), 0x00ABCDEF);
  m->inject(fault(sim::FaultKind::RawReply, 0x11, 0, reply_frame(0x11, 4, counter)));
  ASSERT_EQ(CAN_Init(h, 0, &c), 0);
  const int slot = *can::slot_of(h);
  EXPECT_EQ(can::state().slot[slot].timestamp_error.load(), 0x00ABCDEFu);
  m->inject(fault(sim::FaultKind::RawReply, 0x11, 0, reply_frame(0x11, 0, {})));
  ASSERT_EQ(CAN_Init(h, 0, &c), 0);
  EXPECT_EQ(can::state().slot[slot].timestamp_error.load(), 0x00ABCDEFu);
  EXPECT_EQ(payloads(*m, 0x11), (std::vector<Bytes>{{0}, {0}}));
}

TEST_F(AdapterValues, ReadWithoutRoomStillPollsTheAdapter) {
  constexpr uint32_t h = 0x31000085;
  auto m = plug_and_open(h);
  CAN_CHANNEL_CONFIG c = config_500k(h);
  ASSERT_EQ(CAN_Init(h, 0, &c), 0);
  m->clear_record();
  {
    std::scoped_lock g(sim::sim_mutex());
    sim::can_inject_rx(*m, 0, {bus_frame(7), bus_frame(8)});
  }
  EXPECT_EQ(CAN_GetMsgWithSize(h, 0, nullptr, 0), 0);
  EXPECT_EQ(payloads(*m, 0x0C03), (std::vector<Bytes>{{0}}));
  // The batch was queued, not left behind: one frame moves, the other waits its turn.
  CAN_MSG one[1];
  ASSERT_EQ(CAN_GetMsgWithSize(h, 0, one, 1), 1);
  EXPECT_EQ(one[0].ID, 7u);
  ASSERT_EQ(CAN_GetMsgWithSize(h, 0, one, 1), 1);
  EXPECT_EQ(one[0].ID, 8u);
  EXPECT_EQ(CAN_GetMsgWithSize(h, 0, nullptr, 1), CAN_ERR_PARAMETER);
}

}  // namespace
}  // namespace veltrix::test
