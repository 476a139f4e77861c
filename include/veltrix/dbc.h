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
 * first one in file order that satisfies the request is used.
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
 * extended id, DataLen = the DLC of the file. TimeStamp and TimeStampHigh are not touched.
 * The database is not changed. Returns 0; -3, -4, -5 (*pCANMsg then untouched). */
VELTRIX_API int DBC_SyncValueToCANMsg(long long DBCHandle, const char* pMsgName,
                                      CAN_MSG* pCANMsg);

/* As DBC_SyncValueToCANMsg for a CAN FD frame: all 64 data bytes are cleared and filled,
 * ID = the message id with bit 31 kept, DLC = the DLC number of the file as written,
 * Flags = (is CAN FD << 2) | bit-rate switch. Reserved and the time fields are not
 * touched. Returns 0; -3, -4, -5. */
VELTRIX_API int DBC_SyncValueToCANFDMsg(long long DBCHandle, const char* pMsgName,
                                        CANFD_MSG* pCANFDMsg);

VELTRIX_EXTERN_C_END

#endif
