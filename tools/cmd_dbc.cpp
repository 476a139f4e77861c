// veltrix dbc: inspect a DBC database, decode logged frames and encode signal values.
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "dbc/decoder.hpp"
#include "tools/cli.hpp"
#include "tools/dbc_print.hpp"
#include "tools/frame_text.hpp"
#include "tools/result_text.hpp"
#include "veltrix/dbc.h"

namespace {

using veltrix::dbc::DBC_Decoder;
using veltrix::dbc::DBC_MESSAGE;
using veltrix::dbc::DBC_SIGNAL;
using namespace veltrix::tools;

const char kUsage[] =
    "usage: veltrix dbc show FILE\n"
    "       veltrix dbc decode FILE [LOG]\n"
    "       veltrix dbc encode FILE MESSAGE [SIGNAL=VALUE...]\n"
    "\n"
    "show lists the messages (id, name, dlc, sender, cycle time when the file gives one) and\n"
    "their signals. decode reads frames from LOG or stdin, one a line, in the candump log\n"
    "form \"(1700000000.123456) can0 123#DEADBEEF\", candump's screen form\n"
    "\"  can0  123   [4]  DE AD BE EF\" or a bare frame \"123#DEADBEEF\"; it prints each line\n"
    "with the signals present in the frame. A frame shorter than its message is reported.\n"
    "encode prints the frame of MESSAGE with the given physical values (others at their\n"
    "initial values) in the frame text cansend reads.\n";

int usage_error(const std::string& why) {
  std::fprintf(stderr, "veltrix dbc: %s ('veltrix dbc --help' shows the usage).\n", why.c_str());
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

int show(const Database& database) {
  for (const DBC_MESSAGE& m : database.db->messages()) {
    char cycle[32] = "";
    if (has_cycle_time(*database.db, m))
      std::snprintf(cycle, sizeof cycle, "  cycle %" PRIu32 " ms", m.cycleTime);
    std::printf("%s %s  dlc %u  sender %s%s%s%s\n", id_text(m.id).c_str(), m.name.c_str(),
                unsigned(m.dlc), m.sender.c_str(), cycle, m.isCanFd ? "  CAN FD" : "",
                m.bitRateSwitch ? " BRS" : "");
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

int decode(const Database& db, std::istream& in, const char* source) {
  std::string line;
  size_t line_no = 0;
  int bad = 0;
  while (std::getline(in, line)) {
    ++line_no;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    LogLine l;
    std::string why = parse_log_line(line, &l);
    if (!why.empty()) {
      // A bare frame word, as cansend takes it.
      const size_t b = line.find_first_not_of(" \t"), e = line.find_last_not_of(" \t");
      const std::string word = line.substr(b, e - b + 1);
      if (word.find_first_of(" \t") == std::string::npos) why = parse_frame(word, &l.frame);
    }
    if (!why.empty()) {
      std::fprintf(stderr, "veltrix dbc: %s line %zu: %s.\n", source, line_no, why.c_str());
      ++bad;
      continue;
    }
    std::printf("%s\n", line.c_str());
    if (l.frame.remote) continue;
    const uint32_t key = l.frame.extended ? (l.frame.id | 0x80000000u) : l.frame.id;
    if (!print_decoded(db, key, l.frame.data, l.frame.len)) ++bad;
  }
  std::fflush(stdout);
  if (bad)
    std::fprintf(stderr, "veltrix dbc: %d of %zu lines could not be decoded.\n", bad, line_no);
  return bad ? 1 : 0;
}

// Handles from DBC_LoadFile are released when the command ends.
struct Handle {
  long long h;
  ~Handle() {
    if (h) DBC_Release(h);
  }
};

int encode(const char* path, const Database& database, int argc, char** argv) {
  const char* message = argv[0];
  const DBC_Decoder& db = *database.db;
  const DBC_MESSAGE* m = nullptr;
  for (const DBC_MESSAGE& candidate : db.messages())
    if (candidate.name == message) {
      m = &candidate;
      break;
    }
  if (!m) {
    std::fprintf(stderr, "veltrix dbc: %s has no message %s.\n", path, message);
    return 1;
  }
  Handle h{DBC_LoadFile(path)};
  if (!h.h) {
    std::fprintf(stderr, "veltrix dbc: the library refused %s.\n", path);
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    const char* eq = std::strchr(argv[i], '=');
    if (!eq || eq == argv[i])
      return usage_error("'" + std::string(argv[i]) + "' is not SIGNAL=VALUE");
    const std::string signal(argv[i], size_t(eq - argv[i]));
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(eq + 1, &end);
    if (eq[1] == '\0' || *end != '\0' || errno == ERANGE || !std::isfinite(value))
      return usage_error("'" + std::string(eq + 1) + "' is not a number for " + signal);
    if (int r = DBC_SetSignalValue(h.h, message, signal.c_str(), value); r != DBC_OK) {
      std::fprintf(stderr, "veltrix dbc: setting %s.%s failed: %s.\n", message, signal.c_str(),
                   result_text("DBC", r).c_str());
      return 1;
    }
  }
  Frame f;
  if (m->isCanFd) {
    CANFD_MSG fd{};
    if (int r = DBC_SyncValueToCANFDMsg(h.h, message, &fd); r != DBC_OK) {
      std::fprintf(stderr, "veltrix dbc: encoding %s failed: %s.\n", message,
                   result_text("DBC", r).c_str());
      return 1;
    }
    f.fd = true;
    f.extended = (fd.ID & 0x80000000u) != 0;
    f.id = fd.ID & (f.extended ? 0x1FFFFFFFu : 0x7FFu);
    f.fd_flags = m->bitRateSwitch ? kFdFlagBrs : 0;
    f.len = uint8_t(message_length(*m));
    std::memcpy(f.data, fd.Data, f.len);
  } else {
    CAN_MSG c{};
    if (int r = DBC_SyncValueToCANMsg(h.h, message, &c); r != DBC_OK) {
      std::fprintf(stderr, "veltrix dbc: encoding %s failed: %s.\n", message,
                   result_text("DBC", r).c_str());
      return 1;
    }
    f = from_can_msg(c);
  }
  std::printf("%s\n", format_frame(f).c_str());
  return 0;
}

}  // namespace

int cmd_dbc(int argc, char** argv) {
  if (wants_help(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (argc < 3) return usage_error(argc < 2 ? "a command is missing" : "FILE is missing");
  const std::string sub = argv[1];
  if (sub != "show" && sub != "decode" && sub != "encode")
    return usage_error("unknown command '" + sub + "'");
  if (sub == "show" && argc != 3) return usage_error("show takes one FILE");
  if (sub == "decode" && argc > 4) return usage_error("decode takes FILE and at most one LOG");
  if (sub == "encode" && argc < 4) return usage_error("encode needs FILE and MESSAGE");
  auto db = open_database("dbc", argv[2]);
  if (!db) return 1;
  if (sub == "show") return show(*db);
  if (sub == "encode") return encode(argv[2], *db, argc - 3, argv + 3);
  if (argc == 4) {
    std::ifstream log(argv[3], std::ios::binary);
    if (!log) {
      std::fprintf(stderr, "veltrix dbc: cannot open %s: %s.\n", argv[3], std::strerror(errno));
      return 1;
    }
    return decode(*db, log, argv[3]);
  }
  return decode(*db, std::cin, "stdin");
}
