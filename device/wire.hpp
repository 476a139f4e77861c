// Byte order on the wire, decided in one place. Every family packs and unpacks its
// multi-byte fields through these helpers instead of shifting bytes by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace veltrix::wire {

inline void put_be16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v >> 8); p[1] = uint8_t(v); }
inline void put_be32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v >> 24); p[1] = uint8_t(v >> 16); p[2] = uint8_t(v >> 8); p[3] = uint8_t(v);
}
inline void put_be64(uint8_t* p, uint64_t v) {
  put_be32(p, uint32_t(v >> 32)); put_be32(p + 4, uint32_t(v));
}
inline void put_le16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); }
inline void put_le32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); p[2] = uint8_t(v >> 16); p[3] = uint8_t(v >> 24);
}
inline void put_le64(uint8_t* p, uint64_t v) {
  put_le32(p, uint32_t(v)); put_le32(p + 4, uint32_t(v >> 32));
}

inline uint16_t get_be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t get_be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint64_t get_be64(const uint8_t* p) { return uint64_t(get_be32(p)) << 32 | get_be32(p + 4); }
inline uint16_t get_le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline uint32_t get_le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t get_le64(const uint8_t* p) { return get_le32(p) | uint64_t(get_le32(p + 4)) << 32; }

// Growing payload builder for command packets.
class PayloadBuilder {
 public:
  PayloadBuilder() = default;
  explicit PayloadBuilder(size_t reserve) { bytes_.reserve(reserve); }

  PayloadBuilder& u8(uint8_t v) { bytes_.push_back(v); return *this; }
  PayloadBuilder& be16(uint16_t v) { put_be16(grow(2), v); return *this; }
  PayloadBuilder& be32(uint32_t v) { put_be32(grow(4), v); return *this; }
  PayloadBuilder& be64(uint64_t v) { put_be64(grow(8), v); return *this; }
  PayloadBuilder& le16(uint16_t v) { put_le16(grow(2), v); return *this; }
  PayloadBuilder& le32(uint32_t v) { put_le32(grow(4), v); return *this; }
  PayloadBuilder& le64(uint64_t v) { put_le64(grow(8), v); return *this; }
  PayloadBuilder& bytes(const void* src, size_t n) {
    if (n) std::memcpy(grow(n), src, n);
    return *this;
  }
  PayloadBuilder& bytes(std::span<const uint8_t> s) { return bytes(s.data(), s.size()); }
  PayloadBuilder& zeros(size_t n) { bytes_.resize(bytes_.size() + n, 0); return *this; }

  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  std::vector<uint8_t>& vec() { return bytes_; }
  std::span<const uint8_t> span() const { return bytes_; }

 private:
  uint8_t* grow(size_t n) {
    size_t at = bytes_.size();
    bytes_.resize(at + n);
    return bytes_.data() + at;
  }
  std::vector<uint8_t> bytes_;
};

// Bounds-checked reader over a reply payload. A read past the end yields zero and marks
// the reader failed, so a short or hostile reply can never be read out of bounds; callers
// check ok() once after decoding a record.
class PayloadReader {
 public:
  PayloadReader(const uint8_t* p, size_t n) : p_(p), n_(n) {}
  explicit PayloadReader(std::span<const uint8_t> s) : p_(s.data()), n_(s.size()) {}

  bool ok() const { return ok_; }
  size_t remaining() const { return n_ - at_; }
  size_t offset() const { return at_; }

  uint8_t u8() { const uint8_t* p = take(1); return p ? p[0] : 0; }
  uint16_t be16() { const uint8_t* p = take(2); return p ? get_be16(p) : 0; }
  uint32_t be32() { const uint8_t* p = take(4); return p ? get_be32(p) : 0; }
  uint64_t be64() { const uint8_t* p = take(8); return p ? get_be64(p) : 0; }
  uint16_t le16() { const uint8_t* p = take(2); return p ? get_le16(p) : 0; }
  uint32_t le32() { const uint8_t* p = take(4); return p ? get_le32(p) : 0; }
  uint64_t le64() { const uint8_t* p = take(8); return p ? get_le64(p) : 0; }
  bool bytes(void* dst, size_t n) {
    const uint8_t* p = take(n);
    if (!p) return false;
    if (n) std::memcpy(dst, p, n);
    return true;
  }
  bool skip(size_t n) { return take(n) != nullptr; }

 private:
  const uint8_t* take(size_t n) {
    if (!ok_ || n > n_ - at_) {
      ok_ = false;
      return nullptr;
    }
    const uint8_t* p = p_ + at_;
    at_ += n;
    return p;
  }
  const uint8_t* p_;
  size_t n_;
  size_t at_ = 0;
  bool ok_ = true;
};

}  // namespace veltrix::wire
