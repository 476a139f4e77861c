// veltrix isotp: send or receive one ISO-TP message, in the manner of the kernel's ISO-TP
// tools.
//   veltrix isotp send SERIAL PORT -s ID -d ID [-x ADDR] [-e] [-b BITRATE] [-t MS] [BYTES]
//       sends BYTES, or hexadecimal bytes read from stdin ("11 22 33")
//   veltrix isotp recv SERIAL PORT -s ID -d ID [-x ADDR] [-e] [-b BITRATE] [-t MS] [-l]
//       prints each message received on -d as hex bytes, answering first frames with flow
//       control on -s; -l keeps receiving; -t bounds each wait (default: wait for ever)
//   both take --fd [--frame-length N] [--data-bitrate N] for CAN FD frames on a CAN FD
//   adapter (64 bytes by default, bit rate switching at 2000000 by default)
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "isotp_cli.hpp"
#include "tools/cli.hpp"

namespace {

using namespace veltrix::cli;

constexpr unsigned kMaxMessage = 1u << 16;
constexpr unsigned kPollMs = 1000;

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix isotp send SERIAL PORT -s ID -d ID [-x ADDR] [-e] [-b BITRATE]"
               " [BYTES]\n"
               "       veltrix isotp recv SERIAL PORT -s ID -d ID [-x ADDR] [-e] [-b BITRATE]"
               " [-t MS] [-l]\n"
               "       both: [--fd [--frame-length N] [--data-bitrate N]]\n");
}

int send(const Link& l, std::vector<unsigned char> data, bool from_stdin) {
  if (from_stdin) {
    const std::string text((std::istreambuf_iterator<char>(std::cin)),
                           std::istreambuf_iterator<char>());
    if (!append_hex_bytes(text, &data)) {
      std::fprintf(stderr, "veltrix isotp: stdin is not hexadecimal bytes\n");
      return 2;
    }
  }
  CAN_UDS_ADDR a = l.addr;
  const int r = CAN_UDS_Request(unsigned(l.serial), static_cast<unsigned char>(l.port), &a,
                                data.data(), int(data.size()));
  if (r != 0) {
    std::fprintf(stderr, "veltrix isotp: send: %s (%d)\n", transfer_error(r), r);
    return 1;
  }
  return 0;
}

int recv(const Link& l, bool loop, bool bounded) {
  std::vector<unsigned char> buf(kMaxMessage);
  CAN_UDS_ADDR a = l.addr;
  for (;;) {
    const unsigned wait = bounded ? unsigned(l.timeout_ms) : kPollMs;
    const int r = CAN_UDS_ResponseWithSize(unsigned(l.serial), static_cast<unsigned char>(l.port),
                                           &a, buf.data(), kMaxMessage, wait);
    if (r == CAN_UDS_ERR_TIMEOUT && !bounded) continue;
    if (r < 0) {
      std::fprintf(stderr, "veltrix isotp: recv: %s (%d)\n", transfer_error(r), r);
      return 1;
    }
    print_bytes(buf.data(), r);
    std::fflush(stdout);
    if (!loop) return 0;
  }
}

}  // namespace

int cmd_isotp(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  Link l;
  if (argc < 4 || !parse_number(argv[2], 16, 0xFFFFFFFF, &l.serial) ||
      !parse_number(argv[3], 10, 1, &l.port)) {
    usage();
    return 2;
  }
  const std::string op = argv[1];
  bool have_s = false, have_d = false, loop = false, bounded = false;
  std::vector<unsigned char> data;
  bool have_data = false;
  for (int i = 4; i < argc; ++i) {
    bool bad = false;
    const std::string a = argv[i];
    // The kernel tools' view: -s is the identifier this side sends on, -d the one it
    // listens to.
    if (common_option(argc, argv, &i, &l, "-s", "-d", &bad)) {
      have_s |= a == "-s";
      have_d |= a == "-d";
      bounded |= a == "-t";
    } else if (a == "-l" && op == "recv") {
      loop = true;
    } else if (op == "send" && append_hex_bytes(a, &data)) {
      have_data = true;
    } else {
      bad = true;
    }
    if (bad) {
      std::fprintf(stderr, "veltrix isotp: bad argument '%s'\n", argv[i]);
      return 2;
    }
  }
  if (!have_s || !have_d || (op != "send" && op != "recv")) {
    usage();
    return 2;
  }
  if (!open_link("isotp", l)) return 1;
  const OpenLink opened{l};
  return op == "send" ? send(l, data, !have_data) : recv(l, loop, bounded);
}
