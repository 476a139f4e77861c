/*
 * VELTRIX CAN FD: ports of the CAN FD adapters (handles whose top byte is 0x53 or 0x54),
 * and the frame record shared with the layers above (DBC databases, ISO-TP/UDS).
 *
 * Result codes are those of the classic family: 0 success, CANFD_ERR_PARAMETER (-1) for a
 * NULL record pointer, CANFD_ERR_USB_WRITE_FAIL (-2) when the command could not be written
 * or the adapter is not open, CANFD_ERR_USB_READ_FAIL (-4) for no valid reply, a rate that
 * is not in a timing table, or a failed thread start. Every buffer belongs to the caller;
 * outputs are written only on success unless a function says otherwise.
 */
#ifndef VELTRIX_CANFD_H
#define VELTRIX_CANFD_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"
#include "veltrix/can.h"

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

/* Converts Len classic frames to CAN FD records: identifier, extended flag (ID bit 31),
 * length (data bytes beyond 8 are not copied) and data; the time is multiplied by 10
 * (100 us to 10 us units, 40 bits wide). The remote flag is not carried: Flags is 0.
 * Nothing happens for NULL arrays or Len below 1. */
VELTRIX_API void CAN2CANFD(const struct _CAN_MSG* pCANMsg, CANFD_MSG* pCANFDMsg, int Len);
/* The reverse: time divided by 10, DataLen at most 8, FrameFlags 0. */
VELTRIX_API void CANFD2CAN(const CANFD_MSG* pCANFDMsg, struct _CAN_MSG* pCANMsg, int Len);

#define CANFD_SUCCESS 0
#define CANFD_ERR_PARAMETER (-1)
#define CANFD_ERR_USB_WRITE_FAIL (-2)
#define CANFD_ERR_USB_READ_FAIL (-4)

#define CANFD_MSG_QUEUE_SIZE 10000 /* frames per receive queue */
#define CANFD_READ_MSG_MAX 2000    /* room CANFD_ReadMsg needs */
#define CANFD_SEND_CHUNK 128       /* frames per send command */
#define CANFD_FILTER_MAX 42        /* rules that fit one filter command */

/* CANFD_MSG.Flags bits. */
#define CANFD_MSG_FLAG_FDF 0x01     /* CAN FD format */
#define CANFD_MSG_FLAG_ESI 0x02     /* error state indicator */
#define CANFD_MSG_FLAG_BRS 0x04     /* bit rate switch */
#define CANFD_MSG_FLAG_PORT 0x20    /* port index & 1, set on reception */
#define CANFD_MSG_FLAG_TX_ECHO 0x80 /* a frame this host sent (transmit event) */

/* Transmit progress of the current batch (reply of the adapter, 4 bytes). */
typedef struct _CANFD_TX_INFO {
  uint8_t QueuedCount; /* frames the adapter accepted for the batch */
  uint8_t Reserved;    /* defined by the firmware */
  uint8_t SentCount;   /* frames already on the bus */
  uint8_t Aborted;     /* non-zero when the adapter gave up on the batch */
} CANFD_TX_INFO;
VELTRIX_STATIC_ASSERT(sizeof(CANFD_TX_INFO) == 4, "CANFD_TX_INFO is 4 bytes");

/* The controller's diagnostic record, passed through as the adapter sends it. */
typedef struct _CANFD_DIAGNOSTIC {
  uint8_t Data[8];
} CANFD_DIAGNOSTIC;
VELTRIX_STATIC_ASSERT(sizeof(CANFD_DIAGNOSTIC) == 8, "CANFD_DIAGNOSTIC is 8 bytes");

/* Data phase of the 40 MHz CAN FD controllers (22 rates from 10 Mbit/s + end row). */
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BRT_MIRADEL_DBT[23];

/* ---- Lengths ---------------------------------------------------------------------- */

/* Data bytes of a coded DLC: 0-8 themselves, 9-15 give 12, 16, 20, 24, 32, 48, 64;
 * anything else 0. */
VELTRIX_API unsigned char DlcToDataBytes(unsigned char DLC);
/* The smallest coded DLC that holds DataBytes bytes (15 for anything above 48). */
VELTRIX_API unsigned char DataBytesToDlc(unsigned char DataBytes);

/* ---- Configuration ---------------------------------------------------------------- */

/* Fills pCanConfig for the rates (bit/s). A handle with top four bits 0x5 takes both
 * phases from the 40 MHz tables (nominal CAN_BRT_MIRADEL_NBT, data CAN_BRT_MIRADEL_DBT);
 * top four bits 0x4 takes the nominal phase from CAN_BRT_KORVANE, any other handle from
 * CAN_BRT_VELTRIX, and then leaves the data phase untouched. Only exact table rates match.
 * Sets Mode 0, IsoCrc 1, AutoRetransmit 1, Terminator 1; prescalers are cut to their low
 * byte; Reserved is not touched. No adapter traffic. Returns 0, -1 (NULL), -4 (a rate is
 * not in its table; the record is then unchanged). */
VELTRIX_API int CANFD_GetCANSpeedArg(unsigned int DevHandle, CANFD_CHANNEL_CONFIG* pCanConfig,
                                     int NBTBaudRate, int DBTBaudRate);

/* Configures and starts the port with the 20 configuration bytes as given.
 * Returns 0, -1 (NULL), -2, -4 (no or non-empty acknowledgement). */
VELTRIX_API int CANFD_Init(unsigned int DevHandle, unsigned char CANIndex,
                           CANFD_CHANNEL_CONFIG* pCanConfig);

/* Replaces the port's acceptance filters with Len rules (0 to CANFD_FILTER_MAX; 0 removes
 * them all: the port then receives every frame). pFilter may be NULL only when Len is 0.
 * Returns 0, -1 (NULL or Len above CANFD_FILTER_MAX; nothing sent), -2, -4. */
VELTRIX_API int CANFD_SetFilter(unsigned int DevHandle, unsigned char CANIndex,
                                CANFD_FILTER_RULE* pFilter, unsigned char Len);

/* Reads the port's diagnostic record / error counters / transmit progress into the
 * caller's record (not NULL; written only on success). Returns 0, -1, -2, or -4 (a reply
 * with another code or not exactly 8 / 4 / 4 bytes). */
VELTRIX_API int CANFD_GetDiagnostic(unsigned int DevHandle, unsigned char CANIndex,
                                    CANFD_DIAGNOSTIC* pCanDiagnostic);
VELTRIX_API int CANFD_GetBusError(unsigned int DevHandle, unsigned char CANIndex,
                                  CANFD_BUS_ERROR* pCanBusError);
VELTRIX_API int CANFD_SendMsgStatus(unsigned int DevHandle, unsigned char CANIndex,
                                    CANFD_TX_INFO* pTxInfo);

/* ---- Sending ---------------------------------------------------------------------- */

/* Sends MsgNum frames in batches of CANFD_SEND_CHUNK and waits for each batch to reach the
 * bus (at most 100 ms per frame plus one second). The caller's records are changed: a
 * frame with more than 8 data bytes gains CANFD_MSG_FLAG_BRS before it is sent, and each
 * frame the adapter reports as sent is overwritten by its transmit event (identifier,
 * Flags = port << 5 | CANFD_MSG_FLAG_TX_ECHO | FDF/ESI/BRS as sent, the bus time); DLC
 * and Data stay. A length that is no CAN FD length goes out rounded up to the next one,
 * the extra bytes taken from Data. pCanSendMsg may be NULL only when MsgNum is 0.
 * Returns the number of transmit events read back; when the adapter aborts a batch, the
 * events of the batches so far. -1, -2, -4 for the batch that failed (earlier batches are
 * then not reported). */
VELTRIX_API int CANFD_SendMsg(unsigned int DevHandle, unsigned char CANIndex,
                              CANFD_MSG* pCanSendMsg, unsigned int MsgNum);

/* ---- Receiving -------------------------------------------------------------------- */

/* Reads the frames the adapter holds for port CANIndex mod 2, bypassing the queues.
 * pCanGetMsg: room for CANFD_READ_MSG_MAX frames; not NULL. Received frames carry
 * CANFD_MSG_FLAG_PORT for port 1, and CANFD_MSG_FLAG_TX_ECHO for the adapter's echo of a
 * sent frame. An element cut short by the end of the reply is dropped. Returns the number
 * read, -1, -2, or -4. */
VELTRIX_API int CANFD_ReadMsg(unsigned int DevHandle, unsigned char CANIndex,
                              CANFD_MSG* pCanGetMsg);

/* Empties the queue of port CANIndex & 1, then starts background reception of it: one
 * thread per adapter polls every polled port every 10 ms into the port's queues.
 * Returns 0, -2 (unknown adapter), -4 (thread creation failed; the port is not polled). */
VELTRIX_API int CANFD_StartGetMsg(unsigned int DevHandle, unsigned char CANIndex);

/* Stops polling port CANIndex & 1. When the other port is still polled returns 0 at
 * once; otherwise waits for the thread to end and returns 0, or -4 when the adapter has
 * no receive thread. -2 for an unknown adapter. */
VELTRIX_API int CANFD_StopGetMsg(unsigned int DevHandle, unsigned char CANIndex);

/* Moves at most BufferSize queued frames of the port (as given: 0 or 1), oldest first,
 * into pCanGetMsg. A port that is not polled is polled once first, and a failed poll's
 * code (-2, -4) is returned. Returns the count (0 for BufferSize below 1, an unknown
 * adapter or a port above 1), or -1 for NULL with a positive BufferSize. */
VELTRIX_API int CANFD_GetMsg(unsigned int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanGetMsg,
                             int BufferSize);

/* Empties the port's queue; a port that is not polled is polled once first so what the
 * adapter holds is discarded too (a failed poll's code is returned). The ISO-TP queue is
 * not touched. Returns 0, -2, -4. */
VELTRIX_API int CANFD_ClearMsg(unsigned int DevHandle, unsigned char CANIndex);

/* Stops polling the port, stops the port in the adapter and empties its queue.
 * Returns 0, -2, -4. */
VELTRIX_API int CANFD_Stop(unsigned int DevHandle, unsigned char CANIndex);

/* ---- Helpers (used inside the library and by the ISO-TP layer) ------------------- */

/* Polls the port once into its queue and its ISO-TP queue. A failed read stops the
 * thread's polling of that port and its code is returned; else 0. */
VELTRIX_API int CANFD_ReadMsgToBuffer(unsigned int DevHandle, unsigned char CANIndex);
/* Appends MsgNum frames to the queue of port CANIndex & 1 (drop-oldest when full).
 * Returns 0 (also for MsgNum below 1); -1 when pMsg is NULL and MsgNum positive. */
VELTRIX_API int CANFD_SetCANMsgToBuffer(unsigned int DevHandle, unsigned char CANIndex,
                                        CANFD_MSG* pMsg, int MsgNum);
/* Takes at most BufferSize frames from the port's ISO-TP queue (after one poll when the
 * port is not polled; the poll's result is ignored). Returns how many. */
VELTRIX_API int CANFD_GetCANMsgFromUDSBuffer(unsigned int DevHandle, unsigned char CANIndex,
                                             CANFD_MSG* pMsg, int BufferSize);
/* Empties the port's ISO-TP queue. Returns 0. */
VELTRIX_API int CANFD_ClearCANMsgFromUDSBuffer(unsigned int DevHandle, unsigned char CANIndex);

/* ---- Schedules and relay ---------------------------------------------------------- */

/* As CAN_SetSchedule with CAN FD frames: each frame goes to the adapter as its frame
 * element (12-byte header + data) with the frame's TimeStamp / TimeStampHigh as its
 * timing value; sets longer than 0x7FFF bytes go to the schedule flash. */
VELTRIX_API int CANFD_SetSchedule(unsigned int DevHandle, unsigned char CANIndex, CANFD_MSG* pMsg,
                                  unsigned char* pMsgNum, unsigned char* pParams,
                                  unsigned char TableCount);
/* As CAN_StartSchedule, CAN_StopSchedule, CAN_SetRelay on a CAN FD port. */
VELTRIX_API int CANFD_StartSchedule(unsigned int DevHandle, unsigned char CANIndex,
                                    unsigned char Option1, unsigned char Option2,
                                    unsigned char Option3);
VELTRIX_API int CANFD_StopSchedule(unsigned int DevHandle, unsigned char CANIndex);
VELTRIX_API int CANFD_SetRelay(unsigned int DevHandle, unsigned char RelayMode);
/* The same as CAN_SetRelayData and CAN_GetRelayData: both models keep the rule set alike. */
VELTRIX_API int CANFD_SetRelayData(unsigned int DevHandle, CAN_RELAY_CONFIG* pConfig,
                                   CAN_RELAY_RULE* pRules);
VELTRIX_API int CANFD_GetRelayData(unsigned int DevHandle, CAN_RELAY_CONFIG* pConfig,
                                   CAN_RELAY_RULE* pRules);

VELTRIX_EXTERN_C_END

#endif
