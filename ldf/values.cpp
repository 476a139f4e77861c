// Signal values and whole-frame data of a handle, and the exported frame packer.
#include <cmath>

#include "device/abi.hpp"
#include "ldf/codec.hpp"
#include "ldf/lookup.hpp"

using veltrix::guarded;
namespace ldf = veltrix::ldf;

namespace {

// The signal of that name in the first frame of that name, or null.
LDF_LIN_SIGNAL* signal_of(const LDF_CODING& c, const char* frame, const char* signal) {
  const LDF_LIN_FRAME* f = ldf::find_frame(c, frame);
  return f ? ldf::find_signal(*f, signal) : nullptr;
}

}  // namespace

VELTRIX_EXPORT(int, LDF_SetSignalValue,
               (LDF_CODING * pLDF, const char* pFrameName, const char* pSignalName, double value),
               -4, {
                 if (!pLDF) return -4;
                 LDF_LIN_SIGNAL* s = signal_of(*pLDF, pFrameName, pSignalName);
                 if (!s) return -6;
                 if (std::isnan(value)) return -7;
                 ldf::physical_to_raw(*s, value);
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_GetSignalValue,
               (const LDF_CODING* pLDF, const char* pFrameName, const char* pSignalName,
                double* pValue),
               -4, {
                 if (!pLDF || !pValue) return -4;
                 const LDF_LIN_SIGNAL* s = signal_of(*pLDF, pFrameName, pSignalName);
                 if (!s) return -6;
                 *pValue = ldf::raw_to_physical(*s);
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_GetSignalValueStr,
               (const LDF_CODING* pLDF, const char* pFrameName, const char* pSignalName,
                char* pValueStr),
               -4, {
                 if (!pLDF || !pValueStr) return -4;
                 const LDF_LIN_SIGNAL* s = signal_of(*pLDF, pFrameName, pSignalName);
                 if (!s) return -6;
                 ldf::copy_name(pValueStr, ldf::value_text(*s).c_str());
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_SetFrameRawValue,
               (LDF_CODING * pLDF, const char* pFrameName, const unsigned char* pRawData), -4, {
                 if (!pLDF || !pRawData) return -4;
                 LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, pFrameName);
                 if (!f) return -6;
                 int rc = ldf::unpack(*f, pRawData);
                 return rc < 0 ? rc : 0;
               })

VELTRIX_EXPORT(int, LDF_GetFrameRawValue,
               (const LDF_CODING* pLDF, const char* pFrameName, unsigned char* pRawData), -4, {
                 if (!pLDF || !pRawData) return -4;
                 const LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, pFrameName);
                 if (!f) return -6;
                 int rc =
                     ldf::pack(*f, true, pRawData);  // uncovered bits: ones, the LIN convention
                 return rc < 0 ? rc : 0;
               })

VELTRIX_EXPORT(int, LDF_DataFrameToRaw,
               (const LDF_LIN_FRAME* frame, unsigned char fill, unsigned char* data), -4,
               { return frame && data ? ldf::pack(*frame, fill != 0, data) : -4; })

VELTRIX_EXPORT(int, LDF_DataRawToFrame, (LDF_LIN_FRAME * frame, const unsigned char* data), -4,
               { return frame && data ? ldf::unpack(*frame, data) : -4; })
