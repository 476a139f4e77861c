// Registry list operations.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "device/abi.hpp"
#include "device/registry.hpp"

namespace veltrix {
namespace {

std::mutex& list_mutex() {
  static std::mutex* m = new std::mutex;
  return *m;
}

bool is_sentinel(const usb_list* r) { return r == &registry().head || r == &registry().tail; }

// Records taken out of the list. Another thread may still hold any of them, so none is
// ever freed; one comes back into the list when its adapter is registered again, which
// bounds this to one record per adapter ever seen. Guarded by list_mutex().
std::vector<usb_list*>& retired() {
  static auto* v = new std::vector<usb_list*>;
  return *v;
}

void retire_unlocked(usb_list* r) {
  retired().push_back(r);  // first, so that a failed allocation leaves the list intact
  if (r->prev) r->prev->next = r->next;
  if (r->next) r->next->prev = r->prev;
  r->next = nullptr;
  r->prev = nullptr;
}

void link_at_tail_unlocked(usb_list* r) {
  usb_list& tail = registry().tail;
  r->prev = tail.prev;
  r->next = &tail;
  tail.prev->next = r;
  tail.prev = r;
}

void copy_place_unlocked(usb_list* to, const usb_list* from) {
  to->bus = from->bus;
  to->address = from->address;
  to->port = from->port;
  std::memcpy(to->port_path, from->port_path, sizeof to->port_path);
}

void swap_device_unlocked(usb_list* r, libusb_device* device) {
  if (device == r->device) return;
  if (device) libusb_ref_device(device);
  if (r->device) libusb_unref_device(r->device);
  r->device = device;
}

void init_unlocked() {
  RegistryState& s = registry();
  s.head = usb_list{};
  s.tail = usb_list{};
  s.head.next = &s.tail;
  s.tail.prev = &s.head;
}

// Before usb_list_init both sentinels are zeroed; treat that as empty.
usb_list* first() {
  usb_list* n = registry().head.next;
  return n == nullptr ? &registry().tail : n;
}

void retire_all_unlocked() {
  usb_list* r = first();
  while (r != &registry().tail && r != nullptr) {
    usb_list* next = r->next;
    retire_unlocked(r);
    r = next;
  }
  init_unlocked();
}

template <typename Pred>
usb_list* find_unlocked(Pred pred) {
  for (usb_list* r = first(); r != &registry().tail && r != nullptr; r = r->next)
    if (pred(r)) return r;
  return nullptr;
}

}  // namespace

RegistryState& registry() {
  static RegistryState* s = new RegistryState;
  return *s;
}

bool registry_ready() { return registry().usb_need_init_flag.load(std::memory_order_acquire) == 0; }

void set_serial(usb_list* r, uint32_t serial) {
  std::scoped_lock g(list_mutex());
  r->serial = serial;
}

void set_device(usb_list* r, libusb_device* device) {
  std::scoped_lock g(list_mutex());
  swap_device_unlocked(r, device);
}

void set_place(usb_list* r, libusb_device* device, const char* port_path) {
  std::scoped_lock g(list_mutex());
  r->bus = libusb_get_bus_number(device);
  r->address = libusb_get_device_address(device);
  r->port = libusb_get_port_number(device);
  std::memset(r->port_path, 0, sizeof r->port_path);
  std::strncpy(r->port_path, port_path, sizeof r->port_path - 1);
}

}  // namespace veltrix

using veltrix::find_unlocked;
using veltrix::list_mutex;
using veltrix::registry;

extern "C" {

VELTRIX_EXPORT(usb_list*, usb_list_post, (uint32_t handle), nullptr, {
  std::scoped_lock g(list_mutex());
  return find_unlocked([&](usb_list* r) { return r->serial == handle; });
})

VELTRIX_EXPORT(int, usb_list_get_index, (uint32_t handle), -1, {
  // 0xFF0000nn names registry position nn directly.
  if ((handle & 0xFF000000u) == 0xFF000000u) return int(handle & 0xFFu);
  std::scoped_lock g(list_mutex());
  int i = 0;
  for (usb_list* r = veltrix::first(); r != &registry().tail && r != nullptr; r = r->next, ++i)
    if (r->serial == handle) return i;
  return -1;
})

VELTRIX_EXPORT(usb_list*, usb_list_post_with_index, (int index), nullptr, {
  std::scoped_lock g(list_mutex());
  int i = 0;
  return find_unlocked([&](usb_list*) { return i++ == index; });
})

VELTRIX_EXPORT(usb_list*, usb_list_post_port, (const char* path), nullptr, {
  if (path == nullptr) return nullptr;
  std::scoped_lock g(list_mutex());
  return find_unlocked([&](usb_list* r) {
    return std::strncmp(r->port_path, path, sizeof r->port_path) == 0;
  });
})

VELTRIX_EXPORT(usb_list*, usb_list_post_with_dev, (libusb_device * device), nullptr, {
  std::scoped_lock g(list_mutex());
  return find_unlocked([&](usb_list* r) { return r->device == device; });
})

VELTRIX_EXPORT(usb_list*, usb_list_post_bus, (libusb_device * device, uint8_t bus, uint8_t port),
               nullptr, {
                 std::scoped_lock g(list_mutex());
                 return find_unlocked([&](usb_list* r) {
                   return r->bus == bus && r->port == port && r->device == device;
                 });
               })

VELTRIX_EXPORT_VOID(usb_list_add, (usb_list * record), {
  if (record == nullptr || veltrix::is_sentinel(record)) return;
  std::scoped_lock g(list_mutex());
  usb_list* same = find_unlocked([&](usb_list* r) { return r->serial == record->serial; });
  if (same == nullptr) {
    // An adapter that was registered before comes back in its old record, so that
    // pointers still held to that record see it again.
    auto& old = veltrix::retired();
    auto it = std::find_if(old.begin(), old.end(),
                           [&](usb_list* r) { return r->serial == record->serial; });
    if (it == old.end()) {
      veltrix::link_at_tail_unlocked(record);
      return;
    }
    same = *it;
    old.erase(it);
    if (same != record) same->opened = 0;
    veltrix::link_at_tail_unlocked(same);
    if (same == record) return;
  }
  // The adapter is already known (it moved to another port, or came back): the existing
  // record takes over the new device and handle, and follows the adapter to its new place.
  veltrix::swap_device_unlocked(same, record->device);
  same->handle = record->handle;
  veltrix::copy_place_unlocked(same, record);
})

VELTRIX_EXPORT_VOID(usb_list_del, (usb_list * record), {
  if (record == nullptr || veltrix::is_sentinel(record)) return;
  std::scoped_lock g(list_mutex());
  if (record->next == nullptr && record->prev == nullptr) return;  // not linked
  veltrix::retire_unlocked(record);
})

VELTRIX_EXPORT(int, usb_list_get_devnums, (uint32_t * out), 0, {
  std::scoped_lock g(list_mutex());
  int n = 0;
  for (usb_list* r = veltrix::first(); r != &registry().tail && r != nullptr; r = r->next) {
    if (out) out[n] = r->serial;
    ++n;
  }
  return n;
})

VELTRIX_EXPORT(int, usb_list_length, (void), 0, { return usb_list_get_devnums(nullptr); })

VELTRIX_EXPORT(int, usb_list_is_empty, (void), 1, {
  std::scoped_lock g(list_mutex());
  return veltrix::first() == &registry().tail;
})

VELTRIX_EXPORT_VOID(usb_list_clear, (void), {
  std::scoped_lock g(list_mutex());
  veltrix::retire_all_unlocked();
})

VELTRIX_EXPORT_VOID(usb_list_init, (void), {
  // Records still linked are retired, not dropped: someone may hold them.
  std::scoped_lock g(list_mutex());
  veltrix::retire_all_unlocked();
})

}  // extern "C"
