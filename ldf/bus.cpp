// Bus execution of an LDF handle: the channel set-up when a file is opened, single frames
// and schedule tables run from the host, schedules loaded into the adapter, and the
// message buffer every exchanged frame goes to. All adapter traffic goes through the
// exported LIN_EX_ functions, so locking, retries and checks stay in the LIN family.
//
// The adapter plays either the master node (MasterMode 1) or the slave nodes (0):
//
//                      | published by the master        | published by a slave
//   -------------------+--------------------------------+-------------------------------
//   master             | write the packed frame         | read; unpack the response
//   slave              | unpack what the channel caught | load the packed frame as the
//                      |                                | slave's response
#include "ldf/bus.hpp"

#include <chrono>
#include <thread>
#include <vector>

#include "device/abi.hpp"
#include "ldf/bus_records.hpp"
#include "ldf/handle.hpp"
#include "ldf/lookup.hpp"
#include "veltrix/lin.h"
#include "veltrix/lin_uds.h"

using veltrix::guarded;
namespace ldf = veltrix::ldf;

namespace veltrix::ldf {

namespace {

void sleep_ms(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

constexpr int kNotInitialised = -3;
constexpr int kNullHandle = -4;
constexpr int kNotFound = -5;
constexpr int kNoData = -7;

uint8_t channel(const LDF_CODING& c) { return static_cast<uint8_t>(c.LINIndex); }

void to_buffer(const LDF_CODING& c, const LIN_EX_MSG* m, int n) {
  if (n > 0) LIN_USD_SetLINMsgToBuffer(c.DevHandle, channel(c), m, n);
}

// One exchange of the master: result 1 and the record back, or what LIN_EX_MasterSync
// returned (0 when no record came back, or its negative code).
int master_exchange(const LDF_CODING& c, const LIN_EX_MSG& req, LIN_EX_MSG& resp) {
  int n = LIN_EX_MasterSync(c.DevHandle, channel(c), &req, &resp, 1);
  if (n == 1) to_buffer(c, &resp, 1);
  return n;
}

// Master mode, one frame. On success returns 1 and sets got_data for a read that
// carried data; otherwise the packing error or the exchange's result.
int master_frame(LDF_CODING& c, LDF_LIN_FRAME& f, bool fill, bool& got_data) {
  const bool write = master_publishes(c, f);
  LIN_EX_MSG req;
  if (int rc = frame_record(c, f, write ? LIN_EX_MSG_TYPE_MW : LIN_EX_MSG_TYPE_MR, fill, req);
      rc < 0)
    return rc;
  LIN_EX_MSG resp{};
  int n = master_exchange(c, req, resp);
  got_data = false;
  if (n != 1 || write) return n;
  if (resp.DataLen == 0) return 1;
  if (int rc = take_response(f, resp); rc < 0) return rc;
  got_data = true;
  return 1;
}

// Slave mode, one frame: 0, or the packing error, or LIN_EX_SlaveSetIDMode's result.
int slave_frame(LDF_CODING& c, const LDF_LIN_FRAME& f, bool fill) {
  if (master_publishes(c, f)) {
    // The capture is read straight into this array, so it holds the most the channel keeps.
    std::vector<LIN_EX_MSG> caught(LIN_EX_MAX_CAPTURE_MSGS);
    int n = LIN_EX_SlaveGetData(c.DevHandle, channel(c), caught.data());
    if (n <= 0) return 0;  // nothing caught, or the fetch failed: nothing to take in
    to_buffer(c, caught.data(), n);
    for (int i = 0; i < n; ++i)
      if (int rc = take_capture(c, caught[size_t(i)]); rc < 0) return rc;
    return 0;
  }
  LIN_EX_MSG entry;
  if (int rc = frame_record(c, f, LIN_EX_MSG_TYPE_SW, fill, entry); rc < 0) return rc;
  return LIN_EX_SlaveSetIDMode(c.DevHandle, channel(c), &entry, 1);
}

// Checks shared by the bus operations: 0 or the error code.
int usable(const LDF_CODING* c, const char* name) {
  if (!c) return kNullHandle;
  if (!c->Initialized) return kNotInitialised;
  if (!name) return kNotFound;
  return 0;
}

}  // namespace

BusWait bus_wait = sleep_ms;

}  // namespace veltrix::ldf

VELTRIX_EXPORT(LDF_CODING*, LDF_ParserFile,
               (int DevHandle, unsigned char LINIndex, unsigned char isMaster, const char* path),
               nullptr, {
                 return guarded<LDF_CODING*>(nullptr, [&]() -> LDF_CODING* {
                   LDF_CODING* h = ldf::parse_handle(DevHandle, LINIndex, isMaster, path);
                   if (!h) return nullptr;
                   // The flag goes to the channel as the mode byte unchanged (1 = master for the
                   // adapter), while MasterMode records only whether it was non-zero.
                   if (LIN_EX_Init(DevHandle, LINIndex, static_cast<unsigned>(h->LINSpeed),
                                   isMaster) != 0) {
                     LDF_Release(h);
                     return nullptr;
                   }
                   h->Initialized = 1;
                   return h;
                 });
               })

VELTRIX_EXPORT(int, LDF_ExeFrameToBus,
               (LDF_CODING * pLDF, const char* pFrameName, unsigned char FillBitValue),
               ldf::kNullHandle, {
                 if (int rc = ldf::usable(pLDF, pFrameName); rc != 0) return rc;
                 LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, pFrameName);
                 if (!f) return ldf::kNotFound;
                 const bool fill = FillBitValue != 0;
                 if (!pLDF->MasterMode) return ldf::slave_frame(*pLDF, *f, fill);
                 bool got_data = false;
                 int rc = ldf::master_frame(*pLDF, *f, fill, got_data);
                 if (rc != 1) return rc;
                 if (!ldf::master_publishes(*pLDF, *f) && !got_data) return ldf::kNoData;
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_ExeSchToBus,
               (LDF_CODING * pLDF, const char* pSchName, unsigned char FillBitValue),
               ldf::kNullHandle, {
                 if (int rc = ldf::usable(pLDF, pSchName); rc != 0) return rc;
                 const LDF_LIN_SCH* sch = ldf::find_schedule(*pLDF, pSchName);
                 if (!sch) return ldf::kNotFound;
                 const bool fill = FillBitValue != 0;
                 for (int i = 0; i < sch->FrameNum; ++i) {
                   const LDF_LIN_SCH_FRAME& e = sch->Frames[i];
                   LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, e.Frame.Name);
                   if (!f) continue;  // an entry naming no frame of the file is skipped
                   if (!pLDF->MasterMode) {
                     if (int rc = ldf::slave_frame(*pLDF, *f, fill); rc != 0) return rc;
                     continue;
                   }
                   bool got_data = false;
                   // A read that nobody answered is no error here: a schedule keeps its rhythm.
                   if (int rc = ldf::master_frame(*pLDF, *f, fill, got_data); rc != 1) return rc;
                   ldf::bus_wait(ldf::whole_ms(e.Delay));
                 }
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_SetSchToTable,
               (LDF_CODING * pLDF, const char* pSchName, unsigned char FillBitValue),
               ldf::kNullHandle, {
                 if (int rc = ldf::usable(pLDF, pSchName); rc != 0) return rc;
                 const LDF_LIN_SCH* sch = ldf::find_schedule(*pLDF, pSchName);
                 if (!sch) return ldf::kNotFound;
                 const bool fill = FillBitValue != 0;
                 if (pLDF->MasterMode) {
                   std::vector<LIN_EX_MSG> list;
                   int n = ldf::schedule_records(*pLDF, *sch, fill, list);
                   if (n <= 0) return n;  // the packing error, or 0 for an empty list
                   return LIN_EX_MasterStartSch(pLDF->DevHandle, ldf::channel(*pLDF), list.data(),
                                                n);
                 }
                 for (int i = 0; i < sch->FrameNum; ++i) {
                   LDF_LIN_FRAME* f = ldf::find_frame(*pLDF, sch->Frames[i].Frame.Name);
                   if (!f) continue;
                   if (int rc = ldf::slave_frame(*pLDF, *f, fill); rc != 0) return rc;
                 }
                 return 0;
               })

VELTRIX_EXPORT(int, LDF_GetRawMsg, (LDF_CODING * pLDF, LIN_EX_MSG* pLINMsg, int BufferSize),
               ldf::kNullHandle, {
                 if (!pLDF) return ldf::kNullHandle;
                 return LIN_UDS_GetMsgFromUDSBuffer(pLDF->DevHandle, ldf::channel(*pLDF), pLINMsg,
                                                    BufferSize);
               })
