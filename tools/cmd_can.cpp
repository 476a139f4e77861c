// veltrix can: CAN and CAN FD from the command line, in the habits of the CAN tools.
//   dump      print received frames as candump log lines (decoded signals on stderr)
//   log       record received frames to a candump log file
//   send      send frames given as ID#DATA, ID#R, ID#R{len}, ID##{flags}DATA
//   replay    send the frames of a candump log with their original timing
//   gen       send random or fixed traffic at a rate
//   schedule  load a file of periodic frames into the adapter and start it
// On a CAN FD adapter (handle 53xxxxxx or 54xxxxxx) every command goes through the CANFD_
// calls, so classic and CAN FD frames travel alike; a classic adapter takes classic frames.
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
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tools/can_port.hpp"
#include "tools/canfd_frames.hpp"
#include "tools/cli.hpp"
#include "tools/dbc_print.hpp"
#include "tools/frame_text.hpp"
#include "tools/result_text.hpp"
#include "veltrix/can.h"
#include "veltrix/canfd.h"
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
    "                       [--len N|r] [--data HEX|r|i] [--extended] [--fd] [--seed N]\n"
    "                       [--verbose]\n"
    "       veltrix can schedule SERIAL PORT --bitrate N FILE\n"
    "       veltrix can COMMAND ARGS + COMMAND ARGS ...\n"
    "\n"
    "SERIAL is the adapter's handle in hex (veltrix scan), PORT its CAN port (0 or 1).\n"
    "Frames: 123#DEADBEEF (3 hex digits: standard id), 18DAF110#0210C0 (8 digits: extended),\n"
    "123#R or 123#R4 (remote frame with length), 123##1DEADBEEF (CAN FD: a flags digit, 1 bit\n"
    "rate switch, 2 error state indicator, then 0-8, 12, 16, 20, 24, 32, 48 or 64 bytes).\n"
    "CAN FD frames need a CAN FD adapter (53xxxxxx, 54xxxxxx); there every command also takes\n"
    "--data-bitrate N (default: the --bitrate). dump and log write candump log lines,\n"
    "\"(SECONDS.MICROSECONDS) vxSERIAL-PORT ID#DATA\", with wall-clock time; with --dbc, dump\n"
    "prints each frame's signals on stderr so stdout stays a log. --filter ID:MASK passes a\n"
    "frame when (id & MASK) == (ID & MASK); several filters pass a frame matching any.\n"
    "dump stops after --count frames, after --timeout ms without a frame, or at Ctrl-C.\n"
    "replay sends every frame of the file on this port, waiting the recorded gaps unless\n"
    "--no-timing. gen sends every --gap ms (default 200) --count frames (default: until\n"
    "Ctrl-C); r is random, i (data) increments; the default is a random id, length and data;\n"
    "--fd makes CAN FD frames with the bit rate switch. schedule loads FILE, one \"PERIOD FRAME\"\n"
    "a line (period in ms, 0: once; # starts a comment line), into the adapter and starts it.\n";

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
  int data_bitrate = 0;     // CAN FD adapters only
  bool fd_port = false;     // the adapter is a CAN FD model
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
  bool extended = false, verbose = false, gen_fd = false;
  unsigned long seed = 0;
  bool seeded = false;
  std::FILE* out = stdout;  // dump, log
};

bool is_receiver(const Options& o) { return o.command == "dump" || o.command == "log"; }

std::string classic_adapter(const Options& o, const std::string& what) {
  char serial[16];
  std::snprintf(serial, sizeof serial, "%08X", o.serial);
  return what + " needs a CAN FD adapter (53xxxxxx or 54xxxxxx); " + serial + " has classic ports";
}

// argv[0] is the command word. Returns an empty string or why the arguments are refused.
std::string parse_args(int argc, char** argv, Options* o) {
  static const char* const kCommands[] = {"dump", "log", "send", "replay", "gen", "schedule"};
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
  o->fd_port = is_fd_adapter(o->serial);
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
        a != "--fd" && !has_value)
      return a + " needs a value";
    if (a == "--bitrate") {
      if (!parse_number(value, 5000000, &v) || v == 0) return bad("a bit rate");
      o->bitrate = int(v);
    } else if (a == "--data-bitrate") {
      if (!parse_number(value, 10000000, &v) || v == 0) return bad("a bit rate");
      o->data_bitrate = int(v);
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
    } else if (o->command == "gen" && (a == "--extended" || a == "--verbose" || a == "--fd")) {
      (a == "--extended" ? o->extended : a == "--fd" ? o->gen_fd : o->verbose) = true;
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
      } else if (parse_number(value, kFdMaxLen, &v)) {
        o->len_mode = Field::Fixed;
        o->fixed.len = uint8_t(v);
      } else {
        return bad("a length 0 to 64 or r");
      }
    } else if (o->command == "gen" && a == "--data") {
      if (std::strcmp(value, "r") == 0 || std::strcmp(value, "i") == 0) {
        o->data_mode = value[0] == 'r' ? Field::Random : Field::Increment;
      } else {
        Frame f;
        if (!parse_frame("000##0" + std::string(value), &f).empty())
          return bad("hex data (up to 64 bytes), r or i");
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
  if (o->data_bitrate != 0 && !o->fd_port) return classic_adapter(*o, "--data-bitrate");
  if (o->data_bitrate == 0) o->data_bitrate = o->bitrate;
  if (o->command == "send") {
    if (positional.empty()) return "send needs at least one frame";
    for (const std::string& p : positional) {
      Frame f;
      if (std::string why = parse_frame(p, &f); !why.empty()) return "frame '" + p + "': " + why;
      if (f.fd && !o->fd_port) return classic_adapter(*o, "frame '" + p + "'");
      if (std::string why = check_fd_length(f); !why.empty()) return "frame '" + p + "': " + why;
      o->frames.push_back(f);
    }
  } else if (o->command == "log" || o->command == "replay" || o->command == "schedule") {
    if (positional.size() != 1) return o->command + " needs exactly one FILE";
    o->file = positional[0];
  } else if (!positional.empty()) {
    return "unexpected argument '" + positional[0] + "' for " + o->command;
  }
  if (o->command == "gen" && !o->extended && o->id_mode == Field::Fixed && o->fixed.id > 0x7FF)
    return "the id is above 7FF; add --extended for a 29-bit id";
  if (o->command == "gen") {
    if (o->gen_fd && !o->fd_port) return classic_adapter(*o, "--fd");
    o->fixed.fd = o->gen_fd;
    o->fixed.fd_flags = o->gen_fd ? kFdFlagBrs : 0;
    if (o->len_mode == Field::Fixed && !o->gen_fd && o->fixed.len > kClassicMaxLen)
      return "a classic frame has at most 8 bytes, not " + std::to_string(o->fixed.len) +
             "; add --fd for a CAN FD frame";
    if (o->len_mode == Field::Fixed)
      if (std::string why = check_fd_length(o->fixed); !why.empty()) return why;
  }
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
    if (why.empty() && l.frame.fd && !o.fd_port) why = "a CAN FD frame needs a CAN FD adapter";
    if (why.empty()) why = check_fd_length(l.frame);
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

bool open_port(const Options& o) {
  return o.fd_port ? open_canfd_port(o.serial, o.port, o.bitrate, o.data_bitrate)
                   : open_can_port(o.serial, o.port, o.bitrate);
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
  if (!open_port(o)) return 1;
  const uint8_t port = uint8_t(o.port);
  if (int r = o.fd_port ? CANFD_StartGetMsg(o.serial, port) : CAN_StartGetMsg(o.serial, port);
      r != 0) {
    std::fprintf(stderr, "veltrix can: reception on port %u cannot start: %s.\n", o.port,
                 result_text("CAN", r).c_str());
    return 1;
  }
  return 0;
}

struct Received {
  Frame frame;
  uint32_t ticks = 0;  // the adapter's 100 us counter
};

// What the port has received since the last call, in either record; the buffers hold a
// whole queue.
class Receiver {
 public:
  explicit Receiver(const Options& o) : o_(o) {
    if (o.fd_port)
      fd_.resize(CANFD_MSG_QUEUE_SIZE);
    else
      classic_.resize(CAN_MSG_QUEUE_SIZE);
    got_.reserve(o.fd_port ? fd_.size() : classic_.size());
  }

  // The frames, or nullptr with *code set when the library reports a failure.
  const std::vector<Received>* take(int* code) {
    got_.clear();
    const uint8_t port = uint8_t(o_.port);
    const int n = o_.fd_port
                      ? CANFD_GetMsg(o_.serial, port, fd_.data(), int(fd_.size()))
                      : CAN_GetMsgWithSize(o_.serial, port, classic_.data(), int(classic_.size()));
    *code = n;
    if (n < 0) return nullptr;
    for (size_t i = 0; i < size_t(n); ++i) {
      if (o_.fd_port)
        got_.push_back({from_canfd_msg(fd_[i]), canfd_ticks(fd_[i])});
      else
        got_.push_back({from_can_msg(classic_[i]), classic_[i].TimeStamp});
    }
    return &got_;
  }

 private:
  const Options& o_;
  std::vector<CAN_MSG> classic_;
  std::vector<CANFD_MSG> fd_;
  std::vector<Received> got_;
};

int receiver_loop(Options& o) {
  Receiver receiver(o);
  CanReceiveClock clock(o.serial);
  const std::string iface = can_iface_name(o.serial, o.port);
  unsigned long written = 0;
  auto last = std::chrono::steady_clock::now();
  int status = 0;
  while (!g_stop && (o.count == 0 || written < o.count)) {
    int n = 0;
    const std::vector<Received>* got = receiver.take(&n);
    if (got == nullptr) {
      std::fprintf(stderr, "veltrix can: reception on port %u failed: %s.\n", o.port,
                   result_text("CAN", n).c_str());
      status = 1;
      break;
    }
    for (size_t i = 0; i < got->size() && (o.count == 0 || written < o.count); ++i) {
      const Frame& f = (*got)[i].frame;
      if (!passes(o.filters, f)) continue;
      uint64_t sec = 0;
      uint32_t usec = 0;
      clock.stamp((*got)[i].ticks, &sec, &usec);
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
  if (o.fd_port)
    CANFD_Stop(o.serial, uint8_t(o.port));
  else
    CAN_Stop(o.serial, uint8_t(o.port));
  if (o.out != stdout && std::fclose(o.out) != 0) {
    std::fprintf(stderr, "veltrix can: writing %s failed.\n", o.file.c_str());
    status = 1;
  }
  return status;
}

// Classic adapters take CAN_MSG records; CAN FD adapters count the transmit events read
// back, one per frame on the bus.
int transmit(const Options& o, const std::vector<Frame>& frames) {
  const uint8_t port = uint8_t(o.port);
  if (o.fd_port) {
    std::vector<CANFD_MSG> tx(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) tx[i] = to_canfd_msg(frames[i]);
    return CANFD_SendMsg(o.serial, port, tx.data(), unsigned(tx.size()));
  }
  std::vector<CAN_MSG> tx(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) to_can_msg(frames[i], &tx[i]);
  return CAN_SendMsgSynch(o.serial, port, tx.data(), unsigned(tx.size()));
}

int send_frames(const Options& o, const std::vector<Frame>& frames) {
  const int r = transmit(o, frames);
  if (r < 0) {
    std::fprintf(stderr, "veltrix can: sending on port %u failed: %s.\n", o.port,
                 result_text("CAN", r).c_str());
    return 1;
  }
  if (size_t(r) != frames.size()) {
    std::fprintf(stderr, "veltrix can: only %d of %zu frames reached the bus.\n", r, frames.size());
    return 1;
  }
  return 0;
}

int send(const Options& o) {
  if (!open_port(o)) return 1;
  return send_frames(o, o.frames);
}

int replay(Options& o) {
  std::vector<uint64_t> times;
  if (!read_replay_file(o, &times)) return 1;
  if (!open_port(o)) return 1;
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
  if (!open_port(o)) return 1;
  const unsigned long seed = o.seeded ? o.seed : unsigned(std::random_device{}());
  std::mt19937 rng{uint32_t(seed)};
  if (o.verbose) std::printf("seed %lu\n", seed);
  Frame f = o.fixed;
  f.extended = o.extended;
  uint64_t counter = 0;
  for (unsigned long sent = 0; !g_stop && (o.count == 0 || sent < o.count); ++sent) {
    if (o.id_mode == Field::Random) f.id = uint32_t(rng()) & (o.extended ? 0x1FFFFFFFu : 0x7FFu);
    if (o.len_mode == Field::Random) {
      static constexpr uint8_t kFdLengths[] = {0, 1,  2,  3,  4,  5,  6,  7,
                                               8, 12, 16, 20, 24, 32, 48, 64};
      f.len = o.gen_fd ? kFdLengths[rng() % std::size(kFdLengths)] : uint8_t(rng() % 9);
    }
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

// Frames in tables of at most 255 (a table's count is one byte), all started together.
int schedule(const Options& o) {
  std::ifstream in(o.file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "veltrix can: cannot open %s: %s.\n", o.file.c_str(),
                 std::strerror(errno));
    return 1;
  }
  std::vector<ScheduleEntry> entries;
  if (std::string why = parse_schedule(in, o.fd_port, &entries); !why.empty()) {
    std::fprintf(stderr, "veltrix can: %s %s.\n", o.file.c_str(), why.c_str());
    return 1;
  }
  if (!open_port(o)) return 1;
  std::vector<unsigned char> counts;
  for (size_t left = entries.size(); left > 0; left -= counts.back())
    counts.push_back(uint8_t(std::min(left, kScheduleTableMax)));
  std::vector<unsigned char> params(counts.size() * 2, 0);
  const uint8_t port = uint8_t(o.port), tables = uint8_t(counts.size());
  int r = 0;
  if (o.fd_port) {
    std::vector<CANFD_MSG> msgs(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
      msgs[i] = to_canfd_msg(entries[i].frame);
      msgs[i].TimeStamp = entries[i].period_ms;
    }
    r = CANFD_SetSchedule(o.serial, port, msgs.data(), counts.data(), params.data(), tables);
  } else {
    std::vector<CAN_MSG> msgs(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
      to_can_msg(entries[i].frame, &msgs[i]);
      msgs[i].TimeStamp = entries[i].period_ms;
    }
    r = CAN_SetSchedule(o.serial, port, msgs.data(), counts.data(), params.data(), tables);
  }
  if (r != 0) {
    std::fprintf(stderr, "veltrix can: loading the schedule on port %u failed: %s.\n", o.port,
                 result_text("CAN", r).c_str());
    return 1;
  }
  // Option 1 0xFF runs every table loaded.
  r = o.fd_port ? CANFD_StartSchedule(o.serial, port, 0xFF, 0, 0)
                : CAN_StartSchedule(o.serial, port, 0xFF, 0, 0);
  if (r != 0) {
    std::fprintf(stderr, "veltrix can: starting the schedule on port %u failed: %s.\n", o.port,
                 result_text("CAN", r).c_str());
    return 1;
  }
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
    else if (o.command == "schedule")
      status = schedule(o);
    else
      status = gen(o);
  }
  if (status) g_stop = 1;  // a failed sender leaves nothing worth waiting for
  for (std::thread& t : receivers) t.join();
  for (int s : receiver_status) status = status ? status : s;
  for (const Options& o : cmds) USB_CloseDevice(o.serial);
  return status;
}
