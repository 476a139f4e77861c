#include "device/locks.hpp"

#include <atomic>
#include <map>
#include <thread>

#include "device/abi.hpp"

namespace veltrix {
namespace {

// A mutex that knows its owner, so that an unlock from a thread that does not hold it is
// refused instead of corrupting the mutex.
struct OwnedMutex {
  std::mutex m;
  std::atomic<std::thread::id> owner{};

  void lock() {
    m.lock();
    owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  // Only the owner stores its own id, so the answer is exact for the calling thread.
  bool held_here() const {
    return owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  void unlock() {
    if (owner.load(std::memory_order_relaxed) != std::this_thread::get_id()) return;
    owner.store(std::thread::id(), std::memory_order_relaxed);
    m.unlock();
  }
};

template <typename Key>
class LockMap {
 public:
  // The mutexes are never destroyed: a thread may still be blocked on one when the map
  // would otherwise drop it.
  OwnedMutex& get(Key key) {
    std::scoped_lock guard(map_mutex_);
    auto it = map_.find(key);
    if (it == map_.end()) it = map_.emplace(key, new OwnedMutex).first;
    return *it->second;
  }

 private:
  std::mutex map_mutex_;
  std::map<Key, OwnedMutex*> map_;  // guarded by map_mutex_
};

struct LockState {
  OwnedMutex all;
  LockMap<int32_t> devices;
  LockMap<int64_t> families[5];
};

// Built on first use and never torn down, so locks taken from static destructors or from
// threads still running at exit remain valid.
LockState& state() {
  static LockState* s = new LockState;
  return *s;
}

OwnedMutex& family_mutex(LockFamily f, uint32_t handle, int channel) {
  return state().families[static_cast<int>(f)].get(channel_key(handle, channel));
}

}  // namespace

bool adapter_lock_held(uint32_t handle) { return state().devices.get(int32_t(handle)).held_here(); }

void channel_lock(LockFamily f, uint32_t handle, int channel) {
  family_mutex(f, handle, channel).lock();
}
void channel_unlock(LockFamily f, uint32_t handle, int channel) {
  family_mutex(f, handle, channel).unlock();
}

}  // namespace veltrix

using veltrix::LockFamily;

extern "C" {

VELTRIX_EXPORT_VOID(lock_all, (void), { veltrix::state().all.lock(); })
VELTRIX_EXPORT_VOID(unlock_all, (void), { veltrix::state().all.unlock(); })
VELTRIX_EXPORT_VOID(lock, (unsigned int h), { veltrix::state().devices.get(int32_t(h)).lock(); })
VELTRIX_EXPORT_VOID(unlock, (unsigned int h),
                    { veltrix::state().devices.get(int32_t(h)).unlock(); })

#define VELTRIX_FAMILY_LOCK_PAIR(lock_name, unlock_name, family) \
  VELTRIX_EXPORT_VOID(lock_name, (unsigned int h, int ch),       \
                      { veltrix::channel_lock(family, h, ch); }) \
  VELTRIX_EXPORT_VOID(unlock_name, (unsigned int h, int ch),     \
                      { veltrix::channel_unlock(family, h, ch); })
VELTRIX_FAMILY_LOCK_PAIR(can_lock, can_unlock, LockFamily::Can)
VELTRIX_FAMILY_LOCK_PAIR(can_data_lock, can_data_unlock, LockFamily::CanData)
VELTRIX_FAMILY_LOCK_PAIR(lin_lock, lin_unlock, LockFamily::Lin)
VELTRIX_FAMILY_LOCK_PAIR(spi_data_lock, spi_data_unlock, LockFamily::SpiData)
VELTRIX_FAMILY_LOCK_PAIR(pa_data_lock, pa_data_unlock, LockFamily::PaData)
#undef VELTRIX_FAMILY_LOCK_PAIR

}  // extern "C"
