// Registry list operations.
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "device/abi.hpp"
#include "device/registry.hpp"

namespace veltrix {
namespace {

std::mutex& list_mutex() {
  static std::mutex* m = new std::mutex;
  return *m;
}

bool is_sentinel(const usb_list* r) { return r == &registry().head || r == &registry().tail; }

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

bool registry_ready() { return registry().usb_need_init_flag == 0; }

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
  if (record == nullptr) return;
  std::scoped_lock g(list_mutex());
  usb_list* same = find_unlocked([&](usb_list* r) { return r->serial == record->serial; });
  if (same != nullptr) {
    // The adapter is already known (it moved to another port): the existing record takes
    // over the new device and handle, and follows the adapter to its new place.
    same->device = record->device;
    same->handle = record->handle;
    same->bus = record->bus;
    same->address = record->address;
    same->port = record->port;
    std::memcpy(same->port_path, record->port_path, sizeof same->port_path);
    return;
  }
  usb_list& tail = registry().tail;
  record->prev = tail.prev;
  record->next = &tail;
  tail.prev->next = record;
  tail.prev = record;
})

VELTRIX_EXPORT_VOID(usb_list_del, (usb_list * record), {
  if (record == nullptr || veltrix::is_sentinel(record)) return;
  std::scoped_lock g(list_mutex());
  if (record->prev) record->prev->next = record->next;
  if (record->next) record->next->prev = record->prev;
  std::free(record);
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
  usb_list* r = veltrix::first();
  while (r != &registry().tail && r != nullptr) {
    usb_list* next = r->next;
    std::free(r);
    r = next;
  }
  veltrix::init_unlocked();
})

VELTRIX_EXPORT_VOID(usb_list_init, (void), {
  std::scoped_lock g(list_mutex());
  veltrix::init_unlocked();
})

}  // extern "C"
