#include "tools/dbc_print.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "dbc/text.hpp"

namespace veltrix::tools {
namespace {

using dbc::ByteOrder;
using dbc::DBC_Decoder;
using dbc::DBC_MESSAGE;
using dbc::DBC_SIGNAL;

void print_signal_value(const DBC_SIGNAL& s, double value) {
  if (!s.valueTable.empty()) {
    auto it = s.valueTable.find(dbc::saturate_to_i32(value));
    if (it != s.valueTable.end()) {
      std::printf(" %s=%s", s.name.c_str(), it->second.c_str());
      return;
    }
  }
  std::printf(" %s=%g%s%s", s.name.c_str(), value, s.unit.empty() ? "" : " ", s.unit.c_str());
}

void print_message(const DBC_MESSAGE& m, const uint8_t* data) {
  std::printf("  %s:", m.name.c_str());
  uint64_t selected = 0;
  bool have_switch = false;
  for (const DBC_SIGNAL& s : m.signals) {
    if (s.multiplexMode == dbc::MUX_SWITCH && !have_switch) {
      have_switch = true;
      selected = DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), data,
                                              ByteOrder(s.byteOrder));
    }
  }
  for (const DBC_SIGNAL& s : m.signals) {
    if (s.multiplexMode == dbc::MUX_SELECTED &&
        (!have_switch || s.multiplexValue != selected)) {
      continue;
    }
    DBC_SIGNAL copy = s;  // the database stays untouched
    copy.rawValue =
        DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), data, ByteOrder(s.byteOrder));
    print_signal_value(copy, DBC_Decoder::getSignalRealValue(&copy));
  }
  std::printf("\n");
}

}  // namespace

std::unique_ptr<dbc::DBC_Decoder> open_database(const char* path) {
  dbc::ParseFault fault;
  auto db = dbc::DBC_Decoder::load(path, &fault);
  if (!db) {
    if (fault.status == dbc::ParseStatus::CannotOpen) {
      std::fprintf(stderr, "veltrix dbc: cannot read %s\n", path);
    } else {
      std::fprintf(stderr, "veltrix dbc: %s:%zu: %s line lacks a required token\n", path,
                   fault.line, fault.keyword.c_str());
    }
  }
  return db;
}

std::string id_text(uint32_t id) {
  char buf[16];
  if (id & 0x80000000u) {
    std::snprintf(buf, sizeof buf, "%08" PRIX32, id & 0x1FFFFFFFu);
  } else {
    std::snprintf(buf, sizeof buf, "%03" PRIX32, id);
  }
  return buf;
}

void print_decoded(const dbc::DBC_Decoder& db, uint32_t key, const uint8_t* data, size_t length) {
  // Signals read the whole image; bytes the frame did not carry read as zero.
  uint8_t image[dbc::kDataBytes] = {};
  std::memcpy(image, data, length < sizeof image ? length : sizeof image);
  const uint32_t mi = db.findMessageById(key);
  if (mi == DBC_Decoder::kNone) {
    std::printf("  (no message with id %s)\n", id_text(key).c_str());
    return;
  }
  print_message(db.messages()[mi], image);
}

}  // namespace veltrix::tools
