// veltrix can: classic CAN from the command line, in the habits of the CAN tools.
//   dump    print received frames as candump log lines (decoded signals on stderr)
//   log     record received frames to a candump log file
//   send    send frames given as ID#DATA, ID#R, ID#R{len}
//   replay  send the frames of a candump log with their original timing
//   gen     send random or fixed traffic at a rate
// Several commands joined by "+" run in one process: the receivers start first, then the
// senders run in order. One process matters under veltrix-sim, where every process has
// its own virtual adapters: a dump and a send of one process see each other's frames.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tools/can_port.hpp"
#include "tools/cli.hpp"
#include "tools/dbc_print.hpp"
#include "tools/frame_text.hpp"
#include "tools/result_text.hpp"
#include "veltrix/can.h"
#include "veltrix/usb_device.h"

namespace {

using namespace veltrix::tools;

volatile std::sig_atomic_t g_stop = 0;
void on_sigint(int) { g_stop = 1; }

const char kUsage[] =
    "usage: veltrix can dump SERIAL PORT --bitrate N [--count N] [--timeout MS]\n"
    "                        [--filter ID:MASK]... [--dbc FILE]\n"
    "       veltrix can log SERIAL PORT --bitrate N FILE [--count N] [--timeout MS]\n"
    "                       [--filter ID:MASK]...\n"
    "       veltrix can send SERIAL PORT --bitrate N FRAME...\n"
    "       veltrix can replay SERIAL PORT --bitrate N FILE [--no-timing]\n"
    "       veltrix can gen SERIAL PORT --bitrate N [--count N] [--gap MS] [--id ID|r]\n"
    "                       [--len N|r] [--data HEX|r|i] [--extended] [--seed N] [--verbose]\n"
    "       veltrix can COMMAND ARGS + COMMAND ARGS ...\n"
    "\n"
    "SERIAL is the adapter's handle in hex (veltrix scan), PORT its CAN port (0 or 1).\n"
    "Frames: 123#DEADBEEF (3 hex digits: standard id), 18DAF110#0210C0 (8 digits: extended),\n"
    "123#R or 123#R4 (remote frame with length). dump and log write candump log lines,\n"
    "\"(SECONDS.MICROSECONDS) vxSERIAL-PORT ID#DATA\", with wall-clock time; with --dbc, dump\n"
    "prints each frame's signals on stderr so stdout stays a log. --filter ID:MASK passes a\n"
    "frame when (id & MASK) == (ID & MASK); several filters pass a frame matching any.\n"
    "dump stops after --count frames, after --timeout ms without a frame, or at Ctrl-C.\n"
    "replay sends every frame of the file on this port, waiting the recorded gaps unless\n"
    "--no-timing. gen sends every --gap ms (default 200) --count frames (default: until\n"
    "Ctrl-C); r is random, i (data) increments; the default is a random id, length and data.\n";

int usage_error(const std::string& why) {
  std::fprintf(stderr, "veltrix can: %s ('veltrix can --help' shows the usage).\n", why.c_str());
  return 2;
}

bool parse_number(const char* s, unsigned long max, unsigned long* out, int base = 10) {
  if (s == nullptr || *s == '\0' || *s == '-') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long v = std::strtoul(s, &end, base);
  if (errno != 0 || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

enum class Field { Random, Fixed, Increment };

struct Options {
  std::string command;
  uint32_t serial = 0;
  unsigned port = 0;
  int bitrate = 0;
  unsigned long count = 0;  // 0: no limit
  long timeout_ms = -1;     // -1: none
  std::vector<CanFilter> filters;
  std::string dbc_path;
  std::shared_ptr<Database> db;
  std::string file;           // log: output; replay: input
  bool timing = true;         // replay
  std::vector<Frame> frames;  // send, replay
  // gen
  unsigned long gap_ms = 200;
  Field id_mode = Field::Random, len_mode = Field::Random, data_mode = Field::Random;
  Frame fixed;
  bool extended = false, verbose = false;
  unsigned long seed = 0;
  bool seeded = false;
  std::FILE* out = stdout;  // dump, log
};

bool is_receiver(const Options& o) { return o.command == "dump" || o.command == "log"; }

// argv[0] is the command word. Returns an empty string or why the arguments are refused.
std::string parse_args(int argc, char** argv, Options* o) {
  static const char* const kCommands[] = {"dump", "log", "send", "replay", "gen"};
  o->command = argc > 0 ? argv[0] : "";
  bool known = false;
  for (const char* c : kCommands) known = known || o->command == c;
  if (!known)
    return o->command.empty() ? "a command is missing" : "unknown command '" + o->command + "'";
  unsigned long v = 0;
  if (argc < 3) return o->command + " needs SERIAL and PORT";
  if (!parse_number(argv[1], 0xFFFFFFFFul, &v, 16))
    return "'" + std::string(argv[1]) + "' is not a serial number in hex";
  o->serial = uint32_t(v);
  if (!parse_number(argv[2], 1, &v)) return "'" + std::string(argv[2]) + "' is not port 0 or 1";
  o->port = unsigned(v);
  std::vector<std::string> positional;
  for (int i = 3; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    const char* value = has_value ? argv[i + 1] : nullptr;
    auto bad = [&](const char* what) {
      return "'" + std::string(value ? value : "") + "' is not " + what + " for " + a;
    };
    if (a.rfind("--", 0) == 0 && a != "--no-timing" && a != "--extended" && a != "--verbose" &&
        !has_value)
      return a + " needs a value";
    if (a == "--bitrate") {
      if (!parse_number(value, 5000000, &v) || v == 0) return bad("a bit rate");
      o->bitrate = int(v);
    } else if (a == "--count") {
      if (!parse_number(value, 0xFFFFFFFFul, &v)) return bad("a count");
      o->count = v;
    } else if (a == "--timeout" && is_receiver(*o)) {
      if (!parse_number(value, 86400000, &v)) return bad("a time in ms");
      o->timeout_ms = long(v);
    } else if (a == "--filter" && is_receiver(*o)) {
      CanFilter f;
      if (!parse_can_filter(value, &f)) return bad("ID:MASK (3 or 8 hex digits, then a hex mask)");
      o->filters.push_back(f);
    } else if (a == "--dbc" && o->command == "dump") {
      o->dbc_path = value;
    } else if (a == "--no-timing" && o->command == "replay") {
      o->timing = false;
      continue;
    } else if (o->command == "gen" && (a == "--extended" || a == "--verbose")) {
      (a == "--extended" ? o->extended : o->verbose) = true;
      continue;
    } else if (o->command == "gen" && a == "--gap") {
      if (!parse_number(value, 3600000, &v)) return bad("a time in ms");
      o->gap_ms = v;
    } else if (o->command == "gen" && a == "--seed") {
      if (!parse_number(value, 0xFFFFFFFFul, &v)) return bad("a number");
      o->seed = v;
      o->seeded = true;
    } else if (o->command == "gen" && a == "--id") {
      if (std::strcmp(value, "r") == 0) {
        o->id_mode = Field::Random;
      } else if (parse_number(value, 0x1FFFFFFF, &v, 16)) {
        o->id_mode = Field::Fixed;
        o->fixed.id = uint32_t(v);
      } else {
        return bad("a hex id or r");
      }
    } else if (o->command == "gen" && a == "--len") {
      if (std::strcmp(value, "r") == 0) {
        o->len_mode = Field::Random;
      } else if (parse_number(value, 8, &v)) {
        o->len_mode = Field::Fixed;
        o->fixed.len = uint8_t(v);
      } else {
        return bad("a length 0 to 8 or r");
      }
    } else if (o->command == "gen" && a == "--data") {
      if (std::strcmp(value, "r") == 0 || std::strcmp(value, "i") == 0) {
        o->data_mode = value[0] == 'r' ? Field::Random : Field::Increment;
      } else {
        Frame f;
        if (!parse_frame("000#" + std::string(value), &f).empty())
          return bad("hex data (up to 8 bytes), r or i");
        o->data_mode = Field::Fixed;
        std::memcpy(o->fixed.data, f.data, sizeof f.data);
        if (o->len_mode == Field::Random) {
          o->len_mode = Field::Fixed;
          o->fixed.len = f.len;
        }
      }
    } else if (a.rfind("--", 0) == 0) {
      return "unknown option " + a + " for " + o->command;
    } else {
      positional.push_back(a);
      continue;
    }
    ++i;
  }
  if (o->bitrate == 0) return o->command + " needs --bitrate";
  if (o->command == "send") {
    if (positional.empty()) return "send needs at least one frame";
    for (const std::string& p : positional) {
      Frame f;
      if (std::string why = parse_frame(p, &f); !why.empty()) return "frame '" + p + "': " + why;
      if (f.fd) return "frame '" + p + "' is a CAN FD frame; a classic port sends classic frames";
      o->frames.push_back(f);
    }
  } else if (o->command == "log" || o->command == "replay") {
    if (positional.size() != 1) return o->command + " needs exactly one FILE";
    o->file = positional[0];
  } else if (!positional.empty()) {
    return "unexpected argument '" + positional[0] + "' for " + o->command;
  }
  if (o->command == "gen" && !o->extended && o->id_mode == Field::Fixed && o->fixed.id > 0x7FF)
    return "the id is above 7FF; add --extended for a 29-bit id";
  return {};
}

// Reads a candump log (or screen listing) for replay. Every line must be a frame.
bool read_replay_file(Options& o, std::vector<uint64_t>* times_us) {
  std::ifstream in(o.file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "veltrix can: cannot open %s: %s.\n", o.file.c_str(),
                 std::strerror(errno));
    return false;
  }
  std::string line;
  size_t line_no = 0;
  uint64_t first = 0;
  while (std::getline(in, line)) {
    ++line_no;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    LogLine l;
    std::string why = parse_log_line(line, &l);
    if (why.empty() && l.frame.fd) why = "a CAN FD frame cannot be replayed on a classic port";
    if (why.empty() && o.timing && !l.has_time) why = "the line has no time (use --no-timing)";
    if (!why.empty()) {
      std::fprintf(stderr, "veltrix can: %s line %zu: %s.\n", o.file.c_str(), line_no, why.c_str());
      return false;
    }
    o.frames.push_back(l.frame);
    // Offsets from the first frame; a line stamped earlier than the one before it (clocks
    // set back during the recording) goes out at once rather than waiting forever.
    const uint64_t t = l.sec * 1000000 + l.usec;
    if (times_us->empty()) first = t;
    const uint64_t offset = t > first ? t - first : 0;
    times_us->push_back(times_us->empty() ? 0 : std::max(offset, times_us->back()));
  }
  if (o.frames.empty()) {
    std::fprintf(stderr, "veltrix can: %s line %zu: the file holds no frame.\n", o.file.c_str(),
                 line_no + 1);
    return false;
  }
  return true;
}

int receiver_prepare(Options& o) {
  if (!o.dbc_path.empty()) {
    o.db = open_database("can", o.dbc_path.c_str());
    if (!o.db) return 1;
  }
  if (o.command == "log") {
    o.out = std::fopen(o.file.c_str(), "w");
    if (!o.out) {
      std::fprintf(stderr, "veltrix can: cannot write %s: %s.\n", o.file.c_str(),
                   std::strerror(errno));
      return 1;
    }
  }
  if (!open_can_port(o.serial, o.port, o.bitrate)) return 1;
  if (int r = CAN_StartGetMsg(o.serial, uint8_t(o.port)); r != 0) {
    std::fprintf(stderr, "veltrix can: reception on port %u cannot start: %s.\n", o.port,
                 result_text("CAN", r).c_str());
    return 1;
  }
  return 0;
}

int receiver_loop(Options& o) {
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  CanReceiveClock clock(o.serial);
  const std::string iface = can_iface_name(o.serial, o.port);
  unsigned long written = 0;
  auto last = std::chrono::steady_clock::now();
  int status = 0;
  while (!g_stop && (o.count == 0 || written < o.count)) {
    const int n = CAN_GetMsgWithSize(o.serial, uint8_t(o.port), rx.data(), int(rx.size()));
    if (n < 0) {
      std::fprintf(stderr, "veltrix can: reception on port %u failed: %s.\n", o.port,
                   result_text("CAN", n).c_str());
      status = 1;
      break;
    }
    for (int i = 0; i < n && (o.count == 0 || written < o.count); ++i) {
      const CAN_MSG& m = rx[size_t(i)];
      const Frame f = from_can_msg(m);
      if (!passes(o.filters, f)) continue;
      uint64_t sec = 0;
      uint32_t usec = 0;
      clock.stamp(m.TimeStamp, &sec, &usec);
      std::fprintf(o.out, "%s\n", format_log_line(sec, usec, iface, f).c_str());
      ++written;
      if (o.db && !f.remote) {
        std::fflush(o.out);
        const uint32_t key = f.extended ? (f.id | 0x80000000u) : f.id;
        print_decoded(*o.db, key, f.data, f.len, stderr);
      }
    }
    if (n > 0) {
      std::fflush(o.out);
      last = std::chrono::steady_clock::now();
    } else if (o.timeout_ms >= 0 &&
               std::chrono::steady_clock::now() - last >= std::chrono::milliseconds(o.timeout_ms)) {
      break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  CAN_Stop(o.serial, uint8_t(o.port));
  if (o.out != stdout && std::fclose(o.out) != 0) {
    std::fprintf(stderr, "veltrix can: writing %s failed.\n", o.file.c_str());
    status = 1;
  }
  return status;
}

int send_frames(const Options& o, const std::vector<Frame>& frames) {
  std::vector<CAN_MSG> tx(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) to_can_msg(frames[i], &tx[i]);
  const int r = CAN_SendMsgSynch(o.serial, uint8_t(o.port), tx.data(), unsigned(tx.size()));
  if (r < 0) {
    std::fprintf(stderr, "veltrix can: sending on port %u failed: %s.\n", o.port,
                 result_text("CAN", r).c_str());
    return 1;
  }
  if (size_t(r) != tx.size()) {
    std::fprintf(stderr, "veltrix can: only %d of %zu frames reached the bus.\n", r, tx.size());
    return 1;
  }
  return 0;
}

int send(const Options& o) {
  if (!open_can_port(o.serial, o.port, o.bitrate)) return 1;
  return send_frames(o, o.frames);
}

int replay(Options& o) {
  std::vector<uint64_t> times;
  if (!read_replay_file(o, &times)) return 1;
  if (!open_can_port(o.serial, o.port, o.bitrate)) return 1;
  const auto start = std::chrono::steady_clock::now();
  for (size_t at = 0; at < o.frames.size() && !g_stop;) {
    // Frames already due go out together; the first one waits for its recorded gap.
    size_t end = at + 1;
    if (o.timing) {
      const auto due = start + std::chrono::microseconds(times[at]);
      std::this_thread::sleep_until(due);
      const uint64_t now_us = uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                                           std::chrono::steady_clock::now() - start)
                                           .count());
      while (end < o.frames.size() && times[end] <= now_us) ++end;
    } else {
      end = o.frames.size();
    }
    if (int r = send_frames(o, {o.frames.begin() + long(at), o.frames.begin() + long(end)}); r)
      return r;
    at = end;
  }
  return 0;
}

int gen(const Options& o) {
  if (!open_can_port(o.serial, o.port, o.bitrate)) return 1;
  const unsigned long seed = o.seeded ? o.seed : unsigned(std::random_device{}());
  std::mt19937 rng{uint32_t(seed)};
  if (o.verbose) std::printf("seed %lu\n", seed);
  Frame f = o.fixed;
  f.extended = o.extended;
  uint64_t counter = 0;
  for (unsigned long sent = 0; !g_stop && (o.count == 0 || sent < o.count); ++sent) {
    if (o.id_mode == Field::Random) f.id = uint32_t(rng()) & (o.extended ? 0x1FFFFFFFu : 0x7FFu);
    if (o.len_mode == Field::Random) f.len = uint8_t(rng() % 9);
    if (o.data_mode == Field::Random) {
      for (uint8_t& b : f.data) b = uint8_t(rng());
    } else if (o.data_mode == Field::Increment) {
      // cangen's incrementing payload: a little-endian counter over the frame's bytes.
      for (size_t i = 0; i < kClassicMaxLen; ++i) f.data[i] = uint8_t(counter >> (8 * i));
      ++counter;
    }
    if (o.verbose) std::printf("%s\n", format_frame(f).c_str());
    if (int r = send_frames(o, {f}); r) return r;
    if (o.gap_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.gap_ms));
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace

int cmd_can(int argc, char** argv) {
  if (wants_help(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  std::vector<Options> cmds;
  for (int at = 1; at <= argc;) {
    int end = at;
    while (end < argc && std::strcmp(argv[end], "+") != 0) ++end;
    Options o;
    if (std::string why = parse_args(end - at, argv + at, &o); !why.empty())
      return usage_error(why);
    cmds.push_back(std::move(o));
    at = end + 1;
  }
  std::signal(SIGINT, on_sigint);

  int status = 0;
  std::vector<std::thread> receivers;
  std::vector<int> receiver_status(cmds.size(), 0);
  for (size_t i = 0; i < cmds.size(); ++i) {
    if (!is_receiver(cmds[i])) continue;
    if (receiver_prepare(cmds[i])) {
      g_stop = 1;
      status = 1;
      break;
    }
    receivers.emplace_back([&, i] { receiver_status[i] = receiver_loop(cmds[i]); });
  }
  for (Options& o : cmds) {
    if (status != 0 || is_receiver(o)) continue;
    if (o.command == "send")
      status = send(o);
    else if (o.command == "replay")
      status = replay(o);
    else
      status = gen(o);
  }
  if (status) g_stop = 1;  // a failed sender leaves nothing worth waiting for
  for (std::thread& t : receivers) t.join();
  for (int s : receiver_status) status = status ? status : s;
  for (const Options& o : cmds) USB_CloseDevice(o.serial);
  return status;
}
