#include "protocols/vci/translate.hpp"

#include <algorithm>

namespace veltrix::vci {
namespace {

constexpr uint8_t kModeMask = 0x7F;
constexpr uint8_t kOptionBit = 0x80;

const CAN_TIMING_ENTRY* table_for(uint32_t handle) {
  const uint8_t model = uint8_t(handle >> 24);
  if (model >= 0x41 && model <= 0x45) return CAN_BaudRate_KORVANE;
  if (model == 0x53) return CAN_BaudRate_MIRADEL_NBT;
  return CAN_BaudRate_VELTRIX;
}

}  // namespace

const CAN_TIMING_ENTRY* timing_row(uint32_t handle, uint32_t bit_rate) {
  if (bit_rate == 0) return nullptr;
  // Tables hold nominal rates (666000 for 666667): whole kbit/s is the fair comparison.
  for (const CAN_TIMING_ENTRY* row = table_for(handle); row->BitRate != 0; ++row)
    if (row->BitRate / 1000 == bit_rate / 1000) return row;
  return nullptr;
}

CAN_CHANNEL_CONFIG classic_config(const CAN_TIMING_ENTRY& row, uint8_t vci_mode) {
  CAN_CHANNEL_CONFIG c{};
  c.Prescaler = row.Prescaler;
  c.SJW = row.SJW;
  c.Seg1 = row.Seg1;
  c.Seg2 = row.Seg2;
  const uint8_t option = vci_mode & kOptionBit;
  switch (vci_mode & kModeMask) {
    case 0:
      c.Mode = kOptionBit;
      break;  // normal mode always runs with the option set
    case 1:
      c.Mode = option | 2;
      break;  // listen-only
    case 2:
      c.Mode = option | 3;
      break;  // self-reception
    default:
      c.Mode = option;
      break;
  }
  c.AutoBusOffRecovery = 1;
  c.NoAutoRetransmit = 0;
  c.RxFifoLocked = 1;
  c.TxFifoOrder = 1;
  return c;
}

CANFD_CHANNEL_CONFIG fd_config(const CAN_TIMING_ENTRY& row, uint8_t vci_mode) {
  CANFD_CHANNEL_CONFIG c{};
  switch (vci_mode & kModeMask) {
    case 1:
      c.Mode = 3;
      break;  // listen-only
    case 2:
      c.Mode = 2;
      break;  // self-reception
    default:
      c.Mode = 0;
      break;
  }
  c.IsoCrc = 0;
  c.AutoRetransmit = 1;
  c.Terminator = 1;
  c.NBT_Prescaler = c.DBT_Prescaler = uint8_t(row.Prescaler);
  c.NBT_Seg1 = c.DBT_Seg1 = row.Seg1;
  c.NBT_Seg2 = c.DBT_Seg2 = row.Seg2;
  c.NBT_SJW = c.DBT_SJW = row.SJW;
  return c;
}

CAN_FILTER_RULE filter_rule(const VCI_INIT_CONFIG& c) {
  CAN_FILTER_RULE r{};
  r.Enable = 1;
  r.FilterIndex = 0;
  r.FilterMode = 0;
  const uint32_t code = c.AccCode, mask = c.AccMask;
  if (c.Filter == 0 || (mask == 0xFFFFFFFFu && code == 0)) return r;  // masks all 0: accept all
  // A VCI mask marks the bits that need not match; a rule's mask those that must.
  constexpr uint32_t kLow20 = 0xFFFFF;
  if ((code & kLow20) == 0 && (mask & kLow20) == kLow20) {
    r.IDE = 0;
    r.ID = code >> 21;
    r.RTR = (code >> 20) & 1;
    r.MaskID = (mask >> 21) ^ 0x7FF;
    r.MaskRTR = ((mask >> 20) & 1) ^ 1;
    r.MaskIDE = 1;
    return r;
  }
  // The extended form needs its two unused low bits marked "need not match"; without that
  // the pair means nothing sensible and the port accepts everything.
  if ((mask & 3) != 3 || (code & 3) != 0) return r;
  r.ExtFrame = 1;
  r.IDE = 1;
  r.ID = code >> 3;
  r.RTR = (code >> 2) & 1;
  r.MaskID = (mask >> 3) ^ 0x1FFFFFFF;
  r.MaskRTR = ((mask >> 2) & 1) ^ 1;
  r.MaskIDE = 1;
  return r;
}

VCI_CAN_OBJ to_obj(const CAN_MSG& m) {
  VCI_CAN_OBJ o{};
  o.ID = m.ID & 0x1FFFFFFF;
  o.TimeStamp = m.TimeStamp;
  o.TimeFlag = 1;
  o.RemoteFlag = m.FrameFlags & 1;
  o.ExternFlag = m.ExtFlag & 1;
  o.DataLen = std::min<uint8_t>(m.DataLen, sizeof o.Data);
  std::copy_n(m.Data, o.DataLen, o.Data);
  return o;
}

CAN_MSG to_can(const VCI_CAN_OBJ& o) {
  CAN_MSG m{};
  m.ID = o.ID;
  m.FrameFlags = o.RemoteFlag;
  m.ExtFlag = o.ExternFlag;
  m.DataLen = std::min<uint8_t>(o.DataLen, sizeof m.Data);
  std::copy_n(o.Data, m.DataLen, m.Data);
  return m;
}

}  // namespace veltrix::vci
