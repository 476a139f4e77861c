// The VCI interface against classic and CAN FD virtual adapters: addressing results,
// recorded configuration payloads, the acceptance rule on the bus, mode switching, and
// whole programs written the way applications use the interface.
#include "veltrix/vci.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

constexpr unsigned kTwo = VCI_DEVICE_TWO_PORTS;

VCI_INIT_CONFIG config_500k(uint32_t code = 0, uint32_t mask = 0xFFFFFFFF, uint8_t mode = 0) {
  VCI_INIT_CONFIG c{};
  c.AccCode = code;
  c.AccMask = mask;
  c.Filter = 1;
  c.Timing0 = 0x00;
  c.Timing1 = 0x1C;
  c.Mode = mode;
  return c;
}

VCI_CAN_OBJ obj(uint32_t id, std::initializer_list<uint8_t> data, uint8_t send_type = 0,
                uint8_t remote = 0, uint8_t ext = 0) {
  VCI_CAN_OBJ o{};
  o.ID = id;
  o.SendType = send_type;
  o.RemoteFlag = remote;
  o.ExternFlag = ext;
  o.DataLen = uint8_t(data.size());
  uint8_t i = 0;
  for (uint8_t b : data) o.Data[i++] = b;
  return o;
}

uint64_t err_of(unsigned dev, unsigned port) {
  uint64_t e = 0xDEAD;
  EXPECT_EQ(VCI_ReadErrInfo(kTwo, dev, port, &e), 1u);
  return e;
}

// Receives until want frames arrived or the attempts run out (the reader polls every 10 ms).
std::vector<VCI_CAN_OBJ> receive_n(unsigned dev, unsigned port, size_t want) {
  std::vector<VCI_CAN_OBJ> got;
  VCI_CAN_OBJ buf[64];
  for (int tries = 0; tries < 500 && got.size() < want; ++tries) {
    unsigned n = VCI_Receive(kTwo, dev, port, buf, 64, 100);
    EXPECT_NE(n, VCI_INVALID);
    if (n == VCI_INVALID) break;
    got.insert(got.end(), buf, buf + n);
    if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return got;
}

class Vci : public CanTest {};

TEST_F(Vci, AddressingResultsAndErrorWords) {
  plug(kClassic);
  EXPECT_EQ(VCI_ScanDevice(), 1u);
  EXPECT_EQ(VCI_OpenDevice(kTwo, 1, 0), 0u);  // index == number found
  EXPECT_EQ(err_of(1, 0), 0u);                // ... stores nothing
  EXPECT_EQ(VCI_OpenDevice(5, 0, 0), 0u);
  EXPECT_EQ(err_of(0, 0), VCI_ERR_DEVICE_TYPE);
  EXPECT_EQ(err_of(0, 0), 0u);  // reading clears the word

  VCI_CAN_OBJ buf[4];
  EXPECT_EQ(VCI_Receive(kTwo, 0, 0, buf, 4, 0), 0u);  // nothing initialised yet
  EXPECT_EQ(VCI_GetReceiveNum(kTwo, 0, 0), 0u);
  EXPECT_EQ(VCI_Receive(kTwo, 30, 0, buf, 4, 0), VCI_INVALID);
  EXPECT_EQ(VCI_Receive(kTwo, 0, 2, buf, 4, 0), VCI_INVALID);
  EXPECT_EQ(VCI_Receive(7, 0, 1, buf, 4, 0), VCI_INVALID);
  EXPECT_EQ(err_of(0, 1), VCI_ERR_DEVICE_TYPE);

  uint64_t untouched = 0x1122334455667788ull;
  EXPECT_EQ(VCI_ReadErrInfo(kTwo, 30, 0, &untouched), 0u);
  EXPECT_EQ(VCI_ReadErrInfo(kTwo, 0xFFFFFFFFu, 0, &untouched), 0u);
  EXPECT_EQ(VCI_ReadErrInfo(9, 0, 0, &untouched), 0u);
  EXPECT_EQ(untouched, 0x1122334455667788ull);
  EXPECT_EQ(VCI_ReadErrInfo(kTwo, 0, 0, nullptr), 0u);

  struct {
    unsigned type, result;
  } status[] = {{3, 1}, {4, 1}, {2, 0}, {5, 0}};
  for (const auto& s : status) EXPECT_EQ(VCI_ReadCANStatus(s.type, 0, 0, nullptr), s.result);
  EXPECT_EQ(VCI_GetReference(kTwo, 0, 0, 0, nullptr), 0u);
  EXPECT_EQ(VCI_SetReference(kTwo, 0, 0, 0, nullptr), 0u);
  EXPECT_EQ(VCI_ClearBuffer(1, 0, 0), 0u);
  EXPECT_EQ(VCI_ResetCAN(1, 0, 0), 0u);
  EXPECT_EQ(VCI_StartCAN(1, 0, 0), 0u);
  EXPECT_EQ(err_of(0, 0), VCI_ERR_DEVICE_TYPE);
}

// The adapter is found but refuses to open (its interface is held elsewhere): 512 and the
// open error word; the next open, with nothing holding it, works and the port configures.
TEST_F(Vci, RefusedOpenAnswers512ThenAHealthyOpenWorks) {
  auto m = plug(kClassic);
  m->inject(fault(sim::FaultKind::ClaimBusy, 0));
  EXPECT_EQ(VCI_OpenDevice(kTwo, 0, 0), VCI_OPEN_FAILED);
  EXPECT_EQ(VCI_OPEN_FAILED, 512u);
  EXPECT_EQ(err_of(0, 0), 0x0200u);
  EXPECT_EQ(err_of(0, 1), 0u);  // an open has no port: the word of port 0 holds it
  EXPECT_EQ(err_of(0, 0), 0u);
  uint64_t one_port = 0;
  m->inject(fault(sim::FaultKind::ClaimBusy, 0));
  EXPECT_EQ(VCI_OpenDevice(VCI_DEVICE_ONE_PORT, 0, 0), VCI_OPEN_FAILED);
  EXPECT_EQ(VCI_ReadErrInfo(VCI_DEVICE_ONE_PORT, 0, 1, &one_port), 1u);
  EXPECT_EQ(one_port, 0x0200u);

  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  EXPECT_EQ(err_of(0, 0), 0u);
  m->clear_record();
  VCI_INIT_CONFIG c = config_500k();
  ASSERT_EQ(VCI_InitCAN(kTwo, 0, 0, &c), 1u);
  EXPECT_EQ(payloads(*m, 0x0C00).size(), 1u);
}

TEST_F(Vci, BoardRecordIsFixed) {
  VCI_BOARD_INFO info;
  std::memset(&info, 0xAB, sizeof info);
  ASSERT_EQ(VCI_ReadBoardInfo(VCI_DEVICE_ONE_PORT, 0, &info), 1u);
  const uint8_t* b = reinterpret_cast<const uint8_t*>(&info);
  const Bytes head = {0x00, 0x02, 0x93, 0x01, 0x00, 0x02, 0x73, 0x01, 0,    0,    1, '0',
                      '0',  '0',  '7',  '0',  '4',  '2',  '8',  0x10, 0x02, 0x29, 0};
  EXPECT_EQ(Bytes(b, b + head.size()), head);
  EXPECT_EQ(b[23], 0xAB);  // the rest of the serial field is not written
  EXPECT_STREQ(info.HardwareType, "VELTRIX-CAN");
  EXPECT_EQ(b[31 + 12], 0xAB);
  EXPECT_EQ(b[79], 0xAB);
  ASSERT_EQ(VCI_ReadBoardInfo(kTwo, 0, &info), 1u);
  EXPECT_EQ(info.CanPortCount, 2);
  EXPECT_EQ(VCI_ReadBoardInfo(0, 0, &info), 0u);
  EXPECT_EQ(VCI_ReadBoardInfo(kTwo, 0, nullptr), 0u);
}

TEST_F(Vci, TimingPairConfiguresPortAndRule) {
  auto m = plug(kClassic);
  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  m->clear_record();
  VCI_INIT_CONFIG c = config_500k(0x24600000, 0x001FFFFF);
  ASSERT_EQ(VCI_InitCAN(kTwo, 0, 0, &c), 1u);
  // Port 0, bus-off recovery, locked FIFO, request order, mode 0x80, 500 kbit/s row.
  EXPECT_EQ(payloads(*m, 0x0C00),
            (std::vector<Bytes>{{0, 0, 1, 0, 0, 1, 1, 0x80, 1, 13, 4, 0x00, 0x0A}}));
  // Bank 0 of port 0: identifier 0x123 standard, mask all 11 bits and the IDE bit.
  EXPECT_EQ(
      payloads(*m, 0x0C01),
      (std::vector<Bytes>{{0, 0, 0, 1, 0x24, 0x60, 0x00, 0x00, 0xFF, 0xE0, 0x00, 0x04, 0, 1}}));

  m->clear_record();
  c.Timing1 = 0x1D;  // not a known pair
  EXPECT_EQ(VCI_InitCAN(kTwo, 0, 1, &c), 0u);
  EXPECT_EQ(err_of(0, 1), 0u);
  EXPECT_TRUE(payloads(*m, 0x0C00).empty());
  EXPECT_EQ(VCI_InitCAN(kTwo, 0, 1, nullptr), 0u);
}

TEST_F(Vci, AcceptanceRuleLetsOnlyStandard123Through) {
  plug(kClassic);
  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  VCI_INIT_CONFIG open = config_500k();
  VCI_INIT_CONFIG only123 = config_500k(0x24600000, 0x001FFFFF);
  ASSERT_EQ(VCI_InitCAN(kTwo, 0, 0, &open), 1u);
  ASSERT_EQ(VCI_InitCAN(kTwo, 0, 1, &only123), 1u);
  ASSERT_EQ(VCI_StartCAN(kTwo, 0, 1), 1u);
  VCI_CAN_OBJ tx[] = {obj(0x124, {1}),          obj(0x123, {2}), obj(0x123, {}, 0, 1),
                      obj(0x123, {3}, 0, 0, 1), obj(0x523, {4}), obj(0x123, {5})};
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, tx, 6), 6u);
  auto got = receive_n(0, 1, 3);
  ASSERT_EQ(got.size(), 3u);
  for (const auto& o : got) {
    EXPECT_EQ(o.ID, 0x123u);
    EXPECT_EQ(o.ExternFlag, 0);
  }
  EXPECT_EQ(got[0].Data[0], 2);
  EXPECT_EQ(got[1].RemoteFlag, 1);
  EXPECT_EQ(got[2].Data[0], 5);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(VCI_GetReceiveNum(kTwo, 0, 1), 0u);  // nothing else came through
}

TEST_F(Vci, SendTypeSwitchesSelfReceptionAndBack) {
  auto m = plug(kClassic);
  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  VCI_INIT_CONFIG c = config_500k();
  ASSERT_EQ(VCI_InitCAN(kTwo, 0, 0, &c), 1u);
  ASSERT_EQ(VCI_StartCAN(kTwo, 0, 0), 1u);
  m->clear_record();
  VCI_CAN_OBJ self = obj(0x100, {1}, 2);
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, &self, 1), 1u);
  auto inits = payloads(*m, 0x0C00);
  ASSERT_EQ(inits.size(), 1u);
  EXPECT_EQ(inits[0][7], 0x03);  // self-reception; the stored mode byte is now 2

  m->clear_record();
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, &self, 1), 1u);  // already in self-reception
  EXPECT_TRUE(payloads(*m, 0x0C00).empty());

  VCI_CAN_OBJ normal = obj(0x100, {1}, 1);
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, &normal, 1), 1u);
  inits = payloads(*m, 0x0C00);
  ASSERT_EQ(inits.size(), 1u);
  EXPECT_EQ(inits[0][7], 0x80);
  EXPECT_EQ(VCI_Transmit(kTwo, 0, 0, nullptr, 1), 0u);
  EXPECT_EQ(VCI_Transmit(kTwo, 0, 0, &normal, 0), 0u);
  EXPECT_EQ(VCI_Transmit(8, 0, 0, &normal, 1), 0u);
}

TEST_F(Vci, FdModelConfigurationPayload) {
  auto m = plug(kFdModel);
  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  m->clear_record();
  VCI_INIT_CONFIG c = config_500k(0x24600000, 0x001FFFFF, 1);
  ASSERT_EQ(VCI_InitCAN(kTwo, 0, 1, &c), 1u);
  EXPECT_EQ(
      payloads(*m, 0x4000),
      (std::vector<Bytes>{{1, 3, 0, 1, 1, 1, 59, 20, 2, 1, 59, 20, 2, 0, 0, 0, 0, 0, 0, 0, 0}}));
  EXPECT_TRUE(payloads(*m, 0x4001).empty());  // no acceptance rule on this model
}

// Waits until the port's queue holds want frames (each call moves what was polled).
unsigned wait_queued(unsigned dev, unsigned port, unsigned want) {
  unsigned n = 0;
  for (int tries = 0; tries < 1000 && (n = VCI_GetReceiveNum(kTwo, dev, port)) < want; ++tries)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return n;
}

TEST_F(Vci, FullQueueDropsOldestAndCounts) {
  plug(kClassic);
  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  VCI_INIT_CONFIG c = config_500k();
  for (unsigned port = 0; port < 2; ++port) ASSERT_EQ(VCI_InitCAN(kTwo, 0, port, &c), 1u);
  ASSERT_EQ(VCI_StartCAN(kTwo, 0, 1), 1u);
  // Two batches, each within what the adapter side keeps, together beyond the queue.
  std::vector<VCI_CAN_OBJ> tx;
  for (unsigned i = 0; i < 12000; ++i) tx.push_back(obj(i & 0x7FF, {uint8_t(i), uint8_t(i >> 8)}));
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, tx.data(), 6000), 6000u);
  ASSERT_EQ(wait_queued(0, 1, 6000), 6000u);
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, tx.data() + 6000, 6000), 6000u);
  for (int tries = 0; tries < 1000 && VCI_GetDroppedNum(kTwo, 0, 1) < 2000; ++tries) {
    VCI_GetReceiveNum(kTwo, 0, 1);  // moves what was polled into the queue
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(VCI_GetDroppedNum(kTwo, 0, 1), 2000u);
  EXPECT_EQ(VCI_GetReceiveNum(kTwo, 0, 1), unsigned(VCI_QUEUE_SIZE));
  VCI_CAN_OBJ first[2];
  ASSERT_EQ(VCI_Receive(kTwo, 0, 1, first, 2, 0), 2u);
  EXPECT_EQ(first[0].Data[0] | first[0].Data[1] << 8, 2000);  // the oldest 2000 went
  EXPECT_EQ(first[1].Data[0] | first[1].Data[1] << 8, 2001);
  ASSERT_EQ(VCI_ClearBuffer(kTwo, 0, 1), 1u);
  EXPECT_EQ(VCI_GetReceiveNum(kTwo, 0, 1), 0u);
}

// scan, open, init both ports from the timing pair, start, send on 0, wait on 1, read the
// error word, close: on a classic and on a CAN FD adapter.
class VciProgram : public Vci, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(VciProgram, SendOnPortZeroReceiveOnPortOne) {
  plug(GetParam());
  ASSERT_EQ(VCI_ScanDevice(), 1u);
  ASSERT_EQ(VCI_OpenDevice(kTwo, 0, 0), 1u);
  VCI_INIT_CONFIG c = config_500k();
  c.Filter = 0;
  for (unsigned port = 0; port < 2; ++port) {
    ASSERT_EQ(VCI_InitCAN(kTwo, 0, port, &c), 1u);
    ASSERT_EQ(VCI_StartCAN(kTwo, 0, port), 1u);
  }
  std::vector<VCI_CAN_OBJ> tx;
  for (uint8_t i = 0; i < 40; ++i) tx.push_back(obj(0x200 + i, {i, uint8_t(i ^ 0xFF)}));
  tx.push_back(obj(0x18DAF110, {0xAA}, 0, 0, 1));
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, tx.data(), unsigned(tx.size())), unsigned(tx.size()));
  auto got = receive_n(0, 1, tx.size());
  ASSERT_EQ(got.size(), tx.size());
  for (size_t i = 0; i < tx.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(got[i].ID, tx[i].ID);
    EXPECT_EQ(got[i].ExternFlag, tx[i].ExternFlag);
    EXPECT_EQ(got[i].DataLen, tx[i].DataLen);
    EXPECT_EQ(got[i].Data[0], tx[i].Data[0]);
    EXPECT_EQ(got[i].TimeFlag, 1);
  }
  EXPECT_EQ(VCI_GetDroppedNum(kTwo, 0, 1), 0u);
  EXPECT_EQ(err_of(0, 1), 0u);
  EXPECT_EQ(VCI_CloseDevice(kTwo, 0), 1u);
  // Stopped: further traffic is not collected.
  ASSERT_EQ(VCI_Transmit(kTwo, 0, 0, tx.data(), 1), 1u);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(VCI_GetReceiveNum(kTwo, 0, 1), 0u);
}

INSTANTIATE_TEST_SUITE_P(Models, VciProgram, ::testing::Values(kClassic, kFdModel));

}  // namespace
}  // namespace veltrix::test
