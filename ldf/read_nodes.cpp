// Nodes and Node_attributes.
//
//   Nodes{Master:CEM,5ms,0.1ms;Slaves:LSM,RSM;}
//   Node_attributes{LSM{LIN_protocol="2.2";configured_NAD=0x21;product_id=0x4A4F,0x4841;
//                       configurable_frames{CEM_Frm1;LSM_Frm1=0x0002;}}RSM{...}}
#include <string_view>

#include "ldf/readers.hpp"
#include "ldf/text.hpp"

namespace veltrix::ldf {
namespace {

std::string_view up_to(std::string_view s, char end) { return s.substr(0, s.find(end)); }

void read_attribute(std::string_view key, std::string_view value, Storage& mem, LDF_NODE_ATTR& a) {
  if (key == "LIN_protocol") {
    double v = parse_decimal(unquote(value)) * 100;
    a.ProtocolVersion = static_cast<unsigned short>(v < 0 ? 0 : v > 65535 ? 65535 : v);
  } else if (key == "configured_NAD") {
    a.ConfiguredNAD = static_cast<unsigned char>(parse_int(value));
  } else if (key == "initial_NAD") {
    a.InitialNAD = static_cast<unsigned char>(parse_int(value));
  } else if (key == "product_id") {
    std::vector<std::string_view> ids = split(value, ',');
    a.SupplierID = sat_i32(parse_int(ids[0]));
    if (ids.size() > 1) a.FunctionID = sat_i32(parse_int(ids[1]));
    if (ids.size() > 2) a.VariantID = sat_i32(parse_int(ids[2]));
  } else if (key == "response_error") {
    a.ResponseError = mem.str(value);
  } else if (key == "fault_state_signals") {
    for (std::string_view name : split(value, ',')) {
      if (name.empty()) continue;
      if (a.FaultStateSignalNum == LDF_MAX_FAULT_SIGNALS) break;  // further ones dropped
      a.FaultStateSignals[a.FaultStateSignalNum++] = mem.str(name);
    }
  } else if (key == "P2_min") {
    a.P2_min = sat_f32(parse_decimal(value));
  } else if (key == "ST_min") {
    a.ST_min = sat_f32(parse_decimal(value));
  } else if (key == "N_As_timeout") {
    a.N_As_timeout = sat_f32(parse_decimal(value));
  } else if (key == "N_Cr_timeout") {
    a.N_Cr_timeout = sat_f32(parse_decimal(value));
  }
}

LDF_NODE_ATTR read_node(std::string_view name, std::string_view body, Storage& mem) {
  LDF_NODE_ATTR a{};
  a.Name = mem.str(name);
  constexpr std::string_view kFrames = "configurable_frames";
  size_t frames_at = body.find(kFrames);
  for (std::string_view item : split(body.substr(0, frames_at), ';')) {
    if (item.size() < 4) continue;
    size_t eq = item.find('=');
    if (eq == std::string_view::npos) continue;
    read_attribute(item.substr(0, eq), item.substr(eq + 1), mem, a);
  }
  if (frames_at == std::string_view::npos) return a;
  size_t open = frames_at + kFrames.size();
  if (open >= body.size() || body[open] != '{') return a;
  for (std::string_view item : split(strip_braces(braced_block(body, open)), ';')) {
    if (item.size() <= 1) continue;
    if (a.ConfigFrameNum == LDF_MAX_CONFIG_FRAMES) break;  // further frames dropped
    a.ConfigFrames[a.ConfigFrameNum++] = mem.str(up_to(item, '='));
  }
  return a;
}

}  // namespace

int LDF_GetNodes(const LoadState& st, Storage& mem, LDF_LIN_NODE** out) {
  *out = nullptr;
  if (!device_registered()) return -3;
  std::string_view body = strip_braces(st.section(Section::Nodes));
  if (body.empty()) return 0;
  LDF_LIN_NODE* n = mem.one<LDF_LIN_NODE>();
  constexpr std::string_view kMaster = "Master:", kSlaves = "Slaves:";
  if (size_t m = body.find(kMaster); m != std::string_view::npos) {
    // Master:CEM,5ms,0.1ms; the number reader ignores the unit (and any J2602 extras).
    std::vector<std::string_view> f = split(up_to(body.substr(m + kMaster.size()), ';'), ',');
    if (!f[0].empty()) n->MasterName = mem.str(f[0]);
    if (f.size() > 1) n->TimeBase = sat_f32(parse_decimal(f[1]));
    if (f.size() > 2) n->Jitter = sat_f32(parse_decimal(f[2]));
  }
  if (size_t s = body.find(kSlaves); s != std::string_view::npos) {
    std::vector<char*> names;
    for (std::string_view name : split(up_to(body.substr(s + kSlaves.size()), ';'), ','))
      if (!name.empty()) names.push_back(mem.str(name));
    n->SlaveNum = static_cast<int>(names.size());
    n->SlaveNames = mem.array(names);
  }
  *out = n;
  return 1;
}

int LDF_GetNodeAttributes(const LoadState& st, Storage& mem, std::vector<LDF_NODE_ATTR>& out) {
  if (!device_registered()) return -3;
  std::string_view body = strip_braces(st.section(Section::NodeAttributes));
  // Each node's body is cut where its name stands, not at the first "name{" of the
  // section, so a node name that ends another one (SM, RSM) still finds its own body.
  for_each_named_block(body, [&](std::string_view name, std::string_view inner) {
    out.push_back(read_node(name, inner, mem));
  });
  return static_cast<int>(out.size());
}

}  // namespace veltrix::ldf
