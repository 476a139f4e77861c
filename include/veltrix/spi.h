/*
 * VELTRIX SPI channels: master transfers (plain, bit strings, blocks with a pause between
 * them, transfers started by an event pin), slave mode with a continuous background
 * reader, and SPI NOR flash helpers driven by a table of flash command bytes.
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * SPIIndex: the channel, 0 or 1. It is sent to the adapter as given; host-side state
 *   (stored flash configuration, slave reader, FIFO) uses only its lowest bit.
 * IntervalUs, TimeOutMs, EventTimeOutMs, EventPin, EventType: passed to the adapter,
 *   which interprets them.
 *
 * Result codes: 0 or a non-negative count on success, otherwise one of SPI_ERR_*. Data
 * is written to the caller's buffers only on success. Each request is one command and its
 * reply, exchanged under the adapter's lock.
 */
#ifndef VELTRIX_SPI_H
#define VELTRIX_SPI_H

#include <stddef.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* Channel configuration, 12 bytes. The six mode bytes go to the adapter in this order. */
typedef struct {
  unsigned char Mode;        /* 0 hardware controller, 1 software (bit-banged) */
  unsigned char Master;      /* 1 master, 0 slave */
  unsigned char CPOL;        /* clock idle level */
  unsigned char CPHA;        /* 0 sample on the first edge, 1 on the second */
  unsigned char LSBFirst;    /* 1 least significant bit first */
  unsigned char SelPolarity; /* chip-select active level */
  unsigned char Reserved[2]; /* not sent */
  unsigned int ClockSpeedHz; /* bus clock in Hz */
} SPI_CONFIG;

VELTRIX_STATIC_ASSERT(sizeof(SPI_CONFIG) == 12, "SPI_CONFIG is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, Mode) == 0, "SPI_CONFIG.Mode");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, Master) == 1, "SPI_CONFIG.Master");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, CPOL) == 2, "SPI_CONFIG.CPOL");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, CPHA) == 3, "SPI_CONFIG.CPHA");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, LSBFirst) == 4, "SPI_CONFIG.LSBFirst");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, SelPolarity) == 5, "SPI_CONFIG.SelPolarity");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, Reserved) == 6, "SPI_CONFIG.Reserved");
VELTRIX_STATIC_ASSERT(offsetof(SPI_CONFIG, ClockSpeedHz) == 8, "SPI_CONFIG.ClockSpeedHz");

/* SPI NOR flash configuration, 44 bytes. Cmd[] holds the chip's command bytes at the
 * SPI_FLASH_CMD_* positions; the adapter uses them for SPI_FlashReadID, SPI_FlashWrite,
 * SPI_FlashRead, SPI_FlashReadFast and SPI_FlashEraseSector, the library itself for
 * SPI_FlashEraseChip and SPI_FlashErase (write enable, chip erase, read status). */
typedef struct {
  unsigned char Cmd[31];
  unsigned char IDLength;   /* bytes of the flash ID; 0 counts as 1 */
  unsigned char Param64[8]; /* passed to the adapter as they are */
  unsigned char Param32[4]; /* passed to the adapter as they are */
} SPI_FLASH_CONFIG;

VELTRIX_STATIC_ASSERT(sizeof(SPI_FLASH_CONFIG) == 44, "SPI_FLASH_CONFIG is 44 bytes");
VELTRIX_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, Cmd) == 0, "SPI_FLASH_CONFIG.Cmd");
VELTRIX_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, IDLength) == 31, "SPI_FLASH_CONFIG.IDLength");
VELTRIX_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, Param64) == 32, "SPI_FLASH_CONFIG.Param64");
VELTRIX_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, Param32) == 40, "SPI_FLASH_CONFIG.Param32");

/* Positions in SPI_FLASH_CONFIG.Cmd. */
#define SPI_FLASH_CMD_WRITE_ENABLE 0
#define SPI_FLASH_CMD_WRITE_DISABLE 1
#define SPI_FLASH_CMD_READ_DATA 2
#define SPI_FLASH_CMD_FAST_READ 3
#define SPI_FLASH_CMD_PAGE_PROGRAM 4
#define SPI_FLASH_CMD_SECTOR_ERASE 5 /* 4 KiB */
#define SPI_FLASH_CMD_BLOCK_ERASE 6  /* 64 KiB */
#define SPI_FLASH_CMD_CHIP_ERASE 7
#define SPI_FLASH_CMD_READ_ID 8
#define SPI_FLASH_CMD_READ_STATUS 13
#define SPI_FLASH_CMD_WRITE_STATUS 14
/* Param64 and Param32 describe the chip to the adapter's firmware (geometry, timing);
 * the library passes them on byte for byte and the virtual adapter ignores them. */

/* Status register bits of the flash. */
#define SPI_FLASH_STATUS_BUSY 0x01
#define SPI_FLASH_STATUS_WEL 0x02

/* Called by the slave reader thread with each chunk it collected (instead of queueing it).
 * pData stays valid until the reader's next-but-one read. */
typedef void (*SPI_GET_DATA_HANDLE)(int DevHandle, int SPIIndex, unsigned char* pData, int DataNum);

/* ---- Result codes and limits ------------------------------------------------------ */

#define SPI_SUCCESS 0
#define SPI_ERR_SEND                                              \
  (-2) /* the command could not be sent, or the adapter is not in \
          the registry */
#define SPI_ERR_REPLY                                              \
  (-4) /* no reply, a failed one, a reply of the wrong length or a \
          payload where none was expected; no reader thread */
#define SPI_ERR_PARAMETER                                        \
  (-5) /* a bit string with a character other than '0' or '1', a \
          NULL pointer or a length out of range; allocation failed */
#define SPI_ERR_STATUS                                              \
  (-6) /* the adapter's status byte was not 0 (event transfers), or \
          the flash stayed busy past the time-out */

#define SPI_MAX_BITS 163840 /* bit strings longer than this are cut to it */
#define SPI_MAX_TRANSFER (16u * 1024u * 1024u - 64u) /* data bytes of one call */
#define SPI_SLAVE_WRITE_MAX 20480     /* data of SPI_SlaveWriteReadBytes / ReadWriteBytes */
#define SPI_SLAVE_READ_MAX 61440      /* room SPI_SlaveReadBytesFromBuffer needs */
#define SPI_SLAVE_FIFO_BYTES 0x200000 /* the continuous reader keeps the newest 2 MiB */

/* ---- Master ----------------------------------------------------------------------- */

/* Configures a channel. pConfig: not NULL. Returns 0, -2, -4 (no reply or a reply with
 * data), -5. */
VELTRIX_API int SPI_Init(int DevHandle, unsigned char SPIIndex, SPI_CONFIG* pConfig);

/* Writes Len bytes in one chip-select frame (the async form returns when the adapter has
 * taken them). pWriteData may be NULL only when Len is 0. Returns 0, -2, -4, -5. */
VELTRIX_API int SPI_WriteBytes(int DevHandle, unsigned char SPIIndex, unsigned char* pWriteData,
                               int Len);
VELTRIX_API int SPI_WriteBytesAsync(int DevHandle, unsigned char SPIIndex,
                                    unsigned char* pWriteData, int Len);

/* Reads Len bytes into pReadData (room for Len). Returns 0, -2, -4 (no reply or not
 * exactly Len bytes), -5. */
VELTRIX_API int SPI_ReadBytes(int DevHandle, unsigned char SPIIndex, unsigned char* pReadData,
                              int Len);

/* Writes WriteLen bytes, waits IntervalUs, reads ReadLen bytes, in one frame. Results as
 * SPI_ReadBytes. */
VELTRIX_API int SPI_WriteReadBytes(int DevHandle, unsigned char SPIIndex, unsigned char* pWriteData,
                                   int WriteLen, unsigned char* pReadData, int ReadLen,
                                   int IntervalUs);

/* BlockCount frames of BlockSize bytes, IntervalUs apart. Sizes and counts are 16-bit on
 * the wire (0..65535, else -5); the buffers hold size x count bytes. Results as
 * SPI_WriteBytes / SPI_ReadBytes. */
VELTRIX_API int SPI_BlockWriteBytes(int DevHandle, unsigned char SPIIndex,
                                    unsigned char* pWriteData, int BlockSize, int BlockCount,
                                    int IntervalUs);
VELTRIX_API int SPI_BlockReadBytes(int DevHandle, unsigned char SPIIndex, unsigned char* pReadData,
                                   int BlockSize, int BlockCount, int IntervalUs);
VELTRIX_API int SPI_BlockWriteReadBytes(int DevHandle, unsigned char SPIIndex,
                                        unsigned char* pWriteData, int WriteBlockSize,
                                        unsigned char* pReadData, int ReadBlockSize, int BlockCount,
                                        int IntervalUs);

/* Bit strings: characters '0' and '1', first character first on the bus. A longer
 * string than SPI_MAX_BITS is cut to it. SPI_WriteBits returns 0, -2 (the adapter did not
 * take the command within 100 ms, on any try of the one-second send retry), -4 (no empty
 * reply within 10 s), or -5 (NULL or a character other than '0'/'1'; nothing is sent).
 * SPI_ReadBits writes ReadBitsNum characters and a NUL to pReadBitStr (room for
 * ReadBitsNum + 1; 0..SPI_MAX_BITS, else -5) and returns 0, -2, -4 (no reply or not
 * ceil(ReadBitsNum / 8) bytes), -5. */
VELTRIX_API int SPI_WriteBits(int DevHandle, unsigned char SPIIndex, char* pWriteBitStr);
VELTRIX_API int SPI_ReadBits(int DevHandle, unsigned char SPIIndex, char* pReadBitStr,
                             int ReadBitsNum);
VELTRIX_API int SPI_WriteReadBits(int DevHandle, unsigned char SPIIndex, char* pWriteBitStr,
                                  char* pReadBitStr, int ReadBitsNum);

/* ---- Event-triggered master transfers --------------------------------------------- */

/* Each waits on the adapter for EventType on EventPin. Results: 0, -2, -4 (no reply or
 * one of the wrong length), -5 (bad argument or no memory), -6 (the adapter's status was
 * not 0: the event did not come). Read buffers have room for their length (the block
 * forms for size x count). */
VELTRIX_API int SPI_WriteBytesOfEvent(int DevHandle, unsigned char SPIIndex,
                                      unsigned char* pWriteData, int Len, int EventPin,
                                      unsigned char EventType, int EventTimeOutMs);
VELTRIX_API int SPI_ReadBytesOfEvent(int DevHandle, unsigned char SPIIndex,
                                     unsigned char* pReadData, int Len, int EventPin,
                                     unsigned char EventType, int EventTimeOutMs);
VELTRIX_API int SPI_WriteReadBytesOfEvent(int DevHandle, unsigned char SPIIndex,
                                          unsigned char* pWriteData, int WriteLen,
                                          unsigned char* pReadData, int ReadLen, int IntervalUs,
                                          int EventPin, unsigned char EventType,
                                          int EventTimeOutMs);
VELTRIX_API int SPI_BlockWriteBytesOfEvent(int DevHandle, unsigned char SPIIndex,
                                           unsigned char* pWriteData, int BlockSize, int BlockCount,
                                           int EventPin, unsigned char EventType,
                                           int EventTimeOutMs);
VELTRIX_API int SPI_BlockReadBytesOfEvent(int DevHandle, unsigned char SPIIndex,
                                          unsigned char* pReadData, int BlockSize, int BlockCount,
                                          int EventPin, unsigned char EventType,
                                          int EventTimeOutMs);
VELTRIX_API int SPI_BlockWriteReadBytesOfEvent(int DevHandle, unsigned char SPIIndex,
                                               unsigned char* pWriteData, int WriteBlockSize,
                                               unsigned char* pReadData, int ReadBlockSize,
                                               int BlockCount, int EventPin,
                                               unsigned char EventType, int EventTimeOutMs);

/* ---- SPI NOR flash ---------------------------------------------------------------- */

/* Sets the channel up for a flash at ClockSpeedHz and keeps a copy of pConfig (not NULL)
 * for the helpers below. Returns 0, -2, -4 (no reply or a reply with data; the stored
 * copy is unchanged), -5. */
VELTRIX_API int SPI_FlashInit(int DevHandle, unsigned char SPIIndex, unsigned int ClockSpeedHz,
                              SPI_FLASH_CONFIG* pConfig);

/* Reads the flash ID into pID (room for the stored IDLength, at least 1). Returns 0, -2,
 * -4 (no reply, or its length is not the stored ID length), -5. */
VELTRIX_API int SPI_FlashReadID(int DevHandle, unsigned char SPIIndex, unsigned char* pID);

/* Programs Len bytes at StartAddr (the adapter splits at page boundaries and waits for
 * each page); reads Len bytes from StartAddr (the fast form with the fast-read command).
 * Returns 0, -2, -4 (no reply, or not exactly Len bytes), -5. */
VELTRIX_API int SPI_FlashWrite(int DevHandle, unsigned char SPIIndex, unsigned int StartAddr,
                               unsigned char* pWriteData, int Len);
VELTRIX_API int SPI_FlashRead(int DevHandle, unsigned char SPIIndex, unsigned int StartAddr,
                              unsigned char* pReadData, int Len);
VELTRIX_API int SPI_FlashReadFast(int DevHandle, unsigned char SPIIndex, unsigned int StartAddr,
                                  unsigned char* pReadData, int Len);

/* Erases SectorNum sectors from StartAddr; the adapter answers when done, within
 * TimeOutMs + 1000 ms. Returns 0, -2, -4 (no answer in time or a reply with data). */
VELTRIX_API int SPI_FlashEraseSector(int DevHandle, unsigned char SPIIndex, unsigned int StartAddr,
                                     int SectorNum, int TimeOutMs);

/* Waits until the flash is idle, enables writing, sends the chip-erase command and waits
 * until the flash is idle again, polling the status every 10 ms with the stored command
 * bytes. Each wait may take TimeOutMs. Returns 0, -2, -4, -6 (still busy). */
VELTRIX_API int SPI_FlashEraseChip(int DevHandle, unsigned char SPIIndex, int TimeOutMs);

/* Waits until idle, enables writing until the write-enable latch reads set, sends
 * EraseCmd followed by the lowest min(AddrBytes, 4) bytes of Addr (most significant
 * first) and waits until idle. Results as SPI_FlashEraseChip. */
VELTRIX_API int SPI_FlashErase(int DevHandle, unsigned char SPIIndex, unsigned int Addr,
                               unsigned char AddrBytes, unsigned char EraseCmd, int TimeOutMs);

/* ---- Slave ------------------------------------------------------------------------ */

/* Offers Len bytes to the remote master, waiting up to TimeOutMs. Returns the adapter's
 * 32-bit count (0..INT_MAX), -2, -4 (no reply, not four bytes, or a count above INT_MAX),
 * -5. */
VELTRIX_API int SPI_SlaveWriteBytes(int DevHandle, unsigned char SPIIndex,
                                    unsigned char* pWriteData, int Len, int TimeOutMs);

/* Exchanges with the remote master: offers WriteLen (at most SPI_SLAVE_WRITE_MAX) bytes
 * and collects up to ReadLen bytes into pReadData. Returns (count written << 16) | count
 * read, -2, -4 (no reply, under 8 bytes, or a count beyond ReadLen or beyond the data
 * that came), -5. The two forms differ only in their argument order and command. */
VELTRIX_API int SPI_SlaveWriteReadBytes(int DevHandle, unsigned char SPIIndex,
                                        unsigned char* pWriteData, int WriteLen,
                                        unsigned char* pReadData, int ReadLen, int TimeOutMs);
VELTRIX_API int SPI_SlaveReadWriteBytes(int DevHandle, unsigned char SPIIndex,
                                        unsigned char* pReadData, int ReadLen,
                                        unsigned char* pWriteData, int WriteLen, int TimeOutMs);

/* Fetches what the slave collected into pReadData (room for SPI_SLAVE_READ_MAX; a longer
 * reply is cut). Returns the byte count, -2, -4, -5. */
VELTRIX_API int SPI_SlaveReadBytesFromBuffer(int DevHandle, unsigned char SPIIndex,
                                             unsigned char* pReadData, int TimeOutMs);

/* Starts / stops the adapter's continuous collection; queues Len bytes for the remote
 * master to read continuously. Return 0, -2, -4 (-5 for a NULL or negative write). */
VELTRIX_API int SPI_SlaveStartContinueRead(int DevHandle, unsigned char SPIIndex);
VELTRIX_API int SPI_SlaveStopContinueRead(int DevHandle, unsigned char SPIIndex);
VELTRIX_API int SPI_SlaveContinueWrite(int DevHandle, unsigned char SPIIndex,
                                       unsigned char* pWriteData, int Len);

/* Starts continuous reading on the channel: the adapter collects, and one reader thread
 * per adapter fetches every 1 ms. Each chunk goes to pCallBack (may be NULL) on the reader
 * thread, or else into the channel's FIFO, which keeps the newest SPI_SLAVE_FIFO_BYTES
 * and drops the oldest. The FIFO is emptied first. Returns 0, -2, -4 (no reply, or the
 * thread could not start). */
VELTRIX_API int SPI_SlaveContinueRead(int DevHandle, unsigned char SPIIndex,
                                      SPI_GET_DATA_HANDLE pCallBack);

/* Moves up to BufferSize bytes from the front of the FIFO into pReadData. Works while
 * reading and after it stopped. Returns the count (0 when empty), or -5. */
VELTRIX_API int SPI_SlaveGetBytes(int DevHandle, unsigned char SPIIndex, unsigned char* pReadData,
                                  int BufferSize);

/* Stops continuous reading on the channel; the reader thread ends (and is joined) when
 * neither channel reads. The FIFO keeps its bytes. Returns 0, -2, -4. */
VELTRIX_API int SPI_SlaveContinueReadStop(int DevHandle, unsigned char SPIIndex);
VELTRIX_API int SPI_SlaveContinueWriteReadStop(int DevHandle, unsigned char SPIIndex);

/* Starts collection and polls until Len bytes came into pReadData. With TimeOutMs >= 1
 * every poll takes 10 ms off the budget and the call returns what it has when the budget
 * is spent; below 1 it waits until Len bytes came or a poll fails. Bytes of the last
 * poll beyond Len go to the channel's FIFO (SPI_SlaveGetBytes), not lost. Returns the
 * byte count, -2, -4, -5. */
VELTRIX_API int SPI_SlaveReadBytes(int DevHandle, unsigned char SPIIndex, unsigned char* pReadData,
                                   int Len, int TimeOutMs);

VELTRIX_EXTERN_C_END

#endif
