// The older LIN interface. LIN_Init reads the firmware version once per adapter: newer
// firmware gets these calls translated onto LIN_EX_, older firmware its own commands.
#include <algorithm>
#include <climits>
#include <vector>

#include "device/abi.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "lin/commands.hpp"
#include "lin/lin_state.hpp"
#include "lin/master.hpp"
#include "lin/record.hpp"
#include "veltrix/device.h"

namespace veltrix::lin {
namespace {

constexpr int kOldBaseTimeoutMs = 1000;
constexpr int64_t kOldBitBudget = 110000;  // bit-time budget of a frame list, ms*baud
constexpr uint8_t kLastEnhancedWriteId = 0x3B;
constexpr uint8_t kLastEnhancedReadId = 0x3C;  // one more than for writing, as it always was

// Longest frame list the transport can carry in one packet.
constexpr int kMaxOldFrames = int(kMaxReplyBytes / kOldFrameSize);

bool new_api(int slot) { return state().use_new_api[slot].load(std::memory_order_relaxed) != 0; }

// Slot and channel checks of the older command set (two channels per adapter).
Channel check_old(int handle, uint8_t channel) {
  Channel c;
  c.slot = slot_of(handle);
  if (c.slot < 0 || channel >= LIN_MAX_CHANNELS) c.code = LIN_EX_ERR_PARAMETER;
  return c;
}

// Reply time-out of a frame list on older firmware; -5 while no rate is stored.
int old_timeout(int slot, uint8_t channel) {
  const int32_t baud = state().old_baud[slot][channel].load(std::memory_order_relaxed);
  if (baud <= 0) return LIN_EX_ERR_NOT_INIT;
  return int(kOldBitBudget / baud) + kOldBaseTimeoutMs;
}

uint8_t old_data_len(uint8_t received) { return received == 0 ? 0 : uint8_t(received + 1); }

LIN_MSG to_old(const LIN_EX_MSG& m) {
  LIN_MSG o{};
  o.ID = m.PID;
  o.DataLen = old_data_len(m.DataLen);
  std::copy_n(m.Data, sizeof o.Data, o.Data);
  o.Check = m.Check;
  return o;
}

int legacy_init(int handle, uint8_t channel, const LIN_CONFIG* cfg) {
  const int slot = slot_of(handle);
  if (slot < 0 || cfg == nullptr) return LIN_EX_ERR_PARAMETER;
  DEVICE_INFO info;
  if (DEV_GetDeviceInfo(uint32_t(handle), &info, nullptr) != 1) return LIN_EX_ERR_REPLY;
  const bool use_new = info.FirmwareVersion >= kNewApiFirmware;
  state().use_new_api[slot].store(use_new ? 1 : 0, std::memory_order_relaxed);
  if (use_new) return LIN_EX_Init(handle, channel, cfg->BaudRate, cfg->Mode);

  if (channel >= LIN_MAX_CHANNELS) return LIN_EX_ERR_PARAMETER;
  wire::PayloadBuilder b(8);
  b.u8(channel).be32(cfg->BaudRate).u8(cfg->Flags).u8(cfg->Mode).u8(0);
  int code = lin_ack_code(lin_exchange(handle, {.cmd = kCmdOldInit, .payload = b.span()}));
  if (code == 0)
    state().old_baud[slot][channel].store(int32_t(std::min<uint32_t>(cfg->BaudRate, INT32_MAX)),
                                          std::memory_order_relaxed);
  return code;
}

int legacy_break(int handle, uint8_t channel) {
  Channel c = check_old(handle, channel);
  if (c.slot >= 0 && new_api(c.slot)) return LIN_EX_MasterBreak(handle, channel);
  if (c.code) return c.code;
  const uint8_t ch[1] = {channel};
  return lin_ack_code(lin_exchange(handle, {.cmd = kCmdOldBreak, .payload = ch}));
}

// The older frames as master records for the newer command set. Identifiers up to
// last_enhanced use the enhanced checksum; a read record carries no data.
std::vector<LIN_EX_MSG> as_master_records(const LIN_MSG* frames, int count, uint8_t type,
                                          uint8_t last_enhanced) {
  std::vector<LIN_EX_MSG> recs(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    LIN_EX_MSG& m = recs[size_t(i)];
    m = LIN_EX_MSG{};
    m.Timestamp = 1;
    m.MsgType = type;
    m.PID = frames[i].ID;
    if (type == LIN_EX_MSG_TYPE_MW) {
      m.DataLen = frames[i].DataLen;
      std::copy_n(frames[i].Data, sizeof m.Data, m.Data);
    }
    m.CheckType = (frames[i].ID & 0x3F) <= last_enhanced ? LIN_EX_CHECK_EXT : LIN_EX_CHECK_STD;
  }
  return recs;
}

int legacy_write(int handle, uint8_t channel, const LIN_MSG* frames, int count) {
  const int slot = slot_of(handle);
  if (slot < 0 || frames == nullptr || count < 1 || count > kMaxOldFrames)
    return LIN_EX_ERR_PARAMETER;
  if (new_api(slot)) {
    std::vector<LIN_EX_MSG> recs = as_master_records(frames, count, LIN_EX_MSG_TYPE_MW,
                                                     kLastEnhancedWriteId);
    std::vector<LIN_EX_MSG> got(recs.size());
    int n = master_sync(handle, channel, recs, got.data());
    if (n < 0) return n;
    return n == count ? LIN_EX_SUCCESS : LIN_EX_ERR_REPLY;
  }
  if (channel >= LIN_MAX_CHANNELS) return LIN_EX_ERR_PARAMETER;
  const int timeout = old_timeout(slot, channel);
  if (timeout < 0) return timeout;
  wire::PayloadBuilder b(1 + size_t(count) * kOldFrameSize);
  b.u8(channel);
  for (int i = 0; i < count; ++i) put_old_frame(b, frames[i]);
  return lin_ack_code(lin_exchange(handle,
                               {.cmd = kCmdOldWrite, .payload = b.span(), .timeout_ms = timeout}));
}

int legacy_read(int handle, uint8_t channel, LIN_MSG* frames, int count) {
  const int slot = slot_of(handle);
  if (slot < 0 || frames == nullptr || count < 1 || count > kMaxOldFrames)
    return LIN_EX_ERR_PARAMETER;
  if (new_api(slot)) {
    std::vector<LIN_EX_MSG> recs = as_master_records(frames, count, LIN_EX_MSG_TYPE_MR,
                                                     kLastEnhancedReadId);
    std::vector<LIN_EX_MSG> got(recs.size());
    int n = master_sync(handle, channel, recs, got.data());
    if (n < 0) return n;
    if (n != count) return LIN_EX_ERR_REPLY;
    for (int i = 0; i < count; ++i) {
      const LIN_EX_MSG& m = got[size_t(i)];
      frames[i].DataLen = old_data_len(m.DataLen);
      std::copy_n(m.Data, sizeof m.Data, frames[i].Data);
      frames[i].Check = m.Check;
    }
    return LIN_EX_SUCCESS;
  }
  if (channel >= LIN_MAX_CHANNELS) return LIN_EX_ERR_PARAMETER;
  const int timeout = old_timeout(slot, channel);
  if (timeout < 0) return timeout;
  wire::PayloadBuilder b(1 + size_t(count));
  b.u8(channel);
  for (int i = 0; i < count; ++i) b.u8(frames[i].ID);
  std::vector<uint8_t> reply(size_t(count) * kOldFrameSize);
  ExchangeResult r = lin_exchange(handle, {.cmd = kCmdOldRead, .payload = b.span(),
                                                 .reply = reply, .timeout_ms = timeout});
  if (int code = lin_code(r)) return code;
  const size_t n = r.copied / kOldFrameSize;
  for (size_t i = 0; i < n; ++i) frames[i] = get_old_frame(reply, i);
  return n == size_t(count) ? LIN_EX_SUCCESS : LIN_EX_ERR_REPLY;
}

int legacy_slave_set(int handle, uint8_t channel, uint8_t mode, const LIN_MSG* frames, int count) {
  const int slot = slot_of(handle);
  if (slot < 0 || frames == nullptr || count < 1 || count > kMaxOldFrames)
    return LIN_EX_ERR_PARAMETER;
  if (new_api(slot)) {
    std::vector<LIN_EX_MSG> recs(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
      LIN_EX_MSG& m = recs[size_t(i)];
      m = LIN_EX_MSG{};
      m.Timestamp = 1;
      m.MsgType = mode ? LIN_EX_MSG_TYPE_SR : LIN_EX_MSG_TYPE_SW;
      m.CheckType = LIN_EX_CHECK_STD;  // the older record has no checksum type
      m.PID = frames[i].ID;
      m.DataLen = frames[i].DataLen;
      std::copy_n(frames[i].Data, sizeof m.Data, m.Data);
    }
    return LIN_EX_SlaveSetIDMode(handle, channel, recs.data(), count);
  }
  if (channel >= LIN_MAX_CHANNELS) return LIN_EX_ERR_PARAMETER;
  wire::PayloadBuilder b(2 + size_t(count) * kOldFrameSize);
  b.u8(channel).u8(mode);
  for (int i = 0; i < count; ++i) put_old_frame(b, frames[i]);
  return lin_ack_code(lin_exchange(handle, {.cmd = kCmdOldSlaveSet, .payload = b.span()}));
}

int legacy_slave_get(int handle, uint8_t channel, LIN_MSG* out) {
  const int slot = slot_of(handle);
  if (slot < 0 || out == nullptr) return LIN_EX_ERR_PARAMETER;
  if (new_api(slot)) {
    std::vector<LIN_EX_MSG> recs(LIN_EX_MAX_CAPTURE_MSGS);
    int n = slave_get_data(handle, channel, recs.data());
    for (int i = 0; i < n; ++i) out[i] = to_old(recs[size_t(i)]);
    return n;
  }
  if (channel >= LIN_MAX_CHANNELS) return LIN_EX_ERR_PARAMETER;
  const uint8_t ch[1] = {channel};
  std::vector<uint8_t> reply(LIN_EX_MAX_CAPTURE_MSGS * kOldFrameSize);
  ExchangeResult r = lin_exchange(handle, {.cmd = kCmdOldSlaveGet, .payload = ch,
                                                 .reply = reply});
  if (int code = lin_code(r)) return code;
  const size_t n = r.copied / kOldFrameSize;
  for (size_t i = 0; i < n; ++i) out[i] = get_old_frame(reply, i);
  return int(n);
}

}  // namespace
}  // namespace veltrix::lin

using namespace veltrix;
using namespace veltrix::lin;

extern "C" {

VELTRIX_EXPORT(int, LIN_Init, (int h, unsigned char ch, const LIN_CONFIG* cfg), LIN_EX_ERR_REPLY,
               { return legacy_init(h, ch, cfg); })

VELTRIX_EXPORT(int, LIN_SendBreak, (int h, unsigned char ch), LIN_EX_ERR_REPLY,
               { return legacy_break(h, ch); })

VELTRIX_EXPORT(int, LIN_Write, (int h, unsigned char ch, const LIN_MSG* frames, int n),
               LIN_EX_ERR_REPLY, { return legacy_write(h, ch, frames, n); })

VELTRIX_EXPORT(int, LIN_Read, (int h, unsigned char ch, LIN_MSG* frames, int n), LIN_EX_ERR_REPLY,
               { return legacy_read(h, ch, frames, n); })

VELTRIX_EXPORT(int, LIN_SlaveSetIDMode,
               (int h, unsigned char ch, unsigned char mode, const LIN_MSG* frames, int n),
               LIN_EX_ERR_REPLY, { return legacy_slave_set(h, ch, mode, frames, n); })

VELTRIX_EXPORT(int, LIN_SlaveGetData, (int h, unsigned char ch, LIN_MSG* out), LIN_EX_ERR_REPLY,
               { return legacy_slave_get(h, ch, out); })

}  // extern "C"
