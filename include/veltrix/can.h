/*
 * VELTRIX classic CAN frame record. CAN_MSG is also the frame record of the layers above
 * (DBC databases, ISO-TP/UDS).
 */
#ifndef VELTRIX_CAN_H
#define VELTRIX_CAN_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* One classic CAN frame. The same 20 bytes travel to and from the adapter; arrays of it are
 * records placed back to back. */
typedef struct _CAN_MSG {
  uint32_t ID;            /* identifier, 11 or 29 bits, right-aligned */
  uint32_t TimeStamp;     /* low 32 bits of the frame time, units of 100 microseconds */
  uint8_t FrameFlags;     /* bit 0 remote frame; bits 5-6 port index; bit 7 sent by this host */
  uint8_t ExtFlag;        /* bit 0: 29-bit extended identifier */
  uint8_t DataLen;        /* number of data bytes, 0 to 8 */
  uint8_t Data[8];        /* data bytes */
  uint8_t TimeStampHigh;  /* bits 32 to 39 of the frame time (the time is 40 bits wide) */
} CAN_MSG;

VELTRIX_STATIC_ASSERT(sizeof(CAN_MSG) == 20, "CAN_MSG is 20 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, ID) == 0, "CAN_MSG.ID");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, TimeStamp) == 4, "CAN_MSG.TimeStamp");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, FrameFlags) == 8, "CAN_MSG.FrameFlags");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, ExtFlag) == 9, "CAN_MSG.ExtFlag");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, DataLen) == 10, "CAN_MSG.DataLen");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, Data) == 11, "CAN_MSG.Data");
VELTRIX_STATIC_ASSERT(offsetof(CAN_MSG, TimeStampHigh) == 19, "CAN_MSG.TimeStampHigh");

VELTRIX_EXTERN_C_END

#endif
