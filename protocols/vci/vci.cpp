// The VCI operations: addressing by device type/index/CAN index, configuration through
// the CAN and CAN FD families, and the per-port frame queues.
//
// Reception: the CAN family's own receive thread polls the adapter every 10 ms into its
// bounded per-port queue; VCI_StartCAN starts it for the port. The application's calls
// then pull that queue into the port's VCI queue (bounded, oldest dropped and counted)
// before counting or copying, so every frame the adapter delivered reaches VCI_Receive.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "can/timing_tables.hpp"
#include "device/abi.hpp"
#include "protocols/vci/translate.hpp"
#include "protocols/vci/vci_state.hpp"
#include "veltrix/can.h"
#include "veltrix/canfd.h"
#include "veltrix/usb_device.h"

namespace veltrix::vci {
namespace {

constexpr uint32_t kFailed = 0;
constexpr uint32_t kDone = 1;
constexpr size_t kPullMax = 2048;  // frames taken from the CAN family per pull

bool type_ok(unsigned type) { return type == VCI_DEVICE_ONE_PORT || type == VCI_DEVICE_TWO_PORTS; }
bool fd_model(uint32_t h) { return (h >> 24) == 0x53; }
uint32_t handle_of(unsigned dev) { return state().handle[dev].load(); }
VciPort& port_of(unsigned dev, unsigned port) { return state().device[dev].port[port]; }

// True for a valid type; otherwise stores the type error (when the address is valid).
bool check_type(unsigned type, unsigned dev, unsigned port) {
  if (type_ok(type)) return true;
  if (dev < kDevices && port < kPorts) port_of(dev, port).error.store(VCI_ERR_DEVICE_TYPE);
  return false;
}

uint32_t fail_config(VciPort& p) {
  p.error.store(VCI_ERR_CONFIG);
  return kFailed;
}

// Moves what the CAN family holds for the port into its VCI queue.
// Caller holds p.queue_mutex.
void pull_now(uint32_t h, unsigned port, VciPort& p) {
  thread_local std::unique_ptr<CAN_MSG[]> room;
  thread_local std::unique_ptr<CANFD_MSG[]> fd_room;
  if (!room) room = std::make_unique<CAN_MSG[]>(kPullMax);
  for (;;) {
    int n;
    if (fd_model(h)) {
      if (!fd_room) fd_room = std::make_unique<CANFD_MSG[]>(kPullMax);
      n = CANFD_GetMsg(h, uint8_t(port), fd_room.get(), int(kPullMax));
      if (n > 0) {
        n = std::min(n, int(kPullMax));
        CANFD2CAN(fd_room.get(), room.get(), n);
        // The classic record has no remote bit of its own on this path: carry it over.
        for (int i = 0; i < n; ++i)
          if (fd_room[i].ID & CANFD_MSG_FLAG_RTR) room[i].FrameFlags |= CAN_MSG_FLAG_RTR;
      }
    } else {
      n = CAN_GetMsgWithSize(h, uint8_t(port), room.get(), int(kPullMax));
    }
    if (n <= 0) return;  // a failed read leaves what was queued; the port stays started
    for (int i = 0; i < std::min(n, int(kPullMax)); ++i) p.queue.push(to_obj(room[i]));
    if (n < int(kPullMax)) return;
  }
}

// Frames arrive only on a started port: before VCI_StartCAN the adapter is not read.
void pull(uint32_t h, unsigned port, VciPort& p) {
  if (p.run.load()) pull_now(h, port, p);
}

int start_native(uint32_t h, unsigned port) {
  return fd_model(h) ? CANFD_StartGetMsg(h, uint8_t(port)) : CAN_StartGetMsg(h, uint8_t(port));
}

void stop_native(uint32_t h, unsigned port) {
  if (fd_model(h))
    CANFD_StopGetMsg(h, uint8_t(port));
  else
    CAN_StopGetMsg(h, uint8_t(port));
}

// Callers hold the device's config_mutex.
void reset_port(unsigned dev, unsigned port) {
  VciPort& p = port_of(dev, port);
  if (!p.run.exchange(false)) return;
  const uint32_t h = handle_of(dev);
  // Frames already polled stay available to VCI_Receive.
  {
    std::scoped_lock g(p.queue_mutex);
    pull_now(h, port, p);
  }
  stop_native(h, port);
}

uint32_t start_port(unsigned dev, unsigned port) {
  VciPort& p = port_of(dev, port);
  if (p.run.load()) return kDone;
  if (start_native(handle_of(dev), port) != 0) return fail_config(p);
  p.run.store(true);
  return kDone;
}

uint32_t init_port(unsigned dev, unsigned port, const VCI_INIT_CONFIG& cfg) {
  VciPort& p = port_of(dev, port);
  reset_port(dev, port);
  const uint32_t h = handle_of(dev);
  const CAN_TIMING_ENTRY* row = timing_row(h, can::btr_rate(cfg.Timing0, cfg.Timing1));
  if (row == nullptr) return kFailed;  // an unknown timing pair stores no error code
  if (fd_model(h)) {
    CANFD_CHANNEL_CONFIG c = fd_config(*row, cfg.Mode);
    if (CANFD_Init(h, uint8_t(port), &c) != 0) return fail_config(p);
  } else {
    CAN_CHANNEL_CONFIG c = classic_config(*row, cfg.Mode);
    if (CAN_Init(h, uint8_t(port), &c) != 0) return fail_config(p);
    CAN_FILTER_RULE r = filter_rule(cfg);
    if (CAN_Filter_Init(h, uint8_t(port), &r) != 0) return fail_config(p);
  }
  p.config = cfg;
  p.configured = true;
  state().any_configured.store(true);
  return kDone;
}

// Switches between normal and self-reception mode as the first record asks.
// Caller holds config_mutex. Returns false when a step failed.
bool switch_mode(unsigned dev, unsigned port, uint8_t send_type) {
  VciPort& p = port_of(dev, port);
  if (!p.configured) return true;  // nothing to re-initialise from
  VCI_INIT_CONFIG cfg = p.config;
  if ((send_type == 2 || send_type == 3) && (cfg.Mode & 0x7F) == 0)
    cfg.Mode = 2;
  else if (cfg.Mode == 2 && send_type <= 1)
    cfg.Mode = 0x80;
  else
    return true;
  return init_port(dev, port, cfg) == kDone && start_port(dev, port) == kDone;
}

uint32_t transmit(unsigned dev, unsigned port, const VCI_CAN_OBJ* objs, unsigned count) {
  if (objs == nullptr || count == 0) return kFailed;
  {
    std::scoped_lock g(state().device[dev].config_mutex);
    if (!switch_mode(dev, port, objs[0].SendType)) return kFailed;
  }
  std::vector<CAN_MSG> frames(count);
  for (unsigned i = 0; i < count; ++i) frames[i] = to_can(objs[i]);
  const uint32_t h = handle_of(dev);
  int sent;
  if (fd_model(h)) {
    std::vector<CANFD_MSG> fd(count);
    CAN2CANFD(frames.data(), fd.data(), int(count));
    sent = CANFD_SendMsg(h, uint8_t(port), fd.data(), int(count));
  } else {
    sent = CAN_SendMsg(h, uint8_t(port), frames.data(), int(count));
  }
  return sent < 1 ? kFailed : uint32_t(sent);
}

uint32_t receive(unsigned dev, unsigned port, VCI_CAN_OBJ* out, unsigned room) {
  if (!state().any_configured.load() || out == nullptr) return 0;
  VciPort& p = port_of(dev, port);
  std::scoped_lock g(p.queue_mutex);
  pull(handle_of(dev), port, p);
  return uint32_t(p.queue.drain({out, room}));
}

uint32_t waiting(unsigned dev, unsigned port) {
  if (!state().any_configured.load()) return 0;
  VciPort& p = port_of(dev, port);
  std::scoped_lock g(p.queue_mutex);
  pull(handle_of(dev), port, p);
  return uint32_t(p.queue.size());
}

void clear(unsigned dev, unsigned port) {
  VciPort& p = port_of(dev, port);
  std::scoped_lock g(p.queue_mutex);
  pull(handle_of(dev), port, p);
  p.queue.clear();
}

void fill_board_info(unsigned type, VCI_BOARD_INFO* info) {
  info->HardwareVersion = 0x0200;
  info->FirmwareVersion = 0x0193;
  info->DriverVersion = 0x0200;
  info->InterfaceVersion = 0x0173;
  info->IrqNumber = 0;
  info->CanPortCount = type == VCI_DEVICE_ONE_PORT ? 1 : 2;
  static constexpr char kSerial[12] = {'0', '0', '0', '7', '0', '4', '2', '8', 0x10, 0x02, 0x29, 0};
  std::memcpy(info->SerialNumber, kSerial, sizeof kSerial);
  static constexpr char kName[] = "VELTRIX-CAN";
  std::memcpy(info->HardwareType, kName, sizeof kName);
}

bool addr_ok(unsigned dev, unsigned port) { return dev < kDevices && port < kPorts; }

}  // namespace
}  // namespace veltrix::vci

using namespace veltrix;
using vci::addr_ok;
using vci::check_type;

extern "C" {

VELTRIX_EXPORT(unsigned int, VCI_ScanDevice, (void), 0, {
  vci::VciState& s = vci::state();
  std::scoped_lock g(s.scan_mutex);
  std::array<unsigned int, vci::kDevices> found{};
  int n = USB_ScanDevice(found.data());
  if (n < 0) return 0u;
  for (unsigned i = 0; i < vci::kDevices; ++i) s.handle[i].store(found[i]);
  return unsigned(std::min<int>(n, int(vci::kDevices)));
})

VELTRIX_EXPORT(unsigned int, VCI_OpenDevice, (unsigned int type, unsigned int dev, unsigned int), 0,
               {
                 if (!check_type(type, dev, 0)) return 0u;
                 if (dev >= vci::kDevices || VCI_ScanDevice() <= dev) return 0u;
                 if (USB_OpenDevice(vci::handle_of(dev)) < 1) {
                   vci::port_of(dev, 0).error.store(VCI_ERR_OPEN);
                   return VCI_OPEN_FAILED;
                 }
                 return 1u;
               })

VELTRIX_EXPORT(unsigned int, VCI_ResetCAN, (unsigned int type, unsigned int dev, unsigned int port),
               0, {
                 if (!addr_ok(dev, port) || !check_type(type, dev, port)) return 0u;
                 std::scoped_lock g(vci::state().device[dev].config_mutex);
                 vci::reset_port(dev, port);
                 return 1u;
               })

VELTRIX_EXPORT(unsigned int, VCI_CloseDevice, (unsigned int type, unsigned int dev), 0, {
  if (dev >= vci::kDevices) return 0u;
  VCI_ResetCAN(type, dev, 0);
  VCI_ResetCAN(type, dev, 1);
  return 1u;
})

VELTRIX_EXPORT(unsigned int, VCI_InitCAN,
               (unsigned int type, unsigned int dev, unsigned int port, VCI_INIT_CONFIG* cfg), 0, {
                 if (!addr_ok(dev, port) || !check_type(type, dev, port)) return 0u;
                 if (cfg == nullptr) return 0u;
                 std::scoped_lock g(vci::state().device[dev].config_mutex);
                 return vci::init_port(dev, port, *cfg);
               })

VELTRIX_EXPORT(unsigned int, VCI_StartCAN, (unsigned int type, unsigned int dev, unsigned int port),
               0, {
                 if (!addr_ok(dev, port) || !check_type(type, dev, port)) return 0u;
                 std::scoped_lock g(vci::state().device[dev].config_mutex);
                 return vci::start_port(dev, port);
               })

VELTRIX_EXPORT(unsigned int, VCI_Transmit,
               (unsigned int type, unsigned int dev, unsigned int port, VCI_CAN_OBJ* objs,
                unsigned int count),
               0, {
                 if (!addr_ok(dev, port) || !vci::type_ok(type)) return 0u;
                 return vci::transmit(dev, port, objs, count);
               })

VELTRIX_EXPORT(unsigned int, VCI_Receive,
               (unsigned int type, unsigned int dev, unsigned int port, VCI_CAN_OBJ* out,
                unsigned int room, int),
               0, {
                 if (!addr_ok(dev, port) || !check_type(type, dev, port)) return VCI_INVALID;
                 return vci::receive(dev, port, out, room);
               })

VELTRIX_EXPORT(unsigned int, VCI_GetReceiveNum,
               (unsigned int type, unsigned int dev, unsigned int port), 0, {
                 if (!addr_ok(dev, port) || !vci::type_ok(type)) return 0u;
                 return vci::waiting(dev, port);
               })

VELTRIX_EXPORT(unsigned int, VCI_GetDroppedNum,
               (unsigned int type, unsigned int dev, unsigned int port), 0, {
                 if (!addr_ok(dev, port) || !vci::type_ok(type)) return 0u;
                 vci::VciPort& p = vci::port_of(dev, port);
                 std::scoped_lock g(p.queue_mutex);
                 return unsigned(std::min<uint64_t>(p.queue.dropped(), 0xFFFFFFFFu));
               })

VELTRIX_EXPORT(unsigned int, VCI_ClearBuffer,
               (unsigned int type, unsigned int dev, unsigned int port), 0, {
                 if (!addr_ok(dev, port) || !check_type(type, dev, port)) return 0u;
                 vci::clear(dev, port);
                 return 1u;
               })

VELTRIX_EXPORT(unsigned int, VCI_ReadBoardInfo,
               (unsigned int type, unsigned int dev, VCI_BOARD_INFO* info), 0, {
                 if (!check_type(type, dev, 0) || info == nullptr) return 0u;
                 vci::fill_board_info(type, info);
                 return 1u;
               })

VELTRIX_EXPORT(unsigned int, VCI_ReadErrInfo,
               (unsigned int type, unsigned int dev, unsigned int port, uint64_t* out), 0, {
                 if (!vci::type_ok(type) || dev >= vci::kDevices || out == nullptr) return 0u;
                 const unsigned p = type == VCI_DEVICE_ONE_PORT ? 0 : port;
                 if (p >= vci::kPorts) return 0u;
                 *out = vci::port_of(dev, p).error.exchange(0);
                 return 1u;
               })

VELTRIX_EXPORT(unsigned int, VCI_ReadCANStatus,
               (unsigned int type, unsigned int, unsigned int, void*), 0,
               { return vci::type_ok(type) ? 1u : 0u; })

VELTRIX_EXPORT(unsigned int, VCI_GetReference,
               (unsigned int, unsigned int, unsigned int, unsigned int, void*), 0, { return 0u; })

VELTRIX_EXPORT(unsigned int, VCI_SetReference,
               (unsigned int, unsigned int, unsigned int, unsigned int, void*), 0, { return 0u; })

}  // extern "C"
