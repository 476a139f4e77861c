#include "device/usb_io.hpp"

#include <libusb.h>

#include <algorithm>
#include <cstdint>

#include "device/abi.hpp"
#include "device/locks.hpp"
#include "device/registry.hpp"
#include "device/transport.hpp"

namespace {

// libusb waits without end on a time-out of 0; an adapter that stopped answering would
// then hold its lock, and every thread waiting for it, for ever.
unsigned bounded(int timeout_ms) {
  return unsigned(timeout_ms > 0 ? timeout_ms : veltrix::kDefaultTimeoutMs);
}

// The open libusb handle of an adapter, or null if the adapter cannot take a transfer.
// The caller holds the adapter's lock (AdapterUse) for as long as it uses the handle.
libusb_device_handle* open_handle(uint32_t handle, libusb_device** dev = nullptr) {
  if (!veltrix::registry_ready()) return nullptr;
  usb_list* r = usb_list_post(handle);
  if (r == nullptr || r->device == nullptr || r->handle == nullptr) return nullptr;
  if (dev) *dev = r->device;
  return r->handle;
}

int packet_size(libusb_device* dev) {
  return libusb_get_device_speed(dev) == LIBUSB_SPEED_HIGH ? 512 : 64;
}

int fail(libusb_device_handle* h, int code) {
  libusb_reset_device(h);
  return code;
}

}  // namespace

namespace veltrix {

BulkRead bulk_read(uint32_t handle, int ep, uint8_t* buf, size_t len, int timeout_ms) {
  BulkRead out;
  AdapterUse use(handle);
  libusb_device_handle* h = open_handle(handle);
  if (h == nullptr || len > size_t(INT32_MAX) || (buf == nullptr && len > 0)) return out;
  // The adapter may take up to a second to start a reply even to a quick command.
  if (timeout_ms < 1000) timeout_ms = 1000;
  int done = 0;
  int r = libusb_bulk_transfer(h, uint8_t(ep | 0x80), buf, int(len), &done, unsigned(timeout_ms));
  out.got = done > 0 ? std::min(size_t(done), len) : 0;
  if (r == 0 && out.got == len) {
    out.status = ReadStatus::Ok;
    return out;
  }
  out.status = r == LIBUSB_ERROR_TIMEOUT ? ReadStatus::TimedOut
               : r == 0                  ? ReadStatus::Short
                                         : ReadStatus::Failed;
  libusb_reset_device(h);
  return out;
}

}  // namespace veltrix

extern "C" {

VELTRIX_EXPORT(int, USBBulkWriteData,
               (uint32_t handle, int ep, const uint8_t* buf, int len, int timeout_ms), -2, {
                 veltrix::AdapterUse use(handle);
                 libusb_device* dev = nullptr;
                 libusb_device_handle* h = open_handle(handle, &dev);
                 if (h == nullptr || len < 0 || (buf == nullptr && len > 0)) return -2;
                 int done = 0;
                 int r = libusb_bulk_transfer(h, uint8_t(ep), const_cast<uint8_t*>(buf), len, &done,
                                              bounded(timeout_ms));
                 if (r != 0 || done != len) return fail(h, -2);
                 // A transfer that fills its last packet exactly is only complete for the adapter
                 // once a zero-length packet follows.
                 if (len > 0 && len % packet_size(dev) == 0) {
                   r = libusb_bulk_transfer(h, uint8_t(ep), nullptr, 0, &done, bounded(timeout_ms));
                   if (r != 0) return fail(h, -2);
                 }
                 return 0;
               })

VELTRIX_EXPORT(int, USBBulkReadData,
               (uint32_t handle, int ep, uint8_t* buf, int len, int timeout_ms), -3, {
                 if (len < 0) return -3;
                 veltrix::BulkRead r = veltrix::bulk_read(handle, ep, buf, size_t(len), timeout_ms);
                 return r.status == veltrix::ReadStatus::Ok ? int(r.got) : -3;
               })

VELTRIX_EXPORT(int, USBIntWriteData,
               (uint32_t handle, int ep, const uint8_t* buf, int len, int timeout_ms), -2, {
                 veltrix::AdapterUse use(handle);
                 libusb_device_handle* h = open_handle(handle);
                 if (h == nullptr || len < 0 || (buf == nullptr && len > 0)) return -2;
                 int done = 0;
                 int r = libusb_interrupt_transfer(h, uint8_t(ep), const_cast<uint8_t*>(buf), len,
                                                   &done, bounded(timeout_ms));
                 if (r != 0 || done != len) return fail(h, -2);
                 return 0;
               })

VELTRIX_EXPORT(int, USBCtrlData,
               (uint32_t handle, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                uint16_t wIndex, uint8_t* buf, uint16_t wLength, int timeout_ms),
               -2, {
                 veltrix::AdapterUse use(handle);
                 libusb_device_handle* h = open_handle(handle);
                 if (h == nullptr || (buf == nullptr && wLength > 0)) return -2;
                 int r = libusb_control_transfer(h, bmRequestType, bRequest, wValue, wIndex, buf,
                                                 wLength, bounded(timeout_ms));
                 if (r != int(wLength)) return fail(h, -2);
                 return 0;
               })

}  // extern "C"
