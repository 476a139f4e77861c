#include "sim/i2c_devices.hpp"

#include <algorithm>

namespace veltrix::sim {

uint8_t smbus_crc8(uint8_t crc, uint8_t byte) {
  crc ^= byte;
  for (int i = 0; i < 8; ++i) crc = uint8_t(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
  return crc;
}

Eeprom24::Eeprom24() : mem(kSize, 0xFF) {}

bool Eeprom24::busy() const { return std::chrono::steady_clock::now() < busy_until_; }

bool Eeprom24::start(uint8_t address_byte) {
  if (busy()) return false;
  writing_ = (address_byte & 1) == 0;
  if (writing_) address_bytes_ = 0;
  return true;
}

bool Eeprom24::write_byte(uint8_t b) {
  if (address_bytes_ == 0) {
    pointer = uint16_t((pointer & 0x00FF) | (b & 0x7F) << 8);
    ++address_bytes_;
    return true;
  }
  if (address_bytes_ == 1) {
    pointer = uint16_t((pointer & 0x7F00) | b);
    ++address_bytes_;
    return true;
  }
  pending_.emplace_back(pointer, b);
  // The page latch wraps: only the low six address bits count up.
  pointer = uint16_t((pointer & ~uint16_t(kPage - 1)) | ((pointer + 1) & (kPage - 1)));
  return true;
}

uint8_t Eeprom24::read_byte() {
  uint8_t b = mem[pointer];
  pointer = uint16_t((pointer + 1) % kSize);
  return b;
}

void Eeprom24::stop() {
  if (pending_.empty()) return;
  for (auto [at, b] : pending_) mem[at] = b;
  pending_.clear();
  ++write_cycles;
  busy_until_ = std::chrono::steady_clock::now() + write_cycle;
}

SmbusSensor::SmbusSensor() {
  regs[0x00] = {0x12, 0x34};
  regs[0x01] = {0x00, 0x00};
  regs[0x10] = {0x5A};
  regs[0x20] = {0x01, 0x02, 0x03, 0x04, 0x05};
}

size_t SmbusSensor::expected_write() const {
  if (command_ < 0) return 1;
  if (command_ < 0x10) return 3;
  if (command_ < 0x20) return 2;
  if (command_ == kProcessCall) return 3;
  // Blocks: command, count, then count bytes.
  if (in_.size() < 2) return 2;
  return 2 + in_[1];
}

bool SmbusSensor::start(uint8_t address_byte) {
  reading_ = address_byte & 1;
  if (!reading_) {
    crc_ = 0;
    command_ = -1;
    in_.clear();
    pec_seen_ = false;
  } else {
    prepare_answer();
  }
  crc_ = smbus_crc8(crc_, address_byte);
  return true;
}

bool SmbusSensor::write_byte(uint8_t b) {
  if (in_.size() >= expected_write() && !pec_seen_) {
    pec_seen_ = true;
    if (b != crc_) {
      ++pec_errors;
      return false;
    }
    return true;
  }
  crc_ = smbus_crc8(crc_, b);
  in_.push_back(b);
  if (in_.size() == 1) command_ = b;
  return true;
}

void SmbusSensor::prepare_answer() {
  out_.clear();
  out_at_ = 0;
  if (command_ == kProcessCall && in_.size() >= 3) {
    out_ = {uint8_t(~in_[1]), uint8_t(~in_[2])};
  } else if (command_ == kBlockProcessCall && in_.size() >= 2) {
    std::vector<uint8_t> data(in_.begin() + 2, in_.end());
    std::reverse(data.begin(), data.end());
    out_.push_back(uint8_t(data.size()));
    out_.insert(out_.end(), data.begin(), data.end());
  } else if (command_ >= 0x20 && command_ < 0x30) {
    const auto& block = regs[uint8_t(command_)];
    out_.push_back(uint8_t(block.size()));
    out_.insert(out_.end(), block.begin(), block.end());
  } else if (command_ >= 0) {
    out_ = regs[uint8_t(command_)];
  }
}

uint8_t SmbusSensor::read_byte() {
  if (out_at_ < out_.size()) {
    uint8_t b = out_[out_at_++];
    crc_ = smbus_crc8(crc_, b);
    return b;
  }
  ++out_at_;
  return uint8_t(crc_ + (corrupt_pec ? 1 : 0));
}

void SmbusSensor::stop() {
  if (reading_ || command_ < 0) return;
  // A completed write updates the register it named.
  if (command_ < 0x20 && in_.size() == expected_write()) {
    regs[uint8_t(command_)].assign(in_.begin() + 1, in_.end());
  } else if (command_ >= 0x20 && command_ < 0x30 && in_.size() >= 2) {
    regs[uint8_t(command_)].assign(in_.begin() + 2, in_.end());
  }
}

}  // namespace veltrix::sim
