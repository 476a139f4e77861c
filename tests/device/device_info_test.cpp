// Identity and hardware records, timestamp counter, power level, build time and CRC.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "device/build_time.hpp"
#include "tests/device/device_services_support.hpp"
#include "tests/support/seed.hpp"
#include "veltrix/device.h"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kDev = 0x51000021;

class DevInfo : public SimTest {};

TEST_F(DevInfo, ReadsIdentityRecordAndFunctionString) {
  auto m = plug_and_open(kDev);
  with_services(*m, [](sim::DeviceServices& s) {
    s.firmware_version = 0x0105001E;
    s.boot_marker = {0x11223344, 0x55667788};
    s.function_string = "CAN,LIN";
  });
  DEVICE_INFO info;
  std::memset(&info, 0xAA, sizeof info);
  char text[DEV_FUNCTION_STR_MAX + 1];
  ASSERT_EQ(DEV_GetDeviceInfo(kDev, &info, text), 1);
  EXPECT_EQ(info.FirmwareVersion, 0x0105001Eu);
  EXPECT_EQ(info.BootMarker[0], 0x11223344u);
  EXPECT_EQ(info.BootMarker[1], 0x55667788u);
  EXPECT_EQ(info.SerialNumber, kDev);
  EXPECT_STREQ(info.FirmwareName, "VELTRIX virtual adapter");
  EXPECT_STREQ(text, "CAN,LIN");
  auto cmds = m->commands();
  ASSERT_EQ(cmds.size(), 2u);
  EXPECT_EQ(cmds[0].code, 0x100u);
  EXPECT_TRUE(cmds[0].payload.empty());
  EXPECT_EQ(cmds[1].code, 0x106u);
  EXPECT_TRUE(cmds[1].payload.empty());
}

TEST_F(DevInfo, FunctionStringLimitIs200Characters) {
  auto m = plug_and_open(kDev);
  char text[DEV_FUNCTION_STR_MAX + 1];
  with_services(*m, [](sim::DeviceServices& s) { s.function_string.assign(200, 'x'); });
  DEVICE_INFO info;
  ASSERT_EQ(DEV_GetDeviceInfo(kDev, &info, text), 1);
  EXPECT_EQ(std::strlen(text), 200u);

  with_services(*m, [](sim::DeviceServices& s) {
    s.function_string.assign(201, 'y');
    s.firmware_version = 0x01020304;
  });
  std::memset(text, 'Z', sizeof text);
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, &info, text), 0);
  // The record came before the string failed; the string buffer stays as it was.
  EXPECT_EQ(info.FirmwareVersion, 0x01020304u);
  EXPECT_EQ(text[0], 'Z');
  EXPECT_EQ(text[DEV_FUNCTION_STR_MAX], 'Z');
}

TEST_F(DevInfo, ShortRecordIsZeroFilledAndEmptyRecordFails) {
  auto m = plug_and_open(kDev);
  m->on(0x100, [](sim::Model&, const sim::Command& c) {
    return std::optional<sim::Reply>(sim::Reply{c.code, {'A', 'B', 'C'}});
  });
  DEVICE_INFO info;
  std::memset(&info, 0xAA, sizeof info);
  ASSERT_EQ(DEV_GetDeviceInfo(kDev, &info, nullptr), 1);
  EXPECT_EQ(m->commands().size(), 1u);  // no string buffer, no string command
  EXPECT_STREQ(info.FirmwareName, "ABC");
  EXPECT_EQ(info.FirmwareVersion, 0u);
  EXPECT_EQ(info.Reserved, 0u);

  m->on(0x100, [](sim::Model&, const sim::Command& c) {
    return std::optional<sim::Reply>(sim::Reply{c.code, {}});
  });
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, &info, nullptr), 0);
}

TEST_F(DevInfo, BadArgumentsAndBrokenRepliesFail) {
  auto m = plug_and_open(kDev);
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, nullptr, nullptr), 0);
  EXPECT_EQ(DEV_GetHardwareInfo(kDev, nullptr), 0);
  EXPECT_TRUE(m->commands().empty());

  DEVICE_INFO info;
  m->inject(fault(sim::FaultKind::WrongCode, 0x100, 0x101));
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, &info, nullptr), 0);
  char text[DEV_FUNCTION_STR_MAX + 1];
  m->inject(fault(sim::FaultKind::ShortHeader, 0x106));
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, &info, text), 0);
  // The adapter answers normally again afterwards.
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, &info, text), 1);
}

TEST_F(DevInfo, UnknownOrUnpluggedAdapterFails) {
  plug_and_open(kDev);
  DEVICE_INFO info;
  EXPECT_EQ(DEV_GetDeviceInfo(0x51009999, &info, nullptr), 0);
  bed().unplug(kDev);
  EXPECT_EQ(DEV_GetDeviceInfo(kDev, &info, nullptr), 0);
  unsigned int ts = 0;
  EXPECT_EQ(DEV_GetTimestamp(kDev, 0, &ts), 0);
}

class DevHardware : public SimTest {};

TEST_F(DevHardware, MarkDecidesValidityAndRecordIsAlwaysVisible) {
  auto m = plug_and_open(kDev);
  unsigned char hw[DEV_HARDWARE_INFO_SIZE];
  for (uint8_t mark : {uint8_t(0x00), uint8_t(0xFF)}) {
    with_services(*m, [&](sim::DeviceServices& s) { s.hardware[0] = mark; s.hardware[63] = 0x5A; });
    std::memset(hw, 0x11, sizeof hw);
    EXPECT_EQ(DEV_GetHardwareInfo(kDev, hw), 0) << int(mark);
    EXPECT_EQ(hw[0], mark);
    EXPECT_EQ(hw[63], 0x5A);
  }
  for (uint8_t mark : {uint8_t(0x01), uint8_t(0xFE)}) {
    with_services(*m, [&](sim::DeviceServices& s) { s.hardware[0] = mark; });
    EXPECT_EQ(DEV_GetHardwareInfo(kDev, hw), 1) << int(mark);
    EXPECT_EQ(hw[0], mark);
  }
  EXPECT_EQ(payloads(*m, 0x10D), std::vector<Bytes>(4));
}

TEST_F(DevHardware, RecordOfWrongSizeFails) {
  auto m = plug_and_open(kDev);
  unsigned char hw[DEV_HARDWARE_INFO_SIZE + 8];
  std::memset(hw, 0x33, sizeof hw);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x10D, 1));
  EXPECT_EQ(DEV_GetHardwareInfo(kDev, hw), 0);
  EXPECT_EQ(hw[DEV_HARDWARE_INFO_SIZE], 0x33);  // nothing past the 64 bytes
  m->inject(raw_reply(0x10D, Bytes(63, 0x01)));
  EXPECT_EQ(DEV_GetHardwareInfo(kDev, hw), 0);
  EXPECT_EQ(DEV_GetHardwareInfo(kDev, hw), 1);
}

class DevClock : public SimTest {
 protected:
  // The adapter's clock, driven by the test.
  std::shared_ptr<uint64_t> now_ = std::make_shared<uint64_t>(0);
  std::shared_ptr<sim::Model> open_with_manual_clock() {
    auto m = plug_and_open(kDev);
    with_services(*m, [&](sim::DeviceServices& s) {
      auto now = now_;
      s.clock_us = [now] { return *now; };
      s.timestamp_zero_us = 0;
    });
    return m;
  }
  void advance(uint64_t us) {
    std::scoped_lock g(sim::sim_mutex());
    *now_ += us;
  }
};

TEST_F(DevClock, CountsHundredMicrosecondUnitsSinceReset) {
  auto m = open_with_manual_clock();
  advance(1234567);
  unsigned int ts = 0;
  ASSERT_EQ(DEV_GetTimestamp(kDev, 0, &ts), 1);
  EXPECT_EQ(ts, 12345u);
  ASSERT_EQ(DEV_GetTimestamp(kDev, 1, &ts), 1);
  EXPECT_EQ(ts, 1234567u);
  EXPECT_EQ(payloads(*m, 0x11), (std::vector<Bytes>{{0x00}, {0x01}}));

  ASSERT_EQ(DEV_ResetTimestamp(kDev), 1);
  EXPECT_EQ(payloads(*m, 0x12), (std::vector<Bytes>{{}}));
  advance(500);
  ASSERT_EQ(DEV_GetTimestamp(kDev, 0, &ts), 1);
  EXPECT_EQ(ts, 5u);

  // Any reply to the command counts: an unknown selector's empty reply leaves the value,
  // a longer reply gives its first four bytes. A missing output is refused.
  ts = 77;
  EXPECT_EQ(DEV_GetTimestamp(kDev, 9, &ts), 1);
  EXPECT_EQ(ts, 77u);
  EXPECT_EQ(DEV_GetTimestamp(kDev, 0, nullptr), 0);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x11, 4));
  EXPECT_EQ(DEV_GetTimestamp(kDev, 0, &ts), 1);
  EXPECT_EQ(ts, 5u);
  // A reply shorter than announced is no reply.
  ts = 77;
  m->inject(fault(sim::FaultKind::LongLength, 0x11, 2));
  EXPECT_EQ(DEV_GetTimestamp(kDev, 0, &ts), 0);
  EXPECT_EQ(ts, 77u);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x12, 1));
  EXPECT_EQ(DEV_ResetTimestamp(kDev), 0);
}

TEST_F(DevClock, PowerLevelIsSentAsOneByte) {
  auto m = plug_and_open(kDev);
  ASSERT_EQ(DEV_SetPowerLevel(kDev, 3), 1);
  EXPECT_EQ(payloads(*m, 0x10), (std::vector<Bytes>{{0x03}}));
  EXPECT_EQ(with_services(*m, [](sim::DeviceServices& s) { return s.power_level; }), 3);
  // Whatever the reply carries, its arrival is the acknowledgement.
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x10, 2));
  EXPECT_EQ(DEV_SetPowerLevel(kDev, 1), 1);
  m->inject(fault(sim::FaultKind::NoReply, 0x10));
  EXPECT_EQ(DEV_SetPowerLevel(kDev, 2), 0);
}

TEST(DevBuildTime, YearCountsFrom1900) {
  char out[DEV_BUILD_TIME_SIZE];
  format_build_time("Mar 15 2023", "18:27:42", out, sizeof out);
  EXPECT_STREQ(out, "0123-03-15 18:27:42");
  format_build_time("Dec  1 1999", "00:00:01", out, sizeof out);
  EXPECT_STREQ(out, "0099-12-01 00:00:01");
  format_build_time("Foo 15 2023", "18:27:42", out, sizeof out);
  EXPECT_STREQ(out, "0123-00-15 18:27:42");
}

TEST(DevBuildTime, ExportedFormAndNullBuffer) {
  EXPECT_EQ(DEV_GetDllBuildTime(nullptr), 1);
  char out[DEV_BUILD_TIME_SIZE + 4];
  std::memset(out, '#', sizeof out);
  ASSERT_EQ(DEV_GetDllBuildTime(out), 1);
  ASSERT_EQ(std::strlen(out), 19u);
  EXPECT_EQ(out[0], '0');  // a year after 1900 reduced by 1900 stays below 1000
  EXPECT_EQ(out[4], '-');
  EXPECT_EQ(out[7], '-');
  EXPECT_EQ(out[13], ':');
  int month = std::atoi(out + 5);
  EXPECT_GE(month, 1);
  EXPECT_LE(month, 12);
  EXPECT_EQ(out[DEV_BUILD_TIME_SIZE], '#');
}

// Bit-by-bit reference of the table-driven CRC.
uint16_t crc_reference(const uint8_t* p, size_t n) {
  uint16_t crc = 0;
  for (size_t i = 0; i < n; ++i) {
    crc ^= uint16_t(p[i] << 8);
    for (int b = 0; b < 8; ++b) crc = (crc & 0x8000) ? uint16_t((crc << 1) ^ 0x1021) : uint16_t(crc << 1);
  }
  return crc;
}

TEST(DevCrc, CheckValueAndEmptyInput) {
  const char* check = "123456789";
  EXPECT_EQ(crc16_ccitt(reinterpret_cast<const unsigned char*>(check), 9), 0x31C3);
  EXPECT_EQ(crc16_ccitt(reinterpret_cast<const unsigned char*>(check), 0), 0);
  EXPECT_EQ(crc16_ccitt(nullptr, 5), 0);
  const unsigned char a = 'A';
  EXPECT_EQ(crc16_ccitt(&a, 1), 0x58E5);
}

TEST(DevCrc, MatchesBitwiseReference) {
  const unsigned seed = test_seed("CRC reference comparison");
  std::mt19937 rng(seed);
  for (int round = 0; round < 200; ++round) {
    Bytes data(rng() % 300);
    for (auto& b : data) b = uint8_t(rng());
    ASSERT_EQ(crc16_ccitt(data.data(), int(data.size())), crc_reference(data.data(), data.size()))
        << "seed " << seed << " round " << round;
  }
}

}  // namespace
}  // namespace veltrix::test
