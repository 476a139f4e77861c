#include "device/close_hooks.hpp"

#include <algorithm>
#include <mutex>
#include <vector>

namespace veltrix {
namespace {

struct Hooks {
  std::mutex mutex;
  std::vector<CloseHook> list;  // guarded by mutex
};

Hooks& hooks() {
  // Never destroyed: a close may run while the process exits.
  static Hooks* h = new Hooks;
  return *h;
}

}  // namespace

void add_close_hook(CloseHook hook) {
  Hooks& h = hooks();
  std::scoped_lock g(h.mutex);
  if (hook != nullptr && std::find(h.list.begin(), h.list.end(), hook) == h.list.end())
    h.list.push_back(hook);
}

void run_close_hooks(uint32_t handle) {
  std::vector<CloseHook> copy;
  {
    Hooks& h = hooks();
    std::scoped_lock g(h.mutex);
    copy = h.list;
  }
  for (CloseHook hook : copy) hook(handle);
}

}  // namespace veltrix
