// Feeds arbitrary bytes to the DBC reader as a file's text, then encodes and decodes every
// message it accepted, as an application would right after loading.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dbc/decoder.hpp"

using veltrix::dbc::ByteOrder;
using veltrix::dbc::DBC_Decoder;
using veltrix::dbc::DBC_SIGNAL;
using veltrix::dbc::kDataBytes;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto db = DBC_Decoder::fromText(text, nullptr);
  if (!db) return 0;
  for (auto& m : db->messages()) {
    DBC_SIGNAL* found = nullptr;
    db->getSignal(m.name, m.signals.empty() ? "" : m.signals.front().name, &found);
    uint8_t image[kDataBytes] = {};
    for (DBC_SIGNAL& s : m.signals) {
      DBC_Decoder::setSignalRealValue(&s, s.maximum);
      DBC_Decoder::rawValueToArray(s.rawValue, s.startBit, uint8_t(s.length), image,
                                   ByteOrder(s.byteOrder));
    }
    for (DBC_SIGNAL& s : m.signals) {
      s.rawValue = DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), image,
                                                ByteOrder(s.byteOrder));
      (void)DBC_Decoder::getSignalRealValue(&s);
      (void)DBC_Decoder::getSignalRawValue(&s, s.minimum);
    }
    (void)db->findMessageById(m.id);
  }
  return 0;
}
