// The registry of adapters: one record per adapter seen by a scan, kept in a doubly linked
// list between two sentinels. Records are found by serial (the device handle), position,
// port path or libusb device.
//
// Lifetime: a record, once handed out, is never freed. Deleting or pruning a record only
// takes it out of the list; it keeps its serial and last place, and a later scan that finds
// the same adapter links that very record again. A pointer from usb_list_post therefore
// stays readable for the life of the process, whatever scans run meanwhile.
//
// Locking: scans run under the global lock. A record's handle, opened flag and device
// object are used and changed only under that adapter's lock (lock(serial)), so a handle is
// never closed while a transfer runs on it, and a closed handle is replaced by null before
// the lock is released. The list links and the fields the look-ups compare (serial, device,
// place) are written under an internal list mutex, a leaf lock held for one list operation.
// Each record holds its own reference on its libusb device, so freeing a scan's device list
// never leaves a record pointing at a released device.
#pragma once

#include <libusb.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "veltrix/api.h"

struct usb_list {
  usb_list* next;
  usb_list* prev;
  libusb_device* device;         // from the latest scan (referenced); null if unknown
  libusb_device_handle* handle;  // null while the adapter is closed
  uint32_t serial;               // the device handle of the API
  uint8_t opened;                // 1 when interface 0 is claimed
  uint8_t bus;
  uint8_t address;
  uint8_t port;
  char port_path[16];  // "1.4.2"
};

namespace veltrix {

struct RegistryState {
  libusb_context* ctx = nullptr;
  // List from the most recent scan, kept until the next. A scan replaces it under the
  // global lock, while a re-connect walks it holding only an adapter lock: both also hold
  // devs_mutex (a leaf lock: nothing is locked while holding it).
  std::mutex devs_mutex;
  libusb_device** devs = nullptr;  // guarded by devs_mutex
  // Cleared (with release order) once ctx exists; read without the global lock.
  std::atomic<uint8_t> usb_need_init_flag{1};
  usb_list head{};
  usb_list tail{};
};

RegistryState& registry();

// True once the libusb context and the registry exist.
bool registry_ready();

// Field updates of a record that may be linked and in use by other threads. The caller
// holds the adapter's lock (or owns a record no one else has seen yet).
void set_serial(usb_list* record, uint32_t serial);
// Takes a reference on device and drops the one on the record's previous device.
void set_device(usb_list* record, libusb_device* device);
// Bus, address, port number and port path of device, which must be the record's device.
void set_place(usb_list* record, libusb_device* device, const char* port_path);

}  // namespace veltrix

extern "C" {

VELTRIX_API usb_list* usb_list_post(uint32_t handle);
VELTRIX_API int usb_list_get_index(uint32_t handle);
VELTRIX_API usb_list* usb_list_post_with_index(int index);
VELTRIX_API usb_list* usb_list_post_port(const char* path);
VELTRIX_API usb_list* usb_list_post_with_dev(libusb_device* device);
VELTRIX_API usb_list* usb_list_post_bus(libusb_device* device, uint8_t bus, uint8_t port);
VELTRIX_API void usb_list_add(usb_list* record);
VELTRIX_API void usb_list_del(usb_list* record);
VELTRIX_API int usb_list_get_devnums(uint32_t* out);
VELTRIX_API int usb_list_length(void);
VELTRIX_API int usb_list_is_empty(void);
VELTRIX_API void usb_list_clear(void);
VELTRIX_API void usb_list_init(void);

VELTRIX_API int get_ports_str(libusb_device* device, char* out);
VELTRIX_API int get_dev_serial(usb_list* record, uint32_t* out);
VELTRIX_API int scan_dev(uint32_t* out);
VELTRIX_API int rescan_dev(uint32_t* out);
VELTRIX_API int open_dev2(uint32_t handle);
VELTRIX_API int open_dev(uint32_t handle);
VELTRIX_API int close_dev(uint32_t handle);
VELTRIX_API int reset_dev(uint32_t handle);
VELTRIX_API int retry_connect_dev(uint32_t handle);
VELTRIX_API void del_dead_device(void);

}  // extern "C"
