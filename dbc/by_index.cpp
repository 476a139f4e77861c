// The index-based DBC functions: names are resolved once to message and signal indexes,
// and every later call works on those, with no name hashing or comparison per frame.
#include <algorithm>
#include <climits>
#include <cmath>

#include "dbc/decoder.hpp"
#include "dbc/handles.hpp"
#include "dbc/signal_access.hpp"
#include "device/abi.hpp"
#include "veltrix/dbc.h"

namespace veltrix::dbc {
namespace {

// The database and the message at `msg`, or an error code.
int message_at(long long handle, int msg, DBC_Decoder** db) {
  *db = database_of(handle);
  if (!*db) return DBC_ERR_HANDLE;
  if (msg < 0 || size_t(msg) >= (*db)->messages().size()) return DBC_ERR_NOT_FOUND;
  return DBC_OK;
}

int signal_at(long long handle, int msg, int sig, DBC_Decoder** db, DBC_SIGNAL** out) {
  if (int r = message_at(handle, msg, db); r != DBC_OK) return r;
  auto& signals = (*db)->messages()[size_t(msg)].signals;
  if (sig < 0 || size_t(sig) >= signals.size()) return DBC_ERR_NOT_FOUND;
  *out = &signals[size_t(sig)];
  return DBC_OK;
}

// The signal count of message mi, as the one-call decodes return it.
int signal_count(const DBC_Decoder& db, uint32_t mi) {
  return int(std::min<size_t>(db.messages()[mi].signals.size(), INT_MAX));
}

}  // namespace
}  // namespace veltrix::dbc

using namespace veltrix::dbc;

VELTRIX_EXPORT(int, DBC_GetMsgIndex, (long long DBCHandle, const char* pMsgName), DBC_ERR_HANDLE,
               {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName) return DBC_ERR_ARGUMENT;
                 const uint32_t mi = db->findMessage(pMsgName);
                 return mi == DBC_Decoder::kNone ? DBC_ERR_NOT_FOUND : int(mi);
               })

VELTRIX_EXPORT(int, DBC_GetMsgIndexById, (long long DBCHandle, unsigned int id), DBC_ERR_HANDLE, {
  DBC_Decoder* db = database_of(DBCHandle);
  if (!db) return DBC_ERR_HANDLE;
  const uint32_t mi = db->findMessageById(id);
  return mi == DBC_Decoder::kNone ? DBC_ERR_NOT_FOUND : int(mi);
})

VELTRIX_EXPORT(int, DBC_GetSignalIndex, (long long DBCHandle, int msgIndex, const char* pSignalName),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 if (int r = message_at(DBCHandle, msgIndex, &db); r != DBC_OK) return r;
                 if (!pSignalName) return DBC_ERR_ARGUMENT;
                 const auto& signals = db->messages()[size_t(msgIndex)].signals;
                 for (size_t i = 0; i < signals.size() && i <= size_t(INT_MAX); ++i)
                   if (signals[i].name == pSignalName) return int(i);
                 return DBC_ERR_NOT_FOUND;
               })

VELTRIX_EXPORT(int, DBC_GetSignalCount, (long long DBCHandle, int msgIndex), DBC_ERR_HANDLE, {
  DBC_Decoder* db;
  if (int r = message_at(DBCHandle, msgIndex, &db); r != DBC_OK) return r;
  return int(std::min<size_t>(db->messages()[size_t(msgIndex)].signals.size(), INT_MAX));
})

VELTRIX_EXPORT(int, DBC_GetSignalValueByIndex,
               (long long DBCHandle, int msgIndex, int sigIndex, double* pValue), DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 DBC_SIGNAL* s;
                 if (int r = signal_at(DBCHandle, msgIndex, sigIndex, &db, &s); r != DBC_OK)
                   return r;
                 if (!pValue) return DBC_ERR_ARGUMENT;
                 const uint32_t mi = uint32_t(msgIndex), si = uint32_t(sigIndex);
                 return read_value(*db, mi, si, mi, plan_of(*db, mi, si), pValue);
               })

VELTRIX_EXPORT(int, DBC_SetSignalValueByIndex,
               (long long DBCHandle, int msgIndex, int sigIndex, double value), DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 DBC_SIGNAL* s;
                 if (int r = signal_at(DBCHandle, msgIndex, sigIndex, &db, &s); r != DBC_OK)
                   return r;
                 DBC_Decoder::setSignalRealValue(s, value);
                 if (s->multiplexMode == MUX_SELECTED) {
                   // Setting a multiplexed signal selects it: the switch takes its value.
                   const uint32_t sw = db->muxSwitch(uint32_t(msgIndex));
                   if (sw != DBC_Decoder::kNone)
                     db->messages()[size_t(msgIndex)].signals[sw].rawValue = s->multiplexValue;
                 }
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_DecodeCANMsg,
               (long long DBCHandle, const CAN_MSG* pCANMsg, int* pMsgIndex, double* pValues,
                int capacity),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pCANMsg || (!pValues && capacity > 0)) return DBC_ERR_ARGUMENT;
                 const ValuesOut out{pValues, size_t(std::max(capacity, 0))};
                 const uint32_t mi = take_can_frame(*db, *pCANMsg, out);
                 if (mi == DBC_Decoder::kNone) return DBC_ERR_NOT_FOUND;
                 if (pMsgIndex) *pMsgIndex = int(mi);
                 return signal_count(*db, mi);
               })

VELTRIX_EXPORT(int, DBC_DecodeCANFDMsg,
               (long long DBCHandle, const CANFD_MSG* pCANFDMsg, int* pMsgIndex, double* pValues,
                int capacity),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pCANFDMsg || (!pValues && capacity > 0)) return DBC_ERR_ARGUMENT;
                 const ValuesOut out{pValues, size_t(std::max(capacity, 0))};
                 const uint32_t mi = take_canfd_frame(*db, *pCANFDMsg, out);
                 if (mi == DBC_Decoder::kNone) return DBC_ERR_NOT_FOUND;
                 if (pMsgIndex) *pMsgIndex = int(mi);
                 return signal_count(*db, mi);
               })

VELTRIX_EXPORT(int, DBC_EncodeCANMsgByIndex, (long long DBCHandle, int msgIndex, CAN_MSG* pCANMsg),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 if (int r = message_at(DBCHandle, msgIndex, &db); r != DBC_OK) return r;
                 if (!pCANMsg) return DBC_ERR_ARGUMENT;
                 build_can_msg(*db, uint32_t(msgIndex), pCANMsg);
                 return DBC_OK;
               })
