/*
 * tavik_virtual.x86_64.umd: the kit's camera emulator, a user-mode driver module
 * that serves TAVIK_DRIVER_TYPE_VIRTUAL. This header is what a core, a test or a
 * benchmark needs to talk to an emulated camera: the argument records of the
 * request codes it answers, the payload of its notifications and the layout of
 * its frames.
 *
 * Configuration (read once, by the module's init):
 *   TAVIK_VIRTUAL_CAMERAS  number of cameras, 1 to 16; unset or empty gives 1.
 *   TAVIK_VIRTUAL_FPS      frame rate in frames per second, 1 to 10000; unset or
 *                          empty gives 10.
 * A value that is not a plain decimal number in range falls back to the default
 * and prints one line on standard error naming the variable and the value used.
 *
 * Cameras are named "tavikSW_<index>" and carry the path "virtual:tavikSW_<index>".
 *
 * Device operations follow the kernel devices' state rules: open only when closed
 * ("Device already open"), close only when open ("Device already closed"), read,
 * write and request codes only when open ("Invalid file handle"); each of these
 * returns KZ_ERR_STATE_INVALID. Closing a camera aborts its acquisition.
 *
 * Acquisition: TAVIK_IOC_ACQ_SET_ACTIVE starts a frame clock. Frame n (numbered
 * from 1 in every acquisition) is due n frame periods after the request; when it
 * is due the camera queues NOTIFICATION_BOF for n, stores the frame as the latest
 * frame, and queues NOTIFICATION_EOF for n. A clock that fell behind (the host was
 * busy) catches up without bursts: a frame comes at its due time but never sooner
 * than half a period after the previous one, so frame numbers never skip and each
 * frame stays the latest for at least half a period. Time stamps stay nominal.
 * The acquisition runs until TAVIK_IOC_ACQ_ABORT, close, or the frame limit of
 * the setup record, after which NOTIFICATION_COMPLETE is queued.
 *
 * Notifications are queued only while the camera's notification thread runs
 * (start_notif_thread to stop_notif_thread); the queue holds
 * TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY records. When it is full a frame's BOF/EOF
 * pair is dropped whole and counted in tavik_virtual_acq_status.frames_dropped.
 * Stopping the thread discards what was still queued.
 *
 * read copies the first min(data_bytes, TAVIK_VIRTUAL_FRAME_BYTES) bytes of the
 * latest frame, every call from offset 0, and never returns a torn frame. While
 * the notification thread runs, the latest frame is the one whose EOF was handed
 * to the callback last (the camera keeps its last 8 frames), so a reader that
 * reads on EOF gets that frame even when its callback runs late; before any EOF
 * went out it is the newest frame. Before the first frame of an acquisition read
 * succeeds with 0 bytes. write accepts and
 * discards the bytes (the emulated camera has no command channel).
 */
#ifndef TAVIK_VIRTUAL_H
#define TAVIK_VIRTUAL_H

#include <tavik/tavik_driver.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TAVIK_VIRTUAL_MODULE_NAME "tavik_virtual.x86_64.umd"
#define TAVIK_VIRTUAL_ENV_CAMERAS "TAVIK_VIRTUAL_CAMERAS"
#define TAVIK_VIRTUAL_ENV_FPS "TAVIK_VIRTUAL_FPS"

#define TAVIK_VIRTUAL_MIN_CAMERAS 1
#define TAVIK_VIRTUAL_MAX_CAMERAS 16
#define TAVIK_VIRTUAL_DEFAULT_CAMERAS 1
#define TAVIK_VIRTUAL_MIN_FPS 1
#define TAVIK_VIRTUAL_MAX_FPS 10000
#define TAVIK_VIRTUAL_DEFAULT_FPS 10

#define TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY 256

/* TAVIK_IOC_GET_DRIVER_API_VERSION (4 bytes): uns32, major << 16 | minor. */
#define TAVIK_VIRTUAL_DRIVER_API_VERSION 0x00010000u
/* TAVIK_IOC_GET_DRIVER_VERSION (2 bytes): uns16, major << 8 | minor. */
#define TAVIK_VIRTUAL_DRIVER_VERSION 0x0100u
/* TAVIK_IOC_GET_DRIVER_CAPABILITIES (2 bytes): uns16 bit set, the kit's driver
 * capability bits. The emulator has no circular buffer (bits 1 and 2 clear) and
 * sends NOTIFICATION_COMPLETE at the end of a limited acquisition (bit 4). */
#define TAVIK_VIRTUAL_DRIVERCAPS_NOTIF_COMPLETE 0x0004u
#define TAVIK_VIRTUAL_DRIVER_CAPABILITIES TAVIK_VIRTUAL_DRIVERCAPS_NOTIF_COMPLETE

/* TAVIK_IOC_GET_CURRENT_TIME_STAMP (8 bytes): uns64, microseconds of the system's
 * monotonic clock (CLOCK_MONOTONIC), the clock of every time stamp below. */

/* TAVIK_IOC_ACQ_SET_ACTIVE argument, 32 bytes, written by the caller. */
typedef struct tavik_virtual_acq_setup {
  uns32 frame_limit; /* frames to produce, then NOTIFICATION_COMPLETE; 0 = until abort */
  uns32 fps;         /* frame rate for this acquisition; 0 = the module's configured rate */
  uns8 reserved[24]; /* must be zero */
} tavik_virtual_acq_setup;

/* TAVIK_IOC_ACQ_GET_STATUS argument, 16 bytes, filled by the camera. */
typedef struct tavik_virtual_acq_status {
  uint64_t frame_count; /* frames emitted by the running or the last acquisition */
  uns32 status;         /* E_TAVIK_DDI_STATUS, see below */
  uns32 frames_dropped; /* BOF/EOF pairs not queued because the queue was full */
} tavik_virtual_acq_status;
/* status: EXP_ST_NO_DATA_A (active, no frame yet), EXP_ST_COLLECT_OK_A (active,
 * frames emitted), EXP_ST_NO_DATA_I (inactive, no frame emitted since open),
 * EXP_ST_COLLECT_DONE_I (inactive after an acquisition that emitted frames). */

/* Payload of every notification the emulator sends (bytes 8 to 31 of tavik_notif).
 * For NOTIFICATION_COMPLETE, frame_number is the last frame of the acquisition. */
typedef struct tavik_virtual_notif_payload {
  uint64_t frame_number;  /* 1 for the first frame of an acquisition */
  uint64_t time_stamp_us; /* nominal time of the frame: start + frame_number periods */
  uns32 camera_index;     /* 0 for tavikSW_0 */
  uns32 reserved;         /* zero */
} tavik_virtual_notif_payload;

/* A frame is TAVIK_VIRTUAL_FRAME_BYTES bytes: this 32-byte header, then
 * TAVIK_VIRTUAL_FRAME_WORDS little-endian uns16 pixels where pixel j of frame n
 * is (uns16)(n * 7 + j). A frame whose header or pixels disagree with its own
 * frame_number is torn; one whose frame_number differs from the EOF that
 * announced it was overtaken by a later frame before it was read. */
#define TAVIK_VIRTUAL_FRAME_BYTES 8192u
typedef struct tavik_virtual_frame_header {
  uint64_t frame_number;  /* as in the notification payload */
  uint64_t time_stamp_us; /* as in the notification payload */
  uns32 camera_index;
  uns32 frame_bytes;      /* TAVIK_VIRTUAL_FRAME_BYTES */
  uint64_t check;         /* ~frame_number */
} tavik_virtual_frame_header;
#define TAVIK_VIRTUAL_FRAME_WORDS ((TAVIK_VIRTUAL_FRAME_BYTES - sizeof(tavik_virtual_frame_header)) / 2u)

static inline uns16 tavik_virtual_frame_pixel(uint64_t frame_number, uns32 j) {
  return (uns16)(frame_number * 7u + j);
}

TAVIK_STATIC_ASSERT(sizeof(tavik_virtual_acq_setup) == 32, "setup record is 32 bytes");
TAVIK_STATIC_ASSERT(sizeof(tavik_virtual_acq_status) == 16, "status record is 16 bytes");
TAVIK_STATIC_ASSERT(sizeof(tavik_virtual_notif_payload) == 24, "payload is 24 bytes");
TAVIK_STATIC_ASSERT(sizeof(tavik_virtual_frame_header) == 32, "frame header is 32 bytes");

#ifdef __cplusplus
}
#endif

#endif /* TAVIK_VIRTUAL_H */
