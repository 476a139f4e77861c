/*
 * VELTRIX adapters: finding, opening and re-connecting adapters, and the command packet
 * transport beneath every family.
 *
 * Device handle: the adapter's own 32-bit serial number, as returned by USB_ScanDevice.
 * Its top byte is the adapter's model code. A handle of the form 0xFF0000nn stands for
 * registry position nn wherever an operation looks an adapter up by position.
 *
 * Lock order: lock_all() before lock(handle); a family's channel data lock is never taken
 * while waiting on lock(handle) in the other order. The locks are not recursive.
 *
 * Unplugging: every call on an adapter that vanished ends with its failure code; none
 * waits for it to come back. Scans, opens and re-connects may run in any thread while
 * other threads use the adapter. Once it is back, scan (or USB_RetryConnect at the same
 * port), open it and restart its receive threads.
 */
#ifndef VELTRIX_USB_DEVICE_H
#define VELTRIX_USB_DEVICE_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* ---- Adapter registry and connection --------------------------------------------- */

/* Scans all USB buses for adapters and updates the registry.
 * pDevHandle: receives the handle of every registered adapter in registry order; may be
 *   NULL. It must have room for every attached adapter (at most 30 are supported).
 * Returns the number of registered adapters (0 or more), or libusb's negative error code
 * when the USB context or the device list cannot be obtained. Adapters that were closed
 * stay closed; open adapters stay open. */
VELTRIX_API int USB_ScanDevice(unsigned int* pDevHandle);

/* Opens the adapter and claims its interface. Scans once if the handle is unknown.
 * Returns 1 when the adapter is open, 0 otherwise. */
VELTRIX_API int USB_OpenDevice(unsigned int DevHandle);

/* Closes an open adapter. A running ADC stream and SPI slave reading of the adapter are
 * stopped first (as by ADC_StopContinueRead and SPI_SlaveContinueReadStop): their threads
 * are joined, and no data callback runs once this returns. Returns 1 if it was open and is
 * now closed, 0 otherwise (unknown handle, or not open). */
VELTRIX_API int USB_CloseDevice(unsigned int DevHandle);

/* Asks the adapter's firmware to reset itself (vendor request 0x60).
 * Returns 1 if the adapter accepted the request, 0 otherwise. */
VELTRIX_API int USB_ResetDevice(unsigned int DevHandle);

/* Re-opens an adapter at the port where the last scan saw it, without scanning again.
 * Returns 1 when re-opened, 0 otherwise. */
VELTRIX_API int USB_RetryConnect(unsigned int DevHandle);

/* Retries USB_RetryConnect every 100 ms until it succeeds (1) or TimeOutMs has run out
 * (0). At least one attempt is always made. */
VELTRIX_API int USB_WaitResume(unsigned int DevHandle, int TimeOutMs);

/* ---- Command packets ------------------------------------------------------------- */

/* A command packet: on the wire cmd and len travel big-endian, followed by len bytes. */
typedef struct _USB_MSG {
  uint32_t cmd;  /* command code */
  uint32_t len;  /* payload bytes */
  uint8_t* data; /* payload, owned by the caller */
} USB_MSG;
VELTRIX_STATIC_ASSERT(sizeof(USB_MSG) == 16, "USB_MSG layout");
VELTRIX_STATIC_ASSERT(offsetof(USB_MSG, data) == 8, "USB_MSG layout");

/* Transport result codes; every family passes them on or maps them to its own.
 * TimeOutMs of the calls below: 0 or less means 1000 ms (never an endless wait). Each
 * transfer takes lock(DevHandle) itself unless the calling thread already holds it; hold
 * it across a send and its reply so that no other thread's command comes between them. */
#define USB_MSG_SUCCESS 0
#define USB_MSG_ERR_WRITE (-2) /* not initialised, unknown or closed adapter, failed write */
#define USB_MSG_ERR_READ (-3)  /* no, short, late or foreign reply, or unknown adapter */
#define USB_MSG_ERR_ALLOC (-4) /* the frame buffer could not be allocated */

/* One send attempt on bulk OUT endpoint 0x01. Returns 0, -2 or -4. */
VELTRIX_API int USB_MSG_Send(unsigned int DevHandle, USB_MSG* pMsg, int TimeOutMs);
/* USB_MSG_Send, retried with a re-connect every 100 ms for about one second. */
VELTRIX_API int MSG_Send(unsigned int DevHandle, USB_MSG* pMsg, int TimeOutMs);
/* One send attempt on endpoint 0x01 for an even channel, 0x02 for an odd one. */
VELTRIX_API int USB_CANFD_MSG_Send(unsigned int DevHandle, unsigned char CANIndex, USB_MSG* pMsg,
                                   int TimeOutMs);
/* USB_CANFD_MSG_Send with the same one-second retry as MSG_Send. */
VELTRIX_API int CANFD_MSG_Send(unsigned int DevHandle, unsigned char CANIndex, USB_MSG* pMsg,
                               int TimeOutMs);
/* One send attempt on interrupt OUT endpoint 0x02. Returns 0, -2 or -4. */
VELTRIX_API int USB_MSG_SendInt(unsigned int DevHandle, USB_MSG* pMsg, int TimeOutMs);
/* USB_MSG_SendInt retried with a re-connect for about one second. */
VELTRIX_API int MSG_SendInt(unsigned int DevHandle, USB_MSG* pMsg, int TimeOutMs);

/* Reads one reply packet.
 * On entry: pMsg->cmd is the expected reply code and pMsg->data the receive buffer (may be
 *   NULL only for a reply without payload). pMsg->len chooses the form:
 *   - 0 (the documented form: no capacity given): the whole payload is written to
 *     pMsg->data, which must have room for the longest reply the command can bring;
 *   - above 0: the buffer's capacity; at most that many payload bytes are written and the
 *     rest of a longer reply is read and discarded.
 * On return: pMsg->cmd and pMsg->len hold the received code and the announced payload
 *   length (both 0 if no complete header came). pMsg->data is left as given. After -3 the
 *   buffer may hold part of a payload that came short.
 * Returns 0 (also for a header-only reply, which leaves the buffer untouched) or -3: no
 * reply or part of a header, unknown adapter, no buffer for a payload, a reply with another
 * code (its payload is drained so the reply stream stays framed), a payload shorter than
 * its header announced or not complete in time, or a length with the top bit set (the
 * stream has lost its framing: the adapter's pipes are reset). */
VELTRIX_API int USB_MSG_Get(unsigned int DevHandle, USB_MSG* pMsg, int TimeOutMs);
/* USB_MSG_Get; after a failure it pauses one second and re-connects the adapter. The read
 * itself is not repeated. */
VELTRIX_API int MSG_Get(unsigned int DevHandle, USB_MSG* pMsg, int TimeOutMs);

/* ---- Locks ----------------------------------------------------------------------- */

/* Global lock: serialises scans and re-connects. */
VELTRIX_API void lock_all(void);
VELTRIX_API void unlock_all(void);
/* Adapter lock: makes one command and its reply atomic. Unlocking a lock that the calling
 * thread does not hold does nothing (it only creates the lock). */
VELTRIX_API void lock(unsigned int DevHandle);
VELTRIX_API void unlock(unsigned int DevHandle);
/* Per-channel locks of the protocol families, keyed by (handle, channel). */
VELTRIX_API void can_lock(unsigned int DevHandle, int Channel);
VELTRIX_API void can_unlock(unsigned int DevHandle, int Channel);
VELTRIX_API void can_data_lock(unsigned int DevHandle, int Channel);
VELTRIX_API void can_data_unlock(unsigned int DevHandle, int Channel);
VELTRIX_API void lin_lock(unsigned int DevHandle, int Channel);
VELTRIX_API void lin_unlock(unsigned int DevHandle, int Channel);
VELTRIX_API void spi_data_lock(unsigned int DevHandle, int Channel);
VELTRIX_API void spi_data_unlock(unsigned int DevHandle, int Channel);
VELTRIX_API void pa_data_lock(unsigned int DevHandle, int Channel);
VELTRIX_API void pa_data_unlock(unsigned int DevHandle, int Channel);

/* ---- Time and debug helpers ------------------------------------------------------ */

VELTRIX_API void delay_us(unsigned int us);
VELTRIX_API void delay_ms(unsigned int ms);
VELTRIX_API void sleep_ms(unsigned int ms);
/* Wall-clock milliseconds since the epoch. */
VELTRIX_API uint64_t GetTimestampOfDay(void);
/* Stores Value in the library's debug slot and returns the slot's address. */
VELTRIX_API uint64_t* DEBUG_SetHandle(uint64_t Value);

VELTRIX_EXTERN_C_END

#endif
