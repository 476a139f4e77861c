// libFuzzer target for the LDF reader: arbitrary bytes as file text, then every query,
// value conversion and packing path over whatever records come out.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "ldf/bus_records.hpp"
#include "ldf/decode.hpp"
#include "veltrix/ldf.h"

namespace {

constexpr int kDevice = int(0xFF000000u);  // registry position 0, no adapter needed

// Names and texts come from the input, so an output must hold a whole section.
char g_text[LDF_MAX_SECTION_BYTES + 512];

void exercise(LDF_CODING* h, const uint8_t* data, size_t size) {
  unsigned char raw[8] = {};
  for (size_t i = 0; i < 8 && i < size; ++i) raw[i] = data[i];
  LDF_GetMasterName(h, g_text);
  for (int i = 0; i < h->FrameNum; ++i) {
    const LDF_LIN_FRAME& f = h->Frames[i];
    LDF_GetFrameName(h, i, g_text);
    LDF_GetFramePublisher(h, f.Name, g_text);
    LDF_SetFrameRawValue(h, f.Name, raw);
    LDF_GetFrameRawValue(h, f.Name, raw);
    for (int s = 0; s < f.SignalNum; ++s) {
      const char* name = f.Signals[s].Name;
      double v = 0;
      LDF_GetFrameSignalName(h, f.Name, s, g_text);
      LDF_GetSignalValue(h, f.Name, name, &v);
      LDF_GetSignalValueStr(h, f.Name, name, g_text);
      LDF_SetSignalValue(h, f.Name, name, v + 0.5);
      LDF_SetSignalValue(h, f.Name, name, -v * 1e10);
      LDF_GetSignalValueStr(h, f.Name, name, g_text);
    }
    LIN_EX_MSG m;
    veltrix::ldf::frame_record(*h, f, 1, true, m);
    veltrix::ldf::take_capture(*h, m);
  }
  std::vector<LIN_EX_MSG> list;
  for (int i = 0; i < h->SchNum; ++i) {
    LDF_GetSchName(h, i, g_text);
    for (int e = 0; e < h->Schs[i].FrameNum; ++e)
      LDF_GetSchFrameName(h, h->Schs[i].Name, e, g_text);
    veltrix::ldf::schedule_records(*h, h->Schs[i], false, list);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto* h = new LDF_CODING{};
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (veltrix::ldf::decode_text(kDevice, text, h, true) == 0) {
    exercise(h, data, size);
    LDF_Release(h);
  } else {
    delete h;
  }
  return 0;
}
