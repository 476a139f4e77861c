/*
 * VELTRIX DBC databases: load a CAN database file, list its messages and signals, set and
 * read signals in physical units, and move values between the database and CAN / CAN FD
 * frames.
 *
 * Handles: DBC_ParserFile returns a database handle (never 0). Every other function takes
 * it back; 0, a released handle or a value that never came from DBC_ParserFile gives -4.
 * A database lives until DBC_Release. One database may be used by one thread at a time;
 * different databases are independent.
 *
 * Names are compared exactly (case-sensitive). Where several messages share a name, the
 * first one in file order that satisfies the request is used. A database remembers where
 * the last name-based call and the last received frame led, so reading a message's signals
 * one after the other costs no hashing; the answer is always the one a full lookup of the
 * names as they read now would give, whatever buffer they are passed in. No call
 * allocates after loading.
 *
 * Output strings: the interface has no size argument, so names and texts are copied with
 * their full length plus the terminating zero. The caller provides room for the longest
 * name, node or value text of the file; docs/dbc.md gives a safe size. Outputs are written
 * only on success.
 *
 * Pointers: every name and output pointer must be non-NULL; a NULL one gives -3 and writes
 * nothing.
 */
#ifndef VELTRIX_DBC_H
#define VELTRIX_DBC_H

#include "veltrix/api.h"
#include "veltrix/can.h"
#include "veltrix/canfd.h"

VELTRIX_EXTERN_C_BEGIN

#define DBC_OK 0                 /* success */
#define DBC_ERR_ARGUMENT (-3)    /* a name or output pointer is NULL */
#define DBC_ERR_HANDLE (-4)      /* the handle is 0 or not a live database */
#define DBC_ERR_NOT_FOUND (-5)   /* no such message or signal, or index out of range */
#define DBC_ERR_MUX_INACTIVE (-6) /* multiplexed signal whose multiplexer value is not the
                                     one currently selected */

/* Loads a DBC file.
 * DevHandle: an adapter handle known to the device registry (USB_ScanDevice).
 * pFileName: path of the file; may be NULL (gives 0).
 * Returns the database handle, or 0 when the device handle is not registered, the file
 * cannot be opened, or the file is malformed in a way the parser refuses (a "BO_" line
 * without a sender, a "CM_" line for an existing signal without text, or another line
 * missing a token its keyword needs). Unknown keywords and lines naming unknown objects
 * are skipped silently. The caller owns the handle and frees it with DBC_Release. */
VELTRIX_API long long DBC_ParserFile(int DevHandle, const char* pFileName);

/* Loads a DBC file without an adapter: the same database DBC_ParserFile builds, for
 * programs that only encode and decode (log files, test benches without hardware).
 * pFileName: path of the file; may be NULL (gives 0).
 * Returns the database handle, or 0 when the file cannot be opened or is malformed as
 * described for DBC_ParserFile. The caller owns the handle and frees it with DBC_Release. */
VELTRIX_API long long DBC_LoadFile(const char* pFileName);

/* Frees a database. Returns 0, or -4 for a handle that is not live. The handle is invalid
 * afterwards; it must not be released while another thread uses it. */
VELTRIX_API int DBC_Release(long long DBCHandle);

/* Number of messages of the database (0 or more), or -4. */
VELTRIX_API int DBC_GetMsgQuantity(long long DBCHandle);

/* Copies the name of message number index (file order) into pMsgName.
 * Returns 0; -3, -4, or -5 if index is negative or not below the message count. */
VELTRIX_API int DBC_GetMsgName(long long DBCHandle, int index, char* pMsgName);

/* Number of signals of the first message called pMsgName; -3, -4, -5. */
VELTRIX_API int DBC_GetMsgSignalQuantity(long long DBCHandle, const char* pMsgName);

/* Copies the name of signal number index of the first message called pMsgName that has
 * more than index signals. Returns 0; -3, -4, -5. */
VELTRIX_API int DBC_GetMsgSignalName(long long DBCHandle, const char* pMsgName,
                                     unsigned int index, char* pSignalName);

/* Copies the sending node of the first message called pMsgName. Returns 0; -3, -4, -5. */
VELTRIX_API int DBC_GetMsgPublisher(long long DBCHandle, const char* pMsgName,
                                    char* pPublisher);

/* Sets a signal's physical value. The value is clamped silently to the signal's
 * [minimum, maximum] and stored as the raw value. Setting a multiplexed signal also sets
 * its message's multiplexer switch to the signal's multiplex value.
 * Returns 0; -3, -4, -5. */
VELTRIX_API int DBC_SetSignalValue(long long DBCHandle, const char* pMsgName,
                                   const char* pSignalName, double value);

/* Reads a signal's physical value into *pValue. Returns 0; -3, -4, -5, or -6 when the
 * signal is multiplexed and the multiplexer value decoded from the last received frame of
 * its message selects another one (*pValue is then not written). */
VELTRIX_API int DBC_GetSignalValue(long long DBCHandle, const char* pMsgName,
                                   const char* pSignalName, double* pValue);

/* Writes a signal's value as text: "%f %s" (value, space, unit; the space is there even
 * when the unit is empty), or, for a signal with a value table, the table's text for the
 * value truncated to an integer ("%d" when the table has no such entry).
 * Returns 0; -3, -4, -5, -6. */
VELTRIX_API int DBC_GetSignalValueStr(long long DBCHandle, const char* pMsgName,
                                      const char* pSignalName, char* pValueStr);

/* Decodes received classic frames: each frame whose identifier (with ExtFlag as bit 31)
 * matches a message updates that message's data image (bytes 0-7) and the raw value of
 * every one of its signals, multiplexed or not. Frames of unknown identifiers are skipped.
 * count below 1 does nothing. pCANMsg may be NULL only when count is below 1.
 * Returns 0; -3, -4. */
VELTRIX_API int DBC_SyncCANMsgToValue(long long DBCHandle, const CAN_MSG* pCANMsg, int count);

/* As DBC_SyncCANMsgToValue for CAN FD frames: the identifier is matched as it stands
 * (bit 31 marks an extended identifier) and all 64 data bytes are used. */
VELTRIX_API int DBC_SyncCANFDMsgToValue(long long DBCHandle, const CANFD_MSG* pCANFDMsg,
                                        int count);

/* Encodes the current signal values of the first message called pMsgName into *pCANMsg:
 * Data is cleared and filled (a multiplexed signal only when its multiplex value is the
 * one the switch holds), FrameFlags = 0, ID = message id & 0x1FFFFFFF, ExtFlag = 1 for an
 * extended id, DataLen = the DLC of the file, at most 8 (the bytes the record holds). TimeStamp and TimeStampHigh are not touched.
 * The database is not changed. Returns 0; -3, -4, -5 (*pCANMsg then untouched). */
VELTRIX_API int DBC_SyncValueToCANMsg(long long DBCHandle, const char* pMsgName,
                                      CAN_MSG* pCANMsg);

/* As DBC_SyncValueToCANMsg for a CAN FD frame: all 64 data bytes are cleared and filled,
 * ID = the message id with bit 31 kept, DLC = the DLC number of the file as written,
 * Flags = (bit-rate switch << 2) | is CAN FD, the CANFD_MSG bits (bit 0 CAN FD format,
 * bit 2 BRS; every other bit 0). Reserved and the time fields are not
 * touched. Returns 0; -3, -4, -5. */
VELTRIX_API int DBC_SyncValueToCANFDMsg(long long DBCHandle, const char* pMsgName,
                                        CANFD_MSG* pCANFDMsg);

/* ---- Index-based access ----------------------------------------------------------------
 * For decoding at bus rate: resolve names once to indexes, then work by index with no name
 * lookup per frame. A message index is the message's position in the file (0 ..
 * DBC_GetMsgQuantity - 1); a signal index is the signal's position within its message (0 ..
 * DBC_GetSignalCount - 1). Indexes stay valid for the life of the handle. Where several
 * messages share a name, an index names exactly one of them (the name-based functions
 * always reach the first); a multiplexed signal is checked against the switch of its own
 * message. Results otherwise match the name-based functions. */

/* Index of the first message called pMsgName; DBC_ERR_NOT_FOUND, -3 (NULL name), -4. */
VELTRIX_API int DBC_GetMsgIndex(long long DBCHandle, const char* pMsgName);

/* Index of the first message with this identifier (bit 31 set for an extended one);
 * DBC_ERR_NOT_FOUND, -4. */
VELTRIX_API int DBC_GetMsgIndexById(long long DBCHandle, unsigned int id);

/* Index of the first signal called pSignalName in message msgIndex; -5 (no such message
 * or signal), -3 (NULL name), -4. */
VELTRIX_API int DBC_GetSignalIndex(long long DBCHandle, int msgIndex, const char* pSignalName);

/* Number of signals of message msgIndex; -5, -4. */
VELTRIX_API int DBC_GetSignalCount(long long DBCHandle, int msgIndex);

/* As DBC_GetSignalValue / DBC_SetSignalValue for signal sigIndex of message msgIndex.
 * Return 0; -3 (NULL pValue), -4, -5 (index out of range), -6 (DBC_GetSignalValueByIndex
 * only: multiplexed signal not selected; *pValue untouched). */
VELTRIX_API int DBC_GetSignalValueByIndex(long long DBCHandle, int msgIndex, int sigIndex,
                                          double* pValue);
VELTRIX_API int DBC_SetSignalValueByIndex(long long DBCHandle, int msgIndex, int sigIndex,
                                          double value);

/* Decodes one received frame in a single call: the message of the frame's identifier takes
 * the frame as DBC_SyncCANMsgToValue would, *pMsgIndex (may be NULL) receives its index and
 * pValues[i] the physical value of its signal i, for i below capacity; a multiplexed signal
 * that the frame's switch does not select reads as NaN. pValues may be NULL when capacity is
 * 0 or below. Returns the message's signal count (values beyond capacity are not written);
 * -5 when no message has the identifier (nothing written), -3 (NULL frame, or NULL
 * pValues with a positive capacity), -4. */
VELTRIX_API int DBC_DecodeCANMsg(long long DBCHandle, const CAN_MSG* pCANMsg, int* pMsgIndex,
                                 double* pValues, int capacity);

/* As DBC_DecodeCANMsg for a CAN FD frame, as DBC_SyncCANFDMsgToValue takes it. */
VELTRIX_API int DBC_DecodeCANFDMsg(long long DBCHandle, const CANFD_MSG* pCANFDMsg,
                                   int* pMsgIndex, double* pValues, int capacity);

/* As DBC_SyncValueToCANMsg for message msgIndex. Returns 0; -3, -4, -5. */
VELTRIX_API int DBC_EncodeCANMsgByIndex(long long DBCHandle, int msgIndex, CAN_MSG* pCANMsg);

VELTRIX_EXTERN_C_END

#endif
