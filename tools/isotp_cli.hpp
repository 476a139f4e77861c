// Shared pieces of the ISO-TP subcommands (isotp, uds): option parsing in the manner of
// the kernel's ISO-TP tools, opening the adapter and starting the port.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "veltrix/can.h"
#include "veltrix/can_uds.h"
#include "veltrix/canfd.h"
#include "veltrix/usb_device.h"

namespace veltrix::cli {

inline bool parse_number(const char* s, int base, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  const unsigned long v = std::strtoul(s, &end, base);
  if (errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

// Hex bytes given as "22 F1 90", "22F190" or separate words; false on anything else.
inline bool append_hex_bytes(const std::string& text, std::vector<unsigned char>* out) {
  std::string digits;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
    digits += c;
  }
  if (digits.size() % 2 != 0) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    unsigned long b;
    if (!parse_number(digits.substr(i, 2).c_str(), 16, 0xFF, &b)) return false;
    out->push_back(static_cast<unsigned char>(b));
  }
  return true;
}

inline void print_bytes(const unsigned char* b, int n) {
  for (int i = 0; i < n; ++i) std::printf("%02X%s", b[i], i + 1 < n ? " " : "");
  std::printf("\n");
}

// What every ISO-TP subcommand needs besides its own arguments.
struct Link {
  unsigned long serial = 0, port = 0, bitrate = 500000, data_bitrate = 2000000, timeout_ms = 1000;
  CAN_UDS_ADDR addr{0, 0, 0, 0, 0, 8};
  // The CAN FD models' ports are started as CAN FD ports; they carry classic frames
  // unless --fd asks for CAN FD frames.
  bool fd_adapter() const { return serial >> 24 == 0x53 || serial >> 24 == 0x54; }
};

// The frame length --fd plans with when none is given.
inline constexpr unsigned char kFdFrameLength = 64;

// Takes one common option at argv[*i] (advancing *i past its value); false if argv[*i] is
// not one of them. *bad is set for a known option with a bad or missing value.
inline bool common_option(int argc, char** argv, int* i, Link* l, const char* tx, const char* rx,
                          bool* bad) {
  const std::string a = argv[*i];
  const bool known = a == tx || a == rx || a == "-x" || a == "--ext-addr" || a == "-b" ||
                     a == "--bitrate" || a == "-t" || a == "--timeout" || a == "-e" ||
                     a == "--fd" || a == "--data-bitrate" || a == "--frame-length";
  if (!known) return false;
  if (a == "-e") {  // 29-bit identifiers
    l->addr.IdFlags |= CAN_UDS_ID_EXTENDED;
    return true;
  }
  if (a == "--fd") {  // CAN FD frames with bit rate switching
    l->addr.IdFlags |= CAN_UDS_ID_BRS | CAN_UDS_ID_FD;
    if (l->addr.FrameLength == 8) l->addr.FrameLength = kFdFrameLength;
    return true;
  }
  unsigned long v = 0;
  if (*i + 1 >= argc) {
    *bad = true;
    return true;
  }
  const char* value = argv[++*i];
  if (a == tx || a == rx) {
    *bad = !parse_number(value, 16, 0x1FFFFFFF, &v);
    (a == tx ? l->addr.RequestID : l->addr.ResponseID) = uint32_t(v);
  } else if (a == "-x" || a == "--ext-addr") {
    *bad = !parse_number(value, 16, 0xFF, &v);
    l->addr.ExtAddressing = 1;
    l->addr.AddressExtension = static_cast<unsigned char>(v);
  } else if (a == "-b" || a == "--bitrate") {
    *bad = !parse_number(value, 10, 1000000, &v) || v == 0;
    l->bitrate = v;
  } else if (a == "--data-bitrate") {
    *bad = !parse_number(value, 10, 8000000, &v) || v == 0;
    l->data_bitrate = v;
  } else if (a == "--frame-length") {
    // A CAN FD frame length the adapter sends as it is.
    *bad = !parse_number(value, 10, 64, &v) || v < 8 ||
           DlcToDataBytes(DataBytesToDlc(static_cast<unsigned char>(v))) != v;
    l->addr.FrameLength = static_cast<unsigned char>(v);
  } else {
    *bad = !parse_number(value, 10, 600000, &v);
    l->timeout_ms = v;
  }
  return true;
}

// Opens the adapter and starts the port at the bit rate. Prints why not and returns false.
inline bool open_link(const char* tool, const Link& l) {
  const unsigned h = unsigned(l.serial);
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(h) != 1) {
    std::fprintf(stderr, "veltrix %s: adapter %08lX not found or cannot be opened\n", tool,
                 l.serial);
    return false;
  }
  const auto port = static_cast<unsigned char>(l.port);
  if ((l.addr.IdFlags & CAN_UDS_ID_FD) && !l.fd_adapter()) {
    std::fprintf(stderr, "veltrix %s: adapter %08lX has no CAN FD ports\n", tool, l.serial);
    return false;
  }
  if (l.fd_adapter()) {
    CANFD_CHANNEL_CONFIG c{};
    if (CANFD_GetCANSpeedArg(h, &c, int(l.bitrate), int(l.data_bitrate)) != 0) {
      std::fprintf(stderr, "veltrix %s: bit rates %lu/%lu are not supported\n", tool, l.bitrate,
                   l.data_bitrate);
      return false;
    }
    if (int r = CANFD_Init(h, port, &c); r != 0) {
      std::fprintf(stderr, "veltrix %s: starting port %lu failed (%d)\n", tool, l.port, r);
      return false;
    }
    if (int r = CANFD_StartGetMsg(h, port); r != 0) {
      std::fprintf(stderr, "veltrix %s: starting reception failed (%d)\n", tool, r);
      return false;
    }
    return true;
  }
  CAN_CHANNEL_CONFIG c{};
  if (CAN_GetCANSpeedArg(h, &c, int(l.bitrate)) != 0) {
    std::fprintf(stderr, "veltrix %s: bit rate %lu is not supported\n", tool, l.bitrate);
    return false;
  }
  if (int r = CAN_Init(h, static_cast<unsigned char>(l.port), &c); r != 0) {
    std::fprintf(stderr, "veltrix %s: starting port %lu failed (%d)\n", tool, l.port, r);
    return false;
  }
  // Without the receive thread every frame read would poll the adapter once: a long
  // message would then take longer than its time-out.
  if (int r = CAN_StartGetMsg(h, static_cast<unsigned char>(l.port)); r != 0) {
    std::fprintf(stderr, "veltrix %s: starting reception failed (%d)\n", tool, r);
    return false;
  }
  return true;
}

// Stops reception and closes the adapter when the subcommand returns.
struct OpenLink {
  const Link& l;
  ~OpenLink() {
    if (l.fd_adapter())
      CANFD_StopGetMsg(unsigned(l.serial), static_cast<unsigned char>(l.port));
    else
      CAN_StopGetMsg(unsigned(l.serial), static_cast<unsigned char>(l.port));
    USB_CloseDevice(unsigned(l.serial));
  }
};

inline const char* transfer_error(int code) {
  switch (code) {
    case CAN_UDS_ERR_SEND:
      return "the adapter refused the frame";
    case CAN_UDS_ERR_SEND_TIMEOUT:
      return "the frame could not be sent (no acknowledgement?)";
    case CAN_UDS_ERR_TIMEOUT:
      return "timed out";
    case CAN_UDS_ERR_SEQUENCE:
      return "consecutive frame out of sequence";
    case CAN_UDS_ERR_FRAME:
      return "malformed frame";
    case CAN_UDS_ERR_OVERFLOW:
      return "the receiver reported overflow";
    case CAN_UDS_ERR_BUFFER:
      return "message longer than the buffer";
    default:
      return "failed";
  }
}

}  // namespace veltrix::cli
