/*
 * Driver and device records, their operation table and the notification protocol.
 * This is what a user-mode driver module compiles against: it exports "init",
 * "uninit" and "type" with the signatures of the tavik_driver function fields.
 */
#ifndef TAVIK_DRIVER_H
#define TAVIK_DRIVER_H

#include <stddef.h>
#include <tavik/tavik_errors.h>
#include <tavik/tavik_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bus type; also the index into the Ddi record's driver slots. */
typedef enum _KZ_DRIVER_TYPE TAVIK_ENUM_BASE(uint32_t) {
  TAVIK_DRIVER_TYPE_PCI = 0,
  TAVIK_DRIVER_TYPE_PCIE = 1,
  TAVIK_DRIVER_TYPE_USB = 2,
  TAVIK_DRIVER_TYPE_1394 = 3,
  TAVIK_DRIVER_TYPE_VIRTUAL = 4
} E_TAVIK_DRIVER_TYPE;

#define TAVIK_DRIVER_TYPE_COUNT 5

typedef enum _KZ_DRIVER_MODE TAVIK_ENUM_BASE(uint32_t) {
  TAVIK_DRIVER_MODE_USER = 0,
  TAVIK_DRIVER_MODE_KERNEL = 1
} E_TAVIK_DRIVER_MODE;

typedef enum _KZ_CAM_STATE TAVIK_ENUM_BASE(uint32_t) {
  TAVIK_CAM_STATE_CLOSED = 0,
  TAVIK_CAM_STATE_OPEN = 1,
  TAVIK_CAM_STATE_REMOVED = 2,
  TAVIK_CAM_STATE_SUSPENDED = 3,
  TAVIK_CAM_STATE_RESUMED = 4
} E_TAVIK_CAM_STATE;

typedef enum _KZ_DDI_STATUS TAVIK_ENUM_BASE(uint32_t) {
  CAM_STATUS_SUCCESS = 0,
  EXP_ST_NO_DATA_A = 100,
  EXP_ST_NO_DATA_I = 101,
  EXP_ST_COLLECT_OK_A = 102,
  EXP_ST_COLLECT_DONE_I = 103,
  EXP_ST_FIFO_OVER_A = 104,
  EXP_ST_FIFO_OVER_I = 105,
  EXP_ST_NULL_0_A = 106,
  EXP_ST_EXTRA_DATA_I = 107,
  EXP_ST_NO_ACK_A = 108,
  EXP_ST_NO_ACK_I = 109,
  EXP_ST_XFER_ERR_A = 110,
  EXP_ST_XFER_ERR_I = 111,
  EXP_ST_NULL_1_A = 112,
  EXP_ST_UNKNOWN = 113,
  EXP_ST_NULL_2_A = 114,
  EXP_ST_MISSING_DATA_I = 115,
  EXP_ST_NULL_3_A = 116,
  EXP_ST_EMPTY_DATA_I = 117
} E_TAVIK_DDI_STATUS;

/* Request codes, Linux _IOC encoding with type character '='. */
typedef enum _KZ_IOCTL TAVIK_ENUM_BASE(uint32_t) {
  TAVIK_IOC_GET_DRIVER_API_VERSION = 0x80043D00u,
  TAVIK_IOC_CAM_POST_OPEN = 0x00003D01u,
  TAVIK_IOC_CAM_PRE_CLOSE = 0x00003D02u,
  TAVIK_IOC_ACQ_SET_ACTIVE = 0x40203D0Au,
  TAVIK_IOC_ACQ_GET_STATUS = 0x80103D0Bu,
  TAVIK_IOC_ACQ_ABORT = 0x00003D0Cu,
  TAVIK_IOC_STOP_DATA_TRANSFER = 0x40043D0Du,
  TAVIK_IOC_CLEAR_IRQS = 0x00003D14u,
  TAVIK_IOC_GET_IRQS = 0x80083D15u,
  TAVIK_IOC_FLUSH_NOTIFICATIONS = 0x00003D1Eu,
  TAVIK_IOC_GET_NOTIFICATIONS = 0xC0103D1Fu,
  TAVIK_IOC_CONFIRM_EOF_NOTIFICATION = 0x00003D20u,
  TAVIK_IOC_RESET_INTERFACE = 0x00003D28u,
  TAVIK_IOC_GET_CURRENT_TIME_STAMP = 0x80083D32u,
  TAVIK_IOC_GET_DRIVER_VERSION = 0x80023D3Cu,
  TAVIK_IOC_GET_DRIVER_CAPABILITIES = 0x80023D3Du,
  TAVIK_IOC_GET_PCI_FW_REVISION = 0x80023D3Eu,
  TAVIK_IOC_GET_BRIDGE_CAPABILITIES_SIZE = 0x80043D3Fu,
  TAVIK_IOC_GET_BRIDGE_CAPABILITIES = 0x80083D40u,
  TAVIK_IOC_DRIVER_DEBUG_COMMAND = 0xC0283D63u,
  TAVIK_IOC_GET_INFO_DUMP = 0x80083D64u,
  TAVIK_IOC_GET_INFO_LENGTH = 0x80023D65u,
  TAVIK_IOC_GET_MAX_RETRIES = 0x80023D6Eu,
  TAVIK_IOC_SET_MAX_RETRIES = 0x40023D6Fu,
  TAVIK_IOC_GET_MAX_TIMEOUT = 0x80023D78u,
  TAVIK_IOC_SET_MAX_TIMEOUT = 0x40023D79u
} E_TAVIK_IOCTL;

/* Notification codes, a bit set. */
typedef enum _KZ_NOTIF TAVIK_ENUM_BASE(uint32_t) {
  NOTIFICATION_DEVICE_REMOVAL = 0x00000001u,
  NOTIFICATION_BUS_RESET = 0x00000002u,
  NOTIFICATION_BOF = 0x00000004u,
  NOTIFICATION_EOF = 0x00000008u,
  NOTIFICATION_BOF_EOF = 0x0000000Cu,
  NOTIFICATION_SYS_SUSPEND = 0x00000010u,
  NOTIFICATION_COMPLETE = 0x00000020u,
  NOTIFICATION_ACK_SEND = 0x10000000u,
  NOTIFICATION_ACK_RECEIVE = 0x20000000u,
  NOTIFICATION_ACK_ABORT = 0x40000000u,
  NOTIFICATION_ACK_FLUSH = 0x80000000u
} E_TAVIK_NOTIF;

#define TAVIK_NOTIF_KNOWN_MASK 0xF000003Fu
#define TAVIK_NOTIF_LIST_CAPACITY 50

/* One notification as exchanged with the kernel driver: 32 bytes, little-endian. */
typedef struct tavik_notif {
  uns16 size;    /* 32 */
  uns16 version; /* 1 */
  uns32 type;    /* E_TAVIK_NOTIF */
  uns8 payload[24];
} tavik_notif;

/* Argument of TAVIK_IOC_GET_NOTIFICATIONS: a 16-byte header and 50 records. */
typedef struct tavik_notif_list {
  uns16 capacity;
  uns16 count;
  uns8 reserved[12];
  tavik_notif notifications[TAVIK_NOTIF_LIST_CAPACITY];
} tavik_notif_list;

struct tavik_driver;
struct tavik_driver_device;
/* Private per-device state of the driver that created the device; opaque to everyone else. */
struct tavik_driver_device_private;

typedef struct tavik_driver tavik_driver;
typedef struct tavik_driver_device tavik_driver_device;
typedef struct tavik_driver_device_private tavik_driver_device_private;

/* Called on the notification thread; the record is valid only during the call. */
typedef int16 (*tavik_dcb_invoke_callback_fn)(tavik_driver_device* device, tavik_notif* notif);

typedef rs_bool (*tavik_driver_init_fn)(tavik_driver* driver);
typedef void (*tavik_driver_uninit_fn)(tavik_driver* driver);
typedef E_TAVIK_DRIVER_TYPE (*tavik_driver_type_fn)(void);

struct tavik_driver {
  void* handle;                    /* module handle of a user-mode driver, null for kernel mode */
  char file_path[256];             /* full path of the user-mode module */
  E_TAVIK_DRIVER_MODE mode;
  tavik_driver_device** device_list; /* null-terminated; owned by the driver */
  tavik_driver_init_fn init;
  tavik_driver_uninit_fn uninit;
  tavik_driver_type_fn type;
  uint64_t driver_word;            /* reserved for the driver's own use */
};

struct tavik_driver_device {
  tavik_driver* driver;
  char file_path[256];
  char name[32];
  int16 (*open)(tavik_driver_device* device);
  int16 (*close)(tavik_driver_device* device);
  int16 (*read)(tavik_driver_device* device, uns8* data, uns16 data_bytes, uns16* data_bytes_read);
  int16 (*write)(tavik_driver_device* device, const uns8* data, uns16 data_bytes,
                 uns16* data_bytes_written);
  int16 (*ioctl)(tavik_driver_device* device, uns32 request, void* arg);
  uns32 (*last_error_msg)(tavik_driver_device* device, char* buffer, uns32 size);
  int16 (*start_notif_thread)(tavik_driver_device* device, tavik_dcb_invoke_callback_fn callback);
  int16 (*stop_notif_thread)(tavik_driver_device* device);
  uint64_t device_word; /* reserved, created 0 */
  /* "private" is a keyword in C++, so C++ code sees the same field as private_. */
#ifdef __cplusplus
  tavik_driver_device_private* private_;
#else
  tavik_driver_device_private* private;
#endif
};

/* The layout is shared with modules and the core built by other compilers: pin it. */
#ifdef __cplusplus
#define TAVIK_STATIC_ASSERT static_assert
#else
#define TAVIK_STATIC_ASSERT _Static_assert
#endif
TAVIK_STATIC_ASSERT(sizeof(tavik_notif) == 32, "tavik_notif is 32 bytes");
TAVIK_STATIC_ASSERT(offsetof(tavik_notif, type) == 4, "tavik_notif.type at 4");
TAVIK_STATIC_ASSERT(offsetof(tavik_notif, payload) == 8, "tavik_notif.payload at 8");
TAVIK_STATIC_ASSERT(offsetof(tavik_notif_list, count) == 2, "tavik_notif_list.count at 2");
TAVIK_STATIC_ASSERT(offsetof(tavik_notif_list, notifications) == 16, "list header is 16 bytes");
TAVIK_STATIC_ASSERT(sizeof(tavik_notif_list) == 1616, "tavik_notif_list is 1616 bytes");
TAVIK_STATIC_ASSERT(sizeof(E_TAVIK_DRIVER_TYPE) == 4, "driver type is 32-bit");
TAVIK_STATIC_ASSERT(sizeof(E_TAVIK_DRIVER_MODE) == 4, "driver mode is 32-bit");
TAVIK_STATIC_ASSERT(offsetof(tavik_driver, file_path) == 8, "tavik_driver.file_path at 8");
TAVIK_STATIC_ASSERT(offsetof(tavik_driver, mode) == 264, "tavik_driver.mode at 264");
TAVIK_STATIC_ASSERT(offsetof(tavik_driver, device_list) == 272, "tavik_driver.device_list at 272");
TAVIK_STATIC_ASSERT(sizeof(tavik_driver) == 312, "tavik_driver is 312 bytes");
TAVIK_STATIC_ASSERT(offsetof(tavik_driver_device, file_path) == 8, "device.file_path at 8");
TAVIK_STATIC_ASSERT(offsetof(tavik_driver_device, name) == 264, "device.name at 264");
TAVIK_STATIC_ASSERT(offsetof(tavik_driver_device, open) == 296, "device.open at 296");
TAVIK_STATIC_ASSERT(sizeof(tavik_driver_device) == 376, "tavik_driver_device is 376 bytes");

#ifdef __cplusplus
}
#endif

#endif /* TAVIK_DRIVER_H */
