// veltrix lin: LIN master operations from the command line.
//   veltrix lin SERIAL CH init [BAUD]                  configure CH as master (default 19200)
//   veltrix lin SERIAL CH write ID#DATA [classic|enhanced]
//   veltrix lin SERIAL CH read ID                      print ID#DATA of the slave's answer
//   veltrix lin SERIAL CH replay FILE [BAUD]           run a recorded list file
//   veltrix lin SERIAL CH uds NAD HEXBYTES [TIMEOUT_MS]
// SERIAL, ID, NAD and DATA are hexadecimal; every command after init expects the channel
// to have been configured in the same process, so each one initialises it first.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "tools/cli.hpp"
#include "veltrix/lin.h"
#include "veltrix/lin_uds.h"
#include "veltrix/usb_device.h"

namespace {

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix lin SERIAL CH init [BAUD]\n"
               "       veltrix lin SERIAL CH write ID#DATA [classic|enhanced]\n"
               "       veltrix lin SERIAL CH read ID\n"
               "       veltrix lin SERIAL CH replay FILE [BAUD]\n"
               "       veltrix lin SERIAL CH uds NAD HEXBYTES [TIMEOUT_MS]\n");
}

bool parse_hex(const char* s, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, 16);
  if (errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

bool parse_dec(const char* s, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, 10);
  if (errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

// "AABBCC" -> bytes; false for odd length, non-hex text or more than `max` bytes.
bool parse_bytes(const std::string& text, size_t max, std::vector<unsigned char>* out) {
  if (text.size() % 2 != 0 || text.size() / 2 > max) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned long b;
    if (!parse_hex(text.substr(i, 2).c_str(), 0xFF, &b)) return false;
    out->push_back(static_cast<unsigned char>(b));
  }
  return true;
}

void print_frame(unsigned char id, const unsigned char* data, int n) {
  std::printf("%02X#", id & 0x3F);
  for (int i = 0; i < n; ++i) std::printf("%02X", data[i]);
  std::printf("\n");
}

// Identifiers recorded without data were headers a slave did not answer in the trace:
// every record of such an identifier is replayed as a master read, as the list reader does
// for the identifiers of its read list.
void mark_unanswered_as_reads(std::span<LIN_EX_MSG> recs) {
  std::vector<unsigned char> reads;
  for (const LIN_EX_MSG& m : recs)
    if (m.DataLen == 0 && std::find(reads.begin(), reads.end(), m.PID & 0x3F) == reads.end())
      reads.push_back(m.PID & 0x3F);
  for (LIN_EX_MSG& m : recs)
    if (std::find(reads.begin(), reads.end(), m.PID & 0x3F) != reads.end())
      m.MsgType = LIN_EX_MSG_TYPE_MR;
}

int fail(const char* what, int code) {
  std::fprintf(stderr, "veltrix lin: %s failed (%d)\n", what, code);
  return 1;
}

int run(int h, unsigned char ch, int argc, char** argv) {
  const std::string op = argv[3];
  unsigned long baud = 19200;
  if ((op == "init" || op == "replay") && argc > (op == "init" ? 4 : 5) &&
      !parse_dec(argv[op == "init" ? 4 : 5], 1000000, &baud)) {
    std::fprintf(stderr, "veltrix lin: bad baud rate\n");
    return 2;
  }
  int r = LIN_EX_Init(h, ch, unsigned(baud), 1);
  if (r != 0) return fail("init", r);
  if (op == "init") {
    std::printf("LIN%u master at %lu baud\n", ch, baud);
    return 0;
  }
  if (op == "write" && (argc == 5 || argc == 6)) {
    const std::string text = argv[4];
    const size_t hash = text.find('#');
    unsigned long id;
    std::vector<unsigned char> data;
    if (hash == std::string::npos || !parse_hex(text.substr(0, hash).c_str(), 0x3F, &id) ||
        !parse_bytes(text.substr(hash + 1), 8, &data)) {
      std::fprintf(stderr, "veltrix lin: '%s' is not ID#DATA (ID 0..3F, up to 8 bytes)\n", argv[4]);
      return 2;
    }
    const bool classic = argc == 6 && std::strcmp(argv[5], "classic") == 0;
    r = LIN_EX_MasterWrite(h, ch, static_cast<unsigned char>(id), data.data(),
                           static_cast<unsigned char>(data.size()), classic ? 0 : 1);
    return r == 0 ? 0 : fail("write", r);
  }
  if (op == "read" && argc == 5) {
    unsigned long id;
    if (!parse_hex(argv[4], 0x3F, &id)) {
      std::fprintf(stderr, "veltrix lin: '%s' is not an identifier 0..3F\n", argv[4]);
      return 2;
    }
    unsigned char data[8];
    r = LIN_EX_MasterRead(h, ch, static_cast<unsigned char>(id), data);
    if (r < 0) return fail("read", r);
    if (r == 0) {
      std::fprintf(stderr, "veltrix lin: no valid answer for identifier %02lX\n", id);
      return 1;
    }
    print_frame(static_cast<unsigned char>(id), data, r);
    return 0;
  }
  if (op == "replay" && (argc == 5 || argc == 6)) {
    // The file is read once: a file that changes meanwhile (a log being written, a FIFO)
    // cannot disagree with itself, and the buffer is sized by the same decode whose records
    // it receives (LIN_EX_GetListFileMsg has no capacity argument).
    int n = LIN_EX_DecodeListFile(argv[4], 1, int(baud), nullptr, 0, nullptr, 0);
    if (n < 0) return fail("reading the list file", n);
    std::vector<LIN_EX_MSG> in(size_t(n > 0 ? n : 1)), out(in.size());
    n = LIN_EX_GetListFileMsg(0, n, in.data());
    if (n < 0) return fail("reading the list file", n);
    mark_unanswered_as_reads({in.data(), size_t(n)});
    int sent = 0;
    for (int at = 0; at < n; at += 64) {  // one exchange per 64 frames
      const int count = n - at < 64 ? n - at : 64;
      r = LIN_EX_MasterSync(h, ch, &in[size_t(at)], &out[size_t(at)], count);
      if (r < 0) return fail("replay", r);
      for (int i = 0; i < r; ++i) print_frame(out[size_t(at + i)].PID, out[size_t(at + i)].Data,
                                             out[size_t(at + i)].DataLen);
      sent += count;
    }
    std::fflush(stdout);
    std::fprintf(stderr, "%d frames replayed\n", sent);
    return 0;
  }
  if (op == "uds" && (argc == 6 || argc == 7)) {
    unsigned long nad, timeout = 1000;
    std::vector<unsigned char> req;
    if (!parse_hex(argv[4], 0xFF, &nad) || !parse_bytes(argv[5], LIN_UDS_MAX_LEN, &req) ||
        req.empty() || (argc == 7 && !parse_dec(argv[6], 600000, &timeout))) {
      std::fprintf(stderr, "veltrix lin: usage: uds NAD HEXBYTES [TIMEOUT_MS]\n");
      return 2;
    }
    LIN_UDS_ADDR addr{0x3C, 0x3D, static_cast<unsigned char>(nad), 0, 0};
    r = LIN_UDS_Request(h, ch, &addr, req.data(), int(req.size()));
    if (r != 0) return fail("UDS request", r);
    std::vector<unsigned char> resp(LIN_UDS_MAX_LEN);
    r = LIN_UDS_Response(h, ch, &addr, resp.data(), int(timeout));
    if (r < 0) return fail("UDS response", r);
    for (int i = 0; i < r; ++i) std::printf("%02X%s", resp[size_t(i)], i + 1 < r ? " " : "\n");
    if (r == 0) std::printf("(empty response)\n");
    return 0;
  }
  usage();
  return 2;
}

}  // namespace

int cmd_lin(int argc, char** argv) {
  if (veltrix::tools::wants_help(argc, argv)) {
    usage(stdout);
    return 0;
  }
  unsigned long serial, ch;
  if (argc < 4 || !parse_hex(argv[1], 0xFFFFFFFFul, &serial) || !parse_dec(argv[2], 3, &ch)) {
    usage();
    return 2;
  }
  const int h = int(unsigned(serial));
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(unsigned(serial)) != 1) {
    std::fprintf(stderr, "veltrix lin: adapter %08lX not found or cannot be opened\n", serial);
    return 1;
  }
  int rc = run(h, static_cast<unsigned char>(ch), argc, argv);
  USB_CloseDevice(unsigned(serial));
  return rc;
}
