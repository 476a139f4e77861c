// The adapter's device services: identity and hardware records, the user-data and
// schedule-data flash, the parameter memory, the timestamp counter and the power level.
//
// Memory map of the virtual adapter (sized like a mid-range microcontroller's flash):
//   user data      addresses 0x0000..0xFFFF (64 KiB) in 16 sectors of 4 KiB; the sector
//                  erase accepts any address inside the area and erases its sector.
//   schedule data  addresses 0x080C0000..0x080FFFFF: two 128 KiB flash sectors (the CAN
//                  schedule images of ports 0 and 1 start at 0x080C0000 and 0x080E0000);
//                  the erase accepts any address inside and erases its sector.
//   parameters     addresses 0x0000..0x3FFF (16 KiB) of byte-writable memory.
// Flash programming only clears bits (new = old AND data), as on real parts: erase first.
// Out-of-range access is refused: commands acknowledged by an empty reply answer one
// status byte 0x01 instead; reads answer an empty reply.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr uint32_t kUserDataSize = 0x10000;
inline constexpr uint32_t kUserSectorSize = 0x1000;
inline constexpr uint32_t kSchBase = 0x080C0000;
inline constexpr uint32_t kSchSize = 0x40000;
inline constexpr uint32_t kSchSectorSize = 0x20000;
inline constexpr uint32_t kSchChunk = 10240;
inline constexpr uint32_t kParamSize = 0x4000;

// Firmware versions at and above 0x0105001E speak the LIN family's newer command set.
inline constexpr uint32_t kDefaultFirmwareVersion = 0x01060003;

// Parameter memory status bytes.
inline constexpr uint8_t kParamOk = 0;
inline constexpr uint8_t kParamRefused = 1;    // outside the parameter memory
inline constexpr uint8_t kParamMalformed = 2;  // payload too short

struct DeviceServices {
  DeviceServices();

  // Identity record fields (the record itself is assembled per request).
  std::string firmware_name = "VELTRIX virtual adapter";
  std::string build_date = "Jan 10 2025 09:30:00";
  uint32_t hardware_version = 0x0200;
  uint32_t firmware_version = kDefaultFirmwareVersion;
  std::array<uint32_t, 2> boot_marker{0, 0};  // 0 while running the application
  std::string function_string = "CAN,CANFD,LIN,I2C,SPI,UART,GPIO,PWM,ADC";
  std::array<uint8_t, 64> hardware{};  // byte 0: validity mark

  std::vector<uint8_t> user_data;  // kUserDataSize bytes
  std::vector<uint8_t> sch_data;   // kSchSize bytes, from kSchBase
  std::vector<uint8_t> params;     // kParamSize bytes

  uint8_t power_level = 0;

  // Microsecond clock behind the timestamp counter; tests may replace it.
  std::function<uint64_t()> clock_us;
  uint64_t timestamp_zero_us = 0;

  // A schedule transfer of several chunks: every chunk carries the first chunk's address
  // and the adapter continues where the last full chunk ended. A transfer stays open
  // while chunks of exactly kSchChunk bytes keep coming for the same address; a shorter
  // chunk, another schedule command, or (for reads) reaching the end of the data last
  // written there closes it.
  struct SchTransfer {
    uint32_t code = 0;  // 0: none open
    uint32_t addr = 0;
    uint32_t next = 0;  // offset of the next chunk from addr
  } sch_open;
  uint32_t sch_written_end = 0;  // address one past the last byte the last write placed
};

// The adapter's device-services state (take sim_mutex() from a test thread).
DeviceServices& device_services(Model& m);

// Installs the handlers of the device-service and parameter-memory commands.
void install_device_services(Model& m);

}  // namespace veltrix::sim
