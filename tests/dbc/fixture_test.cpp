// The DBC file written for the suite (tests/fixtures/dbc), checked against what it says:
// CR LF lines, Intel and Motorola signals, extended identifiers, frame-format and cycle-time
// attributes, floats, simple and extended multiplexing, value tables and non-UTF-8 units.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "dbc_test_util.hpp"

namespace veltrix::dbc {
namespace {

constexpr uint32_t kLamps = 0x80000000u | 0x18FF0001u;
constexpr uint32_t kDisplay = 0x80000000u | 0x311u;

class DbcFixtureFile : public ::testing::Test {
 protected:
  void SetUp() override {
    ParseFault fault;
    db_ = DBC_Decoder::load(test::fixture("body_gateway.dbc"), &fault);
    ASSERT_TRUE(db_) << "refused at line " << fault.line;
  }
  const DBC_MESSAGE& msg(uint32_t id) {
    const uint32_t mi = db_->findMessageById(id);
    EXPECT_NE(mi, DBC_Decoder::kNone) << id;
    return db_->messages().at(mi == DBC_Decoder::kNone ? 0 : mi);
  }
  const DBC_SIGNAL& sig(const char* m, const char* s) {
    DBC_SIGNAL* out = nullptr;
    EXPECT_EQ(db_->getSignal(m, s, &out), 1) << m << "." << s;
    static DBC_SIGNAL none;
    return out ? *out : none;
  }
  std::unique_ptr<DBC_Decoder> db_;
};

TEST_F(DbcFixtureFile, MessagesSignalsAndComments) {
  ASSERT_EQ(db_->messages().size(), 5u);
  size_t signals = 0;
  for (const DBC_MESSAGE& m : db_->messages()) signals += m.signals.size();
  EXPECT_EQ(signals, 19u);
  const DBC_MESSAGE& gw = msg(256);
  EXPECT_EQ(gw.name, "GW_Status");
  EXPECT_EQ(gw.sender, "GW");
  EXPECT_EQ(gw.dlc, 8);
  EXPECT_EQ(gw.comment, "Gateway status, every 100 ms.");
  const DBC_SIGNAL& volt = sig("GW_Status", "GW_Voltage");
  EXPECT_EQ(volt.byteOrder, INTEL);
  EXPECT_EQ(volt.startBit, 8);
  EXPECT_EQ(volt.length, 12);
  EXPECT_EQ(volt.factor, 0.01);
  EXPECT_EQ(volt.maximum, 40.95);
  EXPECT_EQ(volt.unit, "V");
  EXPECT_EQ(test::names_of(volt.receivers), (std::vector<std::string>{"BCM", "DCU", "ICM"}));
  EXPECT_EQ(volt.comment, "Supply voltage");  // a comment keeps the part on its first line
  EXPECT_EQ(msg(1020).sender, "DIAG");
}

TEST_F(DbcFixtureFile, MotorolaSignalsCountFromTheirLeastSignificantBit) {
  const DBC_SIGNAL& temp = sig("GW_Status", "GW_Temp");
  EXPECT_EQ(temp.byteOrder, MOTOROLA);
  EXPECT_EQ(temp.startBit, 38);  // 31|10@0: byte 3 whole, then bits 7..6 of byte 4
  EXPECT_EQ(temp.isSigned, 1u);
  EXPECT_EQ(temp.offset, -20.0);
  EXPECT_EQ(temp.unit, "\xB0"
                       "C");  // a Latin-1 degree sign, not converted
  EXPECT_EQ(sig("ICM_Display", "Disp_Text").startBit, 64);  // 71|8@0: byte 8 whole
}

TEST_F(DbcFixtureFile, FrameFormatCycleTimeAndExtendedIdentifiers) {
  const DBC_MESSAGE& display = msg(kDisplay);
  EXPECT_EQ(display.name, "ICM_Display");
  EXPECT_EQ(display.isCanFd, 1);  // ExtendedCAN_FD
  EXPECT_EQ(display.dlc, 64);
  const DBC_MESSAGE& lamps = msg(kLamps);
  EXPECT_EQ(lamps.name, "BCM_Lamps");
  EXPECT_EQ(lamps.isCanFd, 0);  // ExtendedCAN
  EXPECT_EQ(msg(256).cycleTime, 100u);
  EXPECT_EQ(msg(512).cycleTime, 20u);
  EXPECT_EQ(msg(1020).cycleTime, 10u);  // no attribute: the default of 10 ms
  EXPECT_EQ(msg(256).isCanFd, 0);
}

TEST_F(DbcFixtureFile, FloatsMultiplexersAndValueTables) {
  EXPECT_EQ(sig("BCM_Lamps", "Lamp_Float").valueType, uint32_t(VALUE_FLOAT32));
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Double").valueType, uint32_t(VALUE_FLOAT64));
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Mux").multiplexMode, MUX_SWITCH);
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Rain").multiplexMode, MUX_SELECTED);
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Rain").multiplexValue, 0);
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Light").multiplexValue, 1);
  // "m2M" (extended multiplexing) counts as a switch; SG_MUL_VAL_ lines are not read.
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Sub").multiplexMode, MUX_SWITCH);
  EXPECT_EQ(sig("DCU_Sensors", "Sens_SubA").isSigned, 1u);
  EXPECT_EQ(sig("DCU_Sensors", "Sens_Double").multiplexMode, MUX_NONE);
  const std::map<int32_t, std::string> modes{{0, "Off"}, {1, "Standby"}, {2, "Run"}, {7, "Fault"}};
  EXPECT_EQ(test::entries_of(sig("GW_Status", "GW_Mode").valueTable), modes);
  EXPECT_EQ(sig("BCM_Lamps", "Lamp_Left").valueTable.at(2), "blink");
}

}  // namespace
}  // namespace veltrix::dbc
