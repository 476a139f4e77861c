// Process-wide locks.
//
// Lock order: the global lock (lock_all) before an adapter lock (lock(handle)); an adapter
// lock is never held while taking a channel data lock of the CAN families. None of the
// locks is recursive. Each lock is created on first use and lives until the process ends;
// the maps that find them are guarded, so two threads may take a new key at once.
#pragma once

#include <cstdint>
#include <mutex>

#include "veltrix/usb_device.h"

namespace veltrix {

enum class LockFamily { Can, CanData, Lin, SpiData, PaData };

// RAII guards over the exported lock functions; families use these, never bare pairs.
class GlobalLock {
 public:
  GlobalLock() { lock_all(); }
  ~GlobalLock() { unlock_all(); }
  GlobalLock(const GlobalLock&) = delete;
  GlobalLock& operator=(const GlobalLock&) = delete;
};

class AdapterLock {
 public:
  explicit AdapterLock(uint32_t handle) : handle_(handle) { lock(handle_); }
  ~AdapterLock() { unlock(handle_); }
  AdapterLock(const AdapterLock&) = delete;
  AdapterLock& operator=(const AdapterLock&) = delete;

 private:
  uint32_t handle_;
};

// True when the calling thread holds the adapter's lock.
bool adapter_lock_held(uint32_t handle);

// Holds the adapter's lock for one USB transfer unless the calling thread already holds
// it (as every exchange does). A transfer then never meets a handle that a scan, open,
// close or re-connect of another thread is closing.
class AdapterUse {
 public:
  explicit AdapterUse(uint32_t handle) : handle_(handle), taken_(!adapter_lock_held(handle)) {
    if (taken_) lock(handle_);
  }
  ~AdapterUse() {
    if (taken_) unlock(handle_);
  }
  AdapterUse(const AdapterUse&) = delete;
  AdapterUse& operator=(const AdapterUse&) = delete;

 private:
  uint32_t handle_;
  bool taken_;
};

void channel_lock(LockFamily family, uint32_t handle, int channel);
void channel_unlock(LockFamily family, uint32_t handle, int channel);

class ChannelLock {
 public:
  ChannelLock(LockFamily family, uint32_t handle, int channel)
      : family_(family), handle_(handle), channel_(channel) {
    channel_lock(family_, handle_, channel_);
  }
  ~ChannelLock() { channel_unlock(family_, handle_, channel_); }
  ChannelLock(const ChannelLock&) = delete;
  ChannelLock& operator=(const ChannelLock&) = delete;

 private:
  LockFamily family_;
  uint32_t handle_;
  int channel_;
};

// Composite key of the channel lock maps: the handle's 32 bits above the channel index.
inline int64_t channel_key(uint32_t handle, int channel) {
  return int64_t(uint64_t(handle) << 32) | int64_t(channel);
}

}  // namespace veltrix
