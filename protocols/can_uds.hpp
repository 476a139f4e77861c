// The ISO-TP client over a CAN or CAN FD port: the frame helpers between the segmenter and
// the CAN families (send with retry and echo, read the ISO-TP queue, await flow control).
// Handles of the CAN FD models go through CANFD_MSG records and the CANFD_ calls.
// Reachable by tests through the static library; not exported.
#pragma once

#include <cstdint>
#include <span>

#include "veltrix/can.h"
#include "veltrix/can_uds.h"
#include "veltrix/canfd.h"

namespace veltrix::isotp {

inline constexpr uint32_t kFlowControlTimeoutMs = 1000;
inline constexpr uint64_t kSendBudgetUs = 3'000'000;
inline constexpr uint32_t kSendRetryPauseUs = 10'000;
inline constexpr uint32_t kBatchFrames = 20;
// Pause after finding the ISO-TP queue empty. The receive thread refills it every 10 ms;
// spinning on its lock would only take CPU from the thread that feeds it.
inline constexpr uint32_t kIdlePauseUs = 1000;
// Frames of other identifiers one read discards before it reports "nothing" and lets
// the caller look at its clock: a flood of foreign traffic cannot stall a time-out.
inline constexpr int kDiscardPerRead = 256;

// One frame of count bytes (padded to the frame length) with RequestID, retried while
// the adapter takes nothing. 0, -98 or -99.
int CAN_UDS_SendMsg(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, const uint8_t* bytes,
                    int count);
// A batch of prepared frames: 0 when all, or only some, went (a partial batch is not
// echoed); -98 or -99.
int CAN_UDS_SendCANMsg(uint32_t h, uint8_t port, std::span<CAN_MSG> frames);
// The same for a CAN FD port's records.
int CAN_UDS_SendCANFDMsg(uint32_t h, uint8_t port, std::span<CANFD_MSG> frames);
// The next frame of ResponseID from the ISO-TP queue: its length (out holds 64 bytes),
// or 0 when none is waiting.
int CAN_UDS_GetMsg(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, uint8_t* out);
// Waits for a continue-to-send flow control: 0, -101 or -107.
int CAN_UDS_WaitFC(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, UDS_FC* fc,
                   uint32_t timeout_ms);

int request(uint32_t h, uint8_t port, CAN_UDS_ADDR* addr, const uint8_t* data, int len);
// capacity: bytes pData may take; bounded selects the -108 answer for a longer message.
int response(uint32_t h, uint8_t port, CAN_UDS_ADDR* addr, uint8_t* out, size_t capacity,
             bool bounded, uint32_t timeout_ms);

}  // namespace veltrix::isotp
