// Signals and Diagnostic_signals.
//
//   Signals{InternalLightsRequest:2,0,CEM,LSM,RSM;bcd_signal:16,{0x32,32},remote,main;}
//   Diagnostic_signals{MasterReqB0:8,0;...}
//
// A brace list as initial value fills ArrayValue. In Signals it only sets HasArrayInit:
// the signal stays a scalar packed through Value (which starts at 0); in
// Diagnostic_signals it also sets IsArray. Files rely on this asymmetry, keep it.
#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "ldf/readers.hpp"
#include "ldf/text.hpp"

namespace veltrix::ldf {
namespace {

void read_initial_value(std::string_view& rest, bool diagnostic, LDF_LIN_SIGNAL& s) {
  if (!rest.empty() && rest.front() == '{') {
    size_t close = rest.find('}');
    std::string_view list = rest.substr(1, close == std::string_view::npos ? rest.npos : close - 1);
    std::vector<std::string_view> bytes = split(list, ',');
    size_t n = std::min<size_t>(bytes.size(), LDF_MAX_ARRAY_BYTES);  // further bytes dropped
    for (size_t i = 0; i < n; ++i)
      s.ArrayValue[i] = static_cast<unsigned char>(parse_int(bytes[i]));
    s.HasArrayInit = 1;
    s.IsArray = diagnostic ? 1 : 0;
    rest = close == std::string_view::npos ? std::string_view{} : rest.substr(close + 1);
    if (!rest.empty() && rest.front() == ',') rest.remove_prefix(1);
    return;
  }
  size_t comma = rest.find(',');
  s.Value = parse_int(rest.substr(0, comma));
  rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
}

// Which encoding type each signal is represented by. A signal named by several
// representations takes the last one whose type exists; a type name that appears twice
// means its first definition. Built once per file, so reading the signals stays linear.
using CodingBySignal = std::unordered_map<std::string_view, const LDF_SIGNAL_CODING*>;

CodingBySignal coding_by_signal(const std::vector<LDF_SIGNAL_CODING>& codings,
                                const std::vector<LDF_SIGNAL_REPRESENTATION>& representations) {
  std::unordered_map<std::string_view, const LDF_SIGNAL_CODING*> by_name;
  by_name.reserve(codings.size());
  for (const LDF_SIGNAL_CODING& c : codings) by_name.try_emplace(c.Name, &c);
  CodingBySignal out;
  out.reserve(representations.size());
  for (const LDF_SIGNAL_REPRESENTATION& r : representations) {
    auto c = by_name.find(r.CodingName);
    if (c != by_name.end()) out[r.SignalName] = c->second;
  }
  return out;
}

void read_section(std::string_view section, bool diagnostic, Storage& mem,
                  const CodingBySignal& codings, std::vector<LDF_LIN_SIGNAL>& out) {
  for (std::string_view item : split(strip_braces(section), ';')) {
    if (item.size() < 5) continue;
    size_t colon = item.find(':');
    if (colon == std::string_view::npos) continue;
    LDF_LIN_SIGNAL s{};
    s.Name = mem.str(item.substr(0, colon));
    std::string_view rest = item.substr(colon + 1);
    size_t comma = rest.find(',');
    s.Size = sat_i32(parse_dec(rest.substr(0, comma)));
    rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
    read_initial_value(rest, diagnostic, s);
    if (!rest.empty()) {
      std::vector<std::string_view> nodes = split(rest, ',');
      if (!nodes[0].empty()) s.Publisher = mem.str(nodes[0]);
      for (size_t i = 1; i < nodes.size(); ++i) {
        if (nodes[i].empty()) continue;
        if (s.SubscriberNum == LDF_MAX_SUBSCRIBERS) break;  // further subscribers dropped
        s.Subscribers[s.SubscriberNum++] = mem.str(nodes[i]);
      }
    }
    s.Min = 0;
    s.Max = static_cast<double>(GetDataMask(s.Size));
    auto coding = codings.find(s.Name);
    if (coding != codings.end()) s.SignalCoding = *coding->second;  // shares the value arrays
    out.push_back(s);
  }
}

}  // namespace

int LDF_GetSignals(const LoadState& st, Storage& mem, const std::vector<LDF_SIGNAL_CODING>& codings,
                   const std::vector<LDF_SIGNAL_REPRESENTATION>& representations,
                   std::vector<LDF_LIN_SIGNAL>& out) {
  if (!device_registered()) return -3;
  const CodingBySignal by_signal = coding_by_signal(codings, representations);
  read_section(st.section(Section::Signals), false, mem, by_signal, out);
  read_section(st.section(Section::DiagnosticSignals), true, mem, by_signal, out);
  return static_cast<int>(out.size());
}

}  // namespace veltrix::ldf
