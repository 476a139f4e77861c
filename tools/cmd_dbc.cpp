// veltrix dbc: inspect a DBC database and decode frames with it.
//
//   veltrix dbc show FILE     messages, signals and their layout
//   veltrix dbc decode FILE   reads frames on stdin, one per line, in the CAN tools' text
//                             form ("(1700000000.123456) can0 123#DEADBEEF", "123#DEADBEEF",
//                             "12345678##1<64 bytes>"), prints each with its signals
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "dbc/decoder.hpp"
#include "dbc/text.hpp"
#include "tools/dbc_print.hpp"

namespace {

using veltrix::tools::id_text;
using veltrix::tools::open_database;
using veltrix::dbc::ByteOrder;
using veltrix::dbc::DBC_Decoder;
using veltrix::dbc::DBC_MESSAGE;
using veltrix::dbc::DBC_SIGNAL;
using veltrix::dbc::kDataBytes;

int usage() {
  std::fprintf(stderr,
               "usage: veltrix dbc show FILE\n"
               "       veltrix dbc decode FILE < frames\n");
  return 2;
}

const char* mux_text(const DBC_SIGNAL& s, char* buf, size_t size) {
  if (s.multiplexMode == veltrix::dbc::MUX_SWITCH) return "M";
  if (s.multiplexMode == veltrix::dbc::MUX_SELECTED) {
    std::snprintf(buf, size, "m%u", unsigned(s.multiplexValue));
    return buf;
  }
  return "";
}

int show(const DBC_Decoder& db) {
  for (const DBC_MESSAGE& m : db.messages()) {
    std::printf("%s %s  dlc %u  sender %s  cycle %" PRIu32 " ms%s%s\n", id_text(m.id).c_str(),
                m.name.c_str(), unsigned(m.dlc), m.sender.c_str(), m.cycleTime,
                m.isCanFd ? "  CAN FD" : "", m.bitRateSwitch ? " BRS" : "");
    for (const DBC_SIGNAL& s : m.signals) {
      char mux[16];
      // The start bit shown is the least significant bit's position (8 * byte + bit).
      std::printf("  %-32s %-4s lsb %3u len %2u %-8s %-8s (%g,%g) [%g|%g] \"%s\"\n", s.name.c_str(),
                  mux_text(s, mux, sizeof mux), unsigned(s.startBit), unsigned(s.length),
                  s.byteOrder == veltrix::dbc::INTEL ? "intel" : "motorola",
                  s.isSigned ? "signed" : "unsigned", s.factor, s.offset, s.minimum, s.maximum,
                  s.unit.c_str());
    }
  }
  return 0;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = char(std::toupper(static_cast<unsigned char>(c)));
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

struct Frame {
  uint32_t key = 0;  // id with bit 31 for an extended id
  uint8_t data[kDataBytes] = {};
  size_t length = 0;
};

// Parses "ID#HEX", "ID##F<HEX>" (CAN FD, F the flags nibble) or "ID#R" (remote). An id of
// more than three digits is extended.
bool parse_frame(const std::string& text, Frame* f, bool* remote) {
  const size_t hash = text.find('#');
  if (hash == 0 || hash == std::string::npos || hash > 8) return false;
  uint32_t id = 0;
  for (size_t i = 0; i < hash; ++i) {
    const int v = hex_value(text[i]);
    if (v < 0) return false;
    id = id << 4 | uint32_t(v);
  }
  if (hash > 3) {
    if (id > 0x1FFFFFFFu) return false;
    id |= 0x80000000u;
  } else if (id > 0x7FF) {
    return false;
  }
  f->key = id;
  size_t pos = hash + 1;
  size_t capacity = 8;
  *remote = false;
  if (pos < text.size() && text[pos] == '#') {
    if (pos + 1 >= text.size() || hex_value(text[pos + 1]) < 0) return false;
    pos += 2;
    capacity = kDataBytes;
  } else if (pos < text.size() && (text[pos] == 'R' || text[pos] == 'r')) {
    *remote = true;
    return true;
  }
  for (; pos < text.size(); pos += 2) {
    if (text[pos] == '.') {
      --pos;
      continue;
    }
    if (pos + 1 >= text.size() || f->length >= capacity) return false;
    const int hi = hex_value(text[pos]), lo = hex_value(text[pos + 1]);
    if (hi < 0 || lo < 0) return false;
    f->data[f->length++] = uint8_t(hi << 4 | lo);
  }
  return true;
}

int decode(const DBC_Decoder& db) {
  std::string line;
  size_t line_no = 0;
  int bad = 0;
  while (std::getline(std::cin, line)) {
    ++line_no;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    // The frame is the last whitespace-separated word: "(time) can0 123#..." or "123#...".
    const size_t end = line.find_last_not_of(" \t");
    if (end == std::string::npos) continue;
    const size_t begin = line.find_last_of(" \t", end);
    const std::string word = line.substr(begin == std::string::npos ? 0 : begin + 1,
                                         end - (begin == std::string::npos ? 0 : begin + 1) + 1);
    Frame f;
    bool remote = false;
    if (!parse_frame(word, &f, &remote)) {
      std::fprintf(stderr, "veltrix dbc: line %zu: not a frame: %s\n", line_no, word.c_str());
      ++bad;
      continue;
    }
    std::printf("%s\n", line.c_str());
    if (remote) continue;
    veltrix::tools::print_decoded(db, f.key, f.data, f.length);
  }
  return bad ? 1 : 0;
}

}  // namespace

int cmd_dbc(int argc, char** argv) {
  if (argc != 3) return usage();
  const std::string sub = argv[1];
  if (sub != "show" && sub != "decode") return usage();
  auto db = open_database(argv[2]);
  if (!db) return 1;
  return sub == "show" ? show(*db) : decode(*db);
}
