// Parts that sit on the virtual adapter's I2C buses, driven byte by byte as on a real bus:
// a start condition with the address byte, data bytes each acknowledged or not, a stop.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <vector>

namespace veltrix::sim {

// SMBus packet error code: CRC-8, polynomial x^8 + x^2 + x + 1, initial value 0.
uint8_t smbus_crc8(uint8_t crc, uint8_t byte);

class I2cTarget {
 public:
  virtual ~I2cTarget() = default;
  // A start (or repeated start) with this device's address byte (R/W in bit 0). False:
  // the address goes unacknowledged.
  virtual bool start(uint8_t address_byte) = 0;
  // A byte from the master; false is a NACK.
  virtual bool write_byte(uint8_t b) = 0;
  virtual uint8_t read_byte() = 0;
  virtual void stop() = 0;
};

// A 32 KiB serial EEPROM with 64-byte pages and a two-byte address pointer. A write
// that runs past the end of its page wraps to the page's start. After the stop the part
// is busy programming for `write_cycle` and acknowledges nothing.
class Eeprom24 final : public I2cTarget {
 public:
  static constexpr size_t kSize = 32768;
  static constexpr size_t kPage = 64;

  Eeprom24();
  bool start(uint8_t address_byte) override;
  bool write_byte(uint8_t b) override;
  uint8_t read_byte() override;
  void stop() override;

  bool busy() const;
  void finish() { busy_until_ = {}; }  // test hook: the write cycle ends now
  std::chrono::milliseconds write_cycle{5};
  std::vector<uint8_t> mem;
  uint16_t pointer = 0;
  uint32_t write_cycles = 0;

 private:
  bool writing_ = false;
  int address_bytes_ = 0;
  std::vector<std::pair<uint16_t, uint8_t>> pending_;
  std::chrono::steady_clock::time_point busy_until_{};
};

// An SMBus sensor. Commands 0x00..0x0F are word registers (high byte first), 0x10..0x1F
// byte registers, 0x20..0x2F block registers; 0x80 is a process call answering the
// complement of the word written, 0x81 a block process call answering the block
// reversed. A byte after the expected ones is a PEC, checked against the bytes of the
// transaction so far (NACK when wrong); a read past the answer yields the PEC.
class SmbusSensor final : public I2cTarget {
 public:
  static constexpr uint8_t kProcessCall = 0x80;
  static constexpr uint8_t kBlockProcessCall = 0x81;

  SmbusSensor();
  bool start(uint8_t address_byte) override;
  bool write_byte(uint8_t b) override;
  uint8_t read_byte() override;
  void stop() override;

  std::map<uint8_t, std::vector<uint8_t>> regs;
  bool corrupt_pec = false;  // test hook: the PEC the sensor sends is off by one
  uint32_t pec_errors = 0;   // PEC bytes from the master that did not match

 private:
  size_t expected_write() const;
  void prepare_answer();
  uint8_t crc_ = 0;
  bool reading_ = false;
  int command_ = -1;
  std::vector<uint8_t> in_;
  std::vector<uint8_t> out_;
  size_t out_at_ = 0;
  bool pec_seen_ = false;
};

}  // namespace veltrix::sim
