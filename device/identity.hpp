// The adapter's USB identity: what makes a device one of ours.
#pragma once

#include <cstdint>

namespace veltrix::identity {

inline constexpr uint16_t kVendorId = 0x0483;
inline constexpr uint16_t kProductIds[] = {0x7918, 0x7919};

// The maker's two manufacturer strings; the adapter's iManufacturer string must equal one
// of them exactly. The virtual adapter presents the first by default.
inline constexpr const char* kManufacturerStrings[] = {
    "VELTRIX Technology",
    "VELTRIX Embedded Systems",
};
// A reported manufacturer string shorter than this is refused even if it matched.
inline constexpr int kMinManufacturerLength = 11;

// Vendor control requests.
inline constexpr uint8_t kReqTypeVendorIn = 0xC1;   // device-to-host, vendor, interface
inline constexpr uint8_t kReqTypeVendorOut = 0x41;  // host-to-device, vendor, interface
inline constexpr uint8_t kReqReadSerial = 0x50;
inline constexpr uint8_t kReqReset = 0x60;
inline constexpr unsigned kControlTimeoutMs = 100;

// Endpoints.
inline constexpr uint8_t kEpCommandOut = 0x01;
inline constexpr uint8_t kEpSecondOut = 0x02;  // second CAN FD channel; interrupt OUT
inline constexpr uint8_t kEpReplyIn = 0x81;

inline constexpr bool is_product_id(uint16_t pid) {
  return pid == kProductIds[0] || pid == kProductIds[1];
}

}  // namespace veltrix::identity
