// Channel set-up and the master operations: frame lists, single frames, schedules.
#include "lin/master.hpp"

#include <algorithm>
#include <climits>
#include <vector>

#include "device/abi.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "lin/commands.hpp"
#include "lin/frame_check.hpp"
#include "lin/lin_state.hpp"
#include "lin/record.hpp"

namespace veltrix::lin {
namespace {

constexpr uint32_t kMinBaud = 100;         // below: the default rate is configured
constexpr uint32_t kDefaultBaud = 9600;
constexpr int32_t kMinMasterBaud = 101;    // a channel at 100 baud or less runs no frames
constexpr int kReplyMarginMs = 300;
constexpr int64_t kBitTimesPerFrameBudget = 200000;  // 200 bit times per frame, in ms*baud
// A list the transport could not carry back is refused before anything is built.
constexpr int kMaxSyncRecords = int(kMaxReplyBytes / kRecordSize);

// The work buffer both operations send: channel byte, then the prepared records.
wire::PayloadBuilder records_payload(uint8_t channel, std::span<const LIN_EX_MSG> recs) {
  wire::PayloadBuilder b(1 + recs.size() * kRecordSize);
  b.u8(channel);
  for (const LIN_EX_MSG& m : recs) put_record(b, m);
  return b;
}

uint32_t ceil_div(uint64_t num, uint64_t den) { return uint32_t((num + den - 1) / den); }

int init(int handle, uint8_t channel, uint32_t baud, uint8_t mode) {
  Channel c = check_channel(handle, channel, false);
  if (c.code) return c.code;
  if (baud < kMinBaud) baud = kDefaultBaud;
  wire::PayloadBuilder b(6);
  b.u8(channel).be32(baud).u8(mode);
  int code = lin_ack_code(lin_exchange(handle, {.cmd = kCmdInit, .payload = b.span()}));
  if (code != 0) return code;
  state().ex_baud[c.slot][channel].store(int32_t(std::min<uint32_t>(baud, INT32_MAX)),
                                         std::memory_order_relaxed);
  state().ex_init[c.slot][channel].store(1, std::memory_order_relaxed);
  return LIN_EX_SUCCESS;
}

// One record on its own: break, write or read.
int single_frame(int handle, uint8_t channel, const LIN_EX_MSG& req, LIN_EX_MSG* got) {
  int n = master_sync(handle, channel, {&req, 1}, got);
  if (n < 0) return n;
  return n == 1 ? LIN_EX_SUCCESS : LIN_EX_ERR_REPLY;
}

LIN_EX_MSG frame(uint8_t type, uint8_t pid, uint32_t slot) {
  LIN_EX_MSG m{};
  m.MsgType = type;
  m.PID = pid;
  m.Timestamp = slot;
  m.BreakBits = 13;
  return m;
}

int master_write(int handle, uint8_t channel, uint8_t pid, const uint8_t* data, uint8_t len,
                 uint8_t check_type) {
  if (len > 0 && data == nullptr) return LIN_EX_ERR_PARAMETER;
  LIN_EX_MSG m = frame(LIN_EX_MSG_TYPE_MW, pid, 1);
  m.DataLen = std::min<uint8_t>(len, 8);
  std::copy_n(data ? data : m.Data, m.DataLen, m.Data);
  m.CheckType = m.DataLen == 0 ? LIN_EX_CHECK_NONE : check_type;
  LIN_EX_MSG got;
  return single_frame(handle, channel, m, &got);
}

int master_read(int handle, uint8_t channel, uint8_t pid, uint8_t* data) {
  if (data == nullptr) return LIN_EX_ERR_PARAMETER;
  LIN_EX_MSG m = frame(LIN_EX_MSG_TYPE_MR, pid, 1);
  m.CheckType = LIN_EX_CHECK_STD;
  LIN_EX_MSG got;
  int n = master_sync(handle, channel, {&m, 1}, &got);
  if (n != 1) return std::min(n, 0);
  if (got.CheckType != LIN_EX_CHECK_STD && got.CheckType != LIN_EX_CHECK_EXT) return 0;
  std::copy_n(got.Data, got.DataLen, data);
  return got.DataLen;
}

int start_schedule(int handle, uint8_t channel, const LIN_EX_MSG* recs, int count) {
  Channel c = check_channel(handle, channel, true);
  if (c.code) return c.code;
  if (recs == nullptr || count < 1) return LIN_EX_ERR_PARAMETER;
  const uint64_t baud = uint64_t(std::max(1, state().ex_baud[c.slot][channel].load()));
  std::vector<LIN_EX_MSG> prepared(recs, recs + std::min(count, LIN_EX_MAX_SCH_MSGS));
  for (LIN_EX_MSG& m : prepared) {
    prepare_header(m);
    m.Timestamp = std::min(m.Timestamp, LIN_EX_MAX_SCH_SLOT_MS);
    uint64_t bits;  // bit times the frame occupies on the bus
    if (m.MsgType == LIN_EX_MSG_TYPE_MW) {
      apply_checksum(m);
      bits = m.BreakBits + (m.DataLen + 3u) * 11u + 3u;
    } else {
      m.DataLen = 0;
      bits = m.BreakBits + 47u;
    }
    m.Timestamp = std::max(m.Timestamp, ceil_div(bits * 1000, baud));
  }
  wire::PayloadBuilder b = records_payload(channel, prepared);
  return lin_ack_code(lin_exchange(handle, {.cmd = kCmdStartSch, .payload = b.span()}));
}

// Commands that carry the channel (and maybe a value) and are acknowledged empty.
int channel_command(int handle, uint8_t channel, uint32_t cmd, const wire::PayloadBuilder& b) {
  Channel c = check_channel(handle, channel, false);
  if (c.code) return c.code;
  return lin_ack_code(lin_exchange(handle, {.cmd = cmd, .payload = b.span()}));
}

int get_schedule(int handle, uint8_t channel, LIN_EX_MSG* out) {
  Channel c = check_channel(handle, channel, true);
  if (c.code) return c.code;
  if (out == nullptr) return LIN_EX_ERR_PARAMETER;
  const uint8_t ch[1] = {channel};
  std::vector<uint8_t> reply(LIN_EX_MAX_SCH_MSGS * kRecordSize);
  ExchangeResult r = lin_exchange(handle, {.cmd = kCmdGetSch, .payload = ch, .reply = reply});
  if (int code = lin_code(r)) return code;
  const size_t n = r.copied / kRecordSize;
  for (size_t i = 0; i < n; ++i) {
    LIN_EX_MSG m = get_record(reply, i);
    if (m.MsgType == LIN_EX_MSG_TYPE_MR) m.CheckType = checksum_verdict(m);
    out[i] = m;
  }
  return int(n);
}

}  // namespace

int master_sync(int handle, uint8_t channel, std::span<const LIN_EX_MSG> in, LIN_EX_MSG* out) {
  const int slot = slot_of(handle);
  if (slot < 0 || channel >= LIN_EX_MAX_CHANNELS) return LIN_EX_ERR_PARAMETER;
  if (in.data() == nullptr || out == nullptr || in.empty() || in.size() > size_t(kMaxSyncRecords))
    return LIN_EX_ERR_PARAMETER;
  if (state().ex_init[slot][channel].load(std::memory_order_relaxed) == 0)
    return LIN_EX_ERR_NOT_INIT;
  const int32_t baud = state().ex_baud[slot][channel].load(std::memory_order_relaxed);
  if (baud < kMinMasterBaud) return LIN_EX_ERR_PARAMETER;

  std::vector<LIN_EX_MSG> prepared(in.begin(), in.end());
  int64_t slots_ms = 0;
  for (LIN_EX_MSG& m : prepared) {
    prepare_header(m);
    m.Timestamp = std::min(m.Timestamp, LIN_EX_MAX_SYNC_SLOT_MS);
    slots_ms += m.Timestamp;
    if (m.MsgType == LIN_EX_MSG_TYPE_MW || m.MsgType == LIN_EX_MSG_TYPE_SW) apply_checksum(m);
  }
  const int64_t wait_ms = slots_ms + (kBitTimesPerFrameBudget / baud) * int64_t(in.size()) +
                          kReplyMarginMs;

  wire::PayloadBuilder b = records_payload(channel, prepared);
  std::vector<uint8_t> reply(in.size() * kRecordSize);
  ExchangeResult r = lin_exchange(handle,
                              {.cmd = kCmdMasterSync, .payload = b.span(), .reply = reply,
                               .timeout_ms = int(std::min<int64_t>(wait_ms, INT_MAX))});
  if (int code = lin_code(r)) return code;

  const size_t n = std::min(r.copied / kRecordSize, in.size());
  for (size_t i = 0; i < n; ++i) {
    LIN_EX_MSG got = get_record(reply, i);
    judge_reply(got, prepared[i].CheckType);
    out[i] = got;
  }
  return int(n);
}

}  // namespace veltrix::lin

using namespace veltrix;
using namespace veltrix::lin;

extern "C" {

VELTRIX_EXPORT(int, LIN_EX_Init, (int h, unsigned char ch, unsigned int baud, unsigned char mode),
               LIN_EX_ERR_REPLY, { return init(h, ch, baud, mode); })

VELTRIX_EXPORT(int, LIN_EX_MasterSync,
               (int h, unsigned char ch, const LIN_EX_MSG* in, LIN_EX_MSG* out, int n),
               LIN_EX_ERR_REPLY, {
                 if (in == nullptr || n < 1) return int(LIN_EX_ERR_PARAMETER);
                 return master_sync(h, ch, {in, size_t(n)}, out);
               })

VELTRIX_EXPORT(int, LIN_EX_MasterBreak, (int h, unsigned char ch), LIN_EX_ERR_REPLY, {
  LIN_EX_MSG m = frame(LIN_EX_MSG_TYPE_BK, 0, 10);
  LIN_EX_MSG got;
  return single_frame(h, ch, m, &got);
})

VELTRIX_EXPORT(int, LIN_EX_MasterWrite,
               (int h, unsigned char ch, unsigned char pid, const unsigned char* data,
                unsigned char len, unsigned char check_type),
               LIN_EX_ERR_REPLY, { return master_write(h, ch, pid, data, len, check_type); })

VELTRIX_EXPORT(int, LIN_EX_MasterRead,
               (int h, unsigned char ch, unsigned char pid, unsigned char* data), LIN_EX_ERR_REPLY,
               { return master_read(h, ch, pid, data); })

VELTRIX_EXPORT(int, LIN_EX_MasterStartSch, (int h, unsigned char ch, const LIN_EX_MSG* recs, int n),
               LIN_EX_ERR_REPLY, { return start_schedule(h, ch, recs, n); })

VELTRIX_EXPORT(int, LIN_EX_MasterStopSch, (int h, unsigned char ch), LIN_EX_ERR_REPLY, {
  wire::PayloadBuilder b(1);
  b.u8(ch);
  return channel_command(h, ch, kCmdStopSch, b);
})

VELTRIX_EXPORT(int, LIN_EX_MasterSetSchRunTimes, (int h, unsigned char ch, unsigned int times),
               LIN_EX_ERR_REPLY, {
                 wire::PayloadBuilder b(5);
                 b.u8(ch).be32(times);
                 return channel_command(h, ch, kCmdSetSchRunTimes, b);
               })

VELTRIX_EXPORT(int, LIN_EX_MasterGetSch, (int h, unsigned char ch, LIN_EX_MSG* out),
               LIN_EX_ERR_REPLY, { return get_schedule(h, ch, out); })

VELTRIX_EXPORT(int, LIN_EX_CtrlPowerOut, (int h, unsigned char ch, unsigned char state),
               LIN_EX_ERR_REPLY, {
                 wire::PayloadBuilder b(2);
                 b.u8(state).u8(ch);  // the state comes first on this command
                 return channel_command(h, ch, kCmdPowerOut, b);
               })

VELTRIX_EXPORT(int, LIN_EX_GetVbatValue, (int h, unsigned short* value), LIN_EX_ERR_REPLY, {
  if (slot_of(h) < 0 || value == nullptr) return int(LIN_EX_ERR_PARAMETER);
  uint8_t reply[2];
  ExchangeResult r = lin_exchange(h, {.cmd = kCmdGetVbat, .reply = reply});
  if (int code = lin_code(r)) return code;
  if (r.reply_len != sizeof reply) return int(LIN_EX_ERR_REPLY);
  *value = wire::get_be16(reply);
  return int(LIN_EX_SUCCESS);
})

}  // extern "C"
