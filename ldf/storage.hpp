// Ownership of decoded LDF data. The C records hold plain pointers; every string and array
// they point at lives in one Storage per decode, and a process-wide registry maps each
// LDF_CODING record to the storages decoded into it, so LDF_Release can free exactly
// what belongs to a record and refuse pointers it never handed out.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

#include "veltrix/ldf.h"

namespace veltrix::ldf {

class Storage {
 public:
  // NUL-terminated copy of s.
  char* str(std::string_view s) {
    auto* p = static_cast<char*>(block(s.size() + 1));
    if (!s.empty()) std::memcpy(p, s.data(), s.size());
    return p;
  }

  // Copy of v in one block; null for an empty vector.
  template <typename T>
  T* array(const std::vector<T>& v) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (v.empty()) return nullptr;
    auto* p = static_cast<T*>(block(v.size() * sizeof(T)));
    std::memcpy(static_cast<void*>(p), v.data(), v.size() * sizeof(T));
    return p;
  }

  // One zeroed T.
  template <typename T>
  T* one() {
    static_assert(std::is_trivially_copyable_v<T>);
    return static_cast<T*>(block(sizeof(T)));
  }

 private:
  // Zeroed, aligned for any record (operator new[] aligns to max_align_t).
  void* block(size_t n) {
    blocks_.push_back(std::make_unique<std::byte[]>(n));
    return blocks_.back().get();
  }
  std::vector<std::unique_ptr<std::byte[]>> blocks_;
};

// Hands the storage of a successful decode of *record to the registry. owns_record marks a
// record allocated by LDF_ParserFile, which LDF_Release then deletes as well.
void adopt(LDF_CODING* record, std::unique_ptr<Storage> storage, bool owns_record);

// Frees everything registered for record. Returns 0, or -4 for an unknown record.
int release(LDF_CODING* record);

}  // namespace veltrix::ldf
