/*
 * VELTRIX adapters: UDS over LIN.
 *
 * Diagnostic requests and responses (up to 4095 bytes) on a LIN channel on which the
 * adapter is master (LIN_EX_Init with mode 1), using the LIN transport layer: each
 * diagnostic frame holds the node address (NAD), a protocol control byte (PCI) and up to
 * six payload bytes. Requests go out on the master request frame, responses are polled on
 * the slave response frame, one frame per LIN_EX_MasterSync.
 *
 * Every LIN frame the diagnostic functions exchange successfully is kept in a buffer per
 * adapter and channel (1000 records, the oldest dropped first) that applications can read.
 * A request and its response are not atomic as a pair: run one diagnostic exchange per
 * channel at a time.
 */
#ifndef VELTRIX_LIN_UDS_H
#define VELTRIX_LIN_UDS_H

#include <stddef.h>

#include "veltrix/api.h"
#include "veltrix/lin.h"

VELTRIX_EXTERN_C_BEGIN

#define LIN_UDS_OK 0
#define LIN_UDS_ERR_SEND (-98)      /* LIN_EX_MasterSync failed (bad handle, channel not
                                       initialised, transport failure, bad argument) */
#define LIN_UDS_ERR_NO_FRAME (-99)  /* no frame came back, a request frame was not echoed
                                       intact, or a poll brought a bad checksum or no data */
#define LIN_UDS_ERR_TIMEOUT (-101)  /* no complete response within the time-out */
#define LIN_UDS_ERR_SEQUENCE (-103) /* consecutive frame out of sequence */
#define LIN_UDS_ERR_PCI (-105)      /* unknown PCI type, or a single frame longer than 6 */

#define LIN_UDS_MAX_LEN 4095       /* longest request or response */
#define LIN_UDS_BUFFER_SIZE 1000   /* records kept per adapter and channel */

/* Diagnostic addressing, 5 bytes. The internal functions take it packed into one 64-bit
 * value, byte i in bits 8i..8i+7 (see LIN_UDS_PackAddr). */
typedef struct {
  unsigned char ReqID;     /* identifier of the request frame, normally 0x3C */
  unsigned char ResID;     /* identifier of the response frame, normally 0x3D */
  unsigned char NAD;       /* node address of the slave */
  unsigned char CheckType; /* checksum of both frames: 0 classic, 1 enhanced */
  unsigned char STmin;     /* ms: slot of each frame, pause after each request frame and
                              between response polls; 0 no pause */
} LIN_UDS_ADDR;

VELTRIX_STATIC_ASSERT(sizeof(LIN_UDS_ADDR) == 5, "LIN_UDS_ADDR is 5 bytes");
VELTRIX_STATIC_ASSERT(offsetof(LIN_UDS_ADDR, STmin) == 4, "LIN_UDS_ADDR.STmin");

/* Sends a request of DataLen bytes (more than 4095 are cut to 4095) to the node, as one
 * single frame (up to 6 bytes) or a first frame and consecutive frames; no flow control
 * is awaited. Empties the channel's frame buffer first.
 * pAddr must not be NULL; pData may be NULL only when DataLen is 0.
 * Returns 0, or the code of the first frame that failed (-98, -99). */
VELTRIX_API int LIN_UDS_Request(int DevHandle, unsigned char LINIndex, const LIN_UDS_ADDR* pAddr,
                                const unsigned char* pData, int DataLen);

/* Polls the response frame until a complete response has arrived and copies it to pData
 * (room for LIN_UDS_MAX_LEN bytes). A response-pending answer (7F xx 78) is a complete
 * single-frame response: call again for the final one. TimeOutMs bounds the whole
 * response, also while consecutive frames keep arriving.
 * Returns the response length, or -101, -103, -105 (and -98 for a NULL pointer). */
VELTRIX_API int LIN_UDS_Response(int DevHandle, unsigned char LINIndex, const LIN_UDS_ADDR* pAddr,
                                 unsigned char* pData, int TimeOutMs);

/* One request frame: NAD, then the DataLen (0..7) bytes of pData (PCI first), the rest
 * 0xFF. The frame the adapter echoes must match it (received frame, checksum correct,
 * 8 data bytes, same identifier and data); it is then buffered.
 * Returns 0, -98 (also for DataLen outside 0..7 or pData NULL with data), -99. */
VELTRIX_API int LIN_UDS_SendMsg(int DevHandle, unsigned char LINIndex, unsigned long long Addr,
                                const unsigned char* pData, int DataLen);

/* One response poll. pData: room for 7 bytes (PCI and up to six payload bytes).
 * Returns the number of bytes after the NAD (1..7), -98 or -99. */
VELTRIX_API int LIN_UDS_GetMsg(int DevHandle, unsigned char LINIndex, unsigned long long Addr,
                               unsigned char* pData);

/* 1 when each of the MsgLen returned records confirms its sent record (a received frame,
 * checksum matched, at least 8 data bytes, same identifier bits 0..5, same first
 * DataLen(sent) data bytes); 0 otherwise, also for NULL pointers or MsgLen below 1. */
VELTRIX_API int LIN_USD_CheckSendState(const LIN_EX_MSG* pSendMsg, const LIN_EX_MSG* pGetMsg,
                                       int MsgLen);

/* Appends MsgLen records to the channel's buffer (channel taken modulo 4), dropping the
 * oldest beyond LIN_UDS_BUFFER_SIZE. Returns 0, or -98 for an unknown handle or NULL
 * records. */
VELTRIX_API int LIN_USD_SetLINMsgToBuffer(int DevHandle, unsigned char LINIndex,
                                          const LIN_EX_MSG* pLINMsg, int MsgLen);

/* Takes up to BufferSize records, oldest first, out of the channel's buffer.
 * Returns how many were taken, or -98 for an unknown handle or a NULL pLINMsg. */
VELTRIX_API int LIN_UDS_GetMsgFromUDSBuffer(int DevHandle, unsigned char LINIndex,
                                            LIN_EX_MSG* pLINMsg, int BufferSize);

/* Empties the channel's buffer. Returns 0, or -98 for an unknown handle. */
VELTRIX_API int LIN_USD_ClearCANMsgFromUDSBuffer(int DevHandle, unsigned char LINIndex);

/* Packs an address record into the 64-bit form of LIN_UDS_SendMsg and LIN_UDS_GetMsg. */
VELTRIX_API unsigned long long LIN_UDS_PackAddr(const LIN_UDS_ADDR* pAddr);

VELTRIX_EXTERN_C_END

#endif
