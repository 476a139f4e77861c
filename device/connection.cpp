// Finding, opening, closing, resetting and re-connecting adapters.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "device/abi.hpp"
#include "device/close_hooks.hpp"
#include "device/identity.hpp"
#include "device/locks.hpp"
#include "device/registry.hpp"
#include "device/usb_io.hpp"
#include "device/wire.hpp"

namespace veltrix {
namespace {

// Creates the registry and the libusb context on first use; returns libusb's result.
int init_library() {
  RegistryState& s = registry();
  if (!s.usb_need_init_flag) return 0;
  usb_list_init();
  int r = libusb_init(&s.ctx);
  if (r < 0) return r;
  libusb_set_option(s.ctx, LIBUSB_OPTION_LOG_LEVEL, LIBUSB_LOG_LEVEL_NONE);
  s.usb_need_init_flag.store(0, std::memory_order_release);
  return 0;
}

bool is_adapter(libusb_device* dev) {
  libusb_device_descriptor d{};
  if (libusb_get_device_descriptor(dev, &d) != 0) return false;
  return d.idVendor == identity::kVendorId && identity::is_product_id(d.idProduct);
}

// Reads the serial through the record's handle into the record. The caller holds the
// adapter's lock, taken under the serial the application knows the record by.
bool read_serial(usb_list* r) {
  uint32_t serial = 0;
  if (!get_dev_serial(r, &serial)) return false;
  set_serial(r, serial);
  return true;
}

// The caller holds the adapter's lock: no transfer can be running on the handle.
void close_handle(usb_list* r) {
  if (r->handle) libusb_close(r->handle);
  r->handle = nullptr;
}

// Probes a device at a port path the registry already knows. Returns whether it is seen.
// The whole probe runs under the adapter's lock: the handle it may close or replace can
// be in use by a command of another thread.
bool probe_known(usb_list* r, libusb_device* dev) {
  AdapterLock guard(r->serial);
  set_device(r, dev);
  if (r->opened) {
    if (read_serial(r)) return true;
    // The old handle no longer answers; the device may have been re-plugged.
    libusb_device_handle* h = nullptr;
    if (libusb_open(dev, &h) != 0) return true;  // keeps the record as it is
    close_handle(r);
    r->handle = h;
    if (libusb_claim_interface(h, 0) != 0) r->opened = 0;
    if (read_serial(r)) return true;
    close_handle(r);  // the record is dropped: its handle must not outlive it open
    r->opened = 0;
    return false;
  }
  close_handle(r);
  if (libusb_open(dev, &r->handle) != 0 || r->handle == nullptr) {
    r->handle = nullptr;
    return false;
  }
  bool ok = read_serial(r);
  close_handle(r);
  return ok;
}

// After a re-plug libusb retires the old device object, so it can no longer be opened.
// Look for the adapter at the same port path in a fresh device list, open it, and adopt it
// only if it answers with the record's serial. The held scan list is left as it is.
int adopt_replugged(usb_list* r) {
  libusb_device** fresh = nullptr;
  ssize_t n = libusb_get_device_list(registry().ctx, &fresh);
  int result = LIBUSB_ERROR_NO_DEVICE;
  for (ssize_t i = 0; i < n && result != 0; ++i) {
    char path[16] = {0};
    if (!is_adapter(fresh[i]) || !get_ports_str(fresh[i], path) ||
        std::strncmp(path, r->port_path, sizeof path) != 0)
      continue;
    usb_list probe = *r;
    probe.device = fresh[i];
    probe.handle = nullptr;
    if (libusb_open(fresh[i], &probe.handle) != 0) continue;
    uint32_t serial = 0;
    if (get_dev_serial(&probe, &serial) && serial == r->serial) {
      // The record takes its own reference; the list's goes when it is freed below.
      set_device(r, fresh[i]);
      set_place(r, fresh[i], path);
      r->handle = probe.handle;
      result = 0;
    } else {
      libusb_close(probe.handle);
    }
  }
  if (n >= 0) libusb_free_device_list(fresh, 1);
  return result;
}

enum class NewDevice { Registered, OpenFailed, NotOurs };

NewDevice probe_new(libusb_device* dev, const char* path, uint32_t* serial_out) {
  // Nobody else sees this record until usb_list_add links it.
  auto* r = static_cast<usb_list*>(std::calloc(1, sizeof(usb_list)));
  if (r == nullptr) return NewDevice::NotOurs;
  auto discard = [r] {
    close_handle(r);
    if (r->device) libusb_unref_device(r->device);
    std::free(r);
  };
  set_device(r, dev);
  set_place(r, dev, path);
  if (libusb_open(dev, &r->handle) != 0 || r->handle == nullptr) {
    r->handle = nullptr;
    discard();
    return NewDevice::OpenFailed;
  }
  uint32_t serial = 0;
  if (!get_dev_serial(r, &serial)) {
    discard();
    return NewDevice::NotOurs;
  }
  r->serial = serial;
  *serial_out = serial;
  AdapterLock guard(serial);
  if (usb_list* same = usb_list_post(serial)) {
    // The adapter left the place its record knows: a handle still open there belongs to
    // a device that is gone.
    close_handle(same);
    same->opened = 0;
  }
  usb_list_add(r);
  if (r->next == nullptr) {
    // Merged into the record that already held this serial (or came back to it): that
    // record now carries the handle opened here, which is closed through this one.
    if (usb_list* same = usb_list_post(serial); same && same->handle == r->handle) {
      same->handle = nullptr;
      same->opened = 0;
    }
    discard();
  } else {
    close_handle(r);
  }
  return NewDevice::Registered;
}

void prune(const std::vector<uint32_t>& seen) {
  for (;;) {
    std::vector<uint32_t> all(static_cast<size_t>(usb_list_length()));
    int n = usb_list_get_devnums(all.data());
    usb_list* victim = nullptr;
    for (int i = 0; i < n && !victim; ++i) {
      bool found = false;
      for (uint32_t s : seen) found = found || s == all[i];
      if (!found) victim = usb_list_post_with_index(i);
    }
    if (!victim) return;
    AdapterLock guard(victim->serial);
    close_handle(victim);
    victim->opened = 0;
    usb_list_del(victim);
  }
}

}  // namespace

int scan_locked(uint32_t* out) {
  RegistryState& s = registry();
  if (int r = init_library(); r < 0) return r;
  libusb_device** list = nullptr;
  ssize_t count = libusb_get_device_list(s.ctx, &list);
  {
    std::scoped_lock g(s.devs_mutex);
    if (s.devs) libusb_free_device_list(s.devs, 1);
    s.devs = count < 0 ? nullptr : list;
  }
  if (count < 0) return int(count);

  // Only scans replace the list, and scans are serialised by the global lock, so this
  // one stays valid for the whole walk.
  std::vector<uint32_t> seen;
  for (ssize_t i = 0; i < count; ++i) {
    libusb_device* dev = list[i];
    libusb_device_descriptor d{};
    if (libusb_get_device_descriptor(dev, &d) != 0) continue;
    char path[16] = {0};
    get_ports_str(dev, path);
    if (!is_adapter(dev)) continue;

    if (usb_list* r = usb_list_post_port(path); r != nullptr && path[0] != '\0') {
      if (probe_known(r, dev)) {
        seen.push_back(r->serial);
      } else {
        AdapterLock guard(r->serial);
        close_handle(r);
        r->opened = 0;
        usb_list_del(r);
      }
      continue;
    }
    uint32_t serial = 0;
    switch (probe_new(dev, path, &serial)) {
      case NewDevice::Registered: seen.push_back(serial); break;
      case NewDevice::OpenFailed: seen.push_back(0); break;
      case NewDevice::NotOurs: break;
    }
  }
  prune(seen);
  return usb_list_get_devnums(out);
}

}  // namespace veltrix

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, get_ports_str, (libusb_device * device, char* out), 0, {
  if (device == nullptr || out == nullptr) return 0;
  uint8_t ports[16];
  int n = libusb_get_port_numbers(device, ports, sizeof ports);
  if (n < 1) return 0;
  // Each number takes at most four characters (".255"); the record holds 15 plus the NUL,
  // so a deeper path is cut at the last whole number that fits.
  char text[16 * 4 + 1] = {0};
  size_t len = 0;
  for (int i = 0; i < n; ++i)
    len += size_t(std::snprintf(text + len, sizeof text - len, ".%u", ports[i]));
  const char* body = text + 1;
  size_t body_len = std::strlen(body);
  if (body_len > 15) {
    body_len = 15;
    while (body_len > 0 && body[body_len] != '.') --body_len;
  }
  std::memcpy(out, body, body_len);
  out[body_len] = '\0';
  return 1;
})

VELTRIX_EXPORT(int, get_dev_serial, (usb_list * record, uint32_t* out), 0, {
  if (record == nullptr || record->handle == nullptr || record->device == nullptr) return 0;
  libusb_device_descriptor d{};
  if (libusb_get_device_descriptor(record->device, &d) != 0) return 0;
  unsigned char text[256] = {0};
  int len = libusb_get_string_descriptor_ascii(record->handle, d.iManufacturer, text,
                                               sizeof text - 1);
  if (len < 0) return 0;
  text[len] = '\0';
  bool match = false;
  for (const char* m : identity::kManufacturerStrings)
    match = match || std::strcmp(reinterpret_cast<const char*>(text), m) == 0;
  if (!match || len < identity::kMinManufacturerLength) return 0;
  uint8_t raw[4] = {0};
  int got = libusb_control_transfer(record->handle, identity::kReqTypeVendorIn,
                                    identity::kReqReadSerial, 0, 0, raw, sizeof raw,
                                    identity::kControlTimeoutMs);
  if (got != 4) return 0;
  if (out) *out = wire::get_le32(raw);
  return 1;
})

VELTRIX_EXPORT(int, scan_dev, (uint32_t * out), int(LIBUSB_ERROR_OTHER), {
  GlobalLock guard;
  return scan_locked(out);
})

VELTRIX_EXPORT(int, rescan_dev, (uint32_t * out), int(LIBUSB_ERROR_OTHER),
               { return scan_dev(out); })

VELTRIX_EXPORT(int, USB_ScanDevice, (unsigned int* out), int(LIBUSB_ERROR_OTHER),
               { return scan_dev(out); })

VELTRIX_EXPORT(int, open_dev, (uint32_t handle), 0, {
  if (!registry_ready()) return 0;
  usb_list* r = usb_list_post(handle);
  if (r == nullptr) return 0;
  AdapterLock guard(handle);
  if (r->device == nullptr) return 0;
  if (r->opened) {
    uint32_t serial = 0;
    if (get_dev_serial(r, &serial)) {
      if (serial == r->serial && libusb_claim_interface(r->handle, 0) == 0) {
        r->opened = 1;
        return 1;
      }
      // Another adapter answers behind this handle: drop it. Closing it is safe and
      // keeps the process from leaking descriptors.
      close_handle(r);
      r->opened = 0;
      return 0;
    }
    close_handle(r);
  }
  close_handle(r);
  if (libusb_open(r->device, &r->handle) == 0 && r->handle != nullptr &&
      libusb_claim_interface(r->handle, 0) == 0) {
    r->opened = 1;
    return 1;
  }
  close_handle(r);
  r->opened = 0;
  return 0;
})

VELTRIX_EXPORT(int, open_dev2, (uint32_t handle), 0, {
  if (!registry_ready()) {
    GlobalLock guard;
    init_library();
  }
  bool known = false;
  if (usb_list* r = usb_list_post(handle)) {
    AdapterLock guard(handle);  // a scan or re-connect may be replacing the device
    known = r->device != nullptr;
  }
  if (!known) {
    // One scan; the handle must be among the adapters it registered.
    if (scan_dev(nullptr) <= 0 || usb_list_post(handle) == nullptr) return 0;
  }
  return open_dev(handle);
})

VELTRIX_EXPORT(int, USB_OpenDevice, (unsigned int handle), 0, { return open_dev2(handle); })

VELTRIX_EXPORT(int, close_dev, (uint32_t handle), 0, {
  if (!registry_ready()) return 0;
  usb_list* r = usb_list_post(handle);
  if (r == nullptr) return 0;
  // Checked under the lock: a scan or re-connect may close the handle meanwhile.
  AdapterLock guard(handle);
  if (r->device == nullptr || r->handle == nullptr) return 0;
  libusb_release_interface(r->handle, 0);
  close_handle(r);
  r->opened = 0;
  return 1;
})

VELTRIX_EXPORT(int, USB_CloseDevice, (unsigned int handle), 0, {
  run_close_hooks(handle);
  return close_dev(handle);
})

VELTRIX_EXPORT(int, reset_dev, (uint32_t handle), 0, {
  AdapterLock guard(handle);
  return USBCtrlData(handle, identity::kReqTypeVendorOut, identity::kReqReset, 0, 0, nullptr, 0,
                     identity::kControlTimeoutMs) == 0
             ? 1
             : 0;
})

VELTRIX_EXPORT(int, USB_ResetDevice, (unsigned int handle), 0, { return reset_dev(handle); })

VELTRIX_EXPORT(int, retry_connect_dev, (uint32_t handle), 0, {
  RegistryState& s = registry();
  if (!registry_ready()) return 0;
  usb_list* r = usb_list_post(handle);
  if (r == nullptr) return 0;
  bool present = false;
  {
    std::scoped_lock g(s.devs_mutex);
    if (s.devs == nullptr && libusb_get_device_list(s.ctx, &s.devs) < 0) s.devs = nullptr;
    if (s.devs == nullptr) return 0;
    for (libusb_device** d = s.devs; *d != nullptr && !present; ++d) {
      char path[16] = {0};
      present = is_adapter(*d) && get_ports_str(*d, path) &&
                std::strncmp(path, r->port_path, sizeof path) == 0;
    }
  }
  if (!present || r->device == nullptr) return 0;
  if (r->handle) {
    close_handle(r);
    r->opened = 0;
  }
  // The record's own device object is opened, not the one found in the walk.
  int opened = libusb_open(r->device, &r->handle);
  if (opened == LIBUSB_ERROR_NO_DEVICE) opened = adopt_replugged(r);
  if (opened != 0 || r->handle == nullptr) {
    r->handle = nullptr;
    return 0;
  }
  if (libusb_claim_interface(r->handle, 0) != 0) return 0;
  r->opened = 1;
  return 1;
})

VELTRIX_EXPORT(int, USB_RetryConnect, (unsigned int handle), 0, {
  GlobalLock global;
  AdapterLock adapter(handle);
  return retry_connect_dev(handle);
})

VELTRIX_EXPORT(int, USB_WaitResume, (unsigned int handle, int timeout_ms), 0, {
  auto start = std::chrono::system_clock::now();
  for (;;) {
    if (USB_RetryConnect(handle)) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::system_clock::now() - start)
                  .count();
    if (double(us) * 0.001 >= double(timeout_ms)) return 0;
  }
})

VELTRIX_EXPORT_VOID(del_dead_device, (void), {
  // Walks by position so that a record without a device object cannot stall the sweep.
  // Like a scan, it runs under the global lock and touches each adapter under its lock.
  GlobalLock global;
  for (int i = 0; usb_list* r = usb_list_post_with_index(i);) {
    AdapterLock adapter(r->serial);
    if (r->device == nullptr) {
      ++i;
      continue;
    }
    if (retry_connect_dev(r->serial)) {
      close_handle(r);
      ++i;
    } else {
      close_handle(r);
      r->opened = 0;
      usb_list_del(r);
    }
  }
})

}  // extern "C"
