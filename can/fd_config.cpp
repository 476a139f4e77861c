// CAN FD port configuration: bit timing of both phases, initialisation, the acceptance
// filters and the three small status queries.
#include "can/fd_config.hpp"

#include <array>
#include <cstring>

#include "can/fd_element.hpp"
#include "can/fd_state.hpp"
#include "can/timing_tables.hpp"
#include "device/abi.hpp"
#include "device/thread_list.hpp"
#include "device/wire.hpp"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdInit = 0x4000;
constexpr uint32_t kCmdFilter = 0x4001;
constexpr uint32_t kCmdDiagnostic = 0x4004;
constexpr uint32_t kCmdBusError = 0x4005;
constexpr uint32_t kCmdTxInfo = 0x400A;

constexpr size_t kConfigBytes = 20;
constexpr size_t kRuleBytes = 12;

void put_phase(const CAN_TIMING_ENTRY& row, uint8_t& sjw, uint8_t& seg1, uint8_t& seg2,
               uint8_t& prescaler) {
  sjw = row.SJW;
  seg1 = row.Seg1;
  seg2 = row.Seg2;
  prescaler = uint8_t(row.Prescaler);  // the record has one byte per prescaler
}

int speed_arg(uint32_t h, CANFD_CHANNEL_CONFIG* c, int nominal, int data) {
  if (c == nullptr) return CANFD_ERR_PARAMETER;
  const CAN_TIMING_ENTRY* n = find_rate(timing_table_for(h), uint32_t(nominal));
  if (n == nullptr) return CANFD_ERR_USB_READ_FAIL;
  const CAN_TIMING_ENTRY* d = nullptr;
  const bool fd_clock = (h & 0xF0000000u) == 0x50000000u;
  if (fd_clock) {
    d = find_rate(CAN_BRT_MIRADEL_DBT, uint32_t(data));
    if (d == nullptr) return CANFD_ERR_USB_READ_FAIL;
  }
  c->Mode = 0;
  c->IsoCrc = 1;
  c->AutoRetransmit = 1;
  c->Terminator = 1;
  put_phase(*n, c->NBT_SJW, c->NBT_Seg1, c->NBT_Seg2, c->NBT_Prescaler);
  // The classic clocks have no data-phase table: the caller's data phase stays.
  if (d) put_phase(*d, c->DBT_SJW, c->DBT_Seg1, c->DBT_Seg2, c->DBT_Prescaler);
  return CANFD_SUCCESS;
}

void put_config(const CANFD_CHANNEL_CONFIG& c, wire::PayloadBuilder& p) {
  p.u8(c.Mode).u8(c.IsoCrc).u8(c.AutoRetransmit).u8(c.Terminator);
  p.u8(c.NBT_Prescaler).u8(c.NBT_Seg1).u8(c.NBT_Seg2).u8(c.NBT_SJW);
  p.u8(c.DBT_Prescaler).u8(c.DBT_Seg1).u8(c.DBT_Seg2).u8(c.DBT_SJW);
  p.bytes(c.Reserved, sizeof c.Reserved);
}

void put_rule(const CANFD_FILTER_RULE& r, wire::PayloadBuilder& p) {
  p.u8(r.Enable).u8(r.FilterIndex).bytes(r.Reserved, sizeof r.Reserved);
  p.le32(r.ID).le32(r.Mask);
}

// A query whose reply is a record of exactly `out.size()` bytes.
int query(uint32_t h, uint32_t cmd, uint8_t port, std::span<uint8_t> out) {
  const uint8_t payload[1] = {port};
  std::array<uint8_t, 8> reply{};
  ExchangeResult r =
      exchange(h, {.cmd = cmd, .payload = payload, .reply = std::span(reply).first(out.size())});
  if (!r.ok()) return fd_map_result(r);
  if (r.reply_len != out.size()) return CANFD_ERR_USB_READ_FAIL;
  std::memcpy(out.data(), reply.data(), out.size());
  return CANFD_SUCCESS;
}

}  // namespace

int fd_init_port(uint32_t h, uint8_t port, const CANFD_CHANNEL_CONFIG* c) {
  if (c == nullptr) return CANFD_ERR_PARAMETER;
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  thread_list_init();
  wire::PayloadBuilder p(1 + kConfigBytes);
  p.u8(port);
  put_config(*c, p);
  return fd_map_ack(exchange(h, {.cmd = kCmdInit, .payload = p.span()}));
}

int fd_set_filter(uint32_t h, uint8_t port, const CANFD_FILTER_RULE* rules, uint8_t count) {
  if (count > CANFD_FILTER_MAX || (rules == nullptr && count > 0)) return CANFD_ERR_PARAMETER;
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  wire::PayloadBuilder p(1 + kRuleBytes * count);
  p.u8(port);
  for (uint8_t i = 0; i < count; ++i) put_rule(rules[i], p);
  return fd_map_ack(exchange(h, {.cmd = kCmdFilter, .payload = p.span()}));
}

int fd_bus_error(uint32_t h, uint8_t port, CANFD_BUS_ERROR* out) {
  if (out == nullptr) return CANFD_ERR_PARAMETER;
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  std::array<uint8_t, 4> b{};
  int r = query(h, kCmdBusError, port, b);
  if (r != CANFD_SUCCESS) return r;
  *out = {b[0], b[1], {b[2], b[3]}};
  return CANFD_SUCCESS;
}

int fd_tx_info(uint32_t h, uint8_t port, CANFD_TX_INFO* out) {
  if (out == nullptr) return CANFD_ERR_PARAMETER;
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  std::array<uint8_t, 4> b{};
  int r = query(h, kCmdTxInfo, port, b);
  if (r != CANFD_SUCCESS) return r;
  *out = {b[0], b[1], b[2], b[3]};
  return CANFD_SUCCESS;
}

int fd_diagnostic(uint32_t h, uint8_t port, CANFD_DIAGNOSTIC* out) {
  if (out == nullptr) return CANFD_ERR_PARAMETER;
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  std::array<uint8_t, 8> b{};
  int r = query(h, kCmdDiagnostic, port, b);
  if (r != CANFD_SUCCESS) return r;
  std::memcpy(out->Data, b.data(), b.size());
  return CANFD_SUCCESS;
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(unsigned char, DlcToDataBytes, (unsigned char dlc), 0,
               { return can::dlc_to_bytes(dlc); })

VELTRIX_EXPORT(unsigned char, DataBytesToDlc, (unsigned char n), 15,
               { return can::bytes_to_dlc(n); })

VELTRIX_EXPORT(int, CANFD_GetCANSpeedArg,
               (unsigned int h, CANFD_CHANNEL_CONFIG* c, int nominal, int data),
               CANFD_ERR_USB_READ_FAIL, { return can::speed_arg(h, c, nominal, data); })

VELTRIX_EXPORT(int, CANFD_Init, (unsigned int h, unsigned char port, CANFD_CHANNEL_CONFIG* c),
               CANFD_ERR_USB_READ_FAIL, { return can::fd_init_port(h, port, c); })

VELTRIX_EXPORT(int, CANFD_SetFilter,
               (unsigned int h, unsigned char port, CANFD_FILTER_RULE* rules, unsigned char n),
               CANFD_ERR_USB_READ_FAIL, { return can::fd_set_filter(h, port, rules, n); })

VELTRIX_EXPORT(int, CANFD_GetDiagnostic,
               (unsigned int h, unsigned char port, CANFD_DIAGNOSTIC* out), CANFD_ERR_USB_READ_FAIL,
               { return can::fd_diagnostic(h, port, out); })

VELTRIX_EXPORT(int, CANFD_GetBusError, (unsigned int h, unsigned char port, CANFD_BUS_ERROR* out),
               CANFD_ERR_USB_READ_FAIL, { return can::fd_bus_error(h, port, out); })

VELTRIX_EXPORT(int, CANFD_SendMsgStatus, (unsigned int h, unsigned char port, CANFD_TX_INFO* out),
               CANFD_ERR_USB_READ_FAIL, { return can::fd_tx_info(h, port, out); })

}  // extern "C"
