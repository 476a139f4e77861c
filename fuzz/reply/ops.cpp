#include "fuzz/reply/ops.hpp"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "veltrix/can.h"
#include "veltrix/device.h"
#include "veltrix/lin.h"
#include "veltrix/lin_uds.h"
#include "veltrix/usb_device.h"

namespace veltrix::fuzz {
namespace {

const char* g_op = "";

// Output buffers are heap blocks of exactly the size a header promises, so that a write
// one byte past it is caught.
template <typename T>
std::vector<T> room(size_t n) {
  return std::vector<T>(n);
}

std::vector<uint8_t> bytes(Args& a, size_t n) {
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = a.u8();
  return v;
}

// Classic CAN: -1 bad argument, -2 write failed, -4 no valid reply.
constexpr std::initializer_list<int> kCanFail = {-1, -2, -4};
// LIN: -2 write failed, -4 bad reply, -5 channel not set up, -7 bad argument.
constexpr std::initializer_list<int> kLinFail = {-2, -4, -5, -7};
constexpr int kDevBool = 1;  // device services answer 1 or 0

uint8_t port(Args& a) { return uint8_t(a.u8() % 4); }    // ports 2 and 3 are out of range
uint8_t lin_ch(Args& a) { return uint8_t(a.u8() % 5); }  // channel 4 is out of range

CAN_MSG can_frame(Args& a) {
  CAN_MSG m{};
  m.ID = a.u32();
  m.ExtFlag = a.u8() & 1;
  m.DataLen = uint8_t(a.u8() % 10);
  for (auto& b : m.Data) b = a.u8();
  return m;
}

LIN_EX_MSG lin_frame(Args& a) {
  LIN_EX_MSG m{};
  m.Timestamp = a.u8();
  m.MsgType = uint8_t(a.u8() % 10);
  m.CheckType = uint8_t(a.u8() % 4);
  m.DataLen = uint8_t(a.u8() % 10);
  m.PID = a.u8();
  for (auto& b : m.Data) b = a.u8();
  m.BreakBits = 13;
  return m;
}

std::vector<LIN_EX_MSG> lin_frames(Args& a, int n) {
  std::vector<LIN_EX_MSG> v(static_cast<size_t>(n));
  for (auto& m : v) m = lin_frame(a);
  return v;
}

// ---- Device services and parameter store ---------------------------------------------

void dev_info(const Target& t, Args& a) {
  DEVICE_INFO info{};
  auto text = room<char>(DEV_FUNCTION_STR_MAX + 1);
  expect(DEV_GetDeviceInfo(t.handle, &info, (a.u8() & 1) ? text.data() : nullptr), kDevBool, {});
}

void dev_hardware(const Target& t, Args&) {
  auto hw = room<uint8_t>(DEV_HARDWARE_INFO_SIZE);
  expect(DEV_GetHardwareInfo(t.handle, hw.data()), kDevBool, {});
}

void dev_erase(const Target& t, Args& a) {
  expect((a.u8() & 1) ? DEV_EraseUserData(t.handle) : DEV_EraseUserDataSector(t.handle, a.u32()),
         kDevBool, {});
}

void dev_write_user(const Target& t, Args& a) {
  uint32_t addr = a.u32() & ~3u;
  auto data = bytes(a, size_t(a.range(0, 64)));
  expect(DEV_WriteUserData(t.handle, addr, data.data(), int(data.size())), kDevBool, {});
}

void dev_read_user(const Target& t, Args& a) {
  uint32_t addr = a.u32() & ~3u;
  auto out = room<uint8_t>(size_t(a.range(1, 300)));
  expect(DEV_ReadUserData(t.handle, addr, out.data(), int(out.size())), kDevBool, {});
}

void dev_sch(const Target& t, Args& a) {
  uint32_t addr = a.u32();
  switch (a.u8() % 3) {
    case 0:
      expect(DEV_EraseSchData(t.handle, addr), kDevBool, {});
      break;
    case 1: {
      auto data = bytes(a, size_t(a.range(0, 40)));
      expect(DEV_WriteSchData(t.handle, addr, data.data(), int(data.size())), kDevBool, {});
      break;
    }
    default: {
      // Long enough to take a whole chunk and then a partial one.
      auto out = room<uint8_t>(size_t(a.range(1, DEV_SCH_CHUNK + 200)));
      expect(DEV_ReadSchData(t.handle, addr, out.data(), int(out.size())), kDevBool, {});
    }
  }
}

void dev_misc(const Target& t, Args& a) {
  unsigned int ts = 0;
  switch (a.u8() % 3) {
    case 0:
      expect(DEV_SetPowerLevel(t.handle, a.u8()), kDevBool, {});
      break;
    case 1:
      expect(DEV_GetTimestamp(t.handle, a.u8() % 3, &ts), kDevBool, {});
      break;
    default:
      expect(DEV_ResetTimestamp(t.handle), kDevBool, {});
  }
}

void arg_init(const Target& t, Args&) { expect(ARG_Init(t.handle), 0, {-2, -4, -5}); }

void arg_raw(const Target& t, Args& a) {
  uint16_t addr = a.u16();
  if (a.u8() & 1) {
    auto data = bytes(a, size_t(a.range(0, 48)));
    expect(ARG_Write(t.handle, addr, data.data(), uint16_t(data.size())), 0, {-1, -2, -4, -5, -6});
  } else {
    auto out = room<uint8_t>(size_t(a.range(1, ARG_CHUNK + 100)));
    expect(ARG_Read(t.handle, addr, out.data(), uint16_t(out.size())), 0, {-1, -2, -4, -5, -7});
  }
}

uint32_t arg_id(Args& a) { return 0x55AA0000u | (a.u8() % 16); }

void arg_records(const Target& t, Args& a) {
  uint32_t id = arg_id(a);
  switch (a.u8() % 3) {
    case 0: {
      auto out = room<uint8_t>(ARG_MAX_DATA);
      expect(ARG_ReadArgData(t.handle, id, out.data()), ARG_MAX_DATA,
             {-1, -2, -4, -5, -7, -8, -9, -10});
      break;
    }
    case 1: {
      auto data = bytes(a, size_t(a.range(0, 40)));
      expect(ARG_WriteArgData(t.handle, id, data.data(), int(data.size())), 0,
             {-1, -2, -4, -5, -6, -7, -10});
      break;
    }
    default:
      expect(ARG_EraseArgData(t.handle, id), 0, {-2, -4, -5, -6, -7, -8, -10});
  }
}

// ---- CAN -------------------------------------------------------------------------------

void can_init(const Target& t, Args& a) {
  CAN_CHANNEL_CONFIG c{};
  c.Prescaler = a.u16();
  c.SJW = a.u8();
  c.Seg1 = a.u8();
  c.Seg2 = a.u8();
  c.Mode = a.u8();
  uint8_t p = port(a);
  expect(CAN_Init(t.handle, p, &c), 0, kCanFail);
}

void can_filter(const Target& t, Args& a) {
  CAN_FILTER_RULE f{};
  f.Enable = a.u8() & 1;
  f.FilterIndex = a.u8();
  f.FilterMode = a.u8() & 1;
  f.ExtFrame = a.u8() & 1;
  f.ID = a.u32();
  f.MaskID = a.u32();
  uint8_t p = port(a);
  expect(CAN_Filter_Init(t.handle, p, &f), 0, kCanFail);
}

void can_status(const Target& t, Args& a) {
  uint8_t p = port(a);
  if (a.u8() & 1) {
    CAN_BUS_STATUS s{};
    expect(CAN_GetStatus(t.handle, p, &s), 0, kCanFail);
  } else {
    CAN_TX_INFO info{};
    expect(CAN_GetSendMsgInfo(t.handle, p, &info), 0, kCanFail);
  }
}

void can_send(const Target& t, Args& a) {
  uint8_t p = port(a);
  bool synch = a.u8() & 1;
  // Past one batch now and then, so a failing second batch is reached.
  int n = (a.u8() & 0x80) ? a.range(0, 600) : a.range(0, 4);
  std::vector<CAN_MSG> msgs(static_cast<size_t>(n));
  for (auto& m : msgs) m = can_frame(a);
  int r = synch ? CAN_SendMsgSynch(t.handle, p, msgs.data(), unsigned(n))
                : CAN_SendMsg(t.handle, p, msgs.data(), unsigned(n));
  expect(r, n, kCanFail);
}

void can_read(const Target& t, Args& a) {
  uint8_t p = port(a);
  auto out = room<CAN_MSG>(CAN_READ_MSG_MAX);
  expect(CAN_ReadMsg(t.handle, p, out.data()), CAN_READ_MSG_MAX, kCanFail);
}

void can_get(const Target& t, Args& a) {
  uint8_t p = port(a);
  switch (a.u8() % 4) {
    case 0: {
      auto out = room<CAN_MSG>(CAN_MSG_QUEUE_SIZE);
      expect(CAN_GetMsg(t.handle, p, out.data()), CAN_MSG_QUEUE_SIZE, kCanFail);
      break;
    }
    case 1: {
      int size = a.range(1, 64);
      auto out = room<CAN_MSG>(size_t(size));
      expect(CAN_GetMsgWithSize(t.handle, p, out.data(), size), size, kCanFail);
      break;
    }
    case 2: {
      expect(CAN_ReadMsgToBuffer(t.handle, p), 0, kCanFail);
      int size = a.range(1, 64);
      auto out = room<CAN_MSG>(size_t(size));
      expect(CAN_GetCANMsgFromUDSBuffer(t.handle, p, out.data(), size), size, {});
      break;
    }
    // On the CAN FD model the CAN FD family clears, and reports a failed fetch.
    default:
      expect(CAN_ClearMsg(t.handle, p), 0, kCanFail);
  }
}

void can_stop(const Target& t, Args& a) { expect(CAN_Stop(t.handle, port(a)), 0, kCanFail); }

// ---- LIN -------------------------------------------------------------------------------

void lin_init(const Target& t, Args& a) {
  uint8_t ch = lin_ch(a);
  unsigned baud = (a.u8() & 1) ? a.u32() : 19200;
  expect(LIN_EX_Init(int(t.handle), ch, baud, a.u8() & 1), 0, kLinFail);
}

void lin_sync(const Target& t, Args& a) {
  uint8_t ch = lin_ch(a);
  int n = a.range(1, 8);
  auto in = lin_frames(a, n);
  auto out = room<LIN_EX_MSG>(size_t(n));
  expect(LIN_EX_MasterSync(int(t.handle), ch, in.data(), out.data(), n), n, kLinFail);
}

void lin_master(const Target& t, Args& a) {
  uint8_t ch = lin_ch(a);
  uint8_t pid = a.u8();
  switch (a.u8() % 3) {
    case 0:
      expect(LIN_EX_MasterBreak(int(t.handle), ch), 0, kLinFail);
      break;
    case 1: {
      auto data = bytes(a, 8);
      expect(
          LIN_EX_MasterWrite(int(t.handle), ch, pid, data.data(), uint8_t(a.u8() % 10), a.u8() % 4),
          0, kLinFail);
      break;
    }
    default: {
      auto out = room<uint8_t>(8);
      expect(LIN_EX_MasterRead(int(t.handle), ch, pid, out.data()), 8, kLinFail);
    }
  }
}

void lin_schedule(const Target& t, Args& a) {
  uint8_t ch = lin_ch(a);
  switch (a.u8() % 4) {
    case 0: {
      int n = a.range(1, LIN_EX_MAX_SCH_MSGS + 4);
      auto msgs = lin_frames(a, n);
      expect(LIN_EX_MasterStartSch(int(t.handle), ch, msgs.data(), n), 0, kLinFail);
      break;
    }
    case 1:
      expect(LIN_EX_MasterStopSch(int(t.handle), ch), 0, kLinFail);
      break;
    case 2:
      expect(LIN_EX_MasterSetSchRunTimes(int(t.handle), ch, a.u32()), 0, kLinFail);
      break;
    default: {
      auto out = room<LIN_EX_MSG>(LIN_EX_MAX_SCH_MSGS);
      expect(LIN_EX_MasterGetSch(int(t.handle), ch, out.data()), LIN_EX_MAX_SCH_MSGS, kLinFail);
    }
  }
}

void lin_slave(const Target& t, Args& a) {
  uint8_t ch = lin_ch(a);
  switch (a.u8() % 4) {
    case 0: {
      int n = a.range(1, LIN_EX_MAX_SLAVE_MSGS);
      auto msgs = lin_frames(a, n);
      expect(LIN_EX_SlaveSetIDMode(int(t.handle), ch, msgs.data(), n), 0, kLinFail);
      break;
    }
    case 1: {
      auto out = room<LIN_EX_MSG>(LIN_EX_MAX_SLAVE_MSGS);
      expect(LIN_EX_SlaveGetIDMode(int(t.handle), ch, (a.u8() & 1) ? out.data() : nullptr),
             LIN_EX_MAX_SLAVE_MSGS, kLinFail);
      break;
    }
    case 2: {
      auto out = room<LIN_EX_MSG>(LIN_EX_MAX_CAPTURE_MSGS);
      expect(LIN_EX_SlaveGetData(int(t.handle), ch, out.data()), LIN_EX_MAX_CAPTURE_MSGS, kLinFail);
      break;
    }
    default: {
      unsigned short vbat = 0;
      if (a.u8() & 1)
        expect(LIN_EX_GetVbatValue(int(t.handle), &vbat), 0, kLinFail);
      else
        expect(LIN_EX_CtrlPowerOut(int(t.handle), ch, a.u8()), 0, kLinFail);
    }
  }
}

void lin_legacy(const Target& t, Args& a) {
  const uint8_t what = a.u8() % 6;  // first: the frames below may use up the argument bytes
  uint8_t ch = uint8_t(a.u8() % 3);
  int n = a.range(1, 4);
  std::vector<LIN_MSG> msgs(static_cast<size_t>(n));
  for (auto& m : msgs) {
    m.ID = a.u8();
    m.DataLen = uint8_t(a.u8() % 10);
    for (auto& b : m.Data) b = a.u8();
  }
  switch (what) {
    case 0: {
      LIN_CONFIG c{19200, a.u8(), uint8_t(a.u8() & 1)};
      expect(LIN_Init(int(t.handle), ch, &c), 0, {-2, -4, -7});
      break;
    }
    case 1:
      expect(LIN_SendBreak(int(t.handle), ch), 0, kLinFail);
      break;
    case 2:
      expect(LIN_Write(int(t.handle), ch, msgs.data(), n), 0, kLinFail);
      break;
    case 3:
      expect(LIN_Read(int(t.handle), ch, msgs.data(), n), 0, kLinFail);
      break;
    case 4:
      expect(LIN_SlaveSetIDMode(int(t.handle), ch, a.u8(), msgs.data(), n), 0, kLinFail);
      break;
    default: {
      auto out = room<LIN_MSG>(LIN_EX_MAX_CAPTURE_MSGS);
      expect(LIN_SlaveGetData(int(t.handle), ch, out.data()), LIN_EX_MAX_CAPTURE_MSGS, kLinFail);
    }
  }
}

LIN_UDS_ADDR uds_addr(Args& a) {
  LIN_UDS_ADDR addr{0x3C, 0x3D, a.u8(), uint8_t(a.u8() & 1), uint8_t(a.u8() % 3)};
  return addr;
}

void lin_uds(const Target& t, Args& a) {
  uint8_t ch = lin_ch(a);
  LIN_UDS_ADDR addr = uds_addr(a);
  switch (a.u8() % 4) {
    case 0: {
      auto data = bytes(a, size_t(a.range(0, 20)));
      expect(LIN_UDS_Request(int(t.handle), ch, &addr, data.data(), int(data.size())), 0,
             {-98, -99});
      break;
    }
    case 1: {
      auto out = room<uint8_t>(LIN_UDS_MAX_LEN);
      expect(LIN_UDS_Response(int(t.handle), ch, &addr, out.data(), a.range(0, 200)),
             LIN_UDS_MAX_LEN, {-98, -101, -103, -105});
      break;
    }
    case 2: {
      auto data = bytes(a, 7);
      expect(
          LIN_UDS_SendMsg(int(t.handle), ch, LIN_UDS_PackAddr(&addr), data.data(), a.range(0, 7)),
          0, {-98, -99});
      break;
    }
    default: {
      auto out = room<uint8_t>(7);
      expect(LIN_UDS_GetMsg(int(t.handle), ch, LIN_UDS_PackAddr(&addr), out.data()), 7, {-98, -99});
    }
  }
}

// ---- LDF bus execution -------------------------------------------------------------------

void ldf_bus(const Target& t, Args& a) {
  LDF_CODING* h = (a.u8() & 1) ? t.slave : t.master;
  if (h == nullptr) return;
  uint8_t fill = a.u8();
  uint8_t what = a.u8() % 3;
  uint8_t pick = a.u8();
  if (what == 0 && h->FrameNum > 0) {
    LDF_ExeFrameToBus(h, h->Frames[pick % h->FrameNum].Name, fill);
  } else if (h->SchNum > 0) {
    const char* sch = h->Schs[pick % h->SchNum].Name;
    if (what == 1)
      LDF_ExeSchToBus(h, sch, fill);
    else
      LDF_SetSchToTable(h, sch, fill);
  }
  // Whatever the run put in the message buffer must fit the room given for it.
  auto out = room<LIN_EX_MSG>(16);
  expect(LDF_GetRawMsg(h, out.data(), 16), 16, {-98});
}

// ---- The packet reader itself ------------------------------------------------------------

void packet_get(const Target& t, Args& a) {
  uint32_t cmd = a.u32();
  uint32_t cap = uint32_t(a.range(0, 300));
  auto buf = room<uint8_t>(cap);
  USB_MSG m{cmd, cap, cap ? buf.data() : nullptr};
  expect((a.u8() & 1) ? MSG_Get(t.handle, &m, 1000) : USB_MSG_Get(t.handle, &m, 1000), 0, {-3});
}

constexpr Op kOps[] = {
    {"dev_info", dev_info},
    {"dev_hardware", dev_hardware},
    {"dev_erase", dev_erase},
    {"dev_write_user", dev_write_user},
    {"dev_read_user", dev_read_user},
    {"dev_sch", dev_sch},
    {"dev_misc", dev_misc},
    {"arg_init", arg_init},
    {"arg_raw", arg_raw},
    {"arg_records", arg_records},
    {"can_init", can_init},
    {"can_filter", can_filter},
    {"can_status", can_status},
    {"can_send", can_send},
    {"can_read", can_read},
    {"can_get", can_get},
    {"can_stop", can_stop},
    {"lin_init", lin_init},
    {"lin_sync", lin_sync},
    {"lin_master", lin_master},
    {"lin_schedule", lin_schedule},
    {"lin_slave", lin_slave},
    {"lin_legacy", lin_legacy},
    {"lin_uds", lin_uds},
    {"ldf_bus", ldf_bus},
    {"packet_get", packet_get},
};

}  // namespace

std::span<const Op> ops() { return kOps; }

void set_current_op(const char* name) { g_op = name; }

void expect(int result, int max_count, std::initializer_list<int> failures) {
  if (result >= 0 && result <= max_count) return;
  for (int f : failures)
    if (result == f) return;
  std::fprintf(stderr, "%s: result %d is not one the header documents\n", g_op, result);
  std::abort();
}

}  // namespace veltrix::fuzz
