/*
 * VELTRIX adapters: general-purpose pins.
 *
 * Pins are addressed by a 32-bit mask, bit n for pin n; an operation acts on every pin
 * whose bit is set. DevHandle: the adapter's handle from USB_ScanDevice; it must be open.
 * Each command and its reply are exchanged under the adapter's lock.
 *
 * Return codes of every function:
 *   GPIO_SUCCESS (0)         success
 *   GPIO_ERR_PARAMETER (-1)  handle not found or a NULL output pointer; nothing was sent
 *   GPIO_ERR_SEND (-2)       the command could not be sent
 *   GPIO_ERR_REPLY (-4)      no reply, a failed reply, or a reply of the wrong length
 */
#ifndef VELTRIX_GPIO_H
#define VELTRIX_GPIO_H

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

#define GPIO_SUCCESS 0
#define GPIO_ERR_PARAMETER (-1)
#define GPIO_ERR_SEND (-2)
#define GPIO_ERR_REPLY (-4)

/* Pull codes. */
#define GPIO_PUPD_NOPULL 0
#define GPIO_PUPD_UP 1
#define GPIO_PUPD_DOWN 2

/* Makes the pins inputs with the given pull. Returns 0, -1, -2, -4. */
VELTRIX_API int GPIO_SetInput(unsigned int DevHandle, unsigned int PinMask, unsigned char PuPd);
/* Makes the pins push-pull outputs. Returns 0, -1, -2, -4. */
VELTRIX_API int GPIO_SetOutput(unsigned int DevHandle, unsigned int PinMask, unsigned char PuPd);
/* Makes the pins open-drain outputs: a 0 pulls the line low, a 1 releases it to its pull
 * (or to whatever else drives it). Returns 0, -1, -2, -4. */
VELTRIX_API int GPIO_SetOpenDrain(unsigned int DevHandle, unsigned int PinMask, unsigned char PuPd);
/* Sets the output level of the masked pins to the matching bits of PinValue. */
VELTRIX_API int GPIO_Write(unsigned int DevHandle, unsigned int PinMask, unsigned int PinValue);
/* Reads the levels of the masked pins into *pPinValue (bit n = pin n; unmasked bits 0).
 * pPinValue: not NULL; written only on success. Returns 0, -1, -2, -4 (a reply that is not
 * exactly 4 bytes is -4). */
VELTRIX_API int GPIO_Read(unsigned int DevHandle, unsigned int PinMask, unsigned int* pPinValue);
/* Drives PulseCount pulses of PulseWidthUs high time every PulsePeriodUs on the masked output
 * pins and returns when they are done. A period not longer than the pulse width is sent as
 * width + 1. Returns 0, -1, -2, -4. */
VELTRIX_API int GPIO_SendPulses(unsigned int DevHandle, unsigned int PinMask,
                                unsigned int PulseWidthUs, unsigned int PulsePeriodUs,
                                unsigned int PulseCount);

VELTRIX_EXTERN_C_END

#endif
