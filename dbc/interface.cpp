// The exported DBC functions: a flat interface around DBC_Decoder.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "dbc/decoder.hpp"
#include "dbc/handles.hpp"
#include "dbc/signal_access.hpp"
#include "dbc/text.hpp"
#include "device/abi.hpp"
#include "veltrix/dbc.h"

extern "C" int usb_list_get_index(unsigned int handle);

namespace veltrix::dbc {
namespace {

// CANFD_MSG.Flags as the CAN FD family defines it: bit 0 CAN FD format, bit 2 bit-rate
// switch. A frame built from the database sets nothing else.
constexpr uint8_t kFlagCanFd = 0x01;
constexpr uint8_t kFlagBitRateSwitch = 0x04;

void copy_out(std::string_view text, char* out) {
  // The interface has no size argument: the caller sized the buffer for the full text.
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
}

// Finds the signal; DBC_OK and *out set, or an error code.
int find_signal(long long handle, const char* msg, const char* sig, DBC_Decoder** db,
                NameHit* ref) {
  *db = database_of(handle);
  if (!*db) return DBC_ERR_HANDLE;
  if (!msg || !sig) return DBC_ERR_ARGUMENT;
  if (!(*db)->nameCache().signal(**db, msg, sig, ref)) return DBC_ERR_NOT_FOUND;
  return DBC_OK;
}

uint32_t find_message(DBC_Decoder& db, const char* name) {
  return db.nameCache().message(db, name);
}

}  // namespace
}  // namespace veltrix::dbc

using veltrix::guarded;
using namespace veltrix::dbc;

VELTRIX_EXPORT(long long, DBC_ParserFile, (int DevHandle, const char* pFileName), 0LL, {
  if (usb_list_get_index(static_cast<unsigned int>(DevHandle)) < 0) return 0;
  if (!pFileName) return 0;
  ParseFault fault;
  std::unique_ptr<DBC_Decoder> db = DBC_Decoder::load(pFileName, &fault);
  if (!db) return 0;
  return register_database(std::move(db));
})

// The parser is host logic: loading without an adapter differs from DBC_ParserFile only in
// skipping the registry check.
VELTRIX_EXPORT(long long, DBC_LoadFile, (const char* pFileName), 0LL, {
  if (!pFileName) return 0;
  ParseFault fault;
  std::unique_ptr<DBC_Decoder> db = DBC_Decoder::load(pFileName, &fault);
  if (!db) return 0;
  return register_database(std::move(db));
})

VELTRIX_EXPORT(int, DBC_Release, (long long DBCHandle), DBC_ERR_HANDLE,
               { return release_database(DBCHandle) ? DBC_OK : DBC_ERR_HANDLE; })

VELTRIX_EXPORT(int, DBC_GetMsgQuantity, (long long DBCHandle), DBC_ERR_HANDLE, {
  DBC_Decoder* db = database_of(DBCHandle);
  if (!db) return DBC_ERR_HANDLE;
  return int(std::min<size_t>(db->messages().size(), INT_MAX));
})

VELTRIX_EXPORT(int, DBC_GetMsgName, (long long DBCHandle, int index, char* pMsgName),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName) return DBC_ERR_ARGUMENT;
                 if (index < 0 || size_t(index) >= db->messages().size()) return DBC_ERR_NOT_FOUND;
                 copy_out(db->messages()[size_t(index)].name, pMsgName);
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_GetMsgSignalQuantity, (long long DBCHandle, const char* pMsgName),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName) return DBC_ERR_ARGUMENT;
                 const uint32_t mi = find_message(*db, pMsgName);
                 if (mi == DBC_Decoder::kNone) return DBC_ERR_NOT_FOUND;
                 return int(std::min<size_t>(db->messages()[mi].signals.size(), INT_MAX));
               })

VELTRIX_EXPORT(int, DBC_GetMsgSignalName,
               (long long DBCHandle, const char* pMsgName, unsigned int index, char* pSignalName),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName || !pSignalName) return DBC_ERR_ARGUMENT;
                 const std::string_view name(pMsgName);
                 for (const DBC_MESSAGE& m : db->messages()) {
                   if (m.name == name && m.signals.size() > index) {
                     copy_out(m.signals[index].name, pSignalName);
                     return DBC_OK;
                   }
                 }
                 return DBC_ERR_NOT_FOUND;
               })

VELTRIX_EXPORT(int, DBC_GetMsgPublisher,
               (long long DBCHandle, const char* pMsgName, char* pPublisher), DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName || !pPublisher) return DBC_ERR_ARGUMENT;
                 const uint32_t mi = find_message(*db, pMsgName);
                 if (mi == DBC_Decoder::kNone) return DBC_ERR_NOT_FOUND;
                 copy_out(db->messages()[mi].sender, pPublisher);
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_SetSignalValue,
               (long long DBCHandle, const char* pMsgName, const char* pSignalName, double value),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 NameHit ref;
                 if (int r = find_signal(DBCHandle, pMsgName, pSignalName, &db, &ref); r != DBC_OK)
                   return r;
                 DBC_SIGNAL& s = db->messages()[ref.message].signals[ref.signal];
                 DBC_Decoder::setSignalRealValue(&s, value);
                 if (s.multiplexMode == MUX_SELECTED) {
                   // Setting a multiplexed signal selects it: its message's switch takes its value.
                   const uint32_t sw = db->muxSwitch(ref.firstByName);
                   if (sw != DBC_Decoder::kNone) {
                     db->messages()[ref.firstByName].signals[sw].rawValue = s.multiplexValue;
                   }
                 }
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_GetSignalValue,
               (long long DBCHandle, const char* pMsgName, const char* pSignalName, double* pValue),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 NameHit ref;
                 if (int r = find_signal(DBCHandle, pMsgName, pSignalName, &db, &ref); r != DBC_OK)
                   return r;
                 if (!pValue) return DBC_ERR_ARGUMENT;
                 return read_value(*db, ref.message, ref.signal, ref.firstByName, ref.plan, pValue);
               })

VELTRIX_EXPORT(int, DBC_GetSignalValueStr,
               (long long DBCHandle, const char* pMsgName, const char* pSignalName,
                char* pValueStr),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db;
                 NameHit ref;
                 if (int r = find_signal(DBCHandle, pMsgName, pSignalName, &db, &ref); r != DBC_OK)
                   return r;
                 if (!pValueStr) return DBC_ERR_ARGUMENT;
                 DBC_SIGNAL& s = db->messages()[ref.message].signals[ref.signal];
                 if (int r = check_multiplexer(*db, ref.firstByName, s); r != DBC_OK) return r;
                 const double value = DBC_Decoder::getSignalRealValue(&s);
                 if (s.valueTable.empty()) {
                   // "%f %s": a space follows the number even when the unit is empty.
                   const int n = std::snprintf(nullptr, 0, "%f %s", value, s.unit.c_str());
                   std::snprintf(pValueStr, size_t(n) + 1, "%f %s", value, s.unit.c_str());
                   return DBC_OK;
                 }
                 const int32_t key = saturate_to_i32(value);  // truncated towards zero
                 if (std::string_view text; s.valueTable.find(key, &text)) {
                   copy_out(text, pValueStr);
                 } else {
                   std::snprintf(pValueStr, 12, "%d", key);  // at most "-2147483648"
                 }
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_SyncCANMsgToValue, (long long DBCHandle, const CAN_MSG* pCANMsg, int count),
               DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (count < 1) return DBC_OK;
                 if (!pCANMsg) return DBC_ERR_ARGUMENT;
                 for (int i = 0; i < count; ++i) take_can_frame(*db, pCANMsg[i]);
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_SyncCANFDMsgToValue,
               (long long DBCHandle, const CANFD_MSG* pCANFDMsg, int count), DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (count < 1) return DBC_OK;
                 if (!pCANFDMsg) return DBC_ERR_ARGUMENT;
                 for (int i = 0; i < count; ++i) take_canfd_frame(*db, pCANFDMsg[i]);
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_SyncValueToCANMsg,
               (long long DBCHandle, const char* pMsgName, CAN_MSG* pCANMsg), DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName || !pCANMsg) return DBC_ERR_ARGUMENT;
                 const uint32_t mi = find_message(*db, pMsgName);
                 if (mi == DBC_Decoder::kNone) return DBC_ERR_NOT_FOUND;
                 build_can_msg(*db, mi, pCANMsg);
                 return DBC_OK;
               })

VELTRIX_EXPORT(int, DBC_SyncValueToCANFDMsg,
               (long long DBCHandle, const char* pMsgName, CANFD_MSG* pCANFDMsg), DBC_ERR_HANDLE, {
                 DBC_Decoder* db = database_of(DBCHandle);
                 if (!db) return DBC_ERR_HANDLE;
                 if (!pMsgName || !pCANFDMsg) return DBC_ERR_ARGUMENT;
                 const uint32_t mi = find_message(*db, pMsgName);
                 if (mi == DBC_Decoder::kNone) return DBC_ERR_NOT_FOUND;
                 PaddedImage image;
                 encode_signals(*db, mi, &image);
                 std::memcpy(pCANFDMsg->Data, image.image(), kDataBytes);
                 const DBC_MESSAGE& m = db->messages()[mi];
                 pCANFDMsg->ID = m.id;
                 pCANFDMsg->DLC = m.dlc;  // the file's number as written, no length-code conversion
                 pCANFDMsg->Flags = uint8_t((m.isCanFd ? kFlagCanFd : 0) |
                                            (m.bitRateSwitch ? kFlagBitRateSwitch : 0));
                 return DBC_OK;
               })
