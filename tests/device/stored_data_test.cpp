// The user-data and schedule-data flash areas.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "tests/device/device_services_support.hpp"
#include "veltrix/device.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kDev = 0x51000031;
constexpr uint32_t kSch = sim::kSchBase;

Bytes pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t(seed + i * 7 + i / 251);
  return b;
}

class DevUserData : public SimTest {};

TEST_F(DevUserData, WriteAndReadCarryBigEndianAddress) {
  auto m = plug_and_open(kDev);
  const Bytes data{1, 2, 3, 4, 5};
  ASSERT_EQ(DEV_EraseUserData(kDev), 1);
  ASSERT_EQ(DEV_WriteUserData(kDev, 0x0104, data.data(), int(data.size())), 1);
  Bytes back(5, 0);
  ASSERT_EQ(DEV_ReadUserData(kDev, 0x0104, back.data(), 5), 1);
  EXPECT_EQ(back, data);

  EXPECT_EQ(payloads(*m, 0x109), (std::vector<Bytes>{{}}));
  EXPECT_EQ(payloads(*m, 0x107), (std::vector<Bytes>{{0, 0, 1, 4, 1, 2, 3, 4, 5}}));
  EXPECT_EQ(payloads(*m, 0x108), (std::vector<Bytes>{{0, 0, 1, 4, 0, 0, 0, 5}}));
}

TEST_F(DevUserData, MisalignedAddressOrOverlongWriteSendsNothing) {
  auto m = plug_and_open(kDev);
  Bytes big(DEV_USER_DATA_MAX_WRITE + 1, 0);
  EXPECT_EQ(DEV_WriteUserData(kDev, 6, big.data(), 4), 0);
  EXPECT_EQ(DEV_WriteUserData(kDev, 0, big.data(), DEV_USER_DATA_MAX_WRITE + 1), 0);
  EXPECT_EQ(DEV_WriteUserData(kDev, 0, big.data(), -1), 0);
  EXPECT_EQ(DEV_WriteUserData(kDev, 0, nullptr, 4), 0);
  EXPECT_EQ(DEV_ReadUserData(kDev, 6, big.data(), 4), 0);
  EXPECT_EQ(DEV_ReadUserData(kDev, 0, nullptr, 4), 0);
  EXPECT_TRUE(m->commands().empty());

  ASSERT_EQ(DEV_WriteUserData(kDev, 0, big.data(), DEV_USER_DATA_MAX_WRITE), 1);
  auto sent = payloads(*m, 0x107);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].size(), 4u + DEV_USER_DATA_MAX_WRITE);
}

TEST_F(DevUserData, SectorEraseClearsOnlyItsSector) {
  auto m = plug_and_open(kDev);
  const Bytes data = pattern(16, 0x40);
  ASSERT_EQ(DEV_WriteUserData(kDev, 0x0FF8, data.data(), 16), 1);  // straddles two sectors
  ASSERT_EQ(DEV_EraseUserDataSector(kDev, 0x1004), 1);
  EXPECT_EQ(payloads(*m, 0x10E), (std::vector<Bytes>{{0, 0, 0x10, 0x04}}));
  Bytes back(16, 0);
  ASSERT_EQ(DEV_ReadUserData(kDev, 0x0FF8, back.data(), 16), 1);
  EXPECT_EQ(Bytes(back.begin(), back.begin() + 8), Bytes(data.begin(), data.begin() + 8));
  EXPECT_EQ(Bytes(back.begin() + 8, back.end()), Bytes(8, 0xFF));
}

TEST_F(DevUserData, OutOfRangeAccessIsRefused) {
  auto m = plug_and_open(kDev);
  const Bytes data(8, 0);
  EXPECT_EQ(DEV_WriteUserData(kDev, sim::kUserDataSize - 4, data.data(), 8), 0);
  Bytes back(8, 0x77);
  EXPECT_EQ(DEV_ReadUserData(kDev, sim::kUserDataSize - 4, back.data(), 8), 0);
  EXPECT_EQ(DEV_EraseUserDataSector(kDev, sim::kUserDataSize), 0);
  // All three reached the adapter.
  EXPECT_EQ(m->commands().size(), 3u);
  EXPECT_EQ(DEV_ReadUserData(kDev, sim::kUserDataSize - 8, back.data(), 8), 1);
}

TEST_F(DevUserData, AcknowledgementWithPayloadIsFailure) {
  auto m = plug_and_open(kDev);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x109, 1));
  EXPECT_EQ(DEV_EraseUserData(kDev), 0);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x107, 1));
  const uint8_t d[4] = {1, 2, 3, 4};
  EXPECT_EQ(DEV_WriteUserData(kDev, 0, d, 4), 0);
  m->inject(fault(sim::FaultKind::WrongCode, 0x108, 0x109));
  uint8_t back[4];
  EXPECT_EQ(DEV_ReadUserData(kDev, 0, back, 4), 0);
  EXPECT_EQ(DEV_EraseUserData(kDev), 1);
}

class DevSchData : public SimTest {};

TEST_F(DevSchData, TwentyFiveThousandBytesTravelInThreeChunks) {
  auto m = plug_and_open(kDev);
  const Bytes data = pattern(25000, 3);
  ASSERT_EQ(DEV_EraseSchData(kDev, kSch), 1);
  EXPECT_EQ(payloads(*m, 0x10C), (std::vector<Bytes>{be32(kSch)}));
  ASSERT_EQ(DEV_WriteSchData(kDev, kSch, data.data(), int(data.size())), 1);

  auto chunks = payloads(*m, 0x10A);
  ASSERT_EQ(chunks.size(), 3u);
  const size_t sizes[3] = {10240, 10240, 4520};
  for (size_t k = 0; k < 3; ++k) {
    ASSERT_EQ(chunks[k].size(), 4 + sizes[k]) << k;
    EXPECT_EQ(Bytes(chunks[k].begin(), chunks[k].begin() + 4), be32(kSch)) << k;
    EXPECT_TRUE(std::equal(chunks[k].begin() + 4, chunks[k].end(), data.begin() + k * 10240))
        << k;
  }

  Bytes back(25000 + 16, 0x5A);  // guard bytes behind the requested length
  ASSERT_EQ(DEV_ReadSchData(kDev, kSch, back.data(), 25000), 1);
  EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
  EXPECT_EQ(Bytes(back.begin() + 25000, back.end()), Bytes(16, 0x5A));
  // The final partial chunk asks for 10240 % 25000 bytes.
  const Bytes ask = cat(be32(kSch), be32(10240));
  EXPECT_EQ(payloads(*m, 0x10B), (std::vector<Bytes>{ask, ask, ask}));
}

TEST_F(DevSchData, ShortReadAsksForChunkModuloLength) {
  auto m = plug_and_open(kDev);
  const Bytes data = pattern(100, 9);
  ASSERT_EQ(DEV_EraseSchData(kDev, kSch + 0x20000), 1);
  ASSERT_EQ(DEV_WriteSchData(kDev, kSch + 0x20000, data.data(), 100), 1);
  Bytes back(100, 0x00);
  ASSERT_EQ(DEV_ReadSchData(kDev, kSch + 0x20000, back.data(), 100), 1);
  EXPECT_EQ(payloads(*m, 0x10B), (std::vector<Bytes>{cat(be32(kSch + 0x20000), be32(40))}));
  EXPECT_TRUE(std::equal(back.begin(), back.begin() + 40, data.begin()));
  EXPECT_EQ(Bytes(back.begin() + 40, back.end()), Bytes(60, 0x00));
}

TEST_F(DevSchData, ExactChunkMultipleNeedsNoPartialChunk) {
  auto m = plug_and_open(kDev);
  const Bytes data = pattern(20480, 1);
  ASSERT_EQ(DEV_EraseSchData(kDev, kSch), 1);
  ASSERT_EQ(DEV_WriteSchData(kDev, kSch, data.data(), 20480), 1);
  EXPECT_EQ(payloads(*m, 0x10A).size(), 2u);
  Bytes back(20480, 0);
  ASSERT_EQ(DEV_ReadSchData(kDev, kSch, back.data(), 20480), 1);
  EXPECT_EQ(back, data);
  EXPECT_EQ(payloads(*m, 0x10B).size(), 2u);
}

TEST_F(DevSchData, EmptyTransfersSendNothing) {
  auto m = plug_and_open(kDev);
  uint8_t b[4] = {0};
  EXPECT_EQ(DEV_WriteSchData(kDev, kSch, b, 0), 1);
  EXPECT_EQ(DEV_WriteSchData(kDev, kSch, nullptr, -5), 1);
  EXPECT_EQ(DEV_ReadSchData(kDev, kSch, b, 0), 1);
  EXPECT_EQ(DEV_ReadSchData(kDev, kSch, nullptr, -1), 1);
  EXPECT_EQ(DEV_WriteSchData(kDev, kSch, nullptr, 4), 0);
  EXPECT_EQ(DEV_ReadSchData(kDev, kSch, nullptr, 4), 0);
  EXPECT_TRUE(m->commands().empty());
}

TEST_F(DevSchData, RefusedChunkEndsTheTransfer) {
  auto m = plug_and_open(kDev);
  // 20480 bytes fit between this address and the end of the area; the third chunk not.
  const uint32_t near_end = sim::kSchBase + sim::kSchSize - 20480;
  const Bytes data = pattern(25000, 5);
  EXPECT_EQ(DEV_WriteSchData(kDev, near_end, data.data(), 25000), 0);
  EXPECT_EQ(payloads(*m, 0x10A).size(), 3u);

  m->clear_record();
  Bytes back(25000);
  EXPECT_EQ(DEV_ReadSchData(kDev, sim::kSchBase + sim::kSchSize, back.data(), 25000), 0);
  EXPECT_EQ(payloads(*m, 0x10B).size(), 1u);
  EXPECT_EQ(DEV_EraseSchData(kDev, 0x08000000), 0);

  m->clear_record();
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x10A, 1));
  EXPECT_EQ(DEV_WriteSchData(kDev, kSch, data.data(), 25000), 0);
  EXPECT_EQ(payloads(*m, 0x10A).size(), 1u);
}

}  // namespace
}  // namespace veltrix::test
