// veltrix can: classic CAN from the command line, in the frame text of the CAN tools.
//   veltrix can dump SERIAL PORT --bitrate N [--count N] [--timeout MS] [--dbc FILE]
//   veltrix can send SERIAL PORT --bitrate N ID#DATA [ID#DATA...]
//   veltrix can dump ... + send ...   (several commands in one process: the dumps start
//                                     first, then the sends run in order)
// One process matters under veltrix-sim, where every process has its own virtual
// adapters: a dump and a send of one process see each other's frames on the cable.
// Frames: 123#DEADBEEF (standard), 12345678#01 (extended: more than three digits),
// 123#R (remote). dump prints "(sec.usec) canPORT ID#DATA", one frame a line, with the
// adapter's frame time, until SIGINT, --count frames or --timeout ms without a frame.
// With --dbc each frame is followed by the signals of its message in that database.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tools/dbc_print.hpp"
#include "veltrix/can.h"
#include "veltrix/usb_device.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void on_sigint(int) { g_stop = 1; }

int usage() {
  std::fprintf(stderr,
               "usage: veltrix can dump SERIAL PORT --bitrate N [--count N] [--timeout MS]"
               " [--dbc FILE]\n"
               "       veltrix can send SERIAL PORT --bitrate N ID#DATA [ID#DATA...]\n"
               "       veltrix can COMMAND ARGS + COMMAND ARGS ...\n");
  return 2;
}

bool parse_uint(const char* s, unsigned long* out, int base = 10) {
  char* end = nullptr;
  if (s == nullptr || *s == '\0') return false;
  *out = std::strtoul(s, &end, base);
  return *end == '\0';
}

int hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "123#DEADBEEF", "1ABCDEF0#", "123#R".
bool parse_frame(const std::string& text, CAN_MSG* m) {
  *m = CAN_MSG{};
  size_t hash = text.find('#');
  if (hash == std::string::npos || hash == 0 || hash > 8) return false;
  unsigned long id = 0;
  if (!parse_uint(text.substr(0, hash).c_str(), &id, 16)) return false;
  m->ExtFlag = hash > 3 ? 1 : 0;
  if (id > (m->ExtFlag ? 0x1FFFFFFFul : 0x7FFul)) return false;
  m->ID = uint32_t(id);
  std::string data = text.substr(hash + 1);
  if (data == "R" || data == "r") {
    m->FrameFlags = CAN_MSG_FLAG_RTR;
    return true;
  }
  std::string digits;
  for (char c : data)
    if (c != '.') digits += c;
  if (digits.size() % 2 || digits.size() > 16) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    int hi = hex(digits[i]), lo = hex(digits[i + 1]);
    if (hi < 0 || lo < 0) return false;
    m->Data[i / 2] = uint8_t(hi << 4 | lo);
  }
  m->DataLen = uint8_t(digits.size() / 2);
  return true;
}

void print_frame(const CAN_MSG& m, unsigned port) {
  // Frame time: 40 bits of 100 us units.
  uint64_t t = uint64_t(m.TimeStampHigh) << 32 | m.TimeStamp;
  std::printf("(%llu.%06llu) can%u ", (unsigned long long)(t / 10000),
              (unsigned long long)(t % 10000 * 100), port);
  if (m.ExtFlag & 1)
    std::printf("%08X#", m.ID);
  else
    std::printf("%03X#", m.ID);
  if (m.FrameFlags & CAN_MSG_FLAG_RTR) {
    std::printf("R\n");
    return;
  }
  for (int i = 0; i < m.DataLen && i < 8; ++i) std::printf("%02X", m.Data[i]);
  std::printf("\n");
}

struct Options;
bool parse_args(int argc, char** argv, Options* o);

struct Options {
  std::string command;
  unsigned int serial = 0;
  unsigned port = 0;
  int bitrate = 0;
  unsigned long count = 0;       // 0: no limit
  long timeout_ms = -1;          // -1: none
  std::string dbc_path;          // dump: decode through this database
  std::shared_ptr<veltrix::dbc::DBC_Decoder> db;
  std::vector<std::string> frames;
};

// argv[0] is the command word.
bool parse_args(int argc, char** argv, Options* o) {
  unsigned long v = 0;
  if (argc < 3) return false;
  o->command = argv[0];
  if (o->command != "dump" && o->command != "send") return false;
  if (!parse_uint(argv[1], &v, 16)) return false;
  o->serial = unsigned(v);
  if (!parse_uint(argv[2], &v) || v > 255) return false;
  o->port = unsigned(v);
  for (int i = 3; i < argc; ++i) {
    std::string a = argv[i];
    if ((a == "--bitrate" || a == "--count" || a == "--timeout") && i + 1 < argc) {
      if (!parse_uint(argv[++i], &v)) return false;
      if (a == "--bitrate") o->bitrate = int(v);
      else if (a == "--count") o->count = v;
      else o->timeout_ms = long(v);
    } else if (a == "--dbc" && i + 1 < argc && o->command == "dump") {
      o->dbc_path = argv[++i];
    } else if (a.rfind("--", 0) == 0) {
      return false;
    } else {
      o->frames.push_back(a);
    }
  }
  if (o->command == "dump" && !o->frames.empty()) return false;
  if (o->command == "send" && o->frames.empty()) return false;
  return o->bitrate > 0;
}

int open_port(const Options& o) {
  USB_ScanDevice(nullptr);
  if (USB_OpenDevice(o.serial) != 1) {
    std::fprintf(stderr, "veltrix can: adapter %08X not found or busy\n", o.serial);
    return 1;
  }
  CAN_CHANNEL_CONFIG c{};
  if (CAN_GetCANSpeedArg(o.serial, &c, o.bitrate) != 0) {
    std::fprintf(stderr, "veltrix can: bit rate %d is not supported\n", o.bitrate);
    return 1;
  }
  if (int r = CAN_Init(o.serial, uint8_t(o.port), &c); r != 0) {
    std::fprintf(stderr, "veltrix can: starting port %u failed (%d)\n", o.port, r);
    return 1;
  }
  return 0;
}

int dump_prepare(Options& o) {
  if (!o.dbc_path.empty()) {
    o.db = veltrix::tools::open_database(o.dbc_path.c_str());
    if (!o.db) return 1;
  }
  if (open_port(o)) return 1;
  if (CAN_StartGetMsg(o.serial, uint8_t(o.port)) != 0) {
    std::fprintf(stderr, "veltrix can: cannot start reception\n");
    return 1;
  }
  return 0;
}

int dump_loop(const Options& o) {
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  unsigned long printed = 0;
  uint64_t last = GetTimestampOfDay();
  while (!g_stop && (o.count == 0 || printed < o.count)) {
    int n = CAN_GetMsgWithSize(o.serial, uint8_t(o.port), rx.data(), int(rx.size()));
    for (int i = 0; i < n && (o.count == 0 || printed < o.count); ++i, ++printed) {
      const CAN_MSG& m = rx[size_t(i)];
      print_frame(m, o.port);
      if (o.db && !(m.FrameFlags & CAN_MSG_FLAG_RTR)) {
        uint32_t key = (m.ExtFlag & 1) ? (m.ID | 0x80000000u) : m.ID;
        veltrix::tools::print_decoded(*o.db, key, m.Data, m.DataLen < 8 ? m.DataLen : 8);
      }
    }
    if (n > 0) {
      std::fflush(stdout);
      last = GetTimestampOfDay();
    } else if (o.timeout_ms >= 0 && GetTimestampOfDay() - last >= uint64_t(o.timeout_ms)) {
      break;
    } else {
      sleep_ms(5);
    }
  }
  CAN_Stop(o.serial, uint8_t(o.port));
  return 0;
}

int send(const Options& o) {
  std::vector<CAN_MSG> tx(o.frames.size());
  for (size_t i = 0; i < o.frames.size(); ++i) {
    if (!parse_frame(o.frames[i], &tx[i])) {
      std::fprintf(stderr, "veltrix can: bad frame '%s'\n", o.frames[i].c_str());
      return 2;
    }
  }
  if (open_port(o)) return 1;
  int r = CAN_SendMsgSynch(o.serial, uint8_t(o.port), tx.data(), unsigned(tx.size()));
  if (r != int(tx.size())) {
    std::fprintf(stderr, "veltrix can: %d of %zu frames sent\n", r < 0 ? 0 : r, tx.size());
    return 1;
  }
  return 0;
}

}  // namespace

int cmd_can(int argc, char** argv) {
  // Split "A ... + B ..." into commands.
  std::vector<Options> cmds;
  for (int at = 1; at < argc;) {
    int end = at;
    while (end < argc && std::strcmp(argv[end], "+") != 0) ++end;
    Options o;
    if (!parse_args(end - at, argv + at, &o)) return usage();
    cmds.push_back(o);
    at = end + 1;
  }
  if (cmds.empty()) return usage();
  std::signal(SIGINT, on_sigint);

  int status = 0;
  std::vector<std::thread> dumps;
  std::vector<int> dump_status(cmds.size(), 0);
  for (size_t i = 0; i < cmds.size(); ++i) {
    if (cmds[i].command != "dump") continue;
    if (dump_prepare(cmds[i])) {
      g_stop = 1;
      status = 1;
      break;
    }
    dumps.emplace_back([&, i] { dump_status[i] = dump_loop(cmds[i]); });
  }
  for (const Options& o : cmds)
    if (status == 0 && o.command == "send") status = send(o);
  if (status) g_stop = 1;  // a failed send leaves nothing worth waiting for
  for (std::thread& t : dumps) t.join();
  for (int s : dump_status) status = status ? status : s;
  for (const Options& o : cmds) USB_CloseDevice(o.serial);
  return status;
}
