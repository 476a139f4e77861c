// The records a DBC database is made of: messages, their signals, and attributes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dbc/attribute_list.hpp"
#include "dbc/name_list.hpp"
#include "dbc/rare_text.hpp"
#include "dbc/value_table.hpp"

namespace veltrix::dbc {

// Bit layout of a signal, as the order digit of the layout token says ("@0" / "@1").
enum ByteOrder : uint32_t {
  MOTOROLA = 0,  // big-endian
  INTEL = 1,     // little-endian
};

enum MultiplexMode : uint32_t {
  MUX_NONE = 0,      // plain signal
  MUX_SELECTED = 1,  // "m<number>": present only when the switch holds <number>
  MUX_SWITCH = 2,    // "M": the multiplexer switch itself
};

enum ValueType : uint32_t {
  VALUE_INTEGER = 0,
  VALUE_FLOAT32 = 1,
  VALUE_FLOAT64 = 2,
};

// Size of a message's payload image; every codec buffer has this many bytes.
inline constexpr int kDataBytes = 64;

struct DBC_ATTRIBUTE {
  std::string name;        // double-quote characters removed
  std::string valueType;   // "ENUM", "FLOAT", "INT", "HEX", or any other word as written
  std::string objectType;  // "BO_", "SG_", "BU_", or " " for a network-wide attribute
  double minimum = 0;      // FLOAT, INT, HEX
  double maximum = 0;
  std::vector<std::string> enumValues;  // ENUM; a value's index is its number
  // In a definition: the default, then the last assignment seen in the file. In a copy held
  // by a message or signal: the value assigned to that object.
  std::string value;
};

// A database holds one per signal: the fields run from the largest to the smallest, so the
// record has no holes between them.
struct DBC_SIGNAL {
  std::string name;
  std::string unit;
  double minimum = 0;
  double maximum = 0;
  double factor = 0;  // physical = raw * factor + offset
  double offset = 0;
  uint64_t rawValue = 0;  // current unscaled value, read and written by the codec
  NameList receivers;
  RareText comment;
  ValueTable valueTable;
  AttributeList attributes;       // one per assignment, in file order
  uint32_t byteOrder = MOTOROLA;  // a ByteOrder
  uint16_t startBit = 0;          // position of the least significant bit (8 * byte + bit)
  uint16_t length = 0;            // bit count
  uint32_t isSigned = 0;
  uint32_t valueType = VALUE_INTEGER;
  uint32_t multiplexMode = MUX_NONE;
  uint16_t multiplexValue = 0;
};

struct DBC_MESSAGE {
  std::string name;
  uint32_t id = 0;  // bit 31 set: extended (29-bit) identifier
  uint8_t dlc = 0;  // as written in the file, truncated to 8 bits
  std::string sender;
  std::vector<DBC_SIGNAL> signals;
  RareText comment;
  uint8_t isCanFd = 0;
  uint8_t bitRateSwitch = 0;
  uint8_t data[kDataBytes] = {};  // payload image of the last received frame
  uint8_t enable = 0;             // 1 once parsed; nothing reads it
  uint32_t cycleTime = 0;         // milliseconds
  AttributeList attributes;       // one per assignment, in file order
};

}  // namespace veltrix::dbc
