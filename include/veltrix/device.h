/*
 * VELTRIX adapters: adapter-wide services that belong to no bus family.
 *
 *   DEV_  identity and hardware records, the user-data and schedule-data flash areas, the
 *         power level, the adapter's timestamp counter and the library's build time.
 *         Every DEV_ operation answers 1 for success and 0 for failure; transport codes
 *         are not passed on.
 *   ARG_  a small parameter store: records keyed by 32-bit identifiers, chained through
 *         the adapter's parameter memory (16-bit addresses). ARG_ operations answer 0 or
 *         one of the ARG_ERR_ codes below.
 *
 * Every exchange with the adapter takes the adapter's lock for that one command and its
 * reply. Multi-chunk and multi-step operations release it between exchanges, so another
 * thread's command may run between two chunks.
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 */
#ifndef VELTRIX_DEVICE_H
#define VELTRIX_DEVICE_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* ---- Records -------------------------------------------------------------------- */

/* The adapter's identity record: the first 88 bytes of its answer to the identity
 * command. All multi-byte fields are in the adapter's little-endian order. */
typedef struct _DEVICE_INFO {
  char FirmwareName[32];     /* NUL-padded text, defined by the firmware */
  char BuildDate[32];        /* NUL-padded text, the firmware's build date and time */
  uint32_t HardwareVersion;  /* board revision, defined by the firmware */
  uint32_t FirmwareVersion;  /* e.g. 0x0105001E; the LIN family picks its command set
                                by comparing with that value */
  uint32_t BootMarker[2];    /* product marker while the adapter runs its bootloader;
                                0 while it runs the application */
  uint32_t SerialNumber;     /* the adapter's serial number (its device handle) */
  uint32_t Reserved;         /* defined by the firmware, passed through */
} DEVICE_INFO;
VELTRIX_STATIC_ASSERT(sizeof(DEVICE_INFO) == 88, "DEVICE_INFO layout");
VELTRIX_STATIC_ASSERT(offsetof(DEVICE_INFO, BuildDate) == 32, "DEVICE_INFO layout");
VELTRIX_STATIC_ASSERT(offsetof(DEVICE_INFO, HardwareVersion) == 64, "DEVICE_INFO layout");
VELTRIX_STATIC_ASSERT(offsetof(DEVICE_INFO, FirmwareVersion) == 68, "DEVICE_INFO layout");
VELTRIX_STATIC_ASSERT(offsetof(DEVICE_INFO, BootMarker) == 72, "DEVICE_INFO layout");
VELTRIX_STATIC_ASSERT(offsetof(DEVICE_INFO, SerialNumber) == 80, "DEVICE_INFO layout");
VELTRIX_STATIC_ASSERT(offsetof(DEVICE_INFO, Reserved) == 84, "DEVICE_INFO layout");

#define DEV_INFO_SIZE 88
#define DEV_FUNCTION_STR_MAX 200 /* characters; the buffer needs one more for the NUL */
#define DEV_HARDWARE_INFO_SIZE 64
#define DEV_USER_DATA_MAX_WRITE 20480 /* bytes per DEV_WriteUserData call */
#define DEV_SCH_CHUNK 10240           /* bytes per schedule-data exchange */
#define DEV_BUILD_TIME_SIZE 20        /* "0123-03-15 18:27:42" and its NUL */

/* ---- Identity, hardware record ----------------------------------------------------- */

/* Reads the adapter's identity record and, if pFunctionStr is not NULL, its function
 * string (a text listing what the adapter can do).
 * pDevInfo: receives the record; must not be NULL. Bytes the adapter did not send (a
 *   reply shorter than 88 bytes) are set to 0.
 * pFunctionStr: NULL, or a buffer of at least DEV_FUNCTION_STR_MAX + 1 bytes that
 *   receives the string with a terminating NUL.
 * Returns 1 on success, 0 on any failure (bad argument, no or bad reply, a function
 * string longer than 200 characters). pDevInfo may already be filled when only the
 * function-string exchange failed; pFunctionStr is written only on success. */
VELTRIX_API int DEV_GetDeviceInfo(unsigned int DevHandle, DEVICE_INFO* pDevInfo,
                                  char* pFunctionStr);

/* Reads the adapter's 64-byte hardware record, whose first byte is a validity mark.
 * pHardwareInfo: a buffer of DEV_HARDWARE_INFO_SIZE bytes; must not be NULL. It is
 *   filled whenever exactly 64 bytes arrived, even when the mark is invalid, so a caller
 *   can inspect a blank record.
 * Returns 1 if exactly 64 bytes came with the right code and the mark lies in 1..254;
 * 0 otherwise (including a mark of 0 or 0xFF: the record was never written). */
VELTRIX_API int DEV_GetHardwareInfo(unsigned int DevHandle, unsigned char* pHardwareInfo);

/* ---- User-data flash -------------------------------------------------------------- */

/* Erases the whole user-data area (every byte reads 0xFF afterwards).
 * Returns 1 if the adapter acknowledged with an empty reply, else 0. */
VELTRIX_API int DEV_EraseUserData(unsigned int DevHandle);

/* Erases the user-data sector that contains Addr. The adapter decides which addresses
 * it accepts; a refusal comes as a reply with payload.
 * Returns 1 if the adapter acknowledged with an empty reply, else 0. */
VELTRIX_API int DEV_EraseUserDataSector(unsigned int DevHandle, unsigned int Addr);

/* Programs DataLen bytes at user-data address Addr. Flash programming only clears bits:
 * erase first.
 * Addr: a multiple of 4. DataLen: 0 to DEV_USER_DATA_MAX_WRITE. pData: may be NULL only
 *   when DataLen is 0.
 * Returns 1 if the adapter acknowledged with an empty reply; 0 otherwise. A bad address,
 * length or pointer returns 0 without sending anything. */
VELTRIX_API int DEV_WriteUserData(unsigned int DevHandle, unsigned int Addr,
                                  const unsigned char* pData, int DataLen);

/* Reads DataLen bytes from user-data address Addr into pData.
 * Addr: a multiple of 4. DataLen: 0 or more; pData may be NULL only when DataLen is 0.
 * Returns 1 if the reply carried exactly DataLen bytes; 0 otherwise (bad argument sent
 * nothing; the adapter refuses an out-of-range read with an empty reply). After a failure
 * the contents of pData are unspecified. */
VELTRIX_API int DEV_ReadUserData(unsigned int DevHandle, unsigned int Addr,
                                 unsigned char* pData, int DataLen);

/* ---- Schedule-data flash ----------------------------------------------------------- */

/* Erases the schedule-data sector that contains Addr.
 * Returns 1 if the adapter acknowledged with an empty reply, else 0. */
VELTRIX_API int DEV_EraseSchData(unsigned int DevHandle, unsigned int Addr);

/* Writes DataLen bytes of schedule data at Addr in chunks of DEV_SCH_CHUNK bytes. Every
 * chunk carries the same address: the adapter places successive chunks itself.
 * pData: may be NULL only when DataLen is 0 or less.
 * Returns 1 when every chunk was acknowledged with an empty reply (also for DataLen 0
 * or less, when nothing is sent); 0 at the first refused or failed chunk. */
VELTRIX_API int DEV_WriteSchData(unsigned int DevHandle, unsigned int Addr,
                                 const unsigned char* pData, int DataLen);

/* Reads DataLen bytes of schedule data from Addr in chunks of DEV_SCH_CHUNK bytes, every
 * chunk with the same address. The length asked for a final partial chunk is
 * DEV_SCH_CHUNK modulo DataLen (for DataLen 100 the adapter is asked for 40 bytes), an
 * established behaviour kept for compatibility; bytes the adapter sends beyond the end of
 * pData are discarded, never written.
 * Returns 1 when every chunk came back with as many bytes as asked (also for DataLen 0
 * or less); 0 otherwise. pData is unspecified after a failure. */
VELTRIX_API int DEV_ReadSchData(unsigned int DevHandle, unsigned int Addr,
                                unsigned char* pData, int DataLen);

/* ---- Power level, timestamp, build time -------------------------------------------- */

/* Sets the adapter's output power level (meaning defined by the firmware).
 * Returns 1 if the adapter replied, else 0. */
VELTRIX_API int DEV_SetPowerLevel(unsigned int DevHandle, unsigned char PowerLevel);

/* Reads one of the adapter's counters.
 * Selector 0: 32-bit count of 100-microsecond units since the last reset (or power-up);
 * selector 1: the same time in microseconds (32 bits, wraps after about 71 minutes).
 * pTimestamp: must not be NULL (0 is returned). The reply's bytes are copied into it in
 *   the adapter's (little-endian) order, at most 4: a shorter reply updates only the low
 *   bytes and an empty one leaves it unchanged; nothing is written when 0 is returned.
 * Returns 1 whenever the adapter answered the command (whatever the reply's length, so also
 * for a selector it answers emptily), 0 when it did not answer or the reply was broken
 * (wrong code, shorter than its header announced, late). */
VELTRIX_API int DEV_GetTimestamp(unsigned int DevHandle, unsigned char Selector,
                                 unsigned int* pTimestamp);

/* Restarts the adapter's timestamp counter at 0.
 * Returns 1 if the adapter acknowledged with an empty reply, else 0. */
VELTRIX_API int DEV_ResetTimestamp(unsigned int DevHandle);

/* Writes the library's build date and time as "YYYY-MM-DD hh:mm:ss" into pBuildTime
 * (DEV_BUILD_TIME_SIZE bytes). The year field counts from 1900: a library built on
 * 15 March 2023 reports "0123-03-15 18:27:42". This offset is established behaviour and
 * kept. pBuildTime may be NULL, in which case nothing is written. Always returns 1. */
VELTRIX_API int DEV_GetDllBuildTime(char* pBuildTime);

/* CRC-16/XMODEM (polynomial 0x1021, initial value 0, no reflection, no final XOR) of
 * DataLen bytes. "123456789" gives 0x31C3; an empty buffer (DataLen 0 or less, or pData
 * NULL) gives 0. */
VELTRIX_API uint16_t crc16_ccitt(const unsigned char* pData, int DataLen);

/* ---- Parameter store ------------------------------------------------------------- */

/* Parameter-store result codes. */
#define ARG_SUCCESS 0
#define ARG_ERR_PARAMETER (-1)   /* bad argument; nothing was sent */
#define ARG_ERR_SEND (-2)        /* the command could not be sent */
#define ARG_ERR_REPLY (-4)       /* no reply, a bad reply, or a reply of the wrong length */
#define ARG_ERR_REFUSED (-5)     /* the adapter answered status 1 (access refused) */
#define ARG_ERR_WRITE (-6)       /* ARG_Write got another non-zero status */
#define ARG_ERR_READ (-7)        /* ARG_Read got another non-zero status */
#define ARG_ERR_NOT_FOUND (-8)   /* the identifier is not in the chain */
#define ARG_ERR_CRC (-9)         /* the stored CRC does not match the stored data */
#define ARG_ERR_CORRUPT (-10)    /* identifier outside the slot table, a slot without the
                                    0x55AA mark where a record was expected, or a chain
                                    that loops back on itself */

/* Records live in a chain starting at parameter-memory address 16. A record is a 12-byte
 * header (identifier, data length, CRC-16/XMODEM of the data, next-record address; all
 * little-endian) followed by its data. Identifiers in use carry 0x55AA in their upper 16
 * bits. The slot reserved for a record depends on its identifier:
 *   0x55AA0001, 0x55AA0002, 0x55AA0005, 0x55AA0008, 0x55AA0009: 32 data bytes;
 *   0x55AA0003, 0x55AA0004, 0x55AA0006, 0x55AA0007, 0x55AA000A..0x55AA000D: 1280 bytes.
 * Writing more than the slot holds is not refused and overwrites the following record. */
#define ARG_CHAIN_START 16
#define ARG_HEADER_SIZE 12
#define ARG_MAX_DATA 1280 /* the largest slot's data area */
#define ARG_CHUNK 5120    /* bytes per parameter-memory exchange */

/* Prepares the adapter's parameter memory.
 * Returns 0 (status 0), -5 (any other status), -2 or -4 (the reply was not exactly one
 * status byte). */
VELTRIX_API int ARG_Init(unsigned int DevHandle);

/* Writes Len bytes at parameter-memory address Addr in chunks of ARG_CHUNK bytes. Chunk k
 * goes to the previous chunk's address plus k * ARG_CHUNK (start, start + 5120,
 * start + 15360, ...; 16-bit arithmetic): keep transfers within one chunk.
 * pData may be NULL only when Len is 0; Len 0 sends nothing and returns 0.
 * Returns 0, -1, -2, -4, -5 or -6. */
VELTRIX_API int ARG_Write(unsigned int DevHandle, unsigned short Addr,
                          const unsigned char* pData, unsigned short Len);

/* Reads Len bytes from parameter-memory address Addr into pData, chunked and addressed
 * like ARG_Write. pData may be NULL only when Len is 0; Len 0 sends nothing and returns 0.
 * Returns 0, -1, -2, -4, -5 or -7; pData is unspecified after a failure. */
VELTRIX_API int ARG_Read(unsigned int DevHandle, unsigned short Addr, unsigned char* pData,
                         unsigned short Len);

/* Looks up the record with identifier ArgID and copies its data to pData, which must
 * hold ARG_MAX_DATA bytes and is written only on success.
 * Returns the data length (0 or more), or -1 (pData NULL), -2, -4 (also a stored length
 * above ARG_MAX_DATA), -5, -7, -8, -9 or -10. */
VELTRIX_API int ARG_ReadArgData(unsigned int DevHandle, unsigned int ArgID,
                                unsigned char* pData);

/* Stores DataLen bytes under ArgID: rewrites the record in place if the identifier is
 * already in the chain, else takes the first free slot or appends a slot behind the last
 * record. Each exchange is preceded by a 10 ms pause.
 * DataLen: 0 to ARG_MAX_DATA; pData may be NULL only when DataLen is 0.
 * Returns 0, or -1, -2, -4, -5, -6, -7 or -10. */
VELTRIX_API int ARG_WriteArgData(unsigned int DevHandle, unsigned int ArgID,
                                 const unsigned char* pData, int DataLen);

/* Erases the record ArgID: its length becomes 0, its CRC and next address 0xFFFF. That
 * also cuts every later record off the chain. Each exchange is preceded by a 10 ms pause.
 * Returns 0, or -2, -4, -5, -6, -7, -8 or -10. */
VELTRIX_API int ARG_EraseArgData(unsigned int DevHandle, unsigned int ArgID);

VELTRIX_EXTERN_C_END

#endif
