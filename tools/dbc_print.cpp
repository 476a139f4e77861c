#include "tools/dbc_print.hpp"

#include <cinttypes>
#include <cstring>
#include <fstream>
#include <sstream>

#include "dbc/text.hpp"
#include "tools/file_check.hpp"

namespace veltrix::tools {
namespace {

using dbc::ByteOrder;
using dbc::DBC_Decoder;
using dbc::DBC_MESSAGE;
using dbc::DBC_SIGNAL;

constexpr size_t kFdLengths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};

// "SG_MUL_VAL_ 2349006590 S1 S0 1-1, 3-3;"
void read_mux_line(const std::string& line, MuxTable* table) {
  std::istringstream in(line);
  std::string keyword, signal, sw, rest;
  uint64_t id = 0;
  if (!(in >> keyword >> id >> signal >> sw) || keyword != "SG_MUL_VAL_" || id > 0xFFFFFFFFu)
    return;
  MuxCondition c;
  c.switch_name = sw;
  std::getline(in, rest);
  std::istringstream ranges(rest);
  std::string range;
  while (std::getline(ranges, range, ',')) {
    unsigned long long lo = 0, hi = 0;
    if (std::sscanf(range.c_str(), " %llu-%llu", &lo, &hi) == 2 && lo <= hi)
      c.ranges.emplace_back(lo, hi);
  }
  if (!c.ranges.empty()) (*table)[{uint32_t(id), signal}] = std::move(c);
}

MuxTable read_mux_table(const char* path) {
  MuxTable table;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("SG_MUL_VAL_", 0) == 0) read_mux_line(line, &table);
  return table;
}

uint64_t raw_of(const DBC_SIGNAL& s, const uint8_t* data) {
  return DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), data, ByteOrder(s.byteOrder));
}

const DBC_SIGNAL* signal_named(const DBC_MESSAGE& m, const std::string& name) {
  for (const DBC_SIGNAL& s : m.signals)
    if (s.name == name) return &s;
  return nullptr;
}

// A signal is present when its SG_MUL_VAL_ switch is present and holds a listed value;
// without such a line, an "m<n>" signal needs the message's first "M" switch at n.
// depth bounds a chain of switches, which a hostile file may make circular.
bool present(const Database& db, const DBC_MESSAGE& m, const DBC_SIGNAL& s, const uint8_t* data,
             size_t depth) {
  if (depth > m.signals.size()) return false;
  auto it = db.mux.find({m.id, s.name});
  if (it != db.mux.end()) {
    const DBC_SIGNAL* sw = signal_named(m, it->second.switch_name);
    if (!sw || !present(db, m, *sw, data, depth + 1)) return false;
    const uint64_t v = raw_of(*sw, data);
    for (const auto& [lo, hi] : it->second.ranges)
      if (v >= lo && v <= hi) return true;
    return false;
  }
  if (s.multiplexMode != dbc::MUX_SELECTED) return true;
  for (const DBC_SIGNAL& sw : m.signals)
    if (sw.multiplexMode == dbc::MUX_SWITCH) return raw_of(sw, data) == s.multiplexValue;
  return false;
}

void print_signal_value(std::FILE* out, const DBC_SIGNAL& s, double value) {
  if (!s.valueTable.empty()) {
    if (std::string_view text; s.valueTable.find(dbc::saturate_to_i32(value), &text)) {
      std::fprintf(out, " %s=%s", s.name.c_str(), text.data());
      return;
    }
  }
  std::fprintf(out, " %s=%g%s%s", s.name.c_str(), value, s.unit.empty() ? "" : " ", s.unit.c_str());
}

bool has_dbc_statement(const char* path) {
  static const char* const kKeywords[] = {"VERSION", "NS_", "BS_", "BU_", "BO_",
                                          "SG_",     "CM_", "BA_", "VAL_"};
  std::ifstream in(path, std::ios::binary);
  std::string word;
  while (in >> word)
    for (const char* k : kKeywords)
      if (word == k) return true;
  return false;
}

}  // namespace

std::shared_ptr<Database> open_database(const char* who, const char* path) {
  if (!check_text_file(who, path, "DBC")) return nullptr;
  dbc::ParseFault fault;
  auto db = DBC_Decoder::load(path, &fault);
  if (!db) {
    if (fault.status == dbc::ParseStatus::CannotOpen) {
      std::fprintf(stderr, "veltrix %s: cannot read %s.\n", who, path);
    } else {
      std::fprintf(stderr, "veltrix %s: %s line %zu: the %s statement lacks a part it needs.\n",
                   who, path, fault.line, fault.keyword.c_str());
    }
    return nullptr;
  }
  if (db->messages().empty() && !has_dbc_statement(path)) {
    std::fprintf(stderr,
                 "veltrix %s: %s line 1: no DBC statement in the file (VERSION, BU_, BO_).\n", who,
                 path);
    return nullptr;
  }
  auto out = std::make_shared<Database>();
  out->db = std::move(db);
  out->mux = read_mux_table(path);
  return out;
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

size_t message_length(const DBC_MESSAGE& m) {
  if (m.dlc <= 8) return m.dlc;
  return m.isCanFd && m.dlc < 16 ? kFdLengths[m.dlc] : (m.isCanFd ? 64 : 8);
}

bool has_cycle_time(const DBC_Decoder& db, const DBC_MESSAGE& m) {
  for (const dbc::DBC_ATTRIBUTE_VALUE& assigned : m.attributes) {
    const dbc::DBC_ATTRIBUTE& a = db.definitionOf(assigned);
    if (a.name == "GenMsgCycleTime" &&
        (a.valueType == "INT" || a.valueType == "FLOAT" || a.valueType == "HEX"))
      return true;
  }
  return false;
}

bool print_decoded(const Database& database, uint32_t key, const uint8_t* data, size_t length,
                   std::FILE* out) {
  const DBC_Decoder& db = *database.db;
  const uint32_t mi = db.findMessageById(key);
  if (mi == DBC_Decoder::kNone) {
    std::fprintf(out, "  (no message with id %s)\n", id_text(key).c_str());
    return true;
  }
  const DBC_MESSAGE& m = db.messages()[mi];
  const size_t need = message_length(m);
  if (length < need) {
    std::fprintf(out, "  %s: the frame has %zu data bytes, the message needs %zu\n", m.name.c_str(),
                 length, need);
    return false;
  }
  uint8_t image[dbc::kDataBytes] = {};
  std::memcpy(image, data, length < sizeof image ? length : sizeof image);
  std::fprintf(out, "  %s:", m.name.c_str());
  for (const DBC_SIGNAL& s : m.signals) {
    if (!present(database, m, s, image, 0)) continue;
    DBC_SIGNAL copy = s;  // the database stays untouched
    copy.rawValue = raw_of(s, image);
    print_signal_value(out, copy, DBC_Decoder::getSignalRealValue(&copy));
  }
  std::fprintf(out, "\n");
  return true;
}

}  // namespace veltrix::tools
