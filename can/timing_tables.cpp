// The bit-timing tables, as constant data. Values are SJW, Seg1, Seg2, Prescaler, rate.
// The rates are nominal: 900000 on the 100 MHz table is really 892857 bit/s and 666000 is
// 666667. Row 19 of the 100 MHz table (80000) has Seg1 1 and Seg2 3 on purpose.
#include "can/timing_tables.hpp"

#include "veltrix/canfd.h"

extern "C" {

// 100 MHz controllers.
const CAN_TIMING_ENTRY CAN_BRT_VELTRIX[30] = {
    {2, 14, 5, 5, 1000000},
    {1, 2, 1, 28, 900000},
    {1, 3, 1, 25, 800000},
    {2, 7, 2, 15, 666000},
    {1, 4, 1, 28, 600000},
    {2, 14, 5, 10, 500000},
    {1, 8, 1, 25, 400000},
    {1, 7, 1, 37, 300000},
    {2, 14, 5, 20, 250000},
    {1, 3, 1, 89, 225000},
    {1, 14, 5, 25, 200000},
    {1, 6, 1, 78, 160000},
    {1, 16, 6, 29, 150000},
    {1, 6, 1, 87, 144000},
    {2, 14, 5, 40, 125000},
    {1, 6, 1, 104, 120000},
    {2, 14, 5, 50, 100000},
    {1, 6, 1, 63, 90000},
    {1, 6, 1, 150, 83000},
    {1, 1, 3, 278, 80000},
    {1, 6, 1, 167, 75000},
    {1, 6, 1, 208, 60000},
    {1, 6, 1, 250, 50000},
    {1, 6, 1, 312, 40000},
    {1, 6, 1, 375, 33000},
    {1, 6, 1, 417, 30000},
    {1, 6, 1, 625, 20000},
    {1, 13, 2, 625, 10000},
    {1, 16, 3, 1000, 5000},
    {0, 0, 0, 0, 0},
};

// 42 MHz controllers.
const CAN_TIMING_ENTRY CAN_BRT_KORVANE[30] = {
    {2, 15, 5, 2, 1000000},
    {2, 16, 6, 2, 900000},
    {2, 9, 3, 4, 800000},
    {2, 16, 4, 3, 666000},
    {2, 10, 3, 5, 600000},
    {2, 15, 5, 4, 500000},
    {2, 12, 2, 7, 400000},
    {2, 11, 2, 10, 300000},
    {2, 15, 5, 8, 250000},
    {2, 14, 2, 11, 225000},
    {2, 15, 5, 10, 200000},
    {1, 6, 1, 33, 160000},
    {2, 11, 2, 20, 150000},
    {1, 3, 1, 58, 144000},
    {2, 11, 4, 21, 125000},
    {2, 11, 2, 25, 120000},
    {2, 15, 5, 20, 100000},
    {2, 15, 2, 26, 90000},
    {2, 11, 2, 36, 83000},
    {2, 12, 2, 35, 80000},
    {2, 16, 3, 28, 75000},
    {2, 16, 3, 35, 60000},
    {2, 16, 3, 42, 50000},
    {2, 12, 2, 70, 40000},
    {2, 13, 2, 79, 33000},
    {2, 11, 2, 100, 30000},
    {2, 12, 2, 140, 20000},
    {2, 16, 3, 210, 10000},
    {2, 13, 2, 525, 5000},
    {0, 0, 0, 0, 0},
};

// Nominal phase of the 40 MHz CAN FD controllers.
const CAN_TIMING_ENTRY CAN_BRT_MIRADEL_NBT[17] = {
    {2, 29, 10, 1, 1000000},
    {2, 37, 12, 1, 800000},
    {2, 44, 15, 1, 666000},
    {2, 59, 20, 1, 500000},
    {2, 74, 25, 1, 400000},
    {2, 99, 33, 1, 300000},
    {2, 119, 40, 1, 250000},
    {2, 149, 50, 1, 200000},
    {2, 199, 67, 1, 150000},
    {2, 119, 40, 2, 125000},
    {2, 74, 25, 4, 100000},
    {2, 119, 40, 3, 83000},
    {2, 149, 50, 4, 50000},
    {2, 149, 50, 6, 33000},
    {2, 248, 84, 6, 20000},
    {2, 183, 66, 16, 10000},
    {0, 0, 0, 0, 0},
};

// Data phase of the CAN FD controllers (40 MHz): the same clock, so rates up to 10 Mbit/s
// need a prescaler of 1 and short segments.
const CAN_TIMING_ENTRY CAN_BRT_MIRADEL_DBT[23] = {
    {1, 2, 1, 1, 10000000},  {1, 3, 1, 1, 8000000},  {1, 4, 1, 1, 6700000},
    {2, 5, 2, 1, 5000000},   {2, 7, 2, 1, 4000000},  {2, 9, 3, 1, 3000000},
    {2, 14, 5, 1, 2000000},  {2, 19, 6, 1, 1500000}, {2, 29, 10, 1, 1000000},
    {2, 18, 6, 2, 800000},   {2, 14, 5, 3, 666000},  {2, 29, 10, 2, 500000},
    {2, 14, 5, 5, 400000},   {2, 13, 5, 7, 300000},  {2, 29, 10, 4, 250000},
    {2, 29, 10, 5, 200000},  {2, 28, 9, 7, 150000},  {2, 29, 10, 8, 125000},
    {2, 29, 10, 10, 100000}, {2, 29, 10, 20, 50000}, {2, 29, 10, 50, 20000},
    {2, 29, 10, 100, 10000}, {0, 0, 0, 0, 0},
};

// The compatibility layer's tables. Two are the same objects as the tables above under
// their second names; the 42 MHz one is a real copy with its own 800000 and 600000 rows.
extern const CAN_TIMING_ENTRY CAN_BaudRate_VELTRIX[30] __attribute__((alias("CAN_BRT_VELTRIX")));

const CAN_TIMING_ENTRY CAN_BaudRate_KORVANE[30] = {
    {2, 15, 5, 2, 1000000},
    {2, 16, 6, 2, 900000},
    {1, 2, 1, 13, 800000},
    {2, 16, 4, 3, 666000},
    {2, 7, 2, 7, 600000},
    {2, 15, 5, 4, 500000},
    {2, 12, 2, 7, 400000},
    {2, 11, 2, 10, 300000},
    {2, 15, 5, 8, 250000},
    {2, 14, 2, 11, 225000},
    {2, 15, 5, 10, 200000},
    {1, 6, 1, 33, 160000},
    {2, 11, 2, 20, 150000},
    {1, 3, 1, 58, 144000},
    {2, 11, 4, 21, 125000},
    {2, 11, 2, 25, 120000},
    {2, 15, 5, 20, 100000},
    {2, 15, 2, 26, 90000},
    {2, 11, 2, 36, 83000},
    {2, 12, 2, 35, 80000},
    {2, 16, 3, 28, 75000},
    {2, 16, 3, 35, 60000},
    {2, 16, 3, 42, 50000},
    {2, 12, 2, 70, 40000},
    {2, 13, 2, 79, 33000},
    {2, 11, 2, 100, 30000},
    {2, 12, 2, 140, 20000},
    {2, 16, 3, 210, 10000},
    {2, 13, 2, 525, 5000},
    {0, 0, 0, 0, 0},
};

extern const CAN_TIMING_ENTRY CAN_BaudRate_MIRADEL_NBT[17] __attribute__((alias("CAN_BRT_MIRADEL_NBT")));

// Rate in kbit/s and the two timing-register bytes of the older 16 MHz controllers.
const CAN_BTR_ENTRY CAN_BaudRate_BTR[16] = {
    {5, 0xBF, 0xFF, {0, 0}},
    {10, 0x31, 0x1C, {0, 0}},
    {20, 0x18, 0x1C, {0, 0}},
    {40, 0x87, 0xFF, {0, 0}},
    {50, 0x09, 0x1C, {0, 0}},
    {80, 0x83, 0xFF, {0, 0}},
    {100, 0x04, 0x1C, {0, 0}},
    {125, 0x03, 0x1C, {0, 0}},
    {200, 0x81, 0xFA, {0, 0}},
    {225, 0x81, 0xF0, {0, 0}},
    {250, 0x01, 0x1C, {0, 0}},
    {400, 0x80, 0xFA, {0, 0}},
    {500, 0x00, 0x1C, {0, 0}},
    {666, 0x80, 0xB6, {0, 0}},
    {800, 0x00, 0x16, {0, 0}},
    {1000, 0x00, 0x14, {0, 0}},
};

}  // extern "C"

namespace veltrix::can {

const CAN_TIMING_ENTRY* timing_table_for(uint32_t handle) {
  switch (handle & 0xF0000000u) {
    case 0x50000000u: return CAN_BRT_MIRADEL_NBT;
    case 0x40000000u: return CAN_BRT_KORVANE;
    default: return CAN_BRT_VELTRIX;
  }
}

const CAN_TIMING_ENTRY* find_rate(const CAN_TIMING_ENTRY* table, uint32_t bit_rate) {
  // Every table ends with a row of rate 0, so a request for 0 finds nothing.
  for (const CAN_TIMING_ENTRY* row = table; row->BitRate != 0; ++row)
    if (row->BitRate == bit_rate) return row;
  return nullptr;
}

uint32_t btr_rate(uint8_t timing0, uint8_t timing1) {
  for (const CAN_BTR_ENTRY& row : CAN_BaudRate_BTR)
    if (row.Timing0 == timing0 && row.Timing1 == timing1) return row.BaudRateKbps * 1000;
  return 0;
}

}  // namespace veltrix::can
