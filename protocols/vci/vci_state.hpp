// Host state of the VCI interface: the device-index list, and per device and port the
// error word, the last accepted configuration, the run flag and the frame queue.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "device/ring_buffer.hpp"
#include "veltrix/vci.h"

namespace veltrix::vci {

constexpr unsigned kDevices = 30;
constexpr unsigned kPorts = 2;

struct VciPort {
  std::atomic<uint32_t> error{0};  // low 32 bits of the error word; the high half stays 0
  // Guarded by config_mutex of the device.
  VCI_INIT_CONFIG config{};
  bool configured = false;
  std::atomic<bool> run{false};
  // Guarded by queue_mutex. Lock order: config_mutex, then queue_mutex, then the CAN
  // family's own locks (taken inside its calls while frames are pulled). The family's
  // receive thread never takes either of ours.
  std::mutex queue_mutex;
  RingBuffer<VCI_CAN_OBJ> queue{VCI_QUEUE_SIZE};
};

struct VciDevice {
  std::mutex config_mutex;  // serialises init/start/reset/transmit switching of its ports
  std::array<VciPort, kPorts> port;
};

struct VciState {
  std::mutex scan_mutex;
  // Guarded by scan_mutex for writes; read as a snapshot (one aligned word).
  std::array<std::atomic<uint32_t>, kDevices> handle{};
  std::atomic<bool> any_configured{false};  // set by the first successful init, never cleared
  std::array<VciDevice, kDevices> device;
};

VciState& state();

}  // namespace veltrix::vci
