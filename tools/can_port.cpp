#include "tools/can_port.hpp"

#include <cstdlib>

#include "tools/result_text.hpp"
#include "veltrix/can.h"
#include "veltrix/canfd.h"
#include "veltrix/device.h"
#include "veltrix/usb_device.h"

namespace veltrix::tools {

std::string can_iface_name(uint32_t serial, unsigned port) {
  char name[24];
  std::snprintf(name, sizeof name, "vx%08X-%u", serial, port);
  return name;
}

namespace {
bool open_adapter(uint32_t serial) {
  const int found = USB_ScanDevice(nullptr);
  if (found <= 0 || USB_OpenDevice(serial) != 1) {
    std::fprintf(stderr,
                 "veltrix can: adapter %08X was not found or cannot be opened ('veltrix scan' "
                 "lists the attached adapters).\n",
                 serial);
    return false;
  }
  return true;
}
}  // namespace

bool open_canfd_port(uint32_t serial, unsigned port, int bitrate, int data_bitrate) {
  if (!open_adapter(serial)) return false;
  CANFD_CHANNEL_CONFIG c{};
  if (CANFD_GetCANSpeedArg(serial, &c, bitrate, data_bitrate) != 0) {
    std::fprintf(stderr,
                 "veltrix can: adapter %08X has no timing for %d bit/s with %d bit/s data.\n",
                 serial, bitrate, data_bitrate);
    return false;
  }
  if (int r = CANFD_Init(serial, uint8_t(port), &c); r != 0) {
    std::fprintf(stderr, "veltrix can: starting port %u of adapter %08X failed: %s.\n", port,
                 serial, result_text("CAN", r).c_str());
    return false;
  }
  return true;
}

bool open_can_port(uint32_t serial, unsigned port, int bitrate) {
  if (!open_adapter(serial)) return false;
  CAN_CHANNEL_CONFIG c{};
  if (CAN_GetCANSpeedArg(serial, &c, bitrate) != 0) {
    std::fprintf(stderr, "veltrix can: adapter %08X has no timing for %d bit/s.\n", serial,
                 bitrate);
    return false;
  }
  if (int r = CAN_Init(serial, uint8_t(port), &c); r != 0) {
    std::fprintf(stderr, "veltrix can: starting port %u of adapter %08X failed: %s.\n", port,
                 serial, result_text("CAN", r).c_str());
    return false;
  }
  return true;
}

bool parse_can_filter(const std::string& text, CanFilter* out) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos || (colon != 3 && colon != 8) || colon + 1 >= text.size())
    return false;
  char* end = nullptr;
  CanFilter f;
  const std::string id = text.substr(0, colon), mask = text.substr(colon + 1);
  if (mask.size() > 8) return false;
  f.id = uint32_t(std::strtoul(id.c_str(), &end, 16));
  if (*end != '\0') return false;
  f.mask = uint32_t(std::strtoul(mask.c_str(), &end, 16));
  if (*end != '\0') return false;
  f.extended = colon == 8;
  if (f.id > (f.extended ? 0x1FFFFFFFu : 0x7FFu)) return false;
  *out = f;
  return true;
}

bool passes(const std::vector<CanFilter>& filters, const Frame& f) {
  if (filters.empty()) return true;
  for (const CanFilter& c : filters)
    if (c.extended == f.extended && (f.id & c.mask) == (c.id & c.mask)) return true;
  return false;
}

namespace {
FrameClock anchor(uint32_t serial, bool* anchored) {
  unsigned int ticks = 0;
  const uint64_t before = now_wall_us();
  *anchored = DEV_GetTimestamp(serial, 0, &ticks) == 1;
  // The adapter read its counter somewhere within the exchange: take the middle.
  return FrameClock(before + (now_wall_us() - before) / 2, ticks);
}
}  // namespace

CanReceiveClock::CanReceiveClock(uint32_t serial) : clock_(anchor(serial, &anchored_)) {}

void CanReceiveClock::stamp(uint32_t ticks, uint64_t* sec, uint32_t* usec) {
  if (!anchored_) {
    clock_ = FrameClock(now_wall_us(), ticks);
    anchored_ = true;
  }
  const uint64_t us = clock_.wall_us(ticks);
  *sec = us / 1000000;
  *usec = uint32_t(us % 1000000);
}

}  // namespace veltrix::tools
