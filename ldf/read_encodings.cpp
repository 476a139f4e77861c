// Signal_encoding_types and Signal_representation.
//
//   Signal_encoding_types{Dig2Bit{logical_value,0,"off";physical_value,1,254,1,100,"lux";}...}
//   Signal_representation{Dig2Bit:InternalLightsRequest,Other;...}
#include <string_view>

#include "ldf/readers.hpp"
#include "ldf/text.hpp"

namespace veltrix::ldf {

int LDF_GetSignalsCoding(const LoadState& st, Storage& mem, std::vector<LDF_SIGNAL_CODING>& out) {
  if (!device_registered()) return -3;
  // The types hold no nested braces, so each '}' ends one.
  for (std::string_view piece : split(strip_braces(st.section(Section::EncodingTypes)), '}')) {
    if (!piece.empty() && piece.front() == '{') piece.remove_prefix(1);
    size_t open = piece.find('{');
    if (open == std::string_view::npos || open == 0) continue;
    std::vector<LDF_LOGICAL_VALUE> logical;
    std::vector<LDF_PHYSICAL_VALUE> physical;
    for (std::string_view item : split(piece.substr(open + 1), ';')) {
      std::vector<std::string_view> f = split(item, ',');
      if (f[0] == "logical_value" && f.size() >= 2) {
        LDF_LOGICAL_VALUE v{};
        v.Value = static_cast<int>(parse_int(f[1]));
        v.Text = mem.str(f.size() >= 3 ? unquote(f[2]) : std::string_view{});
        logical.push_back(v);
      } else if (f[0] == "physical_value" && f.size() >= 5) {
        LDF_PHYSICAL_VALUE v{};
        v.Min = parse_int(f[1]);
        v.Max = parse_int(f[2]);
        v.Scale = parse_decimal(f[3]);
        v.Offset = parse_decimal(f[4]);
        v.Unit = mem.str(f.size() >= 6 ? unquote(f[5]) : std::string_view{});
        physical.push_back(v);
      }
    }
    LDF_SIGNAL_CODING c{};
    c.Name = mem.str(piece.substr(0, open));
    c.LogicalNum = static_cast<int>(logical.size());
    c.PhysicalNum = static_cast<int>(physical.size());
    c.LogicalValues = mem.array(logical);
    c.PhysicalValues = mem.array(physical);
    out.push_back(c);
  }
  return static_cast<int>(out.size());
}

int LDF_GetSignalRepresentations(const LoadState& st, Storage& mem,
                                 std::vector<LDF_SIGNAL_REPRESENTATION>& out) {
  if (!device_registered()) return -3;
  for (std::string_view item : split(strip_braces(st.section(Section::Representation)), ';')) {
    if (item.size() <= 2) continue;
    if (item.front() == '{') item.remove_prefix(1);
    size_t colon = item.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view coding = item.substr(0, colon);
    for (std::string_view signal : split(item.substr(colon + 1), ',')) {
      if (signal.empty()) continue;
      out.push_back({mem.str(signal), mem.str(coding)});
    }
  }
  return static_cast<int>(out.size());
}

}  // namespace veltrix::ldf
