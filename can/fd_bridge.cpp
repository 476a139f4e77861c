// Classic CAN calls on the CAN FD model, and the record conversions between the two
// families.
#include "can/fd_bridge.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

#include "can/can_state.hpp"
#include "device/abi.hpp"

namespace veltrix::can {
namespace {

std::atomic<const CanFdFamily*> g_family{&kCanFdFamily};

const CanFdFamily* family() { return g_family.load(std::memory_order_acquire); }

// Never reached while the family's own table is in place; kept so a stand-in may leave
// the table out.
constexpr int kNoFamily = CAN_ERR_USB_WRITE_FAIL;
constexpr uint32_t kNominalClockHz = 40000000;
constexpr uint64_t kTimeMask = 0xFFFFFFFFFFull;  // frame times are 40 bits wide

// Identifier word of the CAN FD filter record: bit 31 IDE, bit 30 RTR.
uint32_t fd_filter_word(uint32_t id, uint32_t ide, uint32_t rtr) {
  return id | (ide << 31) | ((rtr << 30) & CANFD_MSG_FLAG_RTR);
}

}  // namespace

void set_canfd_family(const CanFdFamily* f) {
  g_family.store(f ? f : &kCanFdFamily, std::memory_order_release);
}

int fd_init(uint32_t h, uint8_t port, const CAN_CHANNEL_CONFIG& c) {
  const CanFdFamily* f = family();
  if (!f) return kNoFamily;
  CANFD_CHANNEL_CONFIG fd{};  // data-phase fields stay 0
  fd.Mode = c.Mode & 1;
  fd.IsoCrc = 0;
  fd.AutoRetransmit = 1;
  fd.Terminator = (c.Mode >> 7) & 1;
  fd.NBT_Prescaler = uint8_t(c.Prescaler);
  fd.NBT_Seg1 = c.Seg1;
  fd.NBT_Seg2 = c.Seg2;
  fd.NBT_SJW = c.SJW;
  int r = f->init(h, port, &fd);
  if (r != 0) return r;
  int32_t divisor = (int32_t(c.Seg1) + int32_t(c.Seg2) + 1) * int32_t(fd.NBT_Prescaler);
  int32_t rate = divisor ? int32_t(kNominalClockHz) / divisor : 0;
  if (auto slot = slot_of(h))
    if (CanPort* p = port_state(*slot, port)) p->baud_rate.store(uint32_t(rate));
  std::printf("CAN_BaudRate = %d\n", rate);
  return 0;
}

int fd_filter(uint32_t h, uint8_t port, const CAN_FILTER_RULE& rule) {
  const CanFdFamily* f = family();
  if (!f) return kNoFamily;
  CANFD_FILTER_RULE fd{};
  fd.Enable = rule.Enable;
  fd.FilterIndex = rule.FilterIndex;
  fd.ID = fd_filter_word(rule.ID, rule.IDE, rule.RTR);
  fd.Mask = rule.FilterMode ? 0xFFFFFFFFu : fd_filter_word(rule.MaskID, rule.MaskIDE, rule.MaskRTR);
  return f->set_filter(h, port, &fd, 1);
}

int fd_status(uint32_t h, uint8_t port, CAN_BUS_STATUS* status) {
  const CanFdFamily* f = family();
  if (!f) return kNoFamily;
  CANFD_BUS_ERROR e{};
  int r = f->get_bus_error(h, port, &e);
  if (r == 0) {
    status->RxErrorCounter = e.RxErrorCounter;
    status->TxErrorCounter = e.TxErrorCounter;
  }
  return r;
}

int fd_send(uint32_t h, uint8_t port, CAN_MSG* frames, uint32_t count) {
  const CanFdFamily* f = family();
  if (!f) return kNoFamily;
  if (count == 0) return 0;
  std::vector<CANFD_MSG> fd(count);
  CAN2CANFD(frames, fd.data(), int(std::min<uint32_t>(count, INT32_MAX)));
  int r = f->send(h, port, fd.data(), count);
  // The CAN FD family writes its transmit events back into the first records.
  if (r > 0) CANFD2CAN(fd.data(), frames, int(std::min<uint32_t>(uint32_t(r), count)));
  return r;
}

int fd_get(uint32_t h, uint8_t port, CAN_MSG* frames, int capacity) {
  const CanFdFamily* f = family();
  if (!f) return kNoFamily;
  if (capacity < 1) return 0;
  std::vector<CANFD_MSG> fd(static_cast<size_t>(capacity));
  int r = f->get_msg(h, port, fd.data(), capacity);
  if (r > 0) CANFD2CAN(fd.data(), frames, std::min(r, capacity));
  return std::min(r, capacity);
}

int fd_start_get(uint32_t h, uint8_t port) {
  const CanFdFamily* f = family();
  return f ? f->start_get(h, port) : kNoFamily;
}

int fd_stop_get(uint32_t h, uint8_t port) {
  const CanFdFamily* f = family();
  return f ? f->stop_get(h, port) : kNoFamily;
}

int fd_clear(uint32_t h, uint8_t port) {
  const CanFdFamily* f = family();
  return f ? f->clear(h, port) : kNoFamily;
}

int fd_stop_port(uint32_t h, uint8_t port) {
  const CanFdFamily* f = family();
  if (!f) return kNoFamily;
  f->stop_get(h, port);
  return f->stop(h, port);
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT_VOID(CAN2CANFD, (const CAN_MSG* src, CANFD_MSG* dst, int n), {
  if (src == nullptr || dst == nullptr) return;
  for (int i = 0; i < n; ++i) {
    const CAN_MSG& c = src[i];
    CANFD_MSG& d = dst[i];
    std::memset(&d, 0, sizeof d);
    d.ID = (c.ID & 0x1FFFFFFFu) | (c.ExtFlag & 1 ? CANFD_MSG_FLAG_IDE : 0);
    d.DLC = c.DataLen;
    std::memcpy(d.Data, c.Data, std::min<size_t>(c.DataLen, sizeof c.Data));
    uint64_t t = ((uint64_t(c.TimeStampHigh) << 32 | c.TimeStamp) * 10) & can::kTimeMask;
    d.TimeStamp = uint32_t(t);
    d.TimeStampHigh = uint8_t(t >> 32);
  }
  return;
})

VELTRIX_EXPORT_VOID(CANFD2CAN, (const CANFD_MSG* src, CAN_MSG* dst, int n), {
  if (src == nullptr || dst == nullptr) return;
  for (int i = 0; i < n; ++i) {
    const CANFD_MSG& c = src[i];
    CAN_MSG& d = dst[i];
    std::memset(&d, 0, sizeof d);
    d.ID = c.ID & 0x1FFFFFFFu;
    d.ExtFlag = (c.ID & CANFD_MSG_FLAG_IDE) ? 1 : 0;
    d.DataLen = std::min<uint8_t>(c.DLC, sizeof d.Data);
    std::memcpy(d.Data, c.Data, d.DataLen);
    uint64_t t = (uint64_t(c.TimeStampHigh) << 32 | c.TimeStamp) / 10;
    d.TimeStamp = uint32_t(t);
    d.TimeStampHigh = uint8_t(t >> 32);
  }
  return;
})

}  // extern "C"
