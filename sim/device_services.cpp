#include "sim/device_services.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

constexpr uint32_t kCmdPowerLevel = 0x10;
constexpr uint32_t kCmdGetTimestamp = 0x11;
constexpr uint32_t kCmdResetTimestamp = 0x12;
constexpr uint32_t kCmdDeviceInfo = 0x100;
constexpr uint32_t kCmdFunctionString = 0x106;
constexpr uint32_t kCmdWriteUserData = 0x107;
constexpr uint32_t kCmdReadUserData = 0x108;
constexpr uint32_t kCmdEraseUserData = 0x109;
constexpr uint32_t kCmdWriteSchData = 0x10A;
constexpr uint32_t kCmdReadSchData = 0x10B;
constexpr uint32_t kCmdEraseSchData = 0x10C;
constexpr uint32_t kCmdHardwareInfo = 0x10D;
constexpr uint32_t kCmdEraseUserSector = 0x10E;
constexpr uint32_t kCmdParamInit = 0x5000;
constexpr uint32_t kCmdParamWrite = 0x5001;
constexpr uint32_t kCmdParamRead = 0x5002;

constexpr size_t kInfoSize = 88;
constexpr uint8_t kRefusal = 0x01;

using Bytes = std::vector<uint8_t>;

std::optional<Reply> ack(const Command& c) { return Reply{c.code, {}}; }
std::optional<Reply> refuse(const Command& c) { return Reply{c.code, {kRefusal}}; }
std::optional<Reply> data_reply(const Command& c, Bytes b) { return Reply{c.code, std::move(b)}; }

uint64_t steady_us() {
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
}

// True if [addr, addr + n) lies inside [base, base + size); no overflow for any input.
bool inside(uint64_t addr, uint64_t n, uint64_t base, uint64_t size) {
  return addr >= base && addr - base <= size && n <= size - (addr - base);
}

// Flash programming can only clear bits.
void program(std::vector<uint8_t>& flash, size_t at, const uint8_t* src, size_t n) {
  for (size_t i = 0; i < n; ++i) flash[at + i] &= src[i];
}

Bytes identity_record(Model& m, const DeviceServices& s) {
  Bytes r(kInfoSize, 0);
  std::memcpy(r.data(), s.firmware_name.data(), std::min<size_t>(31, s.firmware_name.size()));
  std::memcpy(r.data() + 32, s.build_date.data(), std::min<size_t>(31, s.build_date.size()));
  wire::put_le32(r.data() + 64, s.hardware_version);
  wire::put_le32(r.data() + 68, s.firmware_version);
  wire::put_le32(r.data() + 72, s.boot_marker[0]);
  wire::put_le32(r.data() + 76, s.boot_marker[1]);
  wire::put_le32(r.data() + 80, m.serial());
  return r;
}

// ---- User-data flash ------------------------------------------------------------------

std::optional<Reply> erase_user_sector(DeviceServices& s, const Command& c) {
  if (c.payload.size() != 4) return refuse(c);
  uint32_t addr = wire::get_be32(c.payload.data());
  if (addr >= kUserDataSize) return refuse(c);
  auto first = s.user_data.begin() + (addr & ~(kUserSectorSize - 1));
  std::fill(first, first + kUserSectorSize, 0xFF);
  return ack(c);
}

std::optional<Reply> write_user_data(DeviceServices& s, const Command& c) {
  if (c.payload.size() < 4) return refuse(c);
  uint32_t addr = wire::get_be32(c.payload.data());
  size_t n = c.payload.size() - 4;
  if (addr % 4 != 0 || !inside(addr, n, 0, kUserDataSize)) return refuse(c);
  program(s.user_data, addr, c.payload.data() + 4, n);
  return ack(c);
}

std::optional<Reply> read_user_data(DeviceServices& s, const Command& c) {
  if (c.payload.size() != 8) return ack(c);
  uint32_t addr = wire::get_be32(c.payload.data());
  uint32_t n = wire::get_be32(c.payload.data() + 4);
  if (addr % 4 != 0 || !inside(addr, n, 0, kUserDataSize)) return ack(c);
  return data_reply(c, Bytes(s.user_data.begin() + addr, s.user_data.begin() + addr + n));
}

// ---- Schedule-data flash --------------------------------------------------------------

// Where the chunk for (code, addr) goes: behind the last one if a transfer is open.
uint32_t sch_target(DeviceServices& s, uint32_t code, uint32_t addr) {
  const auto& t = s.sch_open;
  uint64_t at = (t.code == code && t.addr == addr) ? uint64_t(addr) + t.next : addr;
  return at > UINT32_MAX ? UINT32_MAX : uint32_t(at);
}

void sch_close(DeviceServices& s) { s.sch_open = {}; }

std::optional<Reply> erase_sch(DeviceServices& s, const Command& c) {
  sch_close(s);
  if (c.payload.size() != 4) return refuse(c);
  uint32_t addr = wire::get_be32(c.payload.data());
  if (!inside(addr, 1, kSchBase, kSchSize)) return refuse(c);
  auto first = s.sch_data.begin() + ((addr - kSchBase) & ~(kSchSectorSize - 1));
  std::fill(first, first + kSchSectorSize, 0xFF);
  return ack(c);
}

std::optional<Reply> write_sch(DeviceServices& s, const Command& c) {
  if (c.payload.size() < 4) {
    sch_close(s);
    return refuse(c);
  }
  uint32_t addr = wire::get_be32(c.payload.data());
  uint32_t target = sch_target(s, c.code, addr);
  size_t n = c.payload.size() - 4;
  if (!inside(target, n, kSchBase, kSchSize)) {
    sch_close(s);
    return refuse(c);
  }
  program(s.sch_data, target - kSchBase, c.payload.data() + 4, n);
  s.sch_written_end = target + uint32_t(n);
  if (n == kSchChunk)
    s.sch_open = {c.code, addr, target - addr + kSchChunk};
  else
    sch_close(s);
  return ack(c);
}

std::optional<Reply> read_sch(DeviceServices& s, const Command& c) {
  if (c.payload.size() != 8) {
    sch_close(s);
    return ack(c);
  }
  uint32_t addr = wire::get_be32(c.payload.data());
  uint32_t n = wire::get_be32(c.payload.data() + 4);
  uint32_t target = sch_target(s, c.code, addr);
  if (!inside(target, n, kSchBase, kSchSize)) {
    sch_close(s);
    return ack(c);
  }
  auto first = s.sch_data.begin() + (target - kSchBase);
  Bytes out(first, first + n);
  if (n == kSchChunk && uint64_t(target) + n < s.sch_written_end)
    s.sch_open = {c.code, addr, target - addr + kSchChunk};
  else
    sch_close(s);
  return data_reply(c, std::move(out));
}

// ---- Timestamp, power -------------------------------------------------------------------

std::optional<Reply> get_timestamp(DeviceServices& s, const Command& c) {
  if (c.payload.size() != 1) return ack(c);
  uint64_t elapsed_us = s.clock_us() - s.timestamp_zero_us;
  Bytes out(4);
  switch (c.payload[0]) {
    case 0: wire::put_le32(out.data(), uint32_t(elapsed_us / 100)); break;
    case 1: wire::put_le32(out.data(), uint32_t(elapsed_us)); break;
    default: return ack(c);  // no such counter
  }
  return data_reply(c, std::move(out));
}

// ---- Parameter memory ------------------------------------------------------------------

std::optional<Reply> param_write(DeviceServices& s, const Command& c) {
  if (c.payload.size() < 2) return data_reply(c, {kParamMalformed});
  uint16_t addr = wire::get_be16(c.payload.data());
  size_t n = c.payload.size() - 2;
  if (!inside(addr, n, 0, kParamSize)) return data_reply(c, {kParamRefused});
  std::copy(c.payload.begin() + 2, c.payload.end(), s.params.begin() + addr);
  return data_reply(c, {kParamOk});
}

std::optional<Reply> param_read(DeviceServices& s, const Command& c) {
  if (c.payload.size() != 4) return data_reply(c, {kParamMalformed});
  uint16_t addr = wire::get_be16(c.payload.data());
  uint16_t n = wire::get_be16(c.payload.data() + 2);
  if (!inside(addr, n, 0, kParamSize)) return data_reply(c, {kParamRefused});
  Bytes out{kParamOk};
  out.insert(out.end(), s.params.begin() + addr, s.params.begin() + addr + n);
  return data_reply(c, std::move(out));
}

// Binds a handler that works on the device-services state.
template <typename F>
Handler with_state(F f) {
  return [f](Model& m, const Command& c) { return f(device_services(m), c); };
}

}  // namespace

DeviceServices::DeviceServices()
    : user_data(kUserDataSize, 0xFF),
      sch_data(kSchSize, 0xFF),
      params(kParamSize, 0xFF),
      clock_us(steady_us) {
  // Validity mark, board revision, board name.
  hardware[0] = 0x01;
  wire::put_le16(hardware.data() + 2, 0x0200);
  const char board[] = "VELTRIX-VA";
  std::memcpy(hardware.data() + 4, board, sizeof board - 1);
  timestamp_zero_us = clock_us();
}

DeviceServices& device_services(Model& m) { return m.state<DeviceServices>(); }

void install_device_services(Model& m) {
  m.on(kCmdDeviceInfo, [](Model& md, const Command& c) {
    return data_reply(c, identity_record(md, device_services(md)));
  });
  m.on(kCmdFunctionString, with_state([](DeviceServices& s, const Command& c) {
         return data_reply(c, Bytes(s.function_string.begin(), s.function_string.end()));
       }));
  m.on(kCmdHardwareInfo, with_state([](DeviceServices& s, const Command& c) {
         return data_reply(c, Bytes(s.hardware.begin(), s.hardware.end()));
       }));

  m.on(kCmdEraseUserData, with_state([](DeviceServices& s, const Command& c) {
         std::fill(s.user_data.begin(), s.user_data.end(), 0xFF);
         return ack(c);
       }));
  m.on(kCmdEraseUserSector, with_state(erase_user_sector));
  m.on(kCmdWriteUserData, with_state(write_user_data));
  m.on(kCmdReadUserData, with_state(read_user_data));

  m.on(kCmdEraseSchData, with_state(erase_sch));
  m.on(kCmdWriteSchData, with_state(write_sch));
  m.on(kCmdReadSchData, with_state(read_sch));

  m.on(kCmdPowerLevel, with_state([](DeviceServices& s, const Command& c) {
         if (c.payload.size() != 1) return refuse(c);
         s.power_level = c.payload[0];
         return ack(c);
       }));
  m.on(kCmdGetTimestamp, with_state(get_timestamp));
  m.on(kCmdResetTimestamp, with_state([](DeviceServices& s, const Command& c) {
         s.timestamp_zero_us = s.clock_us();
         return ack(c);
       }));

  m.on(kCmdParamInit, [](Model&, const Command& c) { return data_reply(c, {kParamOk}); });
  m.on(kCmdParamWrite, with_state(param_write));
  m.on(kCmdParamRead, with_state(param_read));
}

}  // namespace veltrix::sim
