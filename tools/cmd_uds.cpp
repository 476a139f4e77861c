// veltrix uds: one diagnostic request and its response.
//   veltrix uds SERIAL PORT --tx ID --rx ID [--ext-addr N] [-e] [--bitrate N] [--timeout MS]
//               [--fd [--frame-length N] [--data-bitrate N]] BYTE...
// --fd sends CAN FD frames (64 bytes unless --frame-length says otherwise, bit rate
// switching at --data-bitrate, default 2000000) on a CAN FD adapter.
// IDs and bytes are hexadecimal. Response-pending answers (7F sid 78) are reported on
// stderr and waited out; a negative response prints its bytes and the code's name.
#include <cstdio>
#include <string>
#include <vector>

#include "isotp_cli.hpp"
#include "tools/cli.hpp"

namespace {

using namespace veltrix::cli;

constexpr unsigned kMaxMessage = 1u << 16;
constexpr int kMaxPending = 100;  // a server that only ever asks for patience is broken
constexpr unsigned kPendingTimeoutMs = 5000;

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix uds SERIAL PORT --tx ID --rx ID [--ext-addr N] [-e] [--bitrate N]"
               " [--timeout MS]\n"
               "           [--fd [--frame-length N] [--data-bitrate N]] BYTE...\n");
}

const char* nrc_name(unsigned char code) {
  switch (code) {
    case 0x10:
      return "generalReject";
    case 0x11:
      return "serviceNotSupported";
    case 0x12:
      return "subFunctionNotSupported";
    case 0x13:
      return "incorrectMessageLengthOrInvalidFormat";
    case 0x14:
      return "responseTooLong";
    case 0x21:
      return "busyRepeatRequest";
    case 0x22:
      return "conditionsNotCorrect";
    case 0x24:
      return "requestSequenceError";
    case 0x25:
      return "noResponseFromSubnetComponent";
    case 0x26:
      return "failurePreventsExecutionOfRequestedAction";
    case 0x31:
      return "requestOutOfRange";
    case 0x33:
      return "securityAccessDenied";
    case 0x35:
      return "invalidKey";
    case 0x36:
      return "exceedNumberOfAttempts";
    case 0x37:
      return "requiredTimeDelayNotExpired";
    case 0x70:
      return "uploadDownloadNotAccepted";
    case 0x71:
      return "transferDataSuspended";
    case 0x72:
      return "generalProgrammingFailure";
    case 0x73:
      return "wrongBlockSequenceCounter";
    case 0x78:
      return "requestCorrectlyReceived-ResponsePending";
    case 0x7E:
      return "subFunctionNotSupportedInActiveSession";
    case 0x7F:
      return "serviceNotSupportedInActiveSession";
    default:
      return "unknown";
  }
}

}  // namespace

int cmd_uds(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  Link l;
  std::vector<unsigned char> req;
  if (argc < 3 || !parse_number(argv[1], 16, 0xFFFFFFFF, &l.serial) ||
      !parse_number(argv[2], 10, 1, &l.port)) {
    usage();
    return 2;
  }
  bool have_tx = false, have_rx = false;
  for (int i = 3; i < argc; ++i) {
    bool bad = false;
    const std::string a = argv[i];
    if (common_option(argc, argv, &i, &l, "--tx", "--rx", &bad)) {
      have_tx |= a == "--tx";
      have_rx |= a == "--rx";
    } else if (!append_hex_bytes(a, &req)) {
      bad = true;
    }
    if (bad) {
      std::fprintf(stderr, "veltrix uds: bad argument '%s'\n", argv[i]);
      return 2;
    }
  }
  if (!have_tx || !have_rx || req.empty()) {
    usage();
    return 2;
  }
  if (!open_link("uds", l)) return 1;
  const OpenLink opened{l};
  const unsigned h = unsigned(l.serial);
  const auto port = static_cast<unsigned char>(l.port);
  int r = CAN_UDS_Request(h, port, &l.addr, req.data(), int(req.size()));
  if (r != 0) {
    std::fprintf(stderr, "veltrix uds: request: %s (%d)\n", transfer_error(r), r);
    return 1;
  }
  std::vector<unsigned char> resp(kMaxMessage);
  unsigned timeout = unsigned(l.timeout_ms);
  for (int pending = 0;; ++pending) {
    r = CAN_UDS_ResponseWithSize(h, port, &l.addr, resp.data(), kMaxMessage, timeout);
    if (r < 0) {
      std::fprintf(stderr, "veltrix uds: response: %s (%d)\n", transfer_error(r), r);
      return 1;
    }
    const bool is_pending = r == 3 && resp[0] == 0x7F && resp[2] == 0x78;
    if (!is_pending || pending == kMaxPending) break;
    std::fprintf(stderr, "veltrix uds: response pending\n");
    timeout = kPendingTimeoutMs;
  }
  print_bytes(resp.data(), r);
  if (r >= 3 && resp[0] == 0x7F) {
    std::printf("negative response to %02X: %s (0x%02X)\n", resp[1], nrc_name(resp[2]), resp[2]);
    return 3;
  }
  return 0;
}
