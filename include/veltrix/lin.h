/*
 * VELTRIX adapters: LIN channels.
 *
 *   LIN_EX_  master and slave operation of a LIN channel (channels 0..3): frames run by the
 *            host one list at a time, schedule tables the adapter runs by itself, a slave's
 *            response table and capture, the LIN power output and the battery voltage,
 *            and a reader for recorded bus-traffic list files.
 *   LIN_     the older interface (channels 0..1), kept for existing programs. On adapters
 *            whose firmware is 0x0105001E or newer it is translated onto LIN_EX_; on older
 *            firmware it uses that firmware's own commands. LIN_Init decides which.
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * Every function returns 0 or a count on success and one of the LIN_EX_ERR_ codes on
 * failure. Each command and its reply are exchanged under the adapter's lock. A failure
 * leaves the stored baud rates and initialisation flags unchanged.
 */
#ifndef VELTRIX_LIN_H
#define VELTRIX_LIN_H

#include <stddef.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* One LIN frame, 20 bytes. It is also the wire layout of one frame in every LIN command.
 *
 * Timestamp  out: time slot of the frame in ms (wait after starting it before the next
 *                 one); back: the adapter's time stamp, passed through unchanged.
 * MsgType    1 master write, 2 master read, 3 slave table entry (ID mode 0),
 *            4 slave table entry (ID mode 1), 5 break only,
 *            8 received frame with the checksum as last data byte,
 *            9 received frame with the checksum in Check.
 * CheckType  out: 0 classic, 1 enhanced, 2 caller-supplied, 3 none;
 *            back: 0 matched classic, 1 matched enhanced, 2 not tested (caller-supplied),
 *            3 not tested, 4 checksum error.
 * DataLen    number of data bytes, 0..8.
 * Sync       always 0x55 on the bus.
 * PID        protected identifier: identifier in bits 0..5, parity in bits 6..7. A bare
 *            identifier may be passed; the parity bits are recomputed before sending.
 * Data       data bytes; when fewer than 8 are used, the byte after the last data byte
 *            carries a copy of the checksum.
 * Check      checksum byte.
 * BreakBits  break length in bit times, 10..26 (anything else is sent as 13).
 * Reserved   not used by the channel; the diagnostic layer tags buffered records here. */
typedef struct {
  unsigned int Timestamp;
  unsigned char MsgType;
  unsigned char CheckType;
  unsigned char DataLen;
  unsigned char Sync;
  unsigned char PID;
  unsigned char Data[8];
  unsigned char Check;
  unsigned char BreakBits;
  unsigned char Reserved;
} LIN_EX_MSG;

VELTRIX_STATIC_ASSERT(sizeof(LIN_EX_MSG) == 20, "LIN_EX_MSG is 20 bytes");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, Timestamp) == 0, "LIN_EX_MSG.Timestamp");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, MsgType) == 4, "LIN_EX_MSG.MsgType");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, CheckType) == 5, "LIN_EX_MSG.CheckType");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, DataLen) == 6, "LIN_EX_MSG.DataLen");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, Sync) == 7, "LIN_EX_MSG.Sync");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, PID) == 8, "LIN_EX_MSG.PID");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, Data) == 9, "LIN_EX_MSG.Data");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, Check) == 17, "LIN_EX_MSG.Check");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, BreakBits) == 18, "LIN_EX_MSG.BreakBits");
VELTRIX_STATIC_ASSERT(offsetof(LIN_EX_MSG, Reserved) == 19, "LIN_EX_MSG.Reserved");

/* ---- Codes and limits ----------------------------------------------------------- */

#define LIN_EX_SUCCESS 0
#define LIN_EX_ERR_SEND (-2)      /* the command packet could not be sent */
#define LIN_EX_ERR_REPLY (-4)     /* no reply, a reply of the wrong length or content, or a
                                     single-frame operation that got no frame back */
#define LIN_EX_ERR_NOT_INIT (-5)  /* the channel was never set up with LIN_EX_Init */
#define LIN_EX_ERR_PARAMETER (-7) /* handle not open or not found, channel out of range,
                                     NULL record pointer, count out of range, or a stored
                                     baud rate of 100 or less for a master exchange */
#define LIN_EX_ERR_OPEN_FILE (-8) /* the list file cannot be opened */
#define LIN_EX_ERR_FILE_FORMAT (-9) /* the list file's first line is not the header */
#define LIN_EX_ERR_NO_MEMORY (-10)  /* the record list cannot be grown */

#define LIN_EX_MAX_CHANNELS 4
#define LIN_MAX_CHANNELS 2 /* the older interface on older firmware */

/* MsgType values. */
#define LIN_EX_MSG_TYPE_MW 1  /* master write */
#define LIN_EX_MSG_TYPE_MR 2  /* master read */
#define LIN_EX_MSG_TYPE_SW 3  /* slave table entry, ID mode 0 */
#define LIN_EX_MSG_TYPE_SR 4  /* slave table entry, ID mode 1 */
#define LIN_EX_MSG_TYPE_BK 5  /* break only */
#define LIN_EX_MSG_TYPE_DL 8  /* received, checksum as the last data byte */
#define LIN_EX_MSG_TYPE_DC 9  /* received, checksum in Check */

/* CheckType values on the way out; on the way back 0..3 keep their meaning as verdicts
 * (matched classic, matched enhanced, not tested, not tested) and 4 is a checksum error. */
#define LIN_EX_CHECK_STD 0
#define LIN_EX_CHECK_EXT 1
#define LIN_EX_CHECK_USER 2
#define LIN_EX_CHECK_NONE 3
#define LIN_EX_CHECK_ERROR 4

/* The adapter never holds more than this in one table; the library reads at most this
 * many records of a table reply and drops the rest. Output arrays of the functions that
 * read a table must hold that many records. */
#define LIN_EX_MAX_SCH_MSGS 64       /* LIN_EX_MasterStartSch / LIN_EX_MasterGetSch */
#define LIN_EX_MAX_SLAVE_MSGS 64     /* LIN_EX_SlaveSetIDMode / LIN_EX_SlaveGetIDMode */
#define LIN_EX_MAX_CAPTURE_MSGS 1024 /* LIN_EX_SlaveGetData / LIN_SlaveGetData */

/* Timing limits applied to Timestamp (the slot) before sending. */
#define LIN_EX_MAX_SYNC_SLOT_MS 50000u
#define LIN_EX_MAX_SCH_SLOT_MS 600000u

/* ---- Channel set-up ------------------------------------------------------------- */

/* Configures a channel as master (Mode 1) or slave (Mode 0) at BaudRate. Other mode
 * values are passed to the adapter unchanged. A BaudRate below 100 configures 9600.
 * On success the channel counts as initialised for the life of the process and its rate
 * is stored for timing; a channel set up at exactly 100 baud accepts configuration but
 * every master exchange (LIN_EX_MasterSync and what builds on it) answers -7.
 * Returns 0, -2, -4 (no reply, or a reply carrying data) or -7. */
VELTRIX_API int LIN_EX_Init(int DevHandle, unsigned char LINIndex, unsigned int BaudRate,
                            unsigned char MasterMode);

/* ---- Master ----------------------------------------------------------------------- */

/* Runs MsgLen frames on the bus in one exchange and returns what came back.
 * pInMsg: MsgLen records, not modified. Before sending, each copy gets Sync 0x55 and its
 *   protected identifier (parity recomputed from PID bits 0..5); Timestamp (the slot) is
 *   limited to LIN_EX_MAX_SYNC_SLOT_MS; a BreakBits outside 10..26 becomes 13; DataLen
 *   is limited to 8; records of type 1 and 3 get the checksum chosen by CheckType (0
 *   classic, 1 enhanced, 2 Check taken as given, 3 none), written to Check and, when
 *   DataLen is below 8, also to the data byte after the data.
 * pOutMsg: room for MsgLen records. Result record i answers request record i: frames
 *   that came back with the checksum as the last data byte (type 8) have it moved to
 *   Check and DataLen reduced by one; CheckType holds the verdict (0 classic matched,
 *   1 enhanced matched, 2 not tested because the request supplied its own checksum,
 *   3 not tested, 4 checksum error). Written only on success.
 * The reply is awaited for the sum of the slots + (200000 / baud) * MsgLen + 300 ms.
 * Returns the number of result records (0..MsgLen), or -2, -4, -5, -7 (NULL pointer,
 * MsgLen below 1, stored baud rate 100 or less). */
VELTRIX_API int LIN_EX_MasterSync(int DevHandle, unsigned char LINIndex,
                                  const LIN_EX_MSG* pInMsg, LIN_EX_MSG* pOutMsg, int MsgLen);

/* Sends a 13-bit break only. Returns 0, -4 if no frame came back, or the negative code
 * of LIN_EX_MasterSync. */
VELTRIX_API int LIN_EX_MasterBreak(int DevHandle, unsigned char LINIndex);

/* Writes one frame: PID (bare identifier or protected), DataLen bytes of pData (more than
 * 8 are cut to 8; pData may be NULL only for DataLen 0), checksum type CheckType (see
 * LIN_EX_MasterSync; a frame without data is sent without checksum).
 * Returns 0, -4 if no frame came back, or the negative code of LIN_EX_MasterSync. */
VELTRIX_API int LIN_EX_MasterWrite(int DevHandle, unsigned char LINIndex, unsigned char PID,
                                   const unsigned char* pData, unsigned char DataLen,
                                   unsigned char CheckType);

/* Reads one frame from a slave. pData: room for 8 bytes; written only when a frame came
 * back whose checksum matched (classic or enhanced).
 * Returns the number of data bytes (0..8; 0 also when nothing or a bad frame came back)
 * or the negative code of LIN_EX_MasterSync. */
VELTRIX_API int LIN_EX_MasterRead(int DevHandle, unsigned char LINIndex, unsigned char PID,
                                  unsigned char* pData);

/* Loads a schedule table of the first min(MsgLen, LIN_EX_MAX_SCH_MSGS) records, which the
 * adapter then runs by itself (see LIN_EX_MasterSetSchRunTimes). Records are prepared as
 * for LIN_EX_MasterSync except that the slot is limited to LIN_EX_MAX_SCH_SLOT_MS and
 * raised to the time the frame needs on the bus: for a write (type 1)
 * ceil((BreakBits + (DataLen + 3) * 11 + 3) * 1000 / baud) ms, for any other type
 * ceil((BreakBits + 47) * 1000 / baud) ms with DataLen set to 0.
 * Returns 0, -2, -4, -5, -7. */
VELTRIX_API int LIN_EX_MasterStartSch(int DevHandle, unsigned char LINIndex,
                                      const LIN_EX_MSG* pLINMsg, int MsgLen);

/* Stops the loaded schedule. Needs no LIN_EX_Init. Returns 0, -2, -4, -7. */
VELTRIX_API int LIN_EX_MasterStopSch(int DevHandle, unsigned char LINIndex);

/* How many times the adapter runs the loaded schedule (the adapter's meaning of 0).
 * Needs no LIN_EX_Init. Returns 0, -2, -4, -7. */
VELTRIX_API int LIN_EX_MasterSetSchRunTimes(int DevHandle, unsigned char LINIndex,
                                            unsigned int RunTimes);

/* Reads the loaded schedule back into pLINMsg (room for LIN_EX_MAX_SCH_MSGS records).
 * Read frames (type 2) carry the data last received and a verdict in CheckType (0, 1 or
 * 4); other records come as the adapter holds them.
 * Returns the number of records, or -2, -4, -5, -7. */
VELTRIX_API int LIN_EX_MasterGetSch(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg);

/* ---- Slave ------------------------------------------------------------------------ */

/* Loads the slave's response table (MsgLen records, 1..LIN_EX_MAX_SLAVE_MSGS). Records
 * get Sync and protected identifier; entries of type 3 (bit 7 ignored) and 4 get their
 * checksum as in LIN_EX_MasterSync. Returns 0, -2, -4, -5, -7. */
VELTRIX_API int LIN_EX_SlaveSetIDMode(int DevHandle, unsigned char LINIndex,
                                      const LIN_EX_MSG* pLINMsg, int MsgLen);

/* Reads the slave's response table. pLINMsg: NULL (only count), or room for
 * LIN_EX_MAX_SLAVE_MSGS records. Returns the number of records, or -2, -4, -5, -7. */
VELTRIX_API int LIN_EX_SlaveGetIDMode(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg);

/* Fetches the frames the slave channel saw on the bus since the last call. pLINMsg: room
 * for LIN_EX_MAX_CAPTURE_MSGS records. Type 8 frames are split as in LIN_EX_MasterSync and
 * type 9 frames checked (verdict 0, 1 or 4 in CheckType); breaks (type 5) come with
 * verdict 3, DataLen 0 and PID 0xFF.
 * Returns the number of records, or -2, -4, -5, -7. */
VELTRIX_API int LIN_EX_SlaveGetData(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg);

/* ---- Power ------------------------------------------------------------------------ */

/* Switches the channel's LIN power output; State is the adapter's (passed through).
 * Returns 0, -2, -4, -7. */
VELTRIX_API int LIN_EX_CtrlPowerOut(int DevHandle, unsigned char LINIndex, unsigned char State);

/* Reads the battery (supply) voltage as the adapter measures it (its unit). pBatValue
 * must not be NULL and is written only on success. Returns 0, -2, -4 (reply not exactly
 * 2 bytes), -7. */
VELTRIX_API int LIN_EX_GetVbatValue(int DevHandle, unsigned short* pBatValue);

/* ---- Bus-traffic list files -------------------------------------------------------- */

/* Reads a comma-separated bus-traffic list file into the process's one replay list (the
 * previous list is dropped once the header has been recognised). Every data line with at
 * least 23 fields and a line number of decimal digits in its first field becomes a
 * record: field 1 the time in seconds, field 9 the identifier (hex), fields 12..19 the
 * data bytes (hex, up to the first empty field). A record is a master read (type 2) when
 * the identifier's low 6 bits are in pReadIDList, else a write (type 1); its CheckType is
 * CheckType, inverted (0 <-> 1) for identifiers in pCheckTypeToggleIDList. Each record's
 * Timestamp is the gap to the next line minus that next frame's transmission time at
 * BaudRate (0 when not larger); the last record's is 0.
 * The ID lists may be NULL when their length is 0 or less. BaudRate must be positive.
 * Returns the number of records, or -7 (NULL path, BaudRate below 1), -8, -9, -10. */
VELTRIX_API int LIN_EX_DecodeListFile(const char* pFileName, unsigned char CheckType,
                                      int BaudRate, const unsigned char* pReadIDList,
                                      signed char ReadIDListLen,
                                      const unsigned char* pCheckTypeToggleIDList,
                                      signed char CheckTypeToggleIDListLen);

/* Copies records [MsgIndex, MsgIndex + MsgLen) of the replay list into pLINMsg, stopping
 * at its end. Returns how many were copied (0 for MsgLen below 1 or an index outside the
 * list), or -7 for a NULL pLINMsg. */
VELTRIX_API int LIN_EX_GetListFileMsg(int MsgIndex, int MsgLen, LIN_EX_MSG* pLINMsg);

/* ---- Older interface ----------------------------------------------------------------- */

/* Frame record of the older interface, 11 bytes. DataLen counts the data bytes and the
 * checksum byte (0 for a frame without either), so it is at most 9: the 8 Data bytes and
 * Check, which follows them. A received record claiming more is handed on with 9. */
typedef struct {
  unsigned char ID;
  unsigned char DataLen;
  unsigned char Data[8];
  unsigned char Check;
} LIN_MSG;

VELTRIX_STATIC_ASSERT(sizeof(LIN_MSG) == 11, "LIN_MSG is 11 bytes");
VELTRIX_STATIC_ASSERT(offsetof(LIN_MSG, DataLen) == 1, "LIN_MSG.DataLen");
VELTRIX_STATIC_ASSERT(offsetof(LIN_MSG, Data) == 2, "LIN_MSG.Data");
VELTRIX_STATIC_ASSERT(offsetof(LIN_MSG, Check) == 10, "LIN_MSG.Check");

/* Channel configuration of LIN_Init. */
typedef struct {
  unsigned int BaudRate;
  unsigned char Flags; /* passed to older firmware unchanged; unused by newer firmware */
  unsigned char Mode;  /* 1 master, 0 slave */
} LIN_CONFIG;

VELTRIX_STATIC_ASSERT(offsetof(LIN_CONFIG, Flags) == 4, "LIN_CONFIG.Flags");
VELTRIX_STATIC_ASSERT(offsetof(LIN_CONFIG, Mode) == 5, "LIN_CONFIG.Mode");

/* Reads the adapter's identity to choose the command set, then configures the channel.
 * pConfig must not be NULL. Returns 0, -4 (identity unreadable or bad reply), -2, -7. */
VELTRIX_API int LIN_Init(int DevHandle, unsigned char LINIndex, const LIN_CONFIG* pConfig);

/* Sends a break. Returns 0, -2, -4, -5, -7. */
VELTRIX_API int LIN_SendBreak(int DevHandle, unsigned char LINIndex);

/* Writes Len frames; the checksum is enhanced for identifiers 0x00..0x3B and classic for
 * 0x3C..0x3F. Returns 0 when every frame went out, else -2, -4, -5, -7. */
VELTRIX_API int LIN_Write(int DevHandle, unsigned char LINIndex, const LIN_MSG* pLINMsg, int Len);

/* Reads Len frames whose identifiers are set in pLINMsg[i].ID; each record gets DataLen
 * (data bytes plus checksum, 0 for nothing received), Data and Check. Returns 0 when every
 * frame came back, else -2, -4, -5, -7. */
VELTRIX_API int LIN_Read(int DevHandle, unsigned char LINIndex, LIN_MSG* pLINMsg, int Len);

/* Loads Len slave table entries; IDMode selects the entry kind (0 or non-zero).
 * Returns 0, -2, -4, -5, -7. */
VELTRIX_API int LIN_SlaveSetIDMode(int DevHandle, unsigned char LINIndex, unsigned char IDMode,
                                   const LIN_MSG* pLINMsg, int Len);

/* Fetches the frames the slave channel captured into pLINMsg (room for
 * LIN_EX_MAX_CAPTURE_MSGS records). Returns the number of frames, or -2, -4, -5, -7. */
VELTRIX_API int LIN_SlaveGetData(int DevHandle, unsigned char LINIndex, LIN_MSG* pLINMsg);

VELTRIX_EXTERN_C_END

#endif
