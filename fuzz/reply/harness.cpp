#include "fuzz/reply/harness.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "device/wire.hpp"
#include "fuzz/reply/fake_usb.hpp"
#include "veltrix/can.h"
#include "veltrix/lin.h"
#include "veltrix/lin_uds.h"
#include "veltrix/usb_device.h"

namespace veltrix::fuzz {
namespace {

// A small description with a frame published by each side, a diagnostic pair and two
// schedule tables, so that bus execution takes both its write and its read paths.
constexpr const char kDescription[] = R"(LIN_description_file;
LIN_protocol_version = "2.1";
LIN_language_version = "2.1";
LIN_speed = 19.2 kbps;
Nodes {
  Master: HOST, 5 ms, 0.1 ms ;
  Slaves: DOOR ;
}
Signals {
  Lamp: 2, 0, HOST, DOOR ;
  Speed: 16, 0, HOST, DOOR ;
  Position: 8, 255, DOOR, HOST ;
  Fault: 1, 0, DOOR, HOST ;
}
Diagnostic_signals {
  MasterReqB0: 8, 0 ;
  MasterReqB1: 8, 0 ;
  SlaveRespB0: 8, 0 ;
  SlaveRespB1: 8, 0 ;
}
Frames {
  Command: 0x10, HOST, 3 {
    Lamp, 0 ;
    Speed, 8 ;
  }
  Status: 0x11, DOOR, 2 {
    Position, 0 ;
    Fault, 8 ;
  }
}
Diagnostic_frames {
  MasterReq: 0x3C {
    MasterReqB0, 0 ;
    MasterReqB1, 8 ;
  }
  SlaveResp: 0x3D {
    SlaveRespB0, 0 ;
    SlaveRespB1, 8 ;
  }
}
Node_attributes {
  DOOR {
    LIN_protocol = "2.1" ;
    configured_NAD = 0x05 ;
    product_id = 0x1234, 0x5678, 1 ;
    response_error = Fault ;
    configurable_frames {
      Command = 0x10 ;
      Status = 0x11 ;
    }
  }
}
Schedule_tables {
  Normal {
    Command delay 10 ms ;
    Status delay 10 ms ;
  }
  Diag {
    MasterReq delay 20 ms ;
    SlaveResp delay 20 ms ;
  }
}
Signal_encoding_types {
  LampCoding {
    logical_value, 0, "off" ;
    logical_value, 1, "on" ;
  }
  SpeedCoding {
    physical_value, 0, 65000, 0.5, 0, "rpm" ;
  }
}
Signal_representation {
  LampCoding: Lamp ;
  SpeedCoding: Speed ;
}
)";

// Longer than any wait the headers allow for the arguments the operations pass (the
// longest is a synchronous send of 600 frames: three batches of 26 s).
constexpr std::chrono::seconds kLongestOperation{600};

// The identity record: 88 bytes, the firmware version little-endian at byte 68.
constexpr uint32_t kCmdIdentity = 0x100;
constexpr size_t kIdentityBytes = 88;
constexpr size_t kFirmwareVersionAt = 68;
constexpr uint32_t kOlderFirmware = 0x01050000;
constexpr uint32_t kNewerFirmware = 0x01060003;

LDF_CODING* g_master = nullptr;
LDF_CODING* g_slave = nullptr;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "reply fuzzer set-up: %s\n", what);
  std::abort();
}

}  // namespace

uint32_t firmware_of(uint32_t serial) {
  return serial == kClassicSerial ? kOlderFirmware : kNewerFirmware;
}

Responder acknowledge_everything() {
  return [](uint32_t serial, uint8_t, uint32_t cmd, std::span<const uint8_t>) {
    if (cmd != kCmdIdentity) {
      queue_reply(cmd, {});
      return;
    }
    std::array<uint8_t, kIdentityBytes> record{};
    wire::put_le32(record.data() + kFirmwareVersionAt, firmware_of(serial));
    queue_reply(cmd, record);
  };
}

void set_up() {
  set_responder(acknowledge_everything());
  unsigned int handles[32] = {};
  if (USB_ScanDevice(handles) != 2) fail("the two adapters are not found");
  if (!USB_OpenDevice(kClassicSerial) || !USB_OpenDevice(kFdSerial)) fail("open failed");
  // The description is read by path; a memory file needs no disk.
  int fd = memfd_create("reply-fuzz.ldf", 0);
  if (fd < 0 ||
      write(fd, kDescription, sizeof kDescription - 1) != ssize_t(sizeof kDescription - 1))
    fail("cannot write the description");
  std::string path = "/proc/self/fd/" + std::to_string(fd);
  // On the adapter with the newer firmware, whose model in reply_seeds answers the LIN
  // commands bus execution sends.
  g_master = LDF_ParserFile(int(kFdSerial), 0, 1, path.c_str());
  g_slave = LDF_ParserFile(int(kFdSerial), 1, 0, path.c_str());
  close(fd);
  if (g_master == nullptr || g_slave == nullptr) fail("the description does not load");
  set_responder(nullptr);
  reset_in();
}

void restore_baseline(const Responder& answer) {
  set_responder(answer);
  for (uint32_t h : {kClassicSerial, kFdSerial}) {
    const LIN_CONFIG older{19200, 0, 1};
    for (uint8_t ch = 0; ch < LIN_MAX_CHANNELS; ++ch) LIN_Init(int(h), ch, &older);
    for (uint8_t ch = 0; ch < LIN_EX_MAX_CHANNELS; ++ch) {
      LIN_EX_Init(int(h), ch, 19200, 1);
      LIN_USD_ClearCANMsgFromUDSBuffer(int(h), ch);
    }
    for (uint8_t port = 0; port < 2; ++port) {
      CAN_ClearMsg(h, port);
      CAN_ClearCANMsgFromUDSBuffer(h, port);
    }
  }
  set_responder(nullptr);
  reset_in();
}

Target target(uint8_t selector) {
  return Target{(selector & 1) ? kFdSerial : kClassicSerial, g_master, g_slave};
}

void run_steps(std::span<const uint8_t> steps, size_t count) {
  std::span<const Op> table = ops();
  for (size_t i = 0; i < count && steps.size() >= kStepBytes; ++i) {
    const Op& op = table[steps[0] % table.size()];
    Args args(steps.subspan(2, kArgBytes));
    set_current_op(op.name);
    const auto start = std::chrono::steady_clock::now();
    op.run(target(steps[1]), args);
    // Time is virtual here, so this costs nothing to check: an operation that would keep
    // its caller waiting this long on any reply is a hang.
    if (std::chrono::steady_clock::now() - start > kLongestOperation) {
      std::fprintf(stderr, "%s: kept its caller waiting more than %lld s\n", op.name,
                   (long long)kLongestOperation.count());
      std::abort();
    }
    steps = steps.subspan(kStepBytes);
  }
}

}  // namespace veltrix::fuzz
