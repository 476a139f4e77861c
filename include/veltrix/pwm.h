/*
 * VELTRIX adapters: PWM outputs and the PWM capture input.
 *
 * Up to eight PWM outputs are addressed by an 8-bit channel mask whose bit layout depends on
 * the adapter model (the top byte of DevHandle); PWM_GetChannelMask turns a channel number
 * into that mask. Per-output values (prescaler, period, pulse, phase) travel as eight
 * 16-bit values, index i for mask bit i.
 *
 * An output's timer counts at the model's timer clock (PWM_GetMCUFrequency) divided by its
 * prescaler; it wraps after `period` counts and is high for the first `pulse` counts:
 *   frequency = clock / (prescaler x period),  duty = pulse / period.
 * Prescaler and period are 1..65535.
 *
 * The PWM2_ layer addresses one output by channel number and works in hertz and percent.
 * It picks, among all prescaler and period pairs, the one whose frequency is closest to the
 * request (ties: the smaller prescaler, i.e. the finer duty resolution), and remembers the
 * period per channel so that PWM2_SetDutyCycle can scale the pulse.
 *
 * DevHandle: the adapter's handle from USB_ScanDevice; the adapter must be open.
 * Return codes:
 *   PWM_SUCCESS (0)            success
 *   PWM_ERR_PARAMETER (-1)     handle not found or a NULL pointer; nothing was sent
 *   PWM_ERR_SEND (-2)          the command could not be sent
 *   PWM_ERR_REPLY (-4)         no reply, a failed reply, or a reply of the wrong length
 *   PWM2_ERR_CHANNEL (-5)      the model has no such output (its mask is 0)
 *   PWM2_ERR_FREQUENCY (-6)    frequency 0, or outside what the 16-bit timer reaches
 *   PWM2_ERR_DUTY (-7)         duty cycle outside 0..100 (or not a number)
 */
#ifndef VELTRIX_PWM_H
#define VELTRIX_PWM_H

#include <stddef.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

#define PWM_SUCCESS 0
#define PWM_ERR_PARAMETER (-1)
#define PWM_ERR_SEND (-2)
#define PWM_ERR_REPLY (-4)
#define PWM2_ERR_CHANNEL (-5)
#define PWM2_ERR_FREQUENCY (-6)
#define PWM2_ERR_DUTY (-7)

/* The configuration of all eight outputs, 74 bytes, sent as they are (16-bit values in the
 * adapter's little-endian order). Index i belongs to mask bit i.
 * Prescaler  timer clock divider, 1..65535.
 * Precision  period in timer counts, 1..65535.
 * Pulse      high time in timer counts (0 = always low, >= Precision = always high).
 * Phase      delay of the output's first edge, in timer counts.
 * Polarity   0: high for Pulse counts; 1: inverted.
 * ChannelMask outputs this configuration applies to.
 * Reserved   sent as 0 by PWM2_Init. */
typedef struct {
  unsigned short Prescaler[8];
  unsigned short Precision[8];
  unsigned short Pulse[8];
  unsigned short Phase[8];
  unsigned char Polarity[8];
  unsigned char ChannelMask;
  unsigned char Reserved;
} PWM_CONFIG;

VELTRIX_STATIC_ASSERT(sizeof(PWM_CONFIG) == 74, "PWM_CONFIG is 74 bytes");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, Prescaler) == 0, "PWM_CONFIG.Prescaler");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, Precision) == 16, "PWM_CONFIG.Precision");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, Pulse) == 32, "PWM_CONFIG.Pulse");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, Phase) == 48, "PWM_CONFIG.Phase");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, Polarity) == 64, "PWM_CONFIG.Polarity");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, ChannelMask) == 72, "PWM_CONFIG.ChannelMask");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CONFIG, Reserved) == 73, "PWM_CONFIG.Reserved");

/* What the capture input measured over the last whole period of its signal.
 * PeriodTicks  length of one period in capture timer counts (0: no edges seen).
 * HighTicks    high time within that period, in the same counts.
 * ClockHz      the capture timer's clock: frequency = ClockHz / PeriodTicks. */
typedef struct {
  unsigned int PeriodTicks;
  unsigned int HighTicks;
  unsigned int ClockHz;
} PWM_CAP_DATA;

VELTRIX_STATIC_ASSERT(sizeof(PWM_CAP_DATA) == 12, "PWM_CAP_DATA is 12 bytes");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CAP_DATA, PeriodTicks) == 0, "PWM_CAP_DATA.PeriodTicks");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CAP_DATA, HighTicks) == 4, "PWM_CAP_DATA.HighTicks");
VELTRIX_STATIC_ASSERT(offsetof(PWM_CAP_DATA, ClockHz) == 8, "PWM_CAP_DATA.ClockHz");

/* Capture modes of PWM_CAP_Init. */
#define PWM_CAP_MODE_STOP 0
#define PWM_CAP_MODE_PERIOD 1 /* period and high time */

/* Sends the configuration. pConfig: not NULL. Returns 0, -1, -2, -4. */
VELTRIX_API int PWM_Init(unsigned int DevHandle, const PWM_CONFIG* pConfig);
/* Starts the masked outputs for RunTimeUs microseconds (0: until stopped). */
VELTRIX_API int PWM_Start(unsigned int DevHandle, unsigned char ChannelMask,
                          unsigned int RunTimeUs);
VELTRIX_API int PWM_Stop(unsigned int DevHandle, unsigned char ChannelMask);
/* Pulse, frequency and phase of the masked outputs; each array holds 8 values (index =
 * mask bit), all sent; the adapter applies only the masked ones. Arrays: not NULL. */
VELTRIX_API int PWM_SetPulse(unsigned int DevHandle, unsigned char ChannelMask,
                             const unsigned short* pPulse);
VELTRIX_API int PWM_SetFrequency(unsigned int DevHandle, unsigned char ChannelMask,
                                 const unsigned short* pPrescaler,
                                 const unsigned short* pPrecision);
VELTRIX_API int PWM_SetPhase(unsigned int DevHandle, unsigned char ChannelMask,
                             const unsigned short* pPhase);

/* Model tables (no adapter traffic). The mask of output Channel on this model (0 for an
 * unknown model or a channel the model lacks); the position 0..7 of that mask's lowest set
 * bit (0 for an empty mask); the model's PWM timer clock in Hz (0 for an unknown model). */
VELTRIX_API unsigned char PWM_GetChannelMask(unsigned int DevHandle, unsigned char Channel);
VELTRIX_API int PWM_GetChannelIndex(unsigned int DevHandle, unsigned char Channel);
VELTRIX_API unsigned int PWM_GetMCUFrequency(unsigned int DevHandle);

/* Capture input CapIndex: start measuring (PWM_CAP_MODE_PERIOD) or stop (..._STOP). */
VELTRIX_API int PWM_CAP_Init(unsigned int DevHandle, unsigned char CapIndex, unsigned char Mode);
/* The latest measurement into *pData (not NULL; written only on success). A reply other
 * than 12 bytes is -4. */
VELTRIX_API int PWM_CAP_GetData(unsigned int DevHandle, unsigned char CapIndex,
                                PWM_CAP_DATA* pData);

/* Timer settings for FrequencyHz on this model, without talking to the adapter.
 * Outputs (each may be NULL): the prescaler and period chosen, and the frequency they give.
 * Returns 0, -1 (unknown handle), -5 (unknown model), -6. */
VELTRIX_API int PWM2_GetTiming(unsigned int DevHandle, double FrequencyHz,
                               unsigned short* pPrescaler, unsigned short* pPeriod,
                               double* pActualHz);
/* Configures output Channel at FrequencyHz and DutyCycle percent (0..100) and remembers the
 * period for PWM2_SetDutyCycle. pActualHz (may be NULL) receives the frequency reached.
 * Returns 0, -1, -2, -4, -5, -6, -7. */
VELTRIX_API int PWM2_Init(unsigned int DevHandle, unsigned char Channel, double FrequencyHz,
                          double DutyCycle, unsigned char Polarity, double* pActualHz);
/* Starts the output for RunTimeUs (0: until stopped). Returns 0, -1, -2, -4, -5. */
VELTRIX_API int PWM2_Start(unsigned int DevHandle, unsigned char Channel, unsigned int RunTimeUs);
/* Pulse = round(period x DutyCycle / 100) with the period of the last PWM2_Init or
 * PWM2_SetFrequency of this channel (-6 if there was none). Returns 0, -1, -2, -4..-7. */
VELTRIX_API int PWM2_SetDutyCycle(unsigned int DevHandle, unsigned char Channel, double DutyCycle);
/* New frequency, keeping the duty cycle of the last PWM2_Init/SetDutyCycle (50 % if none).
 * pActualHz may be NULL. Returns 0, -1, -2, -4, -5, -6. */
VELTRIX_API int PWM2_SetFrequency(unsigned int DevHandle, unsigned char Channel, double FrequencyHz,
                                  double* pActualHz);
VELTRIX_API int PWM2_Stop(unsigned int DevHandle, unsigned char Channel);

VELTRIX_EXTERN_C_END

#endif
