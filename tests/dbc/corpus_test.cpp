// Every sample file parses, with the counts and a few signals as the files state them.
#include <gtest/gtest.h>

#include "tests/support/corpus.hpp"
#include "dbc_test_util.hpp"

namespace veltrix::dbc {
namespace {

struct Expect {
  const char* file;
  size_t messages;
  size_t signals;
};

const Expect kCorpus[] = {
    {"abs.dbc", 18, 89},       {"floating_point.dbc", 2, 3},
    {"foobar.dbc", 5, 8},      {"gwm_haval_h6_phev_2024.dbc", 27, 135},
    {"motohawk.dbc", 1, 3},    {"multiplex_2.dbc", 4, 19},
    {"signed.dbc", 11, 18},    {"tesla_can.dbc", 44, 572},
    {"vw_mlb.dbc", 145, 1442},
};

std::unique_ptr<DBC_Decoder> load(const char* file) {
  ParseFault fault;
  auto db = DBC_Decoder::load(test::corpus(file), &fault);
  EXPECT_TRUE(db) << file << " refused at line " << fault.line;
  return db;
}

const DBC_SIGNAL& sig(DBC_Decoder& db, const char* m, const char* s) {
  DBC_SIGNAL* out = nullptr;
  EXPECT_EQ(db.getSignal(m, s, &out), 1) << m << "." << s;
  static DBC_SIGNAL none;
  return out ? *out : none;
}

class DbcCorpus : public veltrix::test::CorpusTest {};

TEST_F(DbcCorpus, EveryFileParsesWithItsMessageAndSignalCounts) {
  for (const Expect& e : kCorpus) {
    auto db = load(e.file);
    ASSERT_TRUE(db);
    size_t signals = 0;
    for (const DBC_MESSAGE& m : db->messages()) signals += m.signals.size();
    EXPECT_EQ(db->messages().size(), e.messages) << e.file;
    EXPECT_EQ(signals, e.signals) << e.file;
  }
}

TEST_F(DbcCorpus, MotorolaSignedSignalOfACrlfFile) {
  auto db = load("motohawk.dbc");
  const DBC_MESSAGE& m = db->messages().at(0);
  EXPECT_EQ(m.name, "ExampleMessage");
  EXPECT_EQ(m.id, 496u);
  EXPECT_EQ(m.sender, "PCM1");
  EXPECT_EQ(m.comment, "Example message used as template in MotoHawk models.");
  const DBC_SIGNAL& t = sig(*db, "ExampleMessage", "Temperature");
  EXPECT_EQ(t.startBit, 21);
  EXPECT_EQ(t.length, 12);
  EXPECT_EQ(t.byteOrder, MOTOROLA);
  EXPECT_EQ(t.isSigned, 1u);
  EXPECT_EQ(t.factor, 0.01);
  EXPECT_EQ(t.offset, 250.0);
  EXPECT_EQ(t.minimum, 229.52);
  EXPECT_EQ(t.unit, "degK");
  EXPECT_EQ(test::names_of(t.receivers), (std::vector<std::string>{"PCM1", "FOO"}));
  const std::map<int32_t, std::string> enable{{0, "Disabled"}, {1, "Enabled"}};
  // CRLF line
  EXPECT_EQ(test::entries_of(sig(*db, "ExampleMessage", "Enable").valueTable), enable);
}

TEST_F(DbcCorpus, FrameFormatAttributesOfFoobar) {
  auto db = load("foobar.dbc");
  const auto& msgs = db->messages();
  EXPECT_EQ(msgs[0].id, 2147558192u);  // ExtendedCAN
  EXPECT_EQ(msgs[0].isCanFd, 0);
  EXPECT_EQ(msgs[1].cycleTime, 1u);
  EXPECT_EQ(msgs[3].name, "CanFd");
  EXPECT_EQ(msgs[3].isCanFd, 1);  // ExtendedCAN_FD
  EXPECT_EQ(msgs[3].dlc, 64);
  EXPECT_EQ(msgs[4].id, 780u);  // StandardCAN
  EXPECT_EQ(sig(*db, "Foo", "Bar").valueType, uint32_t(VALUE_FLOAT32));
  EXPECT_EQ(sig(*db, "Foo", "Bar").comment, "Bar.");
  EXPECT_EQ(sig(*db, "Fum", "Fam").valueTable.at(1), "Enabled");
  EXPECT_EQ(sig(*db, "CanFd", "Fas").startBit, 64);
}

TEST_F(DbcCorpus, FloatsMultiplexersAndExtendedIds) {
  auto fp = load("floating_point.dbc");
  EXPECT_EQ(sig(*fp, "Message1", "Signal1").valueType, uint32_t(VALUE_FLOAT64));
  EXPECT_EQ(sig(*fp, "Message2", "Signal2").valueType, uint32_t(VALUE_FLOAT32));

  auto mx = load("multiplex_2.dbc");
  EXPECT_EQ(mx->messages()[0].id, 2349006590u);
  EXPECT_EQ(sig(*mx, "Shared", "S0").multiplexMode, MUX_SWITCH);
  EXPECT_EQ(sig(*mx, "Shared", "S2").multiplexValue, 2);
  EXPECT_EQ(sig(*mx, "Shared", "S2").isSigned, 1u);

  auto tesla = load("tesla_can.dbc");
  const DBC_SIGNAL& idx = sig(*tesla, "UI_autopilotControl", "UI_autopilotControlIndex");
  EXPECT_EQ(idx.multiplexMode, MUX_SWITCH);
  EXPECT_EQ(test::names_of(idx.receivers), (std::vector<std::string>{"APP", "APS"}));
  EXPECT_EQ(sig(*tesla, "UI_autopilotControl", "UI_hovEnabled").multiplexMode, MUX_SELECTED);
}

TEST_F(DbcCorpus, EncodingsAreKeptByteForByte) {
  auto abs = load("abs.dbc");
  EXPECT_EQ(sig(*abs, "BREMSE_33", "whlspeed_FL").comment,
            "Radgeschwindigkeit / wheel speed absCtrl FL");
  uint32_t mi = abs->findMessageById(835);
  ASSERT_NE(mi, DBC_Decoder::kNone);
  EXPECT_EQ(abs->messages()[mi].signals[0].unit, "m/s");
  bool found_degree = false;
  for (const DBC_MESSAGE& m : abs->messages()) {
    for (const DBC_SIGNAL& s : m.signals) {
      if (s.name == "Yaw_Rate") {
        EXPECT_EQ(s.unit, "\xB0/s");  // cp1252 degree sign, not converted
        found_degree = true;
      }
    }
  }
  EXPECT_TRUE(found_degree);

  auto vw = load("vw_mlb.dbc");
  const DBC_SIGNAL& belt = sig(*vw, "Airbag_02", "AB_Gurtschloss_FA");
  EXPECT_EQ(belt.valueTable.at(1), "nicht_verf\xEF\xBF\xBDgbar (Fehler oder Init)");
  const DBC_SIGNAL& accel = sig(*vw, "ACC_01", "ACC_Sollbeschleunigung");
  EXPECT_EQ(accel.startBit, 24);
  EXPECT_EQ(accel.length, 11);
  EXPECT_EQ(accel.offset, -7.22);
  EXPECT_EQ(accel.receivers.size(), 4u);
  EXPECT_EQ(sig(*vw, "ACC_01", "ACC_01_CHK").receivers.front(), "Magnetic_Ride_LB");
}

TEST_F(DbcCorpus, CanFdPayloadsOfBigEndianFile) {
  auto gwm = load("gwm_haval_h6_phev_2024.dbc");
  const DBC_MESSAGE& m = gwm->messages().at(0);
  EXPECT_EQ(m.name, "CAR_OVERALL_SIGNALS2");
  EXPECT_EQ(m.dlc, 64);
  EXPECT_EQ(m.isCanFd, 0);  // FD by length only; no frame-format attribute
  const DBC_SIGNAL& crc2 = sig(*gwm, "CAR_OVERALL_SIGNALS2", "CRC2");
  EXPECT_EQ(crc2.byteOrder, MOTOROLA);
  EXPECT_EQ(crc2.startBit, 64);  // 71|8@0: byte 8 whole
}

}  // namespace
}  // namespace veltrix::dbc
