#include "ldf/bus_records.hpp"

#include <algorithm>
#include <cmath>

#include "ldf/codec.hpp"
#include "ldf/lookup.hpp"

namespace veltrix::ldf {
namespace {

constexpr uint8_t kSync = 0x55;
constexpr int kFirstDiagnosticId = 0x3C;
constexpr int kFirstLin2Version = 200;  // ProtocolVersion is x 100

}  // namespace

uint8_t checksum_type(const LDF_CODING& c, int id) {
  return c.ProtocolVersion >= kFirstLin2Version && (id & 0x3F) < kFirstDiagnosticId ? 1 : 0;
}

uint8_t protected_id(int id) {
  auto bit = [id](int n) { return (id >> n) & 1; };
  int p0 = bit(0) ^ bit(1) ^ bit(2) ^ bit(4);
  int p1 = !(bit(1) ^ bit(3) ^ bit(4) ^ bit(5));
  return static_cast<uint8_t>((id & 0x3F) | p0 << 6 | p1 << 7);
}

bool master_publishes(const LDF_CODING& c, const LDF_LIN_FRAME& f) {
  return c.Nodes && same_name(f.Publisher, c.Nodes->MasterName);
}

int frame_record(const LDF_CODING& c, const LDF_LIN_FRAME& f, uint8_t msg_type, bool fill,
                 LIN_EX_MSG& out) {
  LIN_EX_MSG m{};
  m.MsgType = msg_type;
  m.CheckType = checksum_type(c, f.ID);
  m.Sync = kSync;
  m.PID = msg_type == 3 ? static_cast<uint8_t>(f.ID) : protected_id(f.ID);
  m.BreakBits = kBreakBits;
  if (msg_type != 2) {
    int n = pack(f, fill, m.Data);
    if (n < 0) return n;
    m.DataLen = static_cast<uint8_t>(n);
  }
  out = m;
  return 0;
}

int take_response(LDF_LIN_FRAME& f, const LIN_EX_MSG& m) {
  uint8_t data[8] = {};
  std::copy_n(m.Data, std::min<int>(m.DataLen, 8), data);
  return unpack(f, data);
}

int take_capture(LDF_CODING& c, const LIN_EX_MSG& m) {
  if (m.DataLen == 0) return 0;
  int updated = 0;
  for (int i = 0; i < c.FrameNum; ++i) {
    if ((c.Frames[i].ID & 0x3F) != (m.PID & 0x3F)) continue;
    if (int rc = take_response(c.Frames[i], m); rc < 0) return rc;
    ++updated;
  }
  return updated;
}

uint32_t whole_ms(float delay) {
  if (!(delay > 0)) return 0;  // also NaN
  if (delay >= 4294967295.0f) return 0xFFFFFFFFu;
  return static_cast<uint32_t>(delay);
}

int schedule_records(const LDF_CODING& c, const LDF_LIN_SCH& sch, bool fill,
                     std::vector<LIN_EX_MSG>& out) {
  out.clear();
  for (int i = 0; i < sch.FrameNum; ++i) {
    const LDF_LIN_SCH_FRAME& e = sch.Frames[i];
    const LDF_LIN_FRAME* f = find_frame(c, e.Frame.Name);
    if (!f) continue;
    LIN_EX_MSG m;
    int rc = frame_record(c, *f, master_publishes(c, *f) ? 1 : 2, fill, m);
    if (rc < 0) return rc;
    m.Timestamp = whole_ms(e.Delay);
    out.push_back(m);
  }
  return static_cast<int>(out.size());
}

}  // namespace veltrix::ldf
