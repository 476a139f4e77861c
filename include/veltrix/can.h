/*
 * VELTRIX classic CAN: port configuration (bit timing, filters, error state) and frame
 * transfer (batch send, synchronous send, direct read, background reception into bounded
 * per-port queues). CAN_MSG is also the frame record of the layers above (DBC databases,
 * ISO-TP/UDS).
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * CANIndex: the port, 0 or 1 on the classic adapters. Host-side state (stored bit rate,
 *   run flags, queues) exists for ports 0 and 1 only.
 * Adapters whose handle has top byte 0x53 or 0x54 are CAN FD models: there every CAN_
 * call converts its records and is carried out by the CAN FD family; its result codes
 * are returned as they come.
 *
 * Result codes: 0 or a non-negative count on success, otherwise one of CAN_ERR_*. Every
 * exchange takes the adapter's lock for one command and its reply; the batch operations
 * release it between chunks.
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

/* ---- Result codes ----------------------------------------------------------------- */

#define CAN_SUCCESS 0
#define CAN_ERR_PARAMETER (-1)      /* a NULL record pointer */
#define CAN_ERR_USB_WRITE_FAIL (-2) /* the command could not be written, or the adapter is
                                       not in the registry */
#define CAN_ERR_USB_READ_FAIL (-4)  /* no valid reply (none, wrong code, an acknowledgement
                                       with payload); a bit rate not in the table; no
                                       receive thread to stop; thread creation failed */

/* Frames per queue (CAN_GetMsg needs room for this many) and per direct read. */
#define CAN_MSG_QUEUE_SIZE 10000
#define CAN_READ_MSG_MAX 2000

/* CAN_MSG.FrameFlags bits. */
#define CAN_MSG_FLAG_RTR 0x01
#define CAN_MSG_FLAG_PORT_MASK 0x60 /* port index << 5, set by the library */
#define CAN_MSG_FLAG_TX 0x80        /* the frame was sent by this host */

/* ---- Records ---------------------------------------------------------------------- */

/* Bit timing and options of a port. rate = controller clock / (Prescaler x (1 + Seg1 +
 * Seg2)). A zero option field means "off". */
typedef struct _CAN_CHANNEL_CONFIG {
  uint32_t Prescaler;         /* time-quantum length in controller clock periods */
  uint8_t SJW;                /* synchronisation jump width, time quanta */
  uint8_t Seg1;               /* time quanta before the sample point */
  uint8_t Seg2;               /* time quanta after the sample point */
  uint8_t Mode;               /* bit 0 operating mode (0 normal); bit 7 adapter option,
                                 set by CAN_GetCANSpeedArg; the whole byte is sent */
  uint8_t AutoBusOffRecovery; /* bit 0: the controller leaves bus-off by itself */
  uint8_t NoAutoRetransmit;   /* bit 0: a failed frame is not sent again */
  uint8_t RxFifoLocked;       /* bit 0: a full receive FIFO keeps its old frames */
  uint8_t TxFifoOrder;        /* bit 0: transmit in request order, not by identifier */
} CAN_CHANNEL_CONFIG;
VELTRIX_STATIC_ASSERT(sizeof(CAN_CHANNEL_CONFIG) == 12, "CAN_CHANNEL_CONFIG is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_CHANNEL_CONFIG, SJW) == 4, "CAN_CHANNEL_CONFIG.SJW");
VELTRIX_STATIC_ASSERT(offsetof(CAN_CHANNEL_CONFIG, Mode) == 7, "CAN_CHANNEL_CONFIG.Mode");
VELTRIX_STATIC_ASSERT(offsetof(CAN_CHANNEL_CONFIG, TxFifoOrder) == 11, "CAN_CHANNEL_CONFIG");

/* One acceptance filter bank. */
typedef struct _CAN_FILTER_RULE {
  uint8_t Enable;      /* 1 activates the bank, 0 deactivates it */
  uint8_t FilterIndex; /* bank number within the port (taken modulo 14) */
  uint8_t FilterMode;  /* 0 identifier and mask; non-zero identifier list (MaskID unused) */
  uint8_t ExtFrame;    /* 1: ID is a 29-bit extended identifier; else 11-bit standard */
  uint32_t ID;         /* identifier to match */
  uint32_t IDE;        /* bit 0: IDE bit to match */
  uint32_t RTR;        /* bit 0: RTR bit to match */
  uint32_t MaskID;     /* identifier mask, 1 = the bit must match */
  uint32_t MaskIDE;    /* bit 0: the IDE bit must match */
  uint32_t MaskRTR;    /* bit 0: the RTR bit must match */
} CAN_FILTER_RULE;
VELTRIX_STATIC_ASSERT(sizeof(CAN_FILTER_RULE) == 28, "CAN_FILTER_RULE is 28 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_FILTER_RULE, ID) == 4, "CAN_FILTER_RULE.ID");
VELTRIX_STATIC_ASSERT(offsetof(CAN_FILTER_RULE, MaskRTR) == 24, "CAN_FILTER_RULE.MaskRTR");

/* The controller's error state. */
typedef struct _CAN_BUS_STATUS {
  uint32_t StatusWord;      /* first word of the adapter's reply, as received */
  uint32_t ErrorStatusWord; /* second word: the controller's error status register */
  uint8_t RxErrorCounter;
  uint8_t TxErrorCounter;
  uint8_t LastErrorCode;    /* 0 to 7 */
  uint8_t ErrorFlags;       /* bit 0 error warning, bit 1 error passive, bit 2 bus-off */
} CAN_BUS_STATUS;
VELTRIX_STATIC_ASSERT(sizeof(CAN_BUS_STATUS) == 12, "CAN_BUS_STATUS is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_BUS_STATUS, RxErrorCounter) == 8, "CAN_BUS_STATUS");
VELTRIX_STATIC_ASSERT(offsetof(CAN_BUS_STATUS, ErrorFlags) == 11, "CAN_BUS_STATUS");

/* One row of a bit-timing table; a table ends with an all-zero row and starts with its
 * highest rate. */
typedef struct _CAN_TIMING_ENTRY {
  uint8_t SJW;
  uint8_t Seg1;
  uint8_t Seg2;
  uint16_t Prescaler;
  uint32_t BitRate; /* bit/s (nominal: e.g. 666000 stands for 666667) */
} CAN_TIMING_ENTRY;
VELTRIX_STATIC_ASSERT(sizeof(CAN_TIMING_ENTRY) == 12, "CAN_TIMING_ENTRY is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_TIMING_ENTRY, Prescaler) == 4, "CAN_TIMING_ENTRY");
VELTRIX_STATIC_ASSERT(offsetof(CAN_TIMING_ENTRY, BitRate) == 8, "CAN_TIMING_ENTRY");

/* A row of the two-byte timing-register table (bus timing registers 0 and 1 of the
 * older controllers, at a 16 MHz clock). */
typedef struct _CAN_BTR_ENTRY {
  uint32_t BaudRateKbps;
  uint8_t Timing0;
  uint8_t Timing1;
  uint8_t Reserved[2];
} CAN_BTR_ENTRY;
VELTRIX_STATIC_ASSERT(sizeof(CAN_BTR_ENTRY) == 8, "CAN_BTR_ENTRY is 8 bytes");

/* Transmit progress of the current batch (reply of the adapter, 4 bytes). */
typedef struct _CAN_TX_INFO {
  uint8_t QueuedCount; /* frames the adapter accepted for the batch */
  uint8_t Reserved;    /* defined by the firmware */
  uint8_t SentCount;   /* frames already on the bus */
  uint8_t Aborted;     /* non-zero when the adapter gave up on the batch */
} CAN_TX_INFO;
VELTRIX_STATIC_ASSERT(sizeof(CAN_TX_INFO) == 4, "CAN_TX_INFO is 4 bytes");

/* ---- Bit-timing tables (constant data) ------------------------------------------- */

/* 100 MHz controllers (29 rates + end row). */
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BRT_VELTRIX[30];
/* 42 MHz controllers (handles 0x4xxxxxxx), same rates in the same order. */
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BRT_KORVANE[30];
/* Nominal phase of the CAN FD controllers, 40 MHz (handles 0x5xxxxxxx; 16 + end row). */
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BRT_MIRADEL_NBT[17];
/* The copies kept by the compatibility layer. CAN_BaudRate_KORVANE differs from
 * CAN_BRT_KORVANE in its 800000 and 600000 rows. */
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BaudRate_VELTRIX[30];
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BaudRate_KORVANE[30];
VELTRIX_API extern const CAN_TIMING_ENTRY CAN_BaudRate_MIRADEL_NBT[17];
/* Two-byte timing-register convention, 16 rows from 5 to 1000 kbit/s. */
VELTRIX_API extern const CAN_BTR_ENTRY CAN_BaudRate_BTR[16];

/* ---- Configuration ---------------------------------------------------------------- */

/* Fills pCanConfig for BaudRate (bit/s) from the table the handle's top four bits choose:
 * 0x5 the 40 MHz nominal table, 0x4 the 42 MHz table, anything else the 100 MHz table.
 * Only an exact rate of the table matches (no nearest rate). Sets the timing fields,
 * Mode = 0x80, AutoBusOffRecovery = 1 and the other options 0. No adapter traffic.
 * Returns 0; CAN_ERR_USB_READ_FAIL (-4) when the rate is not in the table (also 0);
 * CAN_ERR_PARAMETER when pCanConfig is NULL. The record is written only on success. */
VELTRIX_API int CAN_GetCANSpeedArg(unsigned int DevHandle, CAN_CHANNEL_CONFIG* pCanConfig,
                                   int BaudRate);

/* Configures and starts a port, and stops the polling of that port by a running receive
 * thread (the thread ends when no port of the adapter is polled). pCanConfig: not NULL.
 * On ports 0 and 1 the adapter receives SJW, Seg1 and Seg2 each minus one (a 0 is sent
 * as 1); on higher ports as given. On success the port's bit rate is stored as
 * 42 MHz / ((Seg1 + Seg2 + 1) x Prescaler) (0 when that divisor is 0), and the adapter's
 * timestamp counter and the host clock are noted as the time base of host-made frame
 * times. Returns 0, -1 (NULL), -2 (write failed or unknown adapter), -4 (no or
 * non-empty acknowledgement). */
VELTRIX_API int CAN_Init(unsigned int DevHandle, unsigned char CANIndex,
                         CAN_CHANNEL_CONFIG* pCanConfig);

/* Programs one filter bank of the port (bank FilterIndex mod 14). A port on which no bank
 * is enabled receives every frame. pFilter: not NULL. Returns 0, -1, -2, -4 as CAN_Init. */
VELTRIX_API int CAN_Filter_Init(unsigned int DevHandle, unsigned char CANIndex,
                                CAN_FILTER_RULE* pFilter);

/* Reads the port's error state into pCANStatus (not NULL; written only on success).
 * Returns 0, -1, -2, or -4 (no reply or a reply with another code). */
VELTRIX_API int CAN_GetStatus(unsigned int DevHandle, unsigned char CANIndex,
                              CAN_BUS_STATUS* pCANStatus);

/* ---- Sending ---------------------------------------------------------------------- */

/* Sends MsgNum frames in batches of 500. Before sending, each of the caller's records is
 * stamped: TimeStamp = host-made time (100 us units, on the base noted by CAN_Init) and
 * FrameFlags = RTR bit | port << 5 | CAN_MSG_FLAG_TX. pCanSendMsg may be NULL only when
 * MsgNum is 0. Returns the number of frames the adapter accepted (0 for MsgNum 0, never
 * more than MsgNum), or -1, -2, -4 for the batch that failed (frames of earlier batches are
 * then not reported). A batch whose reply is not a 4-byte count, or counts more frames than
 * the batch held, fails with -4. */
VELTRIX_API int CAN_SendMsg(unsigned int DevHandle, unsigned char CANIndex,
                            CAN_MSG* pCanSendMsg, unsigned int MsgNum);

/* Sends MsgNum frames in batches of 250 and waits for each batch to reach the bus (at
 * most 100 ms per frame plus one second). Stamps the caller's records as CAN_SendMsg.
 * Returns the number of frames the adapter reports sent; when the adapter aborts a
 * batch, the sent count of that batch alone. -1, -2, -4 on failure. */
VELTRIX_API int CAN_SendMsgSynch(unsigned int DevHandle, unsigned char CANIndex,
                                 CAN_MSG* pCanSendMsg, unsigned int MsgNum);

/* Reads the transmit progress of the port's current batch into pTxInfo (not NULL;
 * written only on success). Returns 0, -1, -2, or -4 (wrong reply code or a reply that
 * is not exactly 4 bytes). */
VELTRIX_API int CAN_GetSendMsgInfo(unsigned int DevHandle, unsigned char CANIndex,
                                   CAN_TX_INFO* pTxInfo);

/* ---- Receiving -------------------------------------------------------------------- */

/* Reads the frames the adapter holds for the port, bypassing the queues.
 * pCanGetMsg: room for CAN_READ_MSG_MAX frames; not NULL. Returns the number read (a
 * longer reply is cut at CAN_READ_MSG_MAX), -1, -2, or -4 (no reply, a foreign or late
 * one, or one shorter than it announced: no frame is made up from bytes that never came).
 * A received record whose DataLen exceeds 8 is handed on with DataLen 8 (and counted by
 * the library), here and on every receive path. */
VELTRIX_API int CAN_ReadMsg(unsigned int DevHandle, unsigned char CANIndex,
                            CAN_MSG* pCanGetMsg);

/* Starts background reception of the port (bit 0 of CANIndex): one thread per adapter
 * polls every polled port every 10 ms into the port's queues. Starting the second port
 * creates no second thread. Returns 0, -2 (unknown adapter), -4 (thread creation
 * failed; the port stays marked as polled). */
VELTRIX_API int CAN_StartGetMsg(unsigned int DevHandle, unsigned char CANIndex);

/* Stops polling the port (bit 0 of CANIndex). When the other port is still polled,
 * returns 0 at once; otherwise waits for the thread to end and returns 0, or -4 when the
 * adapter has no receive thread. -2 for an unknown adapter. */
VELTRIX_API int CAN_StopGetMsg(unsigned int DevHandle, unsigned char CANIndex);

/* Moves every queued frame of the port, oldest first, into pCanGetMsg, which must have
 * room for CAN_MSG_QUEUE_SIZE frames. When the port is not polled by the thread, polls
 * the adapter once first. Received frames carry the port in FrameFlags bits 5-6.
 * Returns the number of frames (0 for an unknown adapter or a port above 1), or -1. */
VELTRIX_API int CAN_GetMsg(unsigned int DevHandle, unsigned char CANIndex,
                           CAN_MSG* pCanGetMsg);

/* As CAN_GetMsg for port CANIndex & 1, moving at most BufferSize frames (none when
 * BufferSize is below 1). When no receive thread polls the port, the adapter is polled
 * once first whatever BufferSize is, so a batch it holds is queued, not left behind; frames
 * beyond BufferSize stay queued for the next call. A failed poll's code (-2, -4) is
 * returned. Returns 0 for an unknown adapter; -1 when pCanGetMsg is NULL and BufferSize is
 * positive (pCanGetMsg may be NULL when BufferSize is below 1). */
VELTRIX_API int CAN_GetMsgWithSize(unsigned int DevHandle, unsigned char CANIndex,
                                   CAN_MSG* pCanGetMsg, int BufferSize);

/* Empties the port's queue. When the port is not polled, first fetches and discards
 * what the adapter holds. The ISO-TP queue is not touched. Returns 0; on a CAN FD model
 * the result of CANFD_ClearMsg (0, -2, -4: the fetch's failure). */
VELTRIX_API int CAN_ClearMsg(unsigned int DevHandle, unsigned char CANIndex);

/* Stops polling the port, stops the port in the adapter and empties its queue.
 * Returns 0, -2, or -4 (no or non-empty acknowledgement). */
VELTRIX_API int CAN_Stop(unsigned int DevHandle, unsigned char CANIndex);

/* ---- Helpers (used inside the library and by the ISO-TP layer) ------------------- */

/* Sorts pMsg[low..high] in place by TimeStamp (TimeStampHigh ignored), ascending; equal
 * times may change order. Does nothing for NULL, a negative low or high <= low. */
VELTRIX_API void CAN_QuickSort(CAN_MSG* pMsg, int low, int high, int unused);

/* Polls the adapter once and appends the frames, in time order and with the port bits
 * set, to the port's queue and to its ISO-TP queue. Returns 0, or the negative code of
 * the read. */
VELTRIX_API int CAN_ReadMsgToBuffer(unsigned int DevHandle, unsigned char CANIndex);

/* Appends MsgNum frames to the queue of port CANIndex & 1 (drop-oldest when full).
 * Returns 0 (also for MsgNum below 1); -1 when pMsg is NULL and MsgNum positive. */
VELTRIX_API int CAN_SetCANMsgToBuffer(unsigned int DevHandle, unsigned char CANIndex,
                                      CAN_MSG* pMsg, int MsgNum);

/* Takes at most BufferSize frames from the port's ISO-TP queue (after one poll when the
 * port is not polled, made also when BufferSize is below 1). Returns how many; 0 for an
 * unknown adapter or port above 1; -1 when pCanGetMsg is NULL and BufferSize is positive. */
VELTRIX_API int CAN_GetCANMsgFromUDSBuffer(unsigned int DevHandle, unsigned char CANIndex,
                                           CAN_MSG* pMsg, int BufferSize);

/* Empties the port's ISO-TP queue. Returns 0. */
VELTRIX_API int CAN_ClearCANMsgFromUDSBuffer(unsigned int DevHandle, unsigned char CANIndex);

/* ---- Schedules and relay ---------------------------------------------------------- */
/* On the CAN FD model (handle top byte 0x53 or 0x54) each of these calls does what its
 * CANFD_ counterpart in veltrix/canfd.h does. */

/* Loads TableCount schedule tables into the adapter for the port, replacing what it held.
 * pMsg holds the frames of all tables back to back; table i takes pMsgNum[i] frames. In a
 * schedule, a frame's TimeStamp (and TimeStampHigh) is its timing value for the adapter,
 * sent as given. pParams holds two opaque bytes per table. A set whose command would be
 * longer than 10239 bytes (20 per frame + 3 per table + 2) is written to the port's
 * schedule flash instead (erased first; base 0x080C0000 for port 0, +0x20000 per port).
 * The arrays may be NULL only when TableCount is 0; pMsg must hold the sum of pMsgNum.
 * Returns 0, -1 (NULL), -2 (write failed or unknown adapter), -4 (refused or no reply,
 * or a failed flash erase or write; a refusal also prints "res = S ret = R"). */
VELTRIX_API int CAN_SetSchedule(unsigned int DevHandle, unsigned char CANIndex, CAN_MSG* pMsg,
                                unsigned char* pMsgNum, unsigned char* pParams,
                                unsigned char TableCount);

/* Starts the port's stored tables; the three option bytes select and drive them as the
 * adapter defines. Returns 0, -2, -4 (status byte not 0 or no reply). */
VELTRIX_API int CAN_StartSchedule(unsigned int DevHandle, unsigned char CANIndex,
                                  unsigned char Option1, unsigned char Option2,
                                  unsigned char Option3);

/* Stops the port's tables. Returns 0 when the adapter answered, -2, -4. */
VELTRIX_API int CAN_StopSchedule(unsigned int DevHandle, unsigned char CANIndex);

/* Sets the relay mode between the adapter's two ports. Returns 0 when the adapter echoes
 * the mode, -4 when it answers another mode or nothing, -2. */
VELTRIX_API int CAN_SetRelay(unsigned int DevHandle, unsigned char RelayMode);

#define CAN_RELAY_RULES_MAX 64

/* The relay configuration as the adapter defines it; opaque to the library except for
 * RuleCount, the number of CAN_RELAY_RULE records that go with it. */
typedef struct _CAN_RELAY_CONFIG {
  uint32_t Words[11];
  uint32_t RuleCount;
} CAN_RELAY_CONFIG;
VELTRIX_STATIC_ASSERT(sizeof(CAN_RELAY_CONFIG) == 48, "CAN_RELAY_CONFIG is 48 bytes");
VELTRIX_STATIC_ASSERT(offsetof(CAN_RELAY_CONFIG, RuleCount) == 44, "CAN_RELAY_CONFIG.RuleCount");

/* One relay rule, opaque to the library. */
typedef struct _CAN_RELAY_RULE {
  uint8_t Data[168];
} CAN_RELAY_RULE;
VELTRIX_STATIC_ASSERT(sizeof(CAN_RELAY_RULE) == 168, "CAN_RELAY_RULE is 168 bytes");

/* Stores the relay configuration and its pConfig->RuleCount rules in the adapter's
 * user-data area (erased first, then written and read back for comparison).
 * pConfig: not NULL; pRules: not NULL when RuleCount is above 0. Returns 0, -1 (NULL, or
 * RuleCount above CAN_RELAY_RULES_MAX; nothing sent), -4 (erase, write or read failed, or
 * the read-back differs). */
VELTRIX_API int CAN_SetRelayData(unsigned int DevHandle, CAN_RELAY_CONFIG* pConfig,
                                 CAN_RELAY_RULE* pRules);

/* Reads the stored relay configuration and rules. pRules: room for CAN_RELAY_RULES_MAX
 * rules. When the area holds no rule set (erased, or fewer than one rule stored) returns
 * 0 and leaves both records untouched. Returns 0, -1 (NULL), -4 (read failed). */
VELTRIX_API int CAN_GetRelayData(unsigned int DevHandle, CAN_RELAY_CONFIG* pConfig,
                                 CAN_RELAY_RULE* pRules);

VELTRIX_EXTERN_C_END

#endif

