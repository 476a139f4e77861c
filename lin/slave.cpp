// Slave operation: the response table and what the slave channel saw on the bus.
#include <algorithm>
#include <vector>

#include "device/abi.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "lin/commands.hpp"
#include "lin/frame_check.hpp"
#include "lin/master.hpp"
#include "lin/lin_state.hpp"
#include "lin/record.hpp"

namespace veltrix::lin {
namespace {

int set_id_mode(int handle, uint8_t channel, const LIN_EX_MSG* recs, int count) {
  Channel c = check_channel(handle, channel, true);
  if (c.code) return c.code;
  if (recs == nullptr || count < 1 || count > LIN_EX_MAX_SLAVE_MSGS) return LIN_EX_ERR_PARAMETER;
  wire::PayloadBuilder b(1 + size_t(count) * kRecordSize);
  b.u8(channel);
  for (int i = 0; i < count; ++i) {
    LIN_EX_MSG m = recs[i];
    prepare_header(m);
    // The table code accepts type 3 with bit 7 set as well.
    const uint8_t type = m.MsgType & 0x7F;
    if (type == LIN_EX_MSG_TYPE_SW || m.MsgType == LIN_EX_MSG_TYPE_SR) apply_checksum(m);
    put_record(b, m);
  }
  return lin_ack_code(lin_exchange(handle, {.cmd = kCmdSlaveSetIdMode, .payload = b.span()}));
}

// Reads a table reply of at most `max` records into `reply`; returns the record count or
// a negative code.
int read_table(int handle, uint8_t channel, uint32_t cmd, std::vector<uint8_t>& reply) {
  const uint8_t ch[1] = {channel};
  ExchangeResult r = lin_exchange(handle, {.cmd = cmd, .payload = ch, .reply = reply});
  if (int code = lin_code(r)) return code;
  return int(r.copied / kRecordSize);
}

int get_id_mode(int handle, uint8_t channel, LIN_EX_MSG* out) {
  Channel c = check_channel(handle, channel, true);
  if (c.code) return c.code;
  std::vector<uint8_t> reply(LIN_EX_MAX_SLAVE_MSGS * kRecordSize);
  int n = read_table(handle, channel, kCmdSlaveGetIdMode, reply);
  for (int i = 0; out != nullptr && i < n; ++i) out[i] = get_record(reply, size_t(i));
  return n;
}

void judge_captured(LIN_EX_MSG& m) {
  switch (m.MsgType) {
    case LIN_EX_MSG_TYPE_DL:
      m.CheckType = split_trailing_checksum(m) ? checksum_verdict(m) : LIN_EX_CHECK_ERROR;
      break;
    case LIN_EX_MSG_TYPE_DC:
      m.CheckType = checksum_verdict(m);
      break;
    case LIN_EX_MSG_TYPE_BK:
      m.CheckType = LIN_EX_CHECK_NONE;
      m.DataLen = 0;
      m.PID = 0xFF;
      break;
    default:
      break;
  }
}

}  // namespace

// Shared with the older interface's translation.
int slave_get_data(int handle, uint8_t channel, LIN_EX_MSG* out) {
  Channel c = check_channel(handle, channel, true);
  if (c.code) return c.code;
  if (out == nullptr) return LIN_EX_ERR_PARAMETER;
  std::vector<uint8_t> reply(LIN_EX_MAX_CAPTURE_MSGS * kRecordSize);
  int n = read_table(handle, channel, kCmdSlaveGetData, reply);
  for (int i = 0; i < n; ++i) {
    LIN_EX_MSG m = get_record(reply, size_t(i));
    judge_captured(m);
    out[i] = m;
  }
  return n;
}

}  // namespace veltrix::lin

using namespace veltrix;
using namespace veltrix::lin;

extern "C" {

VELTRIX_EXPORT(int, LIN_EX_SlaveSetIDMode, (int h, unsigned char ch, const LIN_EX_MSG* recs, int n),
               LIN_EX_ERR_REPLY, { return set_id_mode(h, ch, recs, n); })

VELTRIX_EXPORT(int, LIN_EX_SlaveGetIDMode, (int h, unsigned char ch, LIN_EX_MSG* out),
               LIN_EX_ERR_REPLY, { return get_id_mode(h, ch, out); })

VELTRIX_EXPORT(int, LIN_EX_SlaveGetData, (int h, unsigned char ch, LIN_EX_MSG* out),
               LIN_EX_ERR_REPLY, { return slave_get_data(h, ch, out); })

}  // extern "C"
