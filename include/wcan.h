// SPDX-License-Identifier: MIT
/* wcan: user-space driver library for USB-to-CAN and USB-to-CAN-FD adapters.
 *
 * Plain C interface (C99 and C++). Every call returns an int: 1 for success and
 * 0 for failure for control calls, a frame count for transmit and receive
 * calls. The reason for a failure is read with WCAN_GetLastError() or
 * WCAN_GetLastErrorStr(). The record layouts below are part of the binary
 * interface: little-endian, natural alignment, no packing.
 *
 * Safe use from several threads:
 * - A null record or buffer pointer is refused: the call returns 0 and the
 *   last error is 8 ("Parameter Error!"). Nothing is sent or lost.
 * - WCAN_Receive and WCAN_ReceiveFD with a count of 0 return 0 at once; a
 *   waitTime of -1 waits without limit, 0 does not wait.
 * - WCAN_CloseDevice returns promptly and wakes every thread blocked in a
 *   receive on that adapter; the receive returns what was queued, or 0. A
 *   call racing a close of its adapter on another thread either completes
 *   or fails with last error 7 ("Device Not Opened!").
 * - One adapter is opened once per process. Opening it again under another
 *   type number or index (types 41, 42 and 43 share USB ids) fails with last
 *   error 8; opening the same type and index again succeeds and changes
 *   nothing.
 * - An adapter that drops off the USB bus is reopened by the library (the
 *   same adapter, found by its serial number or its USB port) and its
 *   running channels are started again.
 */
#ifndef WCAN_H
#define WCAN_H

#ifdef __cplusplus
extern "C" {
#endif

/* Device type numbers: the first argument of every call. */
#define WCAN_DEV_USBCAN2_A 3u /* classic dual-channel adapter */
#define WCAN_DEV_USBCAN2_B 4u
#define WCAN_DEV_USBCANFD_41 41u /* CAN FD adapter, 2 channels */
#define WCAN_DEV_USBCANFD_42 42u
#define WCAN_DEV_USBCANFD_43 43u
#define WCAN_DEV_USBCANFD_64 64u /* CAN FD adapter, 4 channels */
#define WCAN_DEV_USBCANFD_65 65u
#define WCAN_DEV_USBCANFD_66 66u /* CAN FD adapter, 8 channels */
#define WCAN_DEV_USBCANFD_67 67u
#define WCAN_DEV_CANRECORD_61 61u /* CAN recorder, configuration only */
#define WCAN_DEV_CANRECORD_62 62u

/* Last-error codes (WCAN_GetLastError). */
#define WCAN_ERR_OK 0
#define WCAN_ERR_DEVICE_NOT_EXIST 1
#define WCAN_ERR_USB_TRANSPORT 3
#define WCAN_ERR_PACKAGE_FORMAT 4
#define WCAN_ERR_DEVICE_INFO_GET 5
#define WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED 6
#define WCAN_ERR_DEVICE_NOT_OPENED 7
#define WCAN_ERR_PARAMETER 8
#define WCAN_ERR_MEMORY_MALLOC 9
#define WCAN_ERR_PARAMETER_NOT_SUPPORTED 10
#define WCAN_ERR_BAUD_RATE_NOT_SUPPORTED 11
#define WCAN_ERR_USB_COMMAND 12
#define WCAN_ERR_CAN_NOT_INITIALIZED 13
#define WCAN_ERR_CAN_FORMAT 14

/* WCAN_GetReceiveNum frame kinds. */
#define WCAN_FRAMES_CAN 0
#define WCAN_FRAMES_CANFD 1
#define WCAN_FRAMES_ALL 2

/* _WCAN_CANFD_OBJ.fdFlags bits. */
#define WCAN_FDFLAG_BRS 0x08u
#define WCAN_FDFLAG_FDF 0x10u

/* Recorder commands (WCAN_RecordCmdExecute). */
#define WCAN_RECORD_FILTER_CLEAR 0u
#define WCAN_RECORD_FILTER_ADD 1u
#define WCAN_RECORD_FILTER_ENABLE 2u
#define WCAN_RECORD_FILTER_DISABLE 3u
#define WCAN_RECORD_FILTER_INFO_GET 4u
#define WCAN_RECORD_FILTER_SETTING_GET 5u

/* One classic CAN frame, 24 bytes. */
typedef struct _WCAN_CAN_OBJ {
  unsigned int id;        /* bits 0..28 */
  unsigned int timeStamp; /* device time stamp, microseconds */
  unsigned char rawFlag;
  unsigned char sendType;
  unsigned char remoteFlag; /* 0 data, 1 remote */
  unsigned char externFlag; /* 0 standard, 1 extended */
  unsigned char dataLen;    /* 0..8 */
  unsigned char reserved[3];
  unsigned char data[8];
} _WCAN_CAN_OBJ;

/* One CAN or CAN FD frame, 80 bytes. */
typedef struct _WCAN_CANFD_OBJ {
  unsigned int id;
  unsigned int timeStamp;
  unsigned char fdFlags; /* WCAN_FDFLAG_* */
  unsigned char sendType;
  unsigned char remoteFlag;
  unsigned char externFlag;
  unsigned char dataLen; /* 0..64 */
  unsigned char reserved[3];
  unsigned char data[64];
} _WCAN_CANFD_OBJ;

/* Classic channel initialisation, 16 bytes. */
typedef struct _WCAN_INIT_CONFIG {
  unsigned int param0;
  unsigned int param1;
  unsigned int param2;
  unsigned char param3;
  unsigned char timing0;
  unsigned char timing1;
  unsigned char mode; /* 0 normal, 1 listen-only */
} _WCAN_INIT_CONFIG;

/* CAN FD channel initialisation, 56 bytes. */
typedef struct _WCAN_INITFD_CONFIG {
  unsigned int abitRate;   /* bit/s; 0 selects abitTiming */
  unsigned int dbitRate;   /* bit/s */
  unsigned int abitTiming; /* custom timing word */
  unsigned int dbitTiming;
  unsigned char option0;
  unsigned char fdEnable; /* 0 classic CAN, otherwise CAN FD */
  unsigned char option1;
  unsigned char reserved[37];
} _WCAN_INITFD_CONFIG;

/* Board information, 76 bytes. serialNum is not NUL-terminated when all 20
 * characters are used. */
typedef struct _WCAN_BOARD_INFO {
  unsigned short hwVersion;
  unsigned short fwVersion;
  unsigned short extVersion0;
  unsigned short extVersion1;
  unsigned short auxWord;
  unsigned char canNum;
  char serialNum[20];
  char hwType[40];
  unsigned short reserved[2];
} _WCAN_BOARD_INFO;

/* One acceptance-filter range, 16 bytes. */
typedef struct _WCAN_FLITER_CONFIG {
  unsigned char filterCmd;
  unsigned char idMode;
  unsigned char idType;
  unsigned int startId;
  unsigned int endId;
  unsigned short filterIndex;
} _WCAN_FLITER_CONFIG;

/* Recorder filter summary, 4 bytes. */
typedef struct _WCAN_FLITER_INFO {
  unsigned short filterCount;
  unsigned char filterState;
} _WCAN_FLITER_INFO;

/* Recorder settings of one channel, 24 bytes. */
typedef struct _WCAN_RECORD_CONFIG {
  unsigned char reserved0;
  unsigned char recFlag1;
  unsigned char recFlag2;
  unsigned char recFlag3;
  unsigned char abitParam;
  unsigned char dbitParam;
  unsigned int abitTiming;
  unsigned int dbitTiming;
  unsigned char recOptFlag0;
  unsigned char recOptByte1;
  unsigned char recOptByte2;
  unsigned char recOptFlag1;
  unsigned char recOptByte3;
} _WCAN_RECORD_CONFIG;

int WCAN_OpenDevice(unsigned int devType, unsigned int devIndex);
int WCAN_CloseDevice(unsigned int devType, unsigned int devIndex);
int WCAN_BoardInfoGet(unsigned int devType, unsigned int devIndex, _WCAN_BOARD_INFO *pInfo);
int WCAN_ClearBuffer(unsigned int devType, unsigned int devIndex, unsigned int channel);
/* Sends up to 62 bytes of pData as a raw command and copies the adapter's
 * reply payload over pData, which must therefore hold 62 bytes whatever
 * dataLen is. Returns the length of the reply payload, 0 on failure. */
int WCAN_DataDirectTransfer(unsigned int devType, unsigned int devIndex, unsigned char *pData,
                            int dataLen);
int WCAN_SetFliter(unsigned int devType, unsigned int devIndex, unsigned int channel,
                   _WCAN_FLITER_CONFIG *pConfig);
int WCAN_GetReceiveNum(unsigned int devType, unsigned int devIndex, unsigned int channel,
                       unsigned char frameKind);
int WCAN_InitCAN(unsigned int devType, unsigned int devIndex, unsigned int channel,
                 _WCAN_INIT_CONFIG *pConfig);
int WCAN_InitCANFD(unsigned int devType, unsigned int devIndex, unsigned int channel,
                   _WCAN_INITFD_CONFIG *pConfig);
int WCAN_Start(unsigned int devType, unsigned int devIndex, unsigned int channel);
int WCAN_Stop(unsigned int devType, unsigned int devIndex, unsigned int channel);
int WCAN_Receive(unsigned int devType, unsigned int devIndex, unsigned int channel,
                 _WCAN_CAN_OBJ *pObjs, unsigned int count, int waitTime);
int WCAN_ReceiveFD(unsigned int devType, unsigned int devIndex, unsigned int channel,
                   _WCAN_CANFD_OBJ *pObjs, unsigned int count, int waitTime);
int WCAN_Transmit(unsigned int devType, unsigned int devIndex, unsigned int channel,
                  _WCAN_CAN_OBJ *pObjs, unsigned int count);
int WCAN_TransmitFD(unsigned int devType, unsigned int devIndex, unsigned int channel,
                    _WCAN_CANFD_OBJ *pObjs, unsigned int count);
int WCAN_RecordSettingSet(unsigned int devType, unsigned int devIndex, unsigned int channel,
                          _WCAN_RECORD_CONFIG *pConfig);
int WCAN_RecordSettingGet(unsigned int devType, unsigned int devIndex, unsigned int channel,
                          _WCAN_RECORD_CONFIG *pConfig);
int WCAN_RecordCmdExecute(unsigned int devType, unsigned int devIndex, unsigned int channel,
                          unsigned int cmd, _WCAN_FLITER_INFO *pFliterInfo,
                          _WCAN_FLITER_CONFIG *pFliterConfig);
int WCAN_RecordFliterClr(unsigned int devType, unsigned int devIndex, unsigned int channel);
int WCAN_RecordFliterAdd(unsigned int devType, unsigned int devIndex, unsigned int channel,
                         _WCAN_FLITER_CONFIG *pConfig);
int WCAN_RecordFliterEnable(unsigned int devType, unsigned int devIndex, unsigned int channel);
int WCAN_RecordFliterDisable(unsigned int devType, unsigned int devIndex, unsigned int channel);
int WCAN_RecordFliterInfoGet(unsigned int devType, unsigned int devIndex, unsigned int channel,
                             _WCAN_FLITER_INFO *pInfo);
int WCAN_RecordFliterSettingGet(unsigned int devType, unsigned int devIndex, unsigned int channel,
                                unsigned short filterIndex, _WCAN_FLITER_CONFIG *pConfig);
int WCAN_DevRelayStatusSet(unsigned int devType, unsigned int devIndex, unsigned char value0,
                           unsigned char value1);
int WCAN_DevRelayStatusGet(unsigned int devType, unsigned int devIndex, unsigned char *pValue0,
                           unsigned char *pValue1);
int WCAN_DevBaudParaGet(unsigned int devType, unsigned int devIndex, unsigned int channel,
                        unsigned char *pValue0, unsigned char *pValue1);
int WCAN_DevChStateGet(unsigned int devType, unsigned int devIndex, unsigned int channel,
                       unsigned char *pValue0, unsigned char *pValue1, unsigned char *pValue2);
int WCAN_GetLastError(void);
const char *WCAN_GetLastErrorStr(void);

/* ---- Extension: beyond the 30 calls of the interface above ----
 *
 * WCAN_GetReceiveEvent returns a file descriptor (an eventfd) that is
 * readable while the channel's receive queues hold frames, so a host can
 * wait for frames with poll, select, epoll or an event loop instead of
 * blocking in WCAN_Receive / WCAN_ReceiveFD. Reading frames until the queues
 * are empty makes it unreadable again. The descriptor belongs to the
 * library: do not read, write or close it. It stays open while the adapter
 * is open; WCAN_CloseDevice makes it readable (a host blocked in poll wakes
 * and finds the adapter gone) and then closes it. Returns -1 with last error
 * 7 when the adapter is not open, 8 for a channel it does not have. */
int WCAN_GetReceiveEvent(unsigned int devType, unsigned int devIndex, unsigned int channel);

#ifdef __cplusplus
}
#endif

#endif /* WCAN_H */
