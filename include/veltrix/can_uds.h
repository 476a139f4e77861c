/*
 * VELTRIX adapters: ISO-TP segmentation and UDS requests over CAN.
 *
 * Diagnostic messages of any length on a CAN port: single frames, first frames (12-bit
 * length, or the 32-bit escape form above 4095 bytes), consecutive frames and flow
 * control, in normal or extended addressing, every frame padded with 0x55 to FrameLength.
 * The service bytes are not interpreted: a negative response (7F sid NRC) and a
 * response-pending answer (7F sid 78) come back as ordinary payload.
 *
 * Frames are read from the port's ISO-TP queue (see CAN_GetCANMsgFromUDSBuffer), which
 * the receive thread fills (CAN_StartGetMsg) or, without a thread, a read that finds it
 * empty polls the adapter itself. The application's own receive queue is not disturbed: every frame sent
 * here is also appended to it, marked as sent by this host. Frames of other identifiers
 * arriving during a transfer are consumed from the ISO-TP queue only.
 *
 * Calls run on the caller's thread. Two transfers on one port at a time would take each
 * other's frames: serialise them. On CAN FD models (handle top byte 0x53 or 0x54) the
 * transfers use the CAN FD ports (CANFD_SendMsg, CANFD_GetCANMsgFromUDSBuffer) and may
 * plan with any FrameLength from 8 to 64; set IdFlags to CAN_UDS_ID_BRS | CAN_UDS_ID_FD for
 * frames in CAN FD format. A FrameLength that is no CAN FD length (13, for one) goes out
 * rounded up to the next one by CANFD_SendMsg, the extra bytes zero.
 */
#ifndef VELTRIX_CAN_UDS_H
#define VELTRIX_CAN_UDS_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

#define CAN_UDS_OK 0
#define CAN_UDS_ERR_SEND                                                                   \
  (-98)                                /* the CAN send reported an error; also a NULL      \
                                          pointer, or a negative length with data expected \
                                        */
#define CAN_UDS_ERR_SEND_TIMEOUT (-99) /* a frame or batch could not be sent within 3 s */
#define CAN_UDS_ERR_TIMEOUT                                                       \
  (-101)                            /* no flow control within 1 s, or no complete \
                                       response within the caller's time-out */
#define CAN_UDS_ERR_SEQUENCE (-103) /* consecutive frame out of sequence */
#define CAN_UDS_ERR_FRAME                                                                \
  (-105)                            /* unknown frame type, or a single frame longer than \
                                       the frame can hold */
#define CAN_UDS_ERR_OVERFLOW (-107) /* the receiver's flow control reported overflow */
#define CAN_UDS_ERR_BUFFER                                   \
  (-108) /* the response was longer than the caller's buffer \
            (CAN_UDS_ResponseWithSize only) */

#define CAN_UDS_PAD_BYTE 0x55

/* CAN_UDS_ADDR.IdFlags bits. */
#define CAN_UDS_ID_EXTENDED 0x01 /* both identifiers are 29-bit */
#define CAN_UDS_ID_BRS 0x02      /* CAN FD models: bit rate switching */
#define CAN_UDS_ID_FD 0x04       /* with CAN_UDS_ID_BRS: CAN FD frame format */

/* The addressing of one diagnostic conversation (12 bytes). */
typedef struct _CAN_UDS_ADDR {
  uint32_t RequestID;       /* identifier of the frames this side sends */
  uint32_t ResponseID;      /* identifier of the frames this side accepts */
  uint8_t IdFlags;          /* CAN_UDS_ID_* bits */
  uint8_t ExtAddressing;    /* 0 normal addressing; non-zero: every frame's first data
                               byte is an address byte */
  uint8_t AddressExtension; /* the address byte this side sends in extended addressing */
  uint8_t FrameLength;      /* length every sent frame is padded to and the segmentation
                               plans with: 8 for classic CAN. A value outside 8..64
                               (0 included) is replaced by 8 in this record by
                               CAN_UDS_Request and the response calls */
} CAN_UDS_ADDR;

VELTRIX_STATIC_ASSERT(sizeof(CAN_UDS_ADDR) == 12, "CAN_UDS_ADDR is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, RequestID) == 0, "CAN_UDS_ADDR.RequestID");
VELTRIX_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, ResponseID) == 4, "CAN_UDS_ADDR.ResponseID");
VELTRIX_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, IdFlags) == 8, "CAN_UDS_ADDR.IdFlags");
VELTRIX_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, ExtAddressing) == 9, "CAN_UDS_ADDR.ExtAddressing");
VELTRIX_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, AddressExtension) == 10,
                      "CAN_UDS_ADDR.AddressExtension");
VELTRIX_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, FrameLength) == 11, "CAN_UDS_ADDR.FrameLength");

/* A received flow control: FlowStatusPci is the flow-control byte with its nibbles
 * swapped (flow status in the high nibble, frame type 3 in the low nibble). */
typedef struct _UDS_FC {
  uint8_t FlowStatusPci;
  uint8_t BlockSize;
  uint8_t STmin;
} UDS_FC;

VELTRIX_STATIC_ASSERT(sizeof(UDS_FC) == 3, "UDS_FC is 3 bytes");
VELTRIX_STATIC_ASSERT(offsetof(UDS_FC, BlockSize) == 1, "UDS_FC.BlockSize");
VELTRIX_STATIC_ASSERT(offsetof(UDS_FC, STmin) == 2, "UDS_FC.STmin");

/* Sends DataLen bytes of pData to the peer: one single frame when they fit, otherwise a
 * first frame, a flow control awaited for 1 s, and consecutive frames honouring the
 * peer's block size and STmin (STmin 0x80..0xFF counts as 0; with 0 the frames go to the
 * adapter 20 at a time). Empties the port's ISO-TP queue first. A DataLen of 0 or less
 * sends an empty single frame.
 * pAddr must not be NULL (its FrameLength may be rewritten, see CAN_UDS_ADDR); pData may
 * be NULL only when DataLen is 0 or less.
 * Returns 0, or -98, -99, -101, -107. A batch the adapter took only in part counts as
 * sent (its frames are not echoed) and the request goes on.
 * On a classic adapter a FrameLength above 8 is planned as 8: its frames hold 8 bytes. */
VELTRIX_API int CAN_UDS_Request(unsigned int DevHandle, unsigned char CANIndex, CAN_UDS_ADDR* pAddr,
                                const unsigned char* pData, int DataLen);

/* Reads one complete message from the peer into pData, answering a first frame with a
 * flow control (block size 0, STmin 0). TimeOutMs bounds the whole message.
 * UNSAFE: pData has no size. It must hold the longest message the peer may send, and a
 * first frame may announce up to 2 GiB (a longer one is refused with -105). Prefer
 * CAN_UDS_ResponseWithSize.
 * pAddr and pData must not be NULL (-98).
 * Returns the message length, or -98, -101, -103, -105. A consecutive frame arriving
 * before any first frame ends the call with 0. */
VELTRIX_API int CAN_UDS_Response(unsigned int DevHandle, unsigned char CANIndex,
                                 CAN_UDS_ADDR* pAddr, unsigned char* pData, unsigned int TimeOutMs);

/* As CAN_UDS_Response, writing at most BufferSize bytes into pData. A longer message is
 * still received to its end (so its frames do not disturb the next transfer) and then
 * answered with -108; pData then holds its first BufferSize bytes. A first frame
 * announcing more than INT32_MAX bytes is refused with -105.
 * pAddr must not be NULL; pData may be NULL only when BufferSize is 0.
 * Returns the message length, or -98, -101, -103, -105, -108. */
VELTRIX_API int CAN_UDS_ResponseWithSize(unsigned int DevHandle, unsigned char CANIndex,
                                         CAN_UDS_ADDR* pAddr, unsigned char* pData,
                                         unsigned int BufferSize, unsigned int TimeOutMs);

VELTRIX_EXTERN_C_END

#endif
