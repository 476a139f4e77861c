// A text that most records leave empty (a message's or signal's comment): one pointer in
// the record, nothing allocated while empty, one block holding exactly the text otherwise.
#pragma once

#include <ostream>
#include <string_view>

#include "dbc/text_block.hpp"

namespace veltrix::dbc {

class RareText {
 public:
  RareText() = default;
  explicit RareText(std::string_view text) {
    if (!text.empty()) block_ = TextBlock({text}, {});
  }

  bool empty() const { return block_.size() == 0; }
  // data() is zero-terminated.
  std::string_view view() const { return empty() ? std::string_view("") : block_.text(0); }

  friend bool operator==(const RareText& a, std::string_view b) { return a.view() == b; }
  friend std::ostream& operator<<(std::ostream& out, const RareText& t) { return out << t.view(); }

 private:
  TextBlock block_;
};

}  // namespace veltrix::dbc
