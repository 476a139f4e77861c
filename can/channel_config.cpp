// Port configuration: bit timing, initialisation, filter banks and the error state.
#include <array>

#include "can/can_state.hpp"
#include "can/fd_bridge.hpp"
#include "can/timing_tables.hpp"
#include "device/abi.hpp"
#include "device/adapter_clock.hpp"
#include "device/thread_list.hpp"
#include "device/wire.hpp"
#include "veltrix/device.h"
#include "veltrix/usb_device.h"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdInit = 0x0C00;
constexpr uint32_t kCmdFilter = 0x0C01;
constexpr uint32_t kCmdStatus = 0x0C04;

// The stored rate divides a 42 MHz clock for every classic model, the 100 MHz ones too:
// it only paces the synchronous send's wait, where 0.42 of the real rate errs on the
// patient side.
constexpr uint32_t kStoredRateClockHz = 42000000;

constexpr size_t kInitPayload = 13;
constexpr size_t kFilterPayload = 14;
constexpr size_t kStatusReply = 8;
constexpr unsigned kBanksPerPort = 14;

// Ports 0 and 1 take the timing register form (value minus one, and a zero sent as 1);
// the controllers behind higher ports take the values as given.
uint8_t timing_byte(unsigned port, uint8_t v) {
  if (port >= 2) return v;
  return v == 0 ? 1 : uint8_t(v - 1);
}

int speed_arg(uint32_t h, CAN_CHANNEL_CONFIG* c, int bit_rate) {
  if (c == nullptr) return CAN_ERR_PARAMETER;
  const CAN_TIMING_ENTRY* row = find_rate(timing_table_for(h), uint32_t(bit_rate));
  if (row == nullptr) return CAN_ERR_USB_READ_FAIL;
  c->Prescaler = row->Prescaler;
  c->SJW = row->SJW;
  c->Seg1 = row->Seg1;
  c->Seg2 = row->Seg2;
  c->Mode = 0x80;
  c->AutoBusOffRecovery = 1;
  c->NoAutoRetransmit = 0;
  c->RxFifoLocked = 0;
  c->TxFifoOrder = 0;
  return CAN_SUCCESS;
}

int init(uint32_t h, uint8_t port, const CAN_CHANNEL_CONFIG* c) {
  if (c == nullptr) return CAN_ERR_PARAMETER;
  auto slot = slot_of(h);
  if (!slot) return CAN_ERR_USB_WRITE_FAIL;
  CanPort* ps = port_state(*slot, port);
  if (ps) ps->run.store(0);  // a receive thread stops polling this port at its next turn
  if (is_canfd_model(h)) return fd_init(h, port, *c);

  thread_list_init();
  wire::PayloadBuilder p(kInitPayload);
  p.u8(port).u8(0).u8(c->AutoBusOffRecovery & 1).u8(0);
  p.u8(c->NoAutoRetransmit & 1).u8(c->RxFifoLocked & 1).u8(c->TxFifoOrder & 1);
  p.u8(c->Mode);
  p.u8(timing_byte(port, c->SJW)).u8(timing_byte(port, c->Seg1)).u8(timing_byte(port, c->Seg2));
  p.be16(uint16_t(c->Prescaler));
  int r = map_ack(exchange(h, {.cmd = kCmdInit, .payload = p.span()}));
  if (r != CAN_SUCCESS) return r;

  CanSlot& s = state().slot[*slot];
  unsigned int counter = 0;
  // An empty reply carries no counter: the value stored at an earlier init stays.
  if (read_timestamp(h, 0, &counter) > 0) s.timestamp_error.store(counter);
  s.time_start.store(GetTimestampOfDay());
  uint32_t divisor = (uint32_t(c->Seg1) + c->Seg2 + 1) * c->Prescaler;
  if (ps) ps->baud_rate.store(divisor ? kStoredRateClockHz / divisor : 0);
  return CAN_SUCCESS;
}

// The controller's 32-bit filter register form, split into 16-bit halves:
//
//   extended:  31........21 20..........3  2    1    0
//              | ID 28..18 | ID 17..0     | IDE | RTR | 0 |
//   standard:  31........21 20...........3  2    1    0
//              | ID 10..0  |      0       | IDE | RTR | 0 |
struct Halves {
  uint16_t high;
  uint16_t low;
};

uint16_t flag_bits(uint32_t ide, uint32_t rtr) { return uint16_t((ide & 1) << 2 | (rtr & 1) << 1); }

Halves ext_halves(uint32_t id, uint32_t ide, uint32_t rtr) {
  return {uint16_t(((id >> 18) & 0x7FF) << 5 | (id & 0x3FFFF) >> 13),
          uint16_t(uint16_t((id & 0x3FFFF) << 3) | flag_bits(ide, rtr))};
}

int filter(uint32_t h, uint8_t port, const CAN_FILTER_RULE* f) {
  if (f == nullptr) return CAN_ERR_PARAMETER;
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_filter(h, port, *f);

  Halves id, mask;
  const bool list_mode = f->FilterMode != 0;
  if (f->ExtFrame == 1) {
    id = ext_halves(f->ID, f->IDE, f->RTR);
    mask = list_mode ? Halves{0, flag_bits(f->MaskIDE, f->MaskRTR)}
                     : ext_halves(f->MaskID, f->MaskIDE, f->MaskRTR);
  } else {
    id = {uint16_t((f->ID & 0x7FF) << 5), flag_bits(f->IDE, f->RTR)};
    mask = {list_mode ? uint16_t(0) : uint16_t(uint16_t(f->MaskID) << 5),
            flag_bits(f->MaskIDE, f->MaskRTR)};
  }
  const uint8_t bank = uint8_t(f->FilterIndex % kBanksPerPort + kBanksPerPort * port);
  wire::PayloadBuilder p(kFilterPayload);
  p.u8(port).u8(bank).u8(f->FilterMode).u8(1);
  p.be16(id.high).be16(id.low).be16(mask.high).be16(mask.low);
  p.u8(0).u8(f->Enable);
  return map_ack(exchange(h, {.cmd = kCmdFilter, .payload = p.span()}));
}

int status(uint32_t h, uint8_t port, CAN_BUS_STATUS* out) {
  if (out == nullptr) return CAN_ERR_PARAMETER;
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_status(h, port, out);

  const uint8_t payload[1] = {port};
  std::array<uint8_t, kStatusReply> reply{};  // its length is not checked: short = zeros
  int r = map_result(exchange(h, {.cmd = kCmdStatus, .payload = payload, .reply = reply}));
  if (r != CAN_SUCCESS) return r;
  //   error status word: 31..24 REC | 23..16 TEC | 15..7 - | 6..4 LEC | 3 - | 2..0 flags
  const uint32_t e = wire::get_le32(reply.data() + 4);
  out->StatusWord = wire::get_le32(reply.data());
  out->ErrorStatusWord = e;
  out->ErrorFlags = uint8_t(e & 7);
  out->LastErrorCode = uint8_t((e >> 4) & 7);
  out->TxErrorCounter = uint8_t(e >> 16);
  out->RxErrorCounter = uint8_t(e >> 24);
  return CAN_SUCCESS;
}

}  // namespace
}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CAN_GetCANSpeedArg, (unsigned int h, CAN_CHANNEL_CONFIG* c, int bit_rate),
               CAN_ERR_USB_READ_FAIL, { return can::speed_arg(h, c, bit_rate); })

VELTRIX_EXPORT(int, CAN_Init, (unsigned int h, unsigned char port, CAN_CHANNEL_CONFIG* c),
               CAN_ERR_USB_READ_FAIL, { return can::init(h, port, c); })

VELTRIX_EXPORT(int, CAN_Filter_Init, (unsigned int h, unsigned char port, CAN_FILTER_RULE* f),
               CAN_ERR_USB_READ_FAIL, { return can::filter(h, port, f); })

VELTRIX_EXPORT(int, CAN_GetStatus, (unsigned int h, unsigned char port, CAN_BUS_STATUS* s),
               CAN_ERR_USB_READ_FAIL, { return can::status(h, port, s); })

}  // extern "C"
