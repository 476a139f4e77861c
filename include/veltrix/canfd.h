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

/* Bit timing and options of a CAN FD port; sent to the adapter verbatim (20 bytes). */
typedef struct _CANFD_CHANNEL_CONFIG {
  uint8_t Mode;           /* 0 = normal operation */
  uint8_t IsoCrc;         /* 1: ISO CRC */
  uint8_t AutoRetransmit; /* 1: a failed frame is sent again */
  uint8_t Terminator;     /* 1: bus termination on */
  uint8_t NBT_Prescaler;  /* nominal phase */
  uint8_t NBT_Seg1;
  uint8_t NBT_Seg2;
  uint8_t NBT_SJW;
  uint8_t DBT_Prescaler;  /* data phase */
  uint8_t DBT_Seg1;
  uint8_t DBT_Seg2;
  uint8_t DBT_SJW;
  uint8_t Reserved[8];    /* passed through unchanged */
} CANFD_CHANNEL_CONFIG;
VELTRIX_STATIC_ASSERT(sizeof(CANFD_CHANNEL_CONFIG) == 20, "CANFD_CHANNEL_CONFIG is 20 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_CHANNEL_CONFIG, NBT_Prescaler) == 4, "CANFD_CHANNEL_CONFIG");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_CHANNEL_CONFIG, DBT_Prescaler) == 8, "CANFD_CHANNEL_CONFIG");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_CHANNEL_CONFIG, Reserved) == 12, "CANFD_CHANNEL_CONFIG");

/* One acceptance filter of a CAN FD port (12 bytes on the wire). */
typedef struct _CANFD_FILTER_RULE {
  uint8_t Enable;
  uint8_t FilterIndex;
  uint8_t Reserved[2]; /* ignored by the adapter */
  uint32_t ID;         /* bit 31 extended, bit 30 remote, low bits the identifier */
  uint32_t Mask;       /* same layout; all ones in identifier-list mode */
} CANFD_FILTER_RULE;
VELTRIX_STATIC_ASSERT(sizeof(CANFD_FILTER_RULE) == 12, "CANFD_FILTER_RULE is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_FILTER_RULE, ID) == 4, "CANFD_FILTER_RULE.ID");
VELTRIX_STATIC_ASSERT(offsetof(CANFD_FILTER_RULE, Mask) == 8, "CANFD_FILTER_RULE.Mask");

/* Error counters of a CAN FD port. */
typedef struct _CANFD_BUS_ERROR {
  uint8_t TxErrorCounter;
  uint8_t RxErrorCounter;
  uint8_t Reserved[2]; /* passed through */
} CANFD_BUS_ERROR;
VELTRIX_STATIC_ASSERT(sizeof(CANFD_BUS_ERROR) == 4, "CANFD_BUS_ERROR is 4 bytes");

/* Bits of CANFD_MSG.ID. */
#define CANFD_MSG_FLAG_RTR 0x40000000u
#define CANFD_MSG_FLAG_IDE 0x80000000u

/* Forward declaration; the classic record is defined in veltrix/can.h. */
struct _CAN_MSG;

/* Converts Len classic frames to CAN FD records: identifier, extended flag (ID bit 31),
 * length (data bytes beyond 8 are not copied) and data; the time is multiplied by 10
 * (100 us to 10 us units, 40 bits wide). The remote flag is not carried: Flags is 0.
 * Nothing happens for NULL arrays or Len below 1. */
VELTRIX_API void CAN2CANFD(const struct _CAN_MSG* pCANMsg, CANFD_MSG* pCANFDMsg, int Len);
/* The reverse: time divided by 10, DataLen at most 8, FrameFlags 0. */
VELTRIX_API void CANFD2CAN(const CANFD_MSG* pCANFDMsg, struct _CAN_MSG* pCANMsg, int Len);

VELTRIX_EXTERN_C_END

#endif
