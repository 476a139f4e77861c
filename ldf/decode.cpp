#include "ldf/decode.hpp"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "device/abi.hpp"
#include "ldf/load.hpp"
#include "ldf/readers.hpp"
#include "ldf/storage.hpp"
#include "ldf/text.hpp"

namespace veltrix::ldf {
namespace {

// Header texts are read from at most this many characters.
constexpr size_t kHeaderValueChars = 16;

std::string_view header_text(std::string_view text, std::string_view prefix, char end) {
  size_t at = text.find(prefix);
  if (at == std::string_view::npos) return {};
  std::string_view rest = text.substr(at + prefix.size());
  return rest.substr(0, std::min(rest.find(end), kHeaderValueChars));
}

// LIN_protocol_version="2.1" gives 210; any J2602 version text gives 200.
int version_x100(std::string_view text, std::string_view keyword) {
  std::string prefix(keyword);
  prefix += "=\"";
  std::string_view v = header_text(text, prefix, '"');
  if (v.find("J2602") != std::string_view::npos) return 200;
  return sat_i32(parse_decimal(v) * 100);
}

// LIN_speed=19.2kbps; gives 19200 bits per second.
int speed_bps(std::string_view text) {
  return sat_i32(parse_decimal(header_text(text, "LIN_speed=", ';')) * 1000);
}

// The master node sends the master request frame; the file does not say so itself.
void publish_master_request(std::vector<LDF_LIN_FRAME>& frames, const LDF_LIN_NODE* nodes) {
  if (!nodes || !nodes->MasterName) return;
  for (LDF_LIN_FRAME& f : frames) {
    if (!f.IsDiagnostic || std::strcmp(f.Name, "MasterReq") != 0) continue;
    f.Publisher = nodes->MasterName;
    for (int i = 0; i < f.SignalNum; ++i) f.Signals[i].Publisher = nodes->MasterName;
  }
}

// Loads the text with init(state) under the load lock, reads every section and hands the
// result to record.
template <typename Init>
int decode_with(Init&& init, LDF_CODING* record, bool owns_record) {
  auto mem = std::make_unique<Storage>();
  LDF_CODING c{};
  std::vector<LDF_LIN_FRAME> frames;
  std::vector<LDF_LIN_SCH> schedules;
  std::vector<LDF_NODE_ATTR> attributes;
  {
    std::scoped_lock lock(load_mutex());
    LoadState& st = load_state();
    if (int rc = init(st); rc != 0) return rc;
    c.ProtocolVersion = version_x100(st.text, "LIN_protocol_version");
    c.LanguageVersion = version_x100(st.text, "LIN_language_version");
    c.LINSpeed = speed_bps(st.text);

    std::vector<LDF_SIGNAL_CODING> codings;
    std::vector<LDF_SIGNAL_REPRESENTATION> representations;
    std::vector<LDF_LIN_SIGNAL> signals;
    int rc = LDF_GetSignalsCoding(st, *mem, codings);
    if (rc >= 0) rc = LDF_GetSignalRepresentations(st, *mem, representations);
    if (rc >= 0) rc = LDF_GetSignals(st, *mem, codings, representations, signals);
    if (rc >= 0) rc = LDF_GetNodes(st, *mem, &c.Nodes);
    if (rc >= 0) rc = LDF_GetFrames(st, *mem, signals, frames);
    if (rc >= 0) publish_master_request(frames, c.Nodes);
    if (rc >= 0) rc = LDF_GetScheduleTables(st, *mem, frames, schedules);
    if (rc >= 0) rc = LDF_GetNodeAttributes(st, *mem, attributes);
    if (rc < 0) return rc;
  }
  c.FrameNum = static_cast<int>(frames.size());
  c.Frames = mem->array(frames);
  c.SchNum = static_cast<int>(schedules.size());
  c.Schs = mem->array(schedules);
  c.NodeAttrNum = static_cast<int>(attributes.size());
  c.NodeAttrs = mem->array(attributes);
  adopt(record, std::move(mem), owns_record);
  *record = c;
  return 0;
}

}  // namespace

int decode(int dev_handle, const char* path, LDF_CODING* record, bool owns_record) {
  return decode_with([&](LoadState& st) { return LDF_Init(st, dev_handle, path); }, record,
                     owns_record);
}

int decode_host(const char* path, LDF_CODING* record, bool owns_record) {
  return decode_with([&](LoadState& st) { return LDF_InitHost(st, path); }, record, owns_record);
}

int decode_text(int dev_handle, std::string_view raw, LDF_CODING* record, bool owns_record) {
  return decode_with(
      [&](LoadState& st) {
        int rc = check_device(dev_handle);
        return rc != 0 ? rc : load_text(st, raw);
      },
      record, owns_record);
}

}  // namespace veltrix::ldf

VELTRIX_EXPORT(int, LDF_Decode, (int DevHandle, const char* path, LDF_CODING* coding), -4, {
  if (!path || !coding) return -4;
  return veltrix::ldf::decode(DevHandle, path, coding, false);
})

VELTRIX_EXPORT(int, LDF_Init, (int DevHandle, const char* path), -4, {
  if (!path) return -1;  // no file to open
  std::scoped_lock g(veltrix::ldf::load_mutex());
  return veltrix::ldf::LDF_Init(veltrix::ldf::load_state(), DevHandle, path);
})

VELTRIX_EXPORT(int, LDF_DecodeFree, (LDF_CODING * coding), 0, {
  // Decoded data stays valid for the life of the process (or until LDF_Release).
  return 0;
})
