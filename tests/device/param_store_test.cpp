// The parameter memory transfers and the record chain kept in it.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/device/device_services_support.hpp"
#include "veltrix/device.h"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kDev = 0x51000041;

Bytes be16(uint16_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }

Bytes header(uint32_t id, uint32_t len, uint16_t crc, uint16_t next) {
  Bytes h(12);
  wire::put_le32(h.data(), id);
  wire::put_le32(h.data() + 4, len);
  wire::put_le16(h.data() + 8, crc);
  wire::put_le16(h.data() + 10, next);
  return h;
}

Bytes filled(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t(seed ^ (i * 13));
  return b;
}

class ArgMemory : public SimTest {};

TEST_F(ArgMemory, InitWantsExactlyOneStatusByte) {
  auto m = plug_and_open(kDev);
  EXPECT_EQ(ARG_Init(kDev), ARG_SUCCESS);
  EXPECT_EQ(payloads(*m, 0x5000), (std::vector<Bytes>{{}}));
  m->inject(raw_reply(0x5000, {1}));
  EXPECT_EQ(ARG_Init(kDev), ARG_ERR_REFUSED);
  m->inject(raw_reply(0x5000, {7}));
  EXPECT_EQ(ARG_Init(kDev), ARG_ERR_REFUSED);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x5000, 1));
  EXPECT_EQ(ARG_Init(kDev), ARG_ERR_REPLY);
  m->inject(raw_reply(0x5000, {}));
  EXPECT_EQ(ARG_Init(kDev), ARG_ERR_REPLY);
  m->inject(fault(sim::FaultKind::NoReply, 0x5000));
  EXPECT_EQ(ARG_Init(kDev), ARG_ERR_REPLY);
  EXPECT_EQ(ARG_Init(0x51007777), ARG_ERR_SEND);
}

TEST_F(ArgMemory, WriteAndReadCarryBigEndianAddressAndLength) {
  auto m = plug_and_open(kDev);
  const uint8_t data[3] = {0xA1, 0xB2, 0xC3};
  ASSERT_EQ(ARG_Write(kDev, 0x0120, data, 3), ARG_SUCCESS);
  uint8_t back[3] = {0};
  ASSERT_EQ(ARG_Read(kDev, 0x0120, back, 3), ARG_SUCCESS);
  EXPECT_EQ(Bytes(back, back + 3), Bytes(data, data + 3));
  EXPECT_EQ(payloads(*m, 0x5001), (std::vector<Bytes>{{0x01, 0x20, 0xA1, 0xB2, 0xC3}}));
  EXPECT_EQ(payloads(*m, 0x5002), (std::vector<Bytes>{{0x01, 0x20, 0x00, 0x03}}));
}

TEST_F(ArgMemory, ZeroLengthDoesNothingAndNullBufferIsRefused) {
  auto m = plug_and_open(kDev);
  EXPECT_EQ(ARG_Write(kDev, 0, nullptr, 0), ARG_SUCCESS);
  EXPECT_EQ(ARG_Read(kDev, 0, nullptr, 0), ARG_SUCCESS);
  EXPECT_EQ(ARG_Write(kDev, 0, nullptr, 4), ARG_ERR_PARAMETER);
  EXPECT_EQ(ARG_Read(kDev, 0, nullptr, 4), ARG_ERR_PARAMETER);
  EXPECT_TRUE(m->commands().empty());
}

TEST_F(ArgMemory, ChunkAddressesStepByTheRunningTotal) {
  auto m = plug_and_open(kDev);
  Bytes back(11000);
  ASSERT_EQ(ARG_Read(kDev, 0, back.data(), 11000), ARG_SUCCESS);
  EXPECT_EQ(payloads(*m, 0x5002),
            (std::vector<Bytes>{cat(be16(0), be16(5120)), cat(be16(5120), be16(5120)),
                                cat(be16(15360), be16(760))}));

  // The third chunk of a 12000-byte write lands at 15360 + 1760 > 16 KiB: refused.
  const Bytes data = filled(12000, 1);
  EXPECT_EQ(ARG_Write(kDev, 0, data.data(), 12000), ARG_ERR_REFUSED);
  auto sent = payloads(*m, 0x5001);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(Bytes(sent[1].begin(), sent[1].begin() + 2), be16(5120));
  EXPECT_EQ(sent[1].size(), 2u + 5120);
  EXPECT_EQ(Bytes(sent[2].begin(), sent[2].begin() + 2), be16(15360));
  EXPECT_EQ(sent[2].size(), 2u + 1760);
  // The second chunk carried bytes 5120.. of the data.
  EXPECT_TRUE(std::equal(sent[1].begin() + 2, sent[1].end(), data.begin() + 5120));
}

TEST_F(ArgMemory, StatusBytesMapToCodes) {
  auto m = plug_and_open(kDev);
  uint8_t b[4] = {1, 2, 3, 4};
  m->inject(raw_reply(0x5001, {3}));
  EXPECT_EQ(ARG_Write(kDev, 0, b, 4), ARG_ERR_WRITE);
  m->inject(raw_reply(0x5002, {3}));
  EXPECT_EQ(ARG_Read(kDev, 0, b, 4), ARG_ERR_READ);
  EXPECT_EQ(ARG_Read(kDev, 0x3FFE, b, 4), ARG_ERR_REFUSED);
  EXPECT_EQ(ARG_Write(kDev, 0x3FFE, b, 4), ARG_ERR_REFUSED);
  // Status 0 but fewer bytes than asked for.
  m->inject(raw_reply(0x5002, {0, 9, 9}));
  EXPECT_EQ(ARG_Read(kDev, 0, b, 4), ARG_ERR_REPLY);
  m->inject(fault(sim::FaultKind::WrongCode, 0x5001, 0x5002));
  EXPECT_EQ(ARG_Write(kDev, 0, b, 4), ARG_ERR_REPLY);
  EXPECT_EQ(ARG_Write(kDev, 0, b, 4), ARG_SUCCESS);
}

class ArgStore : public SimTest {
 protected:
  Bytes memory(sim::Model& m, size_t at, size_t n) {
    return with_services(m, [&](sim::DeviceServices& s) {
      return Bytes(s.params.begin() + ptrdiff_t(at), s.params.begin() + ptrdiff_t(at + n));
    });
  }
  void poke(sim::Model& m, size_t at, const Bytes& b) {
    with_services(m, [&](sim::DeviceServices& s) {
      std::copy(b.begin(), b.end(), s.params.begin() + ptrdiff_t(at));
    });
  }
};

TEST_F(ArgStore, EmptyStoreHasNoRecord) {
  auto m = plug_and_open(kDev);
  uint8_t out[ARG_MAX_DATA];
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0001, out), ARG_ERR_NOT_FOUND);
  EXPECT_EQ(payloads(*m, 0x5002), (std::vector<Bytes>{{0x00, 0x10, 0x00, 0x0C}}));
  EXPECT_EQ(ARG_EraseArgData(kDev, 0x55AA0001), ARG_ERR_CORRUPT);
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0001, nullptr), ARG_ERR_PARAMETER);
}

TEST_F(ArgStore, FirstRecordGoesToTheChainStart) {
  auto m = plug_and_open(kDev);
  const Bytes data{0x31, 0x32, 0x33};
  const uint16_t crc = crc16_ccitt(data.data(), 3);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA0001, data.data(), 3), ARG_SUCCESS);
  EXPECT_EQ(payloads(*m, 0x5002), (std::vector<Bytes>{{0x00, 0x10, 0x00, 0x0C}}));
  EXPECT_EQ(payloads(*m, 0x5001),
            (std::vector<Bytes>{cat(be16(16), header(0x55AA0001, 3, crc, 0xFFFF)),
                                cat(be16(28), data)}));
}

TEST_F(ArgStore, ChainOfBothSlotSizesSurvivesReopen) {
  auto m = plug_and_open(kDev);
  struct Rec { uint32_t id; Bytes data; uint16_t at; };
  // Each record sits behind the slot of the one before it: 44 or 1292 bytes.
  std::vector<Rec> recs = {{0x55AA0001, filled(10, 1), 16},
                           {0x55AA0003, filled(1000, 2), 16 + 44},
                           {0x55AA0002, filled(32, 3), 16 + 44 + 1292},
                           {0x55AA000D, filled(1280, 4), 16 + 44 + 1292 + 44},
                           {0x55AA0009, {}, 16 + 44 + 1292 + 44 + 1292}};
  for (const Rec& r : recs)
    ASSERT_EQ(ARG_WriteArgData(kDev, r.id, r.data.data(), int(r.data.size())), ARG_SUCCESS)
        << std::hex << r.id;
  for (size_t i = 0; i < recs.size(); ++i) {
    const Rec& r = recs[i];
    uint16_t next = i + 1 < recs.size() ? recs[i + 1].at : 0xFFFF;
    EXPECT_EQ(memory(*m, r.at, 12),
              header(r.id, uint32_t(r.data.size()),
                     crc16_ccitt(r.data.data(), int(r.data.size())), next))
        << i;
  }

  ASSERT_EQ(USB_CloseDevice(kDev), 1);
  ASSERT_EQ(USB_OpenDevice(kDev), 1);
  for (const Rec& r : recs) {
    Bytes out(ARG_MAX_DATA, 0xEE);
    ASSERT_EQ(ARG_ReadArgData(kDev, r.id, out.data()), int(r.data.size())) << std::hex << r.id;
    EXPECT_TRUE(std::equal(r.data.begin(), r.data.end(), out.begin()));
  }
  uint8_t out[ARG_MAX_DATA];
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0004, out), ARG_ERR_NOT_FOUND);
}

TEST_F(ArgStore, RewriteKeepsTheRecordsLink) {
  auto m = plug_and_open(kDev);
  const Bytes a = filled(20, 1), b = filled(20, 2), c = filled(5, 3);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA0001, a.data(), 20), ARG_SUCCESS);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA0002, b.data(), 20), ARG_SUCCESS);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA0001, c.data(), 5), ARG_SUCCESS);
  EXPECT_EQ(memory(*m, 16, 12), header(0x55AA0001, 5, crc16_ccitt(c.data(), 5), 60));
  uint8_t out[ARG_MAX_DATA];
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0001, out), 5);
  EXPECT_EQ(Bytes(out, out + 5), c);
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0002, out), 20);
}

TEST_F(ArgStore, ErasingTheFirstRecordCutsOffTheRest) {
  auto m = plug_and_open(kDev);
  const Bytes d = filled(8, 7);
  for (uint32_t id : {0x55AA0001u, 0x55AA0002u, 0x55AA0005u})
    ASSERT_EQ(ARG_WriteArgData(kDev, id, d.data(), 8), ARG_SUCCESS);
  m->clear_record();
  ASSERT_EQ(ARG_EraseArgData(kDev, 0x55AA0001), ARG_SUCCESS);
  EXPECT_EQ(payloads(*m, 0x5001),
            (std::vector<Bytes>{cat(be16(16), header(0x55AA0001, 0, 0xFFFF, 0xFFFF))}));
  uint8_t out[ARG_MAX_DATA];
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0001, out), 0);
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0002, out), ARG_ERR_NOT_FOUND);
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0005, out), ARG_ERR_NOT_FOUND);
  EXPECT_EQ(ARG_EraseArgData(kDev, 0x55AA0005), ARG_ERR_NOT_FOUND);
}

TEST_F(ArgStore, CorruptedDataFailsTheCrc) {
  auto m = plug_and_open(kDev);
  const Bytes d = filled(32, 9);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA0008, d.data(), 32), ARG_SUCCESS);
  with_services(*m, [](sim::DeviceServices& s) { s.params[16 + 12 + 5] ^= 0x01; });
  uint8_t out[ARG_MAX_DATA];
  std::memset(out, 0x42, sizeof out);
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0008, out), ARG_ERR_CRC);
  EXPECT_EQ(out[0], 0x42);
}

TEST_F(ArgStore, IdentifierOutsideSlotTableBlocksAppending) {
  auto m = plug_and_open(kDev);
  const Bytes d = filled(4, 1);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA00FF, d.data(), 4), ARG_SUCCESS);
  EXPECT_EQ(ARG_WriteArgData(kDev, 0x55AA0001, d.data(), 4), ARG_ERR_CORRUPT);
  uint8_t out[ARG_MAX_DATA];
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA00FF, out), 4);
}

TEST_F(ArgStore, LinkOfZeroIsTakenOver) {
  auto m = plug_and_open(kDev);
  poke(*m, 16, header(0x55AA0001, 0, 0, 0));
  const Bytes d = filled(6, 2);
  ASSERT_EQ(ARG_WriteArgData(kDev, 0x55AA0004, d.data(), 6), ARG_SUCCESS);
  EXPECT_EQ(memory(*m, 16, 12), header(0x55AA0004, 6, crc16_ccitt(d.data(), 6), 0xFFFF));
}

TEST_F(ArgStore, HostileChainsEndWithACode) {
  auto m = plug_and_open(kDev);
  uint8_t out[ARG_MAX_DATA];
  // A link back to itself.
  poke(*m, 16, header(0x55AA0001, 0, 0, 16));
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0002, out), ARG_ERR_CORRUPT);
  EXPECT_EQ(ARG_WriteArgData(kDev, 0x55AA0002, out, 1), ARG_ERR_CORRUPT);
  EXPECT_EQ(ARG_EraseArgData(kDev, 0x55AA0002), ARG_ERR_CORRUPT);
  // A length no slot holds.
  poke(*m, 16, header(0x55AA0003, 70000, 0, 0xFFFF));
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0003, out), ARG_ERR_REPLY);
  // A link past the end of the memory.
  poke(*m, 16, header(0x55AA0003, 0, 0, 0xFFF8));
  EXPECT_EQ(ARG_ReadArgData(kDev, 0x55AA0002, out), ARG_ERR_REFUSED);
  // A walk that meets free memory on the way to erase.
  poke(*m, 16, header(0x55AA0003, 0, 0, 200));
  EXPECT_EQ(ARG_EraseArgData(kDev, 0x55AA0002), ARG_ERR_CORRUPT);
}

TEST_F(ArgStore, OversizedOrMissingDataIsRefusedBeforeSending) {
  auto m = plug_and_open(kDev);
  Bytes d(ARG_MAX_DATA + 1);
  EXPECT_EQ(ARG_WriteArgData(kDev, 0x55AA0003, d.data(), ARG_MAX_DATA + 1), ARG_ERR_PARAMETER);
  EXPECT_EQ(ARG_WriteArgData(kDev, 0x55AA0003, nullptr, 4), ARG_ERR_PARAMETER);
  EXPECT_EQ(ARG_WriteArgData(kDev, 0x55AA0003, d.data(), -1), ARG_ERR_PARAMETER);
  EXPECT_TRUE(m->commands().empty());
}

}  // namespace
}  // namespace veltrix::test
