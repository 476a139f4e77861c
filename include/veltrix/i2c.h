/*
 * VELTRIX I2C and SMBus channels.
 *
 *   IIC_    the adapter's I2C channels as bus master or slave. The adapter runs every bus
 *           transaction itself; the library packs the request and unpacks the result.
 *   SMBUS_  SMBus protocols built on the IIC_ transfers. The adapter computes and checks
 *           the packet error code (PEC) when a call's Pec argument is 1; the library never
 *           computes it.
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * IICIndex: the channel, 0..IIC_MAX_CHANNELS-1.
 * SlaveAddr: the 7-bit (right-aligned, no R/W bit) or 10-bit slave address.
 * TimeOutMs, IntervalUs, EventTimeOutMs: passed to the adapter, which interprets them.
 *
 * Result codes: the master transfers return the adapter's status byte: 0 success, 1..255
 * an adapter error (IIC_STATUS_*) returned unchanged. Otherwise one of IIC_ERR_*. Data is
 * written to the caller's buffers only when the status is 0. Each call is one command and
 * its reply, exchanged under the adapter's lock.
 *
 * Words: the SMBUS_ word helpers send and read the high byte first, on the wire and in
 * the reply; programs written for this library depend on that order.
 */
#ifndef VELTRIX_I2C_H
#define VELTRIX_I2C_H

#include <stddef.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* Channel configuration, 12 bytes. A copy of the last one applied successfully is kept
 * per adapter and channel. */
typedef struct {
  unsigned int ClockSpeedHz; /* bus clock in Hz */
  unsigned short OwnAddr;    /* the channel's own address when it is a slave */
  unsigned char Master;      /* 1 master, 0 slave */
  unsigned char AddrBits;    /* 10 for 10-bit addressing; any other value means 7-bit */
  unsigned char Options[2];  /* passed to the adapter as they are (IIC_OPTION_*) */
  unsigned char Reserved[2]; /* kept in the stored copy, never sent */
} IIC_CONFIG;

VELTRIX_STATIC_ASSERT(sizeof(IIC_CONFIG) == 12, "IIC_CONFIG is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(IIC_CONFIG, ClockSpeedHz) == 0, "IIC_CONFIG.ClockSpeedHz");
VELTRIX_STATIC_ASSERT(offsetof(IIC_CONFIG, OwnAddr) == 4, "IIC_CONFIG.OwnAddr");
VELTRIX_STATIC_ASSERT(offsetof(IIC_CONFIG, Master) == 6, "IIC_CONFIG.Master");
VELTRIX_STATIC_ASSERT(offsetof(IIC_CONFIG, AddrBits) == 7, "IIC_CONFIG.AddrBits");
VELTRIX_STATIC_ASSERT(offsetof(IIC_CONFIG, Options) == 8, "IIC_CONFIG.Options");
VELTRIX_STATIC_ASSERT(offsetof(IIC_CONFIG, Reserved) == 10, "IIC_CONFIG.Reserved");

/* Option byte 0: bit 0 enables the adapter's internal pull-up resistors. Byte 1 is
 * reserved and sent as given. */
#define IIC_OPTION_PULLUP 0x01

/* ---- Result codes ----------------------------------------------------------------- */

#define IIC_SUCCESS 0
#define IIC_ERR_SEND                                              \
  (-2) /* the command could not be sent, or the adapter is not in \
          the registry */
#define IIC_ERR_READ                                                 \
  (-3) /* SMBUS_BlockRead / SMBUS_BlockProcessCall only: no reply or \
          an unexpected one (the others report that as -4) */
#define IIC_ERR_REPLY                                          \
  (-4) /* no reply, a reply with another code, or of the wrong \
          length */
#define IIC_ERR_PARAMETER                                       \
  (-5) /* a NULL pointer where data is needed, a channel out of \
          range, or a length the adapter cannot carry */

/* Status bytes of the adapter (results 1..255). */
#define IIC_STATUS_ADDR_NACK 1 /* nobody acknowledged the address */
#define IIC_STATUS_DATA_NACK 2 /* the slave refused a data byte */
#define IIC_STATUS_PEC_ERROR 3 /* the packet error code did not match */
#define IIC_STATUS_TIMEOUT 4   /* the transfer or its event did not happen in time */

/* ---- Limits ----------------------------------------------------------------------- */

#define IIC_MAX_CHANNELS 12
/* Largest transfer of one call (data bytes in either direction, block size x count). */
#define IIC_MAX_TRANSFER (16u * 1024u * 1024u - 16u)
/* Room the output buffers of IIC_SlaveReadBytes, SMBUS_BlockRead and
 * SMBUS_BlockProcessCall must have; a longer reply is cut to it. */
#define IIC_SLAVE_READ_MAX 20480
#define SMBUS_BLOCK_MAX 20480
/* Entries IIC_GetSlaveAddr may write: 128 on a 7-bit channel, 1024 otherwise. */
#define IIC_SCAN_MAX 1024

/* ---- Set-up ----------------------------------------------------------------------- */

/* Configures a channel. pConfig: not NULL. On success the whole record is kept as the
 * channel's stored copy (read back by IIC_GetSlaveAddr). Returns 0, -2, -4 (no reply or a
 * reply carrying data; the stored copy is left unchanged) or -5. */
VELTRIX_API int IIC_Init(int DevHandle, unsigned char IICIndex, IIC_CONFIG* pConfig);

/* Probes every address in ascending order with an empty write (timeout 5) and writes
 * each address that answered with status 0 to pSlaveAddr. A channel set up with
 * AddrBits 10, or never set up, is probed at 0..1023, a 7-bit one at 0..127.
 * pSlaveAddr: not NULL, room for IIC_SCAN_MAX entries (128 on a 7-bit channel).
 * Returns the number of addresses found, -5, or the first -2 / -4 of a probe. */
VELTRIX_API int IIC_GetSlaveAddr(int DevHandle, unsigned char IICIndex, short* pSlaveAddr);

/* ---- Master transfers ------------------------------------------------------------- */

/* Writes Len bytes to SlaveAddr. pWriteData may be NULL only when Len is 0.
 * Returns the status byte (0 or 1..255), -2, -4 (no reply or not exactly one byte),
 * -5. */
VELTRIX_API int IIC_WriteBytes(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                               unsigned char* pWriteData, int Len, int TimeOutMs);

/* Reads Len bytes from SlaveAddr into pReadData (room for Len bytes; may be NULL only
 * when Len is 0). The adapter answers with its status and, on success, the data; an
 * answer with the status alone leaves zeros in pReadData when the status is 0.
 * Returns the status byte, -2, -4 (no reply, or a reply neither 1 nor Len+1 bytes), -5. */
VELTRIX_API int IIC_ReadBytes(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                              unsigned char* pReadData, int Len, int TimeOutMs);

/* Writes WriteLen bytes, then reads ReadLen bytes with a repeated start. Buffers and
 * results as IIC_WriteBytes and IIC_ReadBytes. */
VELTRIX_API int IIC_WriteReadBytes(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                   unsigned char* pWriteData, int WriteLen,
                                   unsigned char* pReadData, int ReadLen, int TimeOutMs);

/* As IIC_WriteBytes / IIC_ReadBytes, started when the adapter sees EventType on
 * EventPin (or refused with a status when EventTimeOutMs passes first). The read form
 * sends only the three high-order bytes of EventTimeOutMs. */
VELTRIX_API int IIC_WriteBytesOfEvent(int DevHandle, unsigned char IICIndex,
                                      unsigned short SlaveAddr, unsigned char* pWriteData, int Len,
                                      unsigned int EventPin, unsigned char EventType,
                                      int EventTimeOutMs);
VELTRIX_API int IIC_ReadBytesOfEvent(int DevHandle, unsigned char IICIndex,
                                     unsigned short SlaveAddr, unsigned char* pReadData, int Len,
                                     unsigned int EventPin, unsigned char EventType,
                                     int EventTimeOutMs);
VELTRIX_API int IIC_WriteReadBytesOfEvent(int DevHandle, unsigned char IICIndex,
                                          unsigned short SlaveAddr, unsigned char* pWriteData,
                                          int WriteLen, unsigned char* pReadData, int ReadLen,
                                          unsigned int EventPin, unsigned char EventType,
                                          int EventTimeOutMs);

/* BlockCount transfers of BlockSize bytes each, IntervalUs apart. pWriteData holds
 * BlockSize x BlockCount bytes; pReadData has room for as many. Results as
 * IIC_WriteBytes / IIC_ReadBytes; -5 also when the product exceeds IIC_MAX_TRANSFER. */
VELTRIX_API int IIC_BlockWriteBytes(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                    unsigned char* pWriteData, int BlockSize, int BlockCount,
                                    int IntervalUs);
VELTRIX_API int IIC_BlockReadBytes(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                   unsigned char* pReadData, int BlockSize, int BlockCount,
                                   int IntervalUs);

/* ---- Slave mode ------------------------------------------------------------------- */

/* Offers Len bytes to the bus master and waits up to TimeOutMs. Returns the 16-bit count
 * the adapter reports (0..65535), -2, -4 (no reply or not two bytes), -5. */
VELTRIX_API int IIC_SlaveWriteBytes(int DevHandle, unsigned char IICIndex,
                                    unsigned char* pWriteData, int Len, int TimeOutMs);

/* Collects what the bus master wrote to this slave, waiting up to TimeOutMs, into
 * pReadData (room for IIC_SLAVE_READ_MAX bytes). Returns the byte count, -2, -4, -5. */
VELTRIX_API int IIC_SlaveReadBytes(int DevHandle, unsigned char IICIndex, unsigned char* pReadData,
                                   int TimeOutMs);

/* Returns the count of bytes still waiting in the slave's transmit buffer, -2, -4
 * (no reply or not two bytes), -5. */
VELTRIX_API int IIC_SlaveWriteRemain(int DevHandle, unsigned char IICIndex);

/* ---- SMBus ------------------------------------------------------------------------ */

/* IIC_Init as a 7-bit master at ClockSpeedHz with Option in option byte 0 (byte 1 and
 * the own address 0). Results as IIC_Init. */
VELTRIX_API int SMBUS_Init(int DevHandle, unsigned char IICIndex, unsigned int ClockSpeedHz,
                           unsigned char Option);

/* Quick command: an empty read when WriteRead is 0, else an empty write. */
VELTRIX_API int SMBUS_QuickCommand(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                   unsigned char WriteRead);

/* Send byte / receive byte. pData: not NULL. Results as IIC_WriteBytes / IIC_ReadBytes. */
VELTRIX_API int SMBUS_WriteByte(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                unsigned char Data, unsigned char WithPEC);
VELTRIX_API int SMBUS_ReadByte(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                               unsigned char* pData, unsigned char WithPEC);

/* Write byte / write word / read byte / read word / process call of CommandCode. Words
 * travel high byte first both ways. Outputs (not NULL) are written when the status is 0.
 * Results as IIC_WriteReadBytes. */
VELTRIX_API int SMBUS_WriteByteProtocol(int DevHandle, unsigned char IICIndex,
                                        unsigned short SlaveAddr, unsigned char CommandCode,
                                        unsigned char Data, unsigned char WithPEC);
VELTRIX_API int SMBUS_WriteWordProtocol(int DevHandle, unsigned char IICIndex,
                                        unsigned short SlaveAddr, unsigned char CommandCode,
                                        unsigned short Data, unsigned char WithPEC);
VELTRIX_API int SMBUS_ReadByteProtocol(int DevHandle, unsigned char IICIndex,
                                       unsigned short SlaveAddr, unsigned char CommandCode,
                                       unsigned char* pData, unsigned char WithPEC);
VELTRIX_API int SMBUS_ReadWordProtocol(int DevHandle, unsigned char IICIndex,
                                       unsigned short SlaveAddr, unsigned char CommandCode,
                                       unsigned short* pData, unsigned char WithPEC);
VELTRIX_API int SMBUS_ProcessCall(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                  unsigned char CommandCode, unsigned short WriteData,
                                  unsigned short* pReadData, unsigned char WithPEC);

/* Block write of Len bytes (pWriteData may be NULL only when Len is 0). Results as
 * IIC_WriteBytes. */
VELTRIX_API int SMBUS_BlockWrite(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                 unsigned char CommandCode, unsigned char* pWriteData, int Len,
                                 unsigned char WithPEC);

/* Block read and block process call. pReadData: room for SMBUS_BLOCK_MAX bytes. When the
 * status is 0 and the block is not empty, the block is copied out and its length stored
 * through pReadLen (may be NULL); otherwise *pReadLen is left as it was. Returns the
 * status byte, -2, -3 (no or an unexpected reply), -5. */
VELTRIX_API int SMBUS_BlockRead(int DevHandle, unsigned char IICIndex, unsigned short SlaveAddr,
                                unsigned char CommandCode, unsigned char* pReadData, int* pReadLen,
                                unsigned char WithPEC);
VELTRIX_API int SMBUS_BlockProcessCall(int DevHandle, unsigned char IICIndex,
                                       unsigned short SlaveAddr, unsigned char CommandCode,
                                       unsigned char* pWriteData, int WriteLen,
                                       unsigned char* pReadData, int* pReadLen,
                                       unsigned char WithPEC);

VELTRIX_EXTERN_C_END

#endif
