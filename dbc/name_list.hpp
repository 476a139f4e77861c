// The receivers of a signal: node names as the file lists them, in one TextBlock (a
// signal record holds one pointer, and a list costs one small block).
#pragma once

#include <string_view>
#include <vector>

#include "dbc/text_block.hpp"

namespace veltrix::dbc {

class NameList {
 public:
  NameList() = default;
  explicit NameList(const std::vector<std::string_view>& names) : block_(names, {}) {}

  bool empty() const { return size() == 0; }
  size_t size() const { return block_.size(); }
  // Name i in file order; i below size(). data() is zero-terminated.
  std::string_view operator[](size_t i) const { return block_.text(i); }
  std::string_view front() const { return block_.text(0); }  // a non-empty list only

  friend bool operator==(const NameList& a, const NameList& b) { return a.block_ == b.block_; }

 private:
  TextBlock block_;
};

}  // namespace veltrix::dbc
