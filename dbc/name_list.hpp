// The receivers of a signal: node names as the file lists them. Signals of one file mostly
// name the same few lists, and a list never changes once built, so records share one block
// per distinct list: a copy takes a reference, the last one frees it. The record holds one
// pointer; an empty list holds nothing.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "dbc/text_block.hpp"

namespace veltrix::dbc {

class NameList {
 public:
  NameList() = default;
  explicit NameList(const std::vector<std::string_view>& names)
      : shared_(names.empty() ? nullptr : new Shared{{1}, TextBlock(names, {})}) {}
  NameList(const NameList& other) : shared_(other.shared_) { take(); }
  NameList(NameList&& other) noexcept : shared_(std::exchange(other.shared_, nullptr)) {}
  NameList& operator=(NameList other) noexcept {
    std::swap(shared_, other.shared_);
    return *this;
  }
  ~NameList() { drop(); }

  bool empty() const { return size() == 0; }
  size_t size() const { return shared_ ? shared_->block.size() : 0; }
  // Name i in file order; i below size(). data() is zero-terminated.
  std::string_view operator[](size_t i) const { return shared_->block.text(i); }
  std::string_view front() const { return shared_->block.text(0); }  // a non-empty list only

  friend bool operator==(const NameList& a, const NameList& b) {
    if (a.shared_ == b.shared_) return true;
    if (!a.shared_ || !b.shared_) return a.size() == b.size();
    return a.shared_->block == b.shared_->block;
  }

 private:
  struct Shared {
    std::atomic<uint32_t> references;
    TextBlock block;
  };

  void take() {
    if (shared_) shared_->references.fetch_add(1, std::memory_order_relaxed);
  }
  void drop() {
    if (shared_ && shared_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete shared_;
    }
  }

  Shared* shared_ = nullptr;
};

}  // namespace veltrix::dbc
