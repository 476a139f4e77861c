/* The VCI interface: a second CAN interface that addresses an adapter by device type,
 * device index (position in the list of adapters found by VCI_ScanDevice) and CAN index
 * (port 0 or 1), with its own records and the two-byte bit-timing convention. It drives
 * classic and CAN FD adapters through the CAN_ and CANFD_ families.
 *
 * Results are unsigned 32-bit: 1 success and 0 failure unless a function says otherwise.
 * Device types 3 (one port) and 4 (two ports) are served; any other type fails and, where
 * stated, stores VCI_ERR_DEVICE_TYPE in the error word of that device and port.
 * A device index of 30 or more, or a CAN index above 1, fails without touching state. */
#ifndef VELTRIX_VCI_H
#define VELTRIX_VCI_H

#include <stddef.h>
#include <stdint.h>

#include "veltrix/api.h"

VELTRIX_EXTERN_C_BEGIN

#define VCI_DEVICE_ONE_PORT 3
#define VCI_DEVICE_TWO_PORTS 4

/* Error codes kept in the error word (read with VCI_ReadErrInfo). */
#define VCI_ERR_DEVICE_TYPE 0x1000u /* the device type is not 3 or 4 */
#define VCI_ERR_OPEN 0x0200u        /* the adapter could not be opened */
#define VCI_ERR_CONFIG 0x4000u      /* initialisation, filter set-up or reception start failed */

#define VCI_OPEN_FAILED 512u    /* VCI_OpenDevice result when the adapter refuses to open */
#define VCI_INVALID 0xFFFFFFFFu /* VCI_Receive result for a bad device index or type */
#define VCI_QUEUE_SIZE 10000    /* frames kept per port; the oldest is dropped beyond */

/* Port configuration. */
typedef struct _VCI_INIT_CONFIG {
  uint32_t AccCode; /* acceptance code: identifier in bits 31..21 (standard) or 31..3 */
  uint32_t AccMask; /* acceptance mask: a 1 bit need not match */
  uint32_t Reserved;
  uint8_t Filter;  /* 0 no filter; non-zero use AccCode/AccMask */
  uint8_t Timing0; /* two-byte bit timing (see CAN_BaudRate_BTR) */
  uint8_t Timing1;
  uint8_t Mode; /* low 7 bits: 0 normal, 1 listen-only, 2 self-reception; bit 7 kept */
} VCI_INIT_CONFIG;
VELTRIX_STATIC_ASSERT(sizeof(VCI_INIT_CONFIG) == 16, "VCI_INIT_CONFIG is 16 bytes");
VELTRIX_STATIC_ASSERT(offsetof(VCI_INIT_CONFIG, AccMask) == 4, "VCI_INIT_CONFIG.AccMask");
VELTRIX_STATIC_ASSERT(offsetof(VCI_INIT_CONFIG, Filter) == 12, "VCI_INIT_CONFIG.Filter");
VELTRIX_STATIC_ASSERT(offsetof(VCI_INIT_CONFIG, Timing0) == 13, "VCI_INIT_CONFIG.Timing0");
VELTRIX_STATIC_ASSERT(offsetof(VCI_INIT_CONFIG, Mode) == 15, "VCI_INIT_CONFIG.Mode");

/* One classic frame. */
typedef struct _VCI_CAN_OBJ {
  uint32_t ID;        /* identifier, right-aligned */
  uint32_t TimeStamp; /* adapter time of a received frame, units of 100 microseconds */
  uint8_t TimeFlag;   /* 1 on received frames: TimeStamp is valid */
  uint8_t SendType;   /* transmit: 0/1 normal, 2/3 self-reception (switches the port) */
  uint8_t RemoteFlag; /* 1 remote frame */
  uint8_t ExternFlag; /* 1 29-bit identifier */
  uint8_t DataLen;    /* 0 to 8 */
  uint8_t Data[8];
  uint8_t Reserved[3];
} VCI_CAN_OBJ;
VELTRIX_STATIC_ASSERT(sizeof(VCI_CAN_OBJ) == 24, "VCI_CAN_OBJ is 24 bytes");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, TimeStamp) == 4, "VCI_CAN_OBJ.TimeStamp");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, TimeFlag) == 8, "VCI_CAN_OBJ.TimeFlag");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, SendType) == 9, "VCI_CAN_OBJ.SendType");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, RemoteFlag) == 10, "VCI_CAN_OBJ.RemoteFlag");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, ExternFlag) == 11, "VCI_CAN_OBJ.ExternFlag");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, DataLen) == 12, "VCI_CAN_OBJ.DataLen");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, Data) == 13, "VCI_CAN_OBJ.Data");
VELTRIX_STATIC_ASSERT(offsetof(VCI_CAN_OBJ, Reserved) == 21, "VCI_CAN_OBJ.Reserved");

/* Board description, a fixed record (80 bytes). */
typedef struct _VCI_BOARD_INFO {
  uint16_t HardwareVersion;  /* 0x0200 */
  uint16_t FirmwareVersion;  /* 0x0193 */
  uint16_t DriverVersion;    /* 0x0200 */
  uint16_t InterfaceVersion; /* 0x0173 */
  uint16_t IrqNumber;        /* 0 */
  uint8_t CanPortCount;      /* 1 for device type 3, 2 for type 4 */
  char SerialNumber[20];     /* "00070428" then 0x10 0x02 0x29 0x00 */
  char HardwareType[40];     /* "VELTRIX-CAN" */
  uint16_t Reserved[4];      /* not written */
} VCI_BOARD_INFO;
VELTRIX_STATIC_ASSERT(sizeof(VCI_BOARD_INFO) == 80, "VCI_BOARD_INFO is 80 bytes");
VELTRIX_STATIC_ASSERT(offsetof(VCI_BOARD_INFO, CanPortCount) == 10, "VCI_BOARD_INFO ports");
VELTRIX_STATIC_ASSERT(offsetof(VCI_BOARD_INFO, SerialNumber) == 11, "VCI_BOARD_INFO serial");
VELTRIX_STATIC_ASSERT(offsetof(VCI_BOARD_INFO, HardwareType) == 31, "VCI_BOARD_INFO type");
VELTRIX_STATIC_ASSERT(offsetof(VCI_BOARD_INFO, Reserved) == 72, "VCI_BOARD_INFO.Reserved");

/* Finds the adapters and refills the device-index list. Returns the number found (0 when
 * the USB layer fails). */
VELTRIX_API unsigned int VCI_ScanDevice(void);

/* Scans, then opens the adapter at DevIndex. Returns 1; 0 when DevIndex is not below the
 * number found (nothing stored) or the type is wrong (VCI_ERR_DEVICE_TYPE stored);
 * VCI_OPEN_FAILED (512) when the adapter does not open (VCI_ERR_OPEN stored). */
VELTRIX_API unsigned int VCI_OpenDevice(unsigned int DevType, unsigned int DevIndex,
                                        unsigned int Reserved);

/* Stops reception on both ports (VCI_ResetCAN); the USB device stays open. Returns 1
 * (0 for a device index of 30 or more). */
VELTRIX_API unsigned int VCI_CloseDevice(unsigned int DevType, unsigned int DevIndex);

/* Configures the port from pInitConfig (not NULL): the timing pair must be a row of
 * CAN_BaudRate_BTR, else 0 is returned without an error code and nothing is sent. A port
 * being received is stopped first. Classic adapters also get one acceptance rule from
 * AccCode/AccMask. Returns 1, or 0 (VCI_ERR_DEVICE_TYPE / VCI_ERR_CONFIG stored). The
 * record is copied; the caller keeps ownership. */
VELTRIX_API unsigned int VCI_InitCAN(unsigned int DevType, unsigned int DevIndex,
                                     unsigned int CANIndex, VCI_INIT_CONFIG* pInitConfig);

/* Starts reception of the port into its queue. Returns 1 (also when already started), or
 * 0 (VCI_ERR_DEVICE_TYPE / VCI_ERR_CONFIG stored). */
VELTRIX_API unsigned int VCI_StartCAN(unsigned int DevType, unsigned int DevIndex,
                                      unsigned int CANIndex);

/* Stops reception of the port; the queue keeps its frames. Returns 1, or 0 for a wrong
 * type (VCI_ERR_DEVICE_TYPE stored). */
VELTRIX_API unsigned int VCI_ResetCAN(unsigned int DevType, unsigned int DevIndex,
                                      unsigned int CANIndex);

/* Sends Len records of pSend (NULL only with Len 0). The first record's SendType switches
 * the port: 2 or 3 on a port in normal mode re-initialises it in self-reception mode; 0 or
 * 1 on a port in self-reception mode re-initialises it in normal mode. DataLen above 8
 * sends 8 bytes. Returns the number of frames the adapter accepted, or 0. */
VELTRIX_API unsigned int VCI_Transmit(unsigned int DevType, unsigned int DevIndex,
                                      unsigned int CANIndex, VCI_CAN_OBJ* pSend, unsigned int Len);

/* Moves up to Len queued frames of the port, oldest first, into pReceive (room for Len
 * records; NULL gives 0). WaitTime is ignored. Returns the count; 0 before any successful
 * VCI_InitCAN; VCI_INVALID for a device index of 30 or more, a CAN index above 1 or a
 * wrong type (VCI_ERR_DEVICE_TYPE stored). */
VELTRIX_API unsigned int VCI_Receive(unsigned int DevType, unsigned int DevIndex,
                                     unsigned int CANIndex, VCI_CAN_OBJ* pReceive, unsigned int Len,
                                     int WaitTime);

/* Frames waiting in the port's queue; 0 before any VCI_InitCAN or for a wrong type. */
VELTRIX_API unsigned int VCI_GetReceiveNum(unsigned int DevType, unsigned int DevIndex,
                                           unsigned int CANIndex);

/* Frames the port's queue discarded (oldest first) because it was full, since the process
 * started; 0 for a wrong type or index. */
VELTRIX_API unsigned int VCI_GetDroppedNum(unsigned int DevType, unsigned int DevIndex,
                                           unsigned int CANIndex);

/* Empties the port's queue (frames already received by the adapter included). Returns 1,
 * or 0 for a wrong type (VCI_ERR_DEVICE_TYPE stored). */
VELTRIX_API unsigned int VCI_ClearBuffer(unsigned int DevType, unsigned int DevIndex,
                                         unsigned int CANIndex);

/* Fills pInfo (not NULL) with the fixed board record; only the documented fields are
 * written. Returns 1, or 0 for a wrong type (VCI_ERR_DEVICE_TYPE stored) or NULL. */
VELTRIX_API unsigned int VCI_ReadBoardInfo(unsigned int DevType, unsigned int DevIndex,
                                           VCI_BOARD_INFO* pInfo);

/* Copies the port's 64-bit error word (low 32 bits: the last error code) into pErrInfo and
 * clears it. Type 3 always reads port 0. Returns 1; 0 for a wrong type, NULL, or a device
 * index outside 0..29 (nothing is read or written then). */
VELTRIX_API unsigned int VCI_ReadErrInfo(unsigned int DevType, unsigned int DevIndex,
                                         unsigned int CANIndex, uint64_t* pErrInfo);

/* Returns 1 for type 3 or 4, else 0; pStatus is not written. */
VELTRIX_API unsigned int VCI_ReadCANStatus(unsigned int DevType, unsigned int DevIndex,
                                           unsigned int CANIndex, void* pStatus);

/* Not supported: return 0 and do nothing. */
VELTRIX_API unsigned int VCI_GetReference(unsigned int DevType, unsigned int DevIndex,
                                          unsigned int CANIndex, unsigned int RefType, void* pData);
VELTRIX_API unsigned int VCI_SetReference(unsigned int DevType, unsigned int DevIndex,
                                          unsigned int CANIndex, unsigned int RefType, void* pData);

VELTRIX_EXTERN_C_END

#endif
