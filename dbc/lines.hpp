// Cutting a DBC file's text into lines, shared by the reader's passes.
#pragma once

#include <cstddef>
#include <string_view>

namespace veltrix::dbc {

// Calls fn(line) for each line of text; "\n" and "\r\n" endings are never part of a line.
// Lines have no length limit. lineNo counts the lines given so far (1-based while fn
// runs). Stops early, returning false, when fn does.
template <typename Fn>
bool for_each_line(std::string_view text, size_t& lineNo, Fn&& fn) {
  lineNo = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    size_t next = end == std::string_view::npos ? text.size() : end + 1;
    if (end == std::string_view::npos) end = text.size();
    if (end > pos && text[end - 1] == '\r') --end;
    ++lineNo;
    if (!fn(text.substr(pos, end - pos))) return false;
    pos = next;
  }
  return true;
}

// Whether the line can be an attribute assignment: once trimmed of semicolons, its first
// word is "BA_". Cheap, so the second pass touches only these lines.
inline bool may_assign_attribute(std::string_view line) {
  const size_t at = line.find_first_not_of(" ;");
  if (at == std::string_view::npos || line.substr(at, 3) != "BA_") return false;
  return at + 3 >= line.size() || line[at + 3] == ' ' || line[at + 3] == ';';
}

}  // namespace veltrix::dbc
