// One emulated camera: its open state, its frame clock, its latest frame and its
// notification thread. The device record's eight operations land here.
//
// Threads: the caller's thread (device operations), a frame thread while an
// acquisition runs, and a notification thread between start and stop. The
// callback runs on the notification thread and may call back into the camera
// (read, request codes, even close); no lock is held while it runs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "tavik_virtual.h"

namespace tavik_virtual {

class VirtualCamera {
 public:
  VirtualCamera(tavik_driver_device* device, unsigned index, unsigned defaultFps);
  ~VirtualCamera();
  VirtualCamera(const VirtualCamera&) = delete;
  VirtualCamera& operator=(const VirtualCamera&) = delete;

  // The camera behind a device record, or null (with the last error set) when the
  // record is null or was not made by this module.
  static VirtualCamera* FromDevice(tavik_driver_device* device);
  tavik_driver_device_private* AsPrivate() {
    return reinterpret_cast<tavik_driver_device_private*>(this);
  }

  int16 Open();
  int16 Close();
  int16 Read(uns8* data, uns16 dataBytes, uns16* dataBytesRead);
  int16 Write(const uns8* data, uns16 dataBytes, uns16* dataBytesWritten);
  int16 Ioctl(uns32 request, void* arg);
  int16 StartNotifications(tavik_dcb_invoke_callback_fn callback);
  int16 StopNotifications();

  // Stops both threads and closes the camera; used before the record is freed.
  void Shutdown();

 private:
  static constexpr uint32_t kMagic = 0x56545643u;
  static constexpr unsigned kDeliveryBatch = 64;

  int16 SetActive(const void* arg);
  int16 Abort();
  void FillStatus(tavik_virtual_acq_status* status) const;
  void StopAcquisitionLocked();  // m_ctlMutex held
  void FrameLoop(uint64_t startNs, uint32_t fps, uint32_t frameLimit);
  void EmitFrame(uint64_t frameNumber, uint64_t stampUs);
  void WriteFrame(uint64_t frameNumber, uint64_t stampUs);
  // Queues one record if the notification thread runs; false when not queued.
  bool QueueLocked(uint32_t type, uint64_t frameNumber, uint64_t stampUs);
  void NotifyLoop(tavik_dcb_invoke_callback_fn callback);

  // First member, so that it sits at offset 0 where FromDevice looks for it
  // (with memcpy, which the compiler does not count as a use).
  [[maybe_unused]] const uint32_t m_magic = kMagic;
  tavik_driver_device* const m_device;
  const unsigned m_index;
  const unsigned m_defaultFps;

  // Open/close and acquisition start/abort are serialised here, so that a
  // callback that aborts or closes cannot race the caller's thread doing the same.
  std::mutex m_ctlMutex;
  std::atomic<bool> m_open{false};

  // Frame clock. m_acqStop is written under m_acqMutex so the clock's timed wait
  // cannot miss it; it is atomic because the catch-up loop reads it unlocked.
  std::mutex m_acqMutex;
  std::condition_variable m_acqCv;
  std::atomic<bool> m_acqStop{false};
  std::thread m_frameThread;
  std::atomic<bool> m_acqActive{false};
  std::atomic<uint64_t> m_frameCount{0};
  std::atomic<uint32_t> m_framesDropped{0};

  // The last kFrameRing frames. A reader gets the frame whose EOF was handed to
  // the core last (so a callback that reads on EOF gets that frame even when it
  // runs late), or the newest frame when no EOF went out yet. The clock builds a
  // frame aside and copies it in under m_frameMutex, and readers copy out under
  // the same lock, so a read never tears.
  static constexpr unsigned kFrameRing = 8;
  void ForgetFramesLocked();
  std::mutex m_frameMutex;
  unsigned m_newestSlot = 0;
  bool m_haveFrame = false;
  uint64_t m_deliveredFrame = 0;  // guarded by m_frameMutex; 0: none delivered
  uint64_t m_slotFrame[kFrameRing] = {};
  alignas(64) uns8 m_frames[kFrameRing][TAVIK_VIRTUAL_FRAME_BYTES];

  // Notification queue (a ring) and its thread. m_notifCtlMutex serialises start
  // and stop; m_notifMutex guards the ring and the flags.
  std::mutex m_notifCtlMutex;
  std::mutex m_notifMutex;
  std::condition_variable m_notifCv;
  bool m_notifRunning = false;
  std::atomic<bool> m_notifStop{false};  // written under m_notifMutex, read unlocked between callbacks
  uint64_t m_notifGeneration = 0;
  unsigned m_queueHead = 0;
  unsigned m_queueCount = 0;
  tavik_notif m_queue[TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY];
  std::thread m_notifThread;
};

}  // namespace tavik_virtual
