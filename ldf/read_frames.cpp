// Frames, Diagnostic_frames and Schedule_tables.
//
//   Frames{CEM_Frm1:0x01,CEM,1{InternalLightsRequest,0;}LSM_Frm1:0x02,LSM,2{...}}
//   Diagnostic_frames{MasterReq:60{MasterReqB0,0;...}SlaveResp:61{...}}
//   Schedule_tables{Normal{CEM_Frm1delay15ms;...}Config{AssignNAD{LSM}delay15ms;...}}
#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "ldf/readers.hpp"
#include "ldf/text.hpp"

namespace veltrix::ldf {
namespace {

// A frame declared without a size (diagnostic frames, LIN 1.x and J2602 files) has the
// length its identifier implies: 0x00..0x1F two bytes, 0x20..0x2F four, 0x30..0x3F eight.
int size_by_identifier(int id) {
  int range = (id >> 4) & 0x3;
  return range < 2 ? 2 : range == 2 ? 4 : 8;
}

// Name -> first record of that name, as a search in file order would find it. Built once
// per file so that reading frames and schedule tables stays linear in the file's size.
template <typename Record>
std::unordered_map<std::string_view, const Record*> first_by_name(const std::vector<Record>& v) {
  std::unordered_map<std::string_view, const Record*> out;
  out.reserve(v.size());
  for (const Record& r : v) out.try_emplace(r.Name, &r);
  return out;
}

template <typename Record>
const Record* find(const std::unordered_map<std::string_view, const Record*>& by_name,
                   std::string_view name) {
  auto it = by_name.find(name);
  return it == by_name.end() ? nullptr : it->second;
}

void read_section(std::string_view section, bool diagnostic, Storage& mem,
                  const std::unordered_map<std::string_view, const LDF_LIN_SIGNAL*>& signals,
                  std::vector<LDF_LIN_FRAME>& out) {
  // Frames hold no nested braces, so each '}' ends one.
  for (std::string_view piece : split(strip_braces(section), '}')) {
    if (piece.size() < 8) continue;
    size_t open = piece.find('{');
    std::string_view head = piece.substr(0, open);
    size_t colon = head.find(':');
    if (open == std::string_view::npos || colon == std::string_view::npos) continue;
    LDF_LIN_FRAME f{};
    f.Name = mem.str(head.substr(0, colon));
    std::vector<std::string_view> fields = split(head.substr(colon + 1), ',');
    f.ID = sat_i32(parse_int(fields[0]));
    if (fields.size() > 1 && !fields[1].empty()) f.Publisher = mem.str(fields[1]);
    // A LIN frame carries at most 8 data bytes; packing works on one 64-bit word.
    int64_t size = fields.size() > 2 ? parse_int(fields[2]) : size_by_identifier(f.ID);
    f.Size = static_cast<int>(std::clamp<int64_t>(size, 0, 8));
    f.IsDiagnostic = diagnostic ? 1 : 0;
    std::vector<LDF_LIN_SIGNAL> carried;
    for (std::string_view entry : split(piece.substr(open + 1), ';')) {
      if (entry.size() < 3) continue;
      size_t comma = entry.find(',');
      if (comma == std::string_view::npos) continue;
      const LDF_LIN_SIGNAL* s = find(signals, entry.substr(0, comma));
      if (!s) continue;  // a signal of unknown size cannot be packed
      LDF_LIN_SIGNAL copy = *s;
      copy.StartBit = sat_i32(parse_dec(entry.substr(comma + 1)));
      carried.push_back(copy);
    }
    f.SignalNum = static_cast<int>(carried.size());
    f.Signals = mem.array(carried);
    out.push_back(f);
  }
}

}  // namespace

int LDF_GetFrames(const LoadState& st, Storage& mem, const std::vector<LDF_LIN_SIGNAL>& signals,
                  std::vector<LDF_LIN_FRAME>& out) {
  if (!device_registered()) return -3;
  const auto by_name = first_by_name(signals);
  read_section(st.section(Section::Frames), false, mem, by_name, out);
  read_section(st.section(Section::DiagnosticFrames), true, mem, by_name, out);
  return static_cast<int>(out.size());
}

int LDF_GetScheduleTables(const LoadState& st, Storage& mem,
                          const std::vector<LDF_LIN_FRAME>& frames, std::vector<LDF_LIN_SCH>& out) {
  if (!device_registered()) return -3;
  std::string_view body = strip_braces(st.section(Section::ScheduleTables));
  const auto by_name = first_by_name(frames);
  // Command entries such as AssignNAD{LSM}delay15ms carry braces of their own.
  for_each_named_block(body, [&](std::string_view name, std::string_view inner) {
    std::vector<LDF_LIN_SCH_FRAME> entries;
    for (std::string_view entry : split(inner, ';')) {
      if (entry.size() <= 8) continue;
      size_t delay = entry.find("delay");
      if (delay == std::string_view::npos) continue;  // no slot time: malformed
      std::string_view frame_name = entry.substr(0, delay);
      LDF_LIN_SCH_FRAME e{};
      if (const LDF_LIN_FRAME* known = find(by_name, frame_name)) {
        e.Frame = *known;  // shares the frame's signal array
      } else {
        e.Frame.Name = mem.str(frame_name);  // kept, empty; execution skips it
      }
      e.Delay = sat_f32(parse_decimal(entry.substr(delay + 5)));
      entries.push_back(e);
    }
    LDF_LIN_SCH sch{};
    sch.Name = mem.str(name);
    sch.FrameNum = static_cast<int>(entries.size());
    sch.Frames = mem.array(entries);
    out.push_back(sch);
  });
  return static_cast<int>(out.size());
}

}  // namespace veltrix::ldf
