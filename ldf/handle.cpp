// Parsing a file into a handle, releasing it, and the queries about frames, schedules
// and nodes.
#include <new>

#include "device/abi.hpp"
#include "ldf/decode.hpp"
#include "ldf/handle.hpp"
#include "ldf/lookup.hpp"
#include "ldf/storage.hpp"

using veltrix::guarded;
namespace ldf = veltrix::ldf;

LDF_CODING* ldf::parse_handle(int dev, unsigned char lin_index, unsigned char is_master,
                              const char* path) {
  if (!path) return nullptr;
  auto* h = new (std::nothrow) LDF_CODING{};
  if (!h) return nullptr;
  if (ldf::decode(dev, path, h, true) != 0) {
    delete h;  // a failed decode registers nothing
    return nullptr;
  }
  h->DevHandle = dev;
  h->LINIndex = lin_index;
  h->MasterMode = is_master ? 1 : 0;
  return h;
}

// A file read without an adapter: a handle for the readers and the codec only. Its bus
// functions answer -3 because no channel was set up.
VELTRIX_EXPORT(LDF_CODING*, LDF_LoadFile, (const char* path), nullptr, {
  if (!path) return nullptr;
  auto* h = new (std::nothrow) LDF_CODING{};
  if (!h) return nullptr;
  if (ldf::decode_host(path, h, true) != 0) {
    delete h;
    return nullptr;
  }
  return h;
})

VELTRIX_EXPORT(int, LDF_Release, (LDF_CODING * pLDF), -4,
               { return pLDF ? ldf::release(pLDF) : -4; })

VELTRIX_EXPORT(int, LDF_GetProtocolVersion, (const LDF_CODING* pLDF), -4,
               { return pLDF ? pLDF->ProtocolVersion : -4; })

VELTRIX_EXPORT(int, LDF_GetLINSpeed, (const LDF_CODING* pLDF), -4,
               { return pLDF ? pLDF->LINSpeed : -4; })

VELTRIX_EXPORT(int, LDF_GetFrameQuantity, (const LDF_CODING* pLDF), -4,
               { return pLDF ? pLDF->FrameNum : -4; })

VELTRIX_EXPORT(int, LDF_GetSchQuantity, (const LDF_CODING* pLDF), -4,
               { return pLDF ? pLDF->SchNum : -4; })

VELTRIX_EXPORT(int, LDF_GetFrameName, (const LDF_CODING* pLDF, int index, char* pFrameName), -4, {
  if (!pLDF || !pFrameName) return -4;
  if (index < 0 || index >= pLDF->FrameNum) return -5;
  ldf::copy_name(pFrameName, pLDF->Frames[index].Name);
  return 0;
})

VELTRIX_EXPORT(int, LDF_GetFrameSignalQuantity, (const LDF_CODING* pLDF, const char* pFrameName),
               -4, {
                 if (!pLDF) return -4;
                 const LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, pFrameName);
                 return f ? f->SignalNum : -5;
               })

VELTRIX_EXPORT(int, LDF_GetFrameSignalName,
               (const LDF_CODING* pLDF, const char* pFrameName, int index, char* pSignalName), -4, {
                 if (!pLDF || !pSignalName) return -4;
                 if (index < 0) return -5;
                 for (int i = 0; i < pLDF->FrameNum; ++i) {
                   const LDF_LIN_FRAME& f = pLDF->Frames[i];
                   if (ldf::same_name(f.Name, pFrameName) && f.SignalNum > index) {
                     ldf::copy_name(pSignalName, f.Signals[index].Name);
                     return 0;
                   }
                 }
                 return -5;
               })

VELTRIX_EXPORT(int, LDF_GetFramePublisher,
               (const LDF_CODING* pLDF, const char* pFrameName, char* pPublisher), -4, {
                 if (!pLDF || !pPublisher) return -4;
                 const LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, pFrameName);
                 if (!f) return -5;
                 if (f->Publisher) ldf::copy_name(pPublisher, f->Publisher);
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_GetMasterName, (const LDF_CODING* pLDF, char* pMasterName), -4, {
  if (!pLDF || !pMasterName) return -4;
  if (!pLDF->Nodes || !pLDF->Nodes->MasterName) return -5;
  ldf::copy_name(pMasterName, pLDF->Nodes->MasterName);
  return 0;
})

VELTRIX_EXPORT(int, LDF_GetSchName, (const LDF_CODING* pLDF, int index, char* pSchName), -4, {
  if (!pLDF || !pSchName) return -4;
  if (index < 0 || index >= pLDF->SchNum) return -5;
  ldf::copy_name(pSchName, pLDF->Schs[index].Name);
  return 0;
})

VELTRIX_EXPORT(int, LDF_GetSchFrameQuantity, (const LDF_CODING* pLDF, const char* pSchName), -4, {
  if (!pLDF) return -4;
  const LDF_LIN_SCH* s = ldf::find_schedule(*pLDF, pSchName);
  return s ? s->FrameNum : -5;
})

VELTRIX_EXPORT(int, LDF_GetSchFrameName,
               (const LDF_CODING* pLDF, const char* pSchName, int index, char* pFrameName), -4, {
                 if (!pLDF || !pFrameName) return -4;
                 if (index < 0) return -5;
                 for (int i = 0; i < pLDF->SchNum; ++i) {
                   const LDF_LIN_SCH& s = pLDF->Schs[i];
                   if (ldf::same_name(s.Name, pSchName) && s.FrameNum > index) {
                     ldf::copy_name(pFrameName, s.Frames[index].Frame.Name);
                     return 0;
                   }
                 }
                 return -5;
               })
