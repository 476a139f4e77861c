/* Everything of the VELTRIX interface in one include. */
#ifndef VELTRIX_VELTRIX_H
#define VELTRIX_VELTRIX_H

#include "veltrix/adc.h"
#include "veltrix/can.h"
#include "veltrix/can_uds.h"
#include "veltrix/canfd.h"
#include "veltrix/dbc.h"
#include "veltrix/device.h"
#include "veltrix/gpio.h"
#include "veltrix/i2c.h"
#include "veltrix/ldf.h"
#include "veltrix/lin.h"
#include "veltrix/lin_uds.h"
#include "veltrix/pwm.h"
#include "veltrix/spi.h"
#include "veltrix/uart.h"
#include "veltrix/usb_device.h"
#include "veltrix/vci.h"

#endif
