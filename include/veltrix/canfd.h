/*
 * VELTRIX CAN FD: the frame record shared by the CAN FD family and the layers above it
 * (DBC databases, ISO-TP/UDS).
 */
#ifndef VELTRIX_CANFD_H
#define VELTRIX_CANFD_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

/* One CAN FD frame on the host side (76 bytes); arrays of it are records back to back. */
typedef struct _CANFD_MSG {
  uint32_t ID;            /* bits 0-28 identifier; bit 30 remote frame; bit 31 extended id */
  uint8_t DLC;            /* number of data bytes (0 to 64), not the coded DLC */
  uint8_t Flags;          /* bit 0 CAN FD format; bit 1 ESI; bit 2 BRS; bit 5 port index & 1
                             (set on reception); bit 7 frame sent by this host */
  uint8_t Reserved;       /* 0 */
  uint8_t TimeStampHigh;  /* bits 32 to 39 of the frame time */
  uint32_t TimeStamp;     /* low 32 bits of the frame time, units of 10 microseconds */
  uint8_t Data[64];       /* data bytes */
} CANFD_MSG;

VELTRIX_STATIC_ASSERT(sizeof(CANFD_MSG) == 76, "CANFD_MSG is 76 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, ID) == 0, "CANFD_MSG.ID");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, DLC) == 4, "CANFD_MSG.DLC");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, Flags) == 5, "CANFD_MSG.Flags");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, Reserved) == 6, "CANFD_MSG.Reserved");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, TimeStampHigh) == 7, "CANFD_MSG.TimeStampHigh");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, TimeStamp) == 8, "CANFD_MSG.TimeStamp");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_MSG, Data) == 12, "CANFD_MSG.Data");

VELTRIX_EXTERN_C_END

#endif
