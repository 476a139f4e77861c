#include "ldf/storage.hpp"

#include <mutex>
#include <unordered_map>

namespace veltrix::ldf {
namespace {

struct Entry {
  std::vector<std::unique_ptr<Storage>> storages;
  bool owns_record = false;
};

struct Registry {
  std::mutex mutex;
  std::unordered_map<LDF_CODING*, Entry> entries;  // guarded by mutex
};

// Never destroyed: handles may be released from atexit handlers or static destructors.
Registry& registry() {
  static auto* r = new Registry;
  return *r;
}

}  // namespace

void adopt(LDF_CODING* record, std::unique_ptr<Storage> storage, bool owns_record) {
  Registry& r = registry();
  std::scoped_lock lock(r.mutex);
  Entry& e = r.entries[record];
  e.storages.push_back(std::move(storage));
  e.owns_record = e.owns_record || owns_record;
}

int release(LDF_CODING* record) {
  Entry entry;
  {
    Registry& r = registry();
    std::scoped_lock lock(r.mutex);
    auto it = r.entries.find(record);
    if (it == r.entries.end()) return -4;
    entry = std::move(it->second);
    r.entries.erase(it);
  }
  if (entry.owns_record) {
    delete record;
  } else {
    *record = LDF_CODING{};  // a caller's own record: no dangling pointers left in it
  }
  return 0;  // entry's storages are freed here, outside the lock
}

}  // namespace veltrix::ldf
