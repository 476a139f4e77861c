/*
 * VELTRIX adapters: analog inputs, one-shot and streamed, and an attached ADS1256.
 *
 * Up to eight inputs are enabled by an 8-bit channel mask. Samples are 16-bit, in the
 * adapter's little-endian order (native on x86-64), one sample per enabled input in input
 * order, then the next set: with mask 0x05 the buffer holds in0, in2, in0, in2, ...
 *
 * A stream (ADC_StartContinueRead) runs on a thread of the library that keeps one USB
 * transfer of one frame in flight. Each frame goes to the callback if one is given (on that
 * thread; it must return quickly and must not call ADC_ functions of the same adapter
 * except ADC_GetStreamState), otherwise into the adapter's frame queue, which
 * ADC_GetData drains. The queue holds at most ADC_QUEUE_MAX_BYTES of frames; when it is
 * full the oldest frame is dropped and counted (ADC_GetStreamState).
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * Return codes:
 *   ADC_SUCCESS (0) or a count   success
 *   ADC_ERR_PARAMETER (-1)       handle not found, NULL pointer, count out of range, or
 *                                ADC_Read before ADC_Init; nothing was sent
 *   ADC_ERR_SEND (-2)            the command could not be sent
 *   ADC_ERR_REPLY (-4)           no reply, a failed reply, a reply of the wrong length, or
 *                                the reader thread could not be started
 */
#ifndef VELTRIX_ADC_H
#define VELTRIX_ADC_H

#include <stddef.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

#define ADC_SUCCESS 0
#define ADC_ERR_PARAMETER (-1)
#define ADC_ERR_SEND (-2)
#define ADC_ERR_REPLY (-4)

/* Largest frame of a stream, in samples; larger requests are cut to it. */
#define ADC_MAX_FRAME_SAMPLES 10240
/* Bytes of frames the queue keeps before it drops the oldest (at least one frame). */
#define ADC_QUEUE_MAX_BYTES (16u * 1024u * 1024u)
/* ADS1256_Read writes at most this many samples: the buffer needs this much room. */
#define ADS1256_READ_MAX_SAMPLES 1024

/* Called on the reader thread for each frame: the frame's bytes (valid only during the
 * call), ByteCount / 2 samples, and the byte count. */
typedef void (*ADC_DATA_CALLBACK)(unsigned int DevHandle, const unsigned char* pData,
                                  int SampleCount, int ByteCount);

/* Enables the inputs of ChannelMask at SampleRate samples per second per input and
 * remembers both for ADC_Read. Returns 0, -1, -2, -4. */
VELTRIX_API int ADC_Init(unsigned int DevHandle, unsigned char ChannelMask, int SampleRate);

/* Takes SampleCount samples of every enabled input into pData, which needs room for
 * SampleCount x (inputs enabled by ADC_Init) samples. Returns that number of samples, or
 * -1, -2, -4 (a reply that is not exactly that many bytes is -4). After an error the
 * buffer may hold part of a reply, never more than its documented room. */
VELTRIX_API int ADC_Read(unsigned int DevHandle, short* pData, int SampleCount);

/* Starts a stream of frames of FrameSize samples (all inputs together; cut to
 * ADC_MAX_FRAME_SAMPLES; 0 is refused with -1). Callback may be NULL (frames are queued).
 * A stream already running on the adapter is stopped first; a stream that ended by itself
 * (adapter unplugged, transfer error) is cleaned up. Returns 0, -1, -2, -4. */
VELTRIX_API int ADC_StartContinueRead(unsigned int DevHandle, unsigned char ChannelMask,
                                      int SampleRate, unsigned int FrameSize,
                                      ADC_DATA_CALLBACK Callback);

/* Asks the adapter to stop streaming and joins the reader thread. Frames already queued
 * stay for ADC_GetData until the next start. Always returns 0. */
VELTRIX_API int ADC_StopContinueRead(unsigned int DevHandle);

/* Joins the reader thread of a stream that has ended by itself (adapter unplugged,
 * transfer error) or was stopped, and forgets it, so nothing of it is reused. Returns 0 when
 * no reader remains, 1 when the stream is still running (nothing is waited for: stop it
 * with ADC_StopContinueRead), -1 for a bad handle. */
VELTRIX_API int ADC_WaitForThreadExit(unsigned int DevHandle);

/* Moves whole frames from the queue into pData while another whole frame fits into
 * MaxSamples, oldest first. Returns the number of samples copied: 0 when MaxSamples is
 * below one frame (the queue is left as it is) or nothing is queued; -1 for a bad handle or
 * a NULL pData. A frame the adapter sent short is padded with zero samples. */
VELTRIX_API int ADC_GetData(unsigned int DevHandle, short* pData, int MaxSamples);

/* 1 while a stream's transfer is in flight, 0 otherwise; -1 for a bad handle.
 * pDroppedFrames (may be NULL): frames dropped from the full queue since the last start. */
VELTRIX_API int ADC_GetStreamState(unsigned int DevHandle, unsigned int* pDroppedFrames);

/* Settings of an ADS1256 converter on the adapter, 8 bytes.
 * SampleRate  the converter's data-rate code (sent big-endian).
 * Gain        PGA gain code; BufferEn  1 enables the input buffer (both sent as they are).
 * Channels    input multiplexer configuration (sent big-endian). */
typedef struct {
  unsigned short SampleRate;
  unsigned char Gain;
  unsigned char BufferEn;
  unsigned int Channels;
} ADS1256_CONFIG;

VELTRIX_STATIC_ASSERT(sizeof(ADS1256_CONFIG) == 8, "ADS1256_CONFIG is 8 bytes");
VELTRIX_STATIC_ASSERT(offsetof(ADS1256_CONFIG, SampleRate) == 0, "ADS1256_CONFIG.SampleRate");
VELTRIX_STATIC_ASSERT(offsetof(ADS1256_CONFIG, Gain) == 2, "ADS1256_CONFIG.Gain");
VELTRIX_STATIC_ASSERT(offsetof(ADS1256_CONFIG, BufferEn) == 3, "ADS1256_CONFIG.BufferEn");
VELTRIX_STATIC_ASSERT(offsetof(ADS1256_CONFIG, Channels) == 4, "ADS1256_CONFIG.Channels");

/* Configures converter Index. pConfig: not NULL. Returns 0, -1, -2, -4. */
VELTRIX_API int ADS1256_Init(unsigned int DevHandle, unsigned char Index,
                             const ADS1256_CONFIG* pConfig);
VELTRIX_API int ADS1256_Start(unsigned int DevHandle, unsigned char Index);
/* The samples converted since the last read, sign-extended from 24 bits, into pData (room
 * for ADS1256_READ_MAX_SAMPLES). Returns their number, or -1, -2, -4 (more than the room
 * is -4). Trailing bytes short of a whole sample are ignored. */
VELTRIX_API int ADS1256_Read(unsigned int DevHandle, unsigned char Index, int* pData);
VELTRIX_API int ADS1256_Stop(unsigned int DevHandle, unsigned char Index);

VELTRIX_EXTERN_C_END

#endif
