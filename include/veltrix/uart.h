/*
 * VELTRIX adapters: UART channels.
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * UARTIndex: the adapter's UART channel, passed through unchecked (the adapter leaves a
 *            command for a channel it does not have unanswered, which gives UART_ERR_REPLY).
 * Each command and its reply are exchanged under the adapter's lock; no host state is kept.
 *
 * Return codes of every function:
 *   UART_SUCCESS (0) or a byte count  success
 *   UART_ERR_PARAMETER (-1)          handle not found, NULL pointer where one is needed,
 *                                    or a length out of range; nothing was sent
 *   UART_ERR_SEND (-2)               the command could not be sent (after the transport's
 *                                    one-second retry)
 *   UART_ERR_REPLY (-4)              no reply, a failed reply, a reply with data where none
 *                                    is expected, or more data than the documented room
 */
#ifndef VELTRIX_UART_H
#define VELTRIX_UART_H

#include <stddef.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

#define UART_SUCCESS 0
#define UART_ERR_PARAMETER (-1)
#define UART_ERR_SEND (-2)
#define UART_ERR_REPLY (-4)

/* UART_ReadBytes writes at most this many bytes: the buffer needs this much room. */
#define UART_READ_MAX_BYTES 4096
/* The longest single write the adapter accepts. */
#define UART_WRITE_MAX_BYTES 65536

/* Parity codes and stop-bit codes of UART_CONFIG. */
#define UART_PARITY_NONE 0
#define UART_PARITY_ODD 1
#define UART_PARITY_EVEN 2
#define UART_STOP_BITS_1 0
#define UART_STOP_BITS_2 2

/* A channel's line settings, 8 bytes, sent to the adapter as they are (BaudRate in the
 * adapter's little-endian order).
 * BaudRate    bits per second.
 * WordLength  data bits: 8 or 9 (9 includes the parity bit when parity is on).
 * StopBits    UART_STOP_BITS_1 or UART_STOP_BITS_2.
 * Parity      UART_PARITY_NONE, _ODD or _EVEN.
 * TEPolarity  transmit-enable output of RS-485 transceivers: 0 none, 1 active high,
 *             2 active low. */
typedef struct {
  unsigned int BaudRate;
  unsigned char WordLength;
  unsigned char StopBits;
  unsigned char Parity;
  unsigned char TEPolarity;
} UART_CONFIG;

VELTRIX_STATIC_ASSERT(sizeof(UART_CONFIG) == 8, "UART_CONFIG is 8 bytes");
VELTRIX_STATIC_ASSERT(offsetof(UART_CONFIG, BaudRate) == 0, "UART_CONFIG.BaudRate");
VELTRIX_STATIC_ASSERT(offsetof(UART_CONFIG, WordLength) == 4, "UART_CONFIG.WordLength");
VELTRIX_STATIC_ASSERT(offsetof(UART_CONFIG, StopBits) == 5, "UART_CONFIG.StopBits");
VELTRIX_STATIC_ASSERT(offsetof(UART_CONFIG, Parity) == 6, "UART_CONFIG.Parity");
VELTRIX_STATIC_ASSERT(offsetof(UART_CONFIG, TEPolarity) == 7, "UART_CONFIG.TEPolarity");

/* Configures a channel. pConfig: not NULL. Returns 0, -1, -2, -4. */
VELTRIX_API int UART_Init(unsigned int DevHandle, unsigned char UARTIndex,
                          const UART_CONFIG* pConfig);

/* Sends DataLen bytes and returns once the adapter has put them on the line (the reply may
 * take up to 5 s). pWriteData: not NULL unless DataLen is 0; DataLen 0..UART_WRITE_MAX_BYTES.
 * Returns 0, -1, -2, -4. */
VELTRIX_API int UART_WriteBytes(unsigned int DevHandle, unsigned char UARTIndex,
                                const unsigned char* pWriteData, int DataLen);

/* As UART_WriteBytes, but the adapter acknowledges as soon as it has queued the bytes. */
VELTRIX_API int UART_WriteBytesAsync(unsigned int DevHandle, unsigned char UARTIndex,
                                     const unsigned char* pWriteData, int DataLen);

/* As UART_WriteBytes with a pause of IntervalTime ms between bytes; the reply may take
 * IntervalTime x DataLen + 5000 ms. */
VELTRIX_API int UART_WriteBytesInterval(unsigned int DevHandle, unsigned char UARTIndex,
                                        const unsigned char* pWriteData, int DataLen,
                                        unsigned char IntervalTime);

/* Reads the bytes the channel has received so far into pReadData, which must have room for
 * UART_READ_MAX_BYTES. With TimeOutMs below 1 the adapter is asked once; otherwise it is
 * asked up to TimeOutMs times, 1 ms apart, until something came. The adapter's lock is
 * released between the rounds.
 * Returns the number of bytes read (0 if nothing came), or -1, -2, -4. After an error the
 * buffer content is undefined. */
VELTRIX_API int UART_ReadBytes(unsigned int DevHandle, unsigned char UARTIndex,
                               unsigned char* pReadData, int TimeOutMs);

/* Discards what the channel has received and not yet been read. Returns 0, -1, -2, -4. */
VELTRIX_API int UART_ClearData(unsigned int DevHandle, unsigned char UARTIndex);

VELTRIX_EXTERN_C_END

#endif
