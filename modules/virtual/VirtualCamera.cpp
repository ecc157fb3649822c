#include "VirtualCamera.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "VirtualLastError.h"

namespace tavik_virtual {

namespace {

// The notification thread of the camera whose callback is running on this
// thread, so that a callback asking to stop its own thread is refused instead of
// joining itself. In static TLS, like the last-error text (VirtualLastError.h).
__attribute__((tls_model("initial-exec"))) thread_local const VirtualCamera* t_deliveringCamera = nullptr;

uint64_t MonotonicNs() {
  // steady_clock is CLOCK_MONOTONIC on Linux, the clock documented for the stamps.
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// Offset of frame n from the start of the acquisition. Split so that n * 1e9 cannot
// overflow even after weeks at the highest rate.
uint64_t FrameOffsetNs(uint64_t n, uint32_t fps) {
  return (n / fps) * 1000000000ull + (n % fps) * 1000000000ull / fps;
}

std::chrono::steady_clock::time_point ToTimePoint(uint64_t ns) {
  return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(ns));
}

}  // namespace

VirtualCamera::VirtualCamera(tavik_driver_device* device, unsigned index, unsigned defaultFps)
    : m_device(device), m_index(index), m_defaultFps(defaultFps) {
  memset(m_frames, 0, sizeof m_frames);
  memset(m_queue, 0, sizeof m_queue);
}

VirtualCamera::~VirtualCamera() { Shutdown(); }

VirtualCamera* VirtualCamera::FromDevice(tavik_driver_device* device) {
  if (device == nullptr) {
    VirtualLastError::Set("Device is null");
    return nullptr;
  }
  // Look at the first bytes before treating the pointer as a camera: a record
  // made by someone else may point at anything, with any alignment.
  uint32_t magic = 0;
  if (device->private_ != nullptr) memcpy(&magic, device->private_, sizeof magic);
  auto* camera = magic == kMagic ? reinterpret_cast<VirtualCamera*>(device->private_) : nullptr;
  if (camera == nullptr || camera->m_device != device) {
    VirtualLastError::Set("Device '%.31s' does not belong to the camera emulator", device->name);
    return nullptr;
  }
  return camera;
}

int16 VirtualCamera::Open() {
  std::lock_guard<std::mutex> ctl(m_ctlMutex);
  if (m_open.load()) {
    VirtualLastError::Set("Device already open");
    return KZ_ERR_STATE_INVALID;
  }
  {
    std::lock_guard<std::mutex> frame(m_frameMutex);
    ForgetFramesLocked();
  }
  m_frameCount.store(0);
  m_framesDropped.store(0);
  m_open.store(true);
  return KZ_ERR_NONE;
}

int16 VirtualCamera::Close() {
  std::lock_guard<std::mutex> ctl(m_ctlMutex);
  if (!m_open.load()) {
    VirtualLastError::Set("Device already closed");
    return KZ_ERR_STATE_INVALID;
  }
  // A closed camera does not keep exposing: closing ends the acquisition, as
  // closing a real device stops its transfers.
  StopAcquisitionLocked();
  m_open.store(false);
  return KZ_ERR_NONE;
}

int16 VirtualCamera::Read(uns8* data, uns16 dataBytes, uns16* dataBytesRead) {
  if (!m_open.load()) {
    VirtualLastError::Set("Invalid file handle");
    return KZ_ERR_STATE_INVALID;
  }
  if (data == nullptr && dataBytes != 0) {
    VirtualLastError::Set("Null data buffer for %u bytes", dataBytes);
    return KZ_ERR_DDI_DEVICE_READ_FAILED;
  }
  uns16 copied = 0;
  {
    std::lock_guard<std::mutex> frame(m_frameMutex);
    if (m_haveFrame) {
      unsigned slot = m_newestSlot;
      for (unsigned i = 0; m_deliveredFrame != 0 && i < kFrameRing; ++i)
        if (m_slotFrame[i] == m_deliveredFrame) slot = i;
      copied = static_cast<uns16>(std::min<unsigned>(dataBytes, TAVIK_VIRTUAL_FRAME_BYTES));
      memcpy(data, m_frames[slot], copied);
    }
  }
  if (dataBytesRead != nullptr) *dataBytesRead = copied;
  return KZ_ERR_NONE;
}

int16 VirtualCamera::Write(const uns8* data, uns16 dataBytes, uns16* dataBytesWritten) {
  if (!m_open.load()) {
    VirtualLastError::Set("Invalid file handle");
    return KZ_ERR_STATE_INVALID;
  }
  if (data == nullptr && dataBytes != 0) {
    VirtualLastError::Set("Null data buffer for %u bytes", dataBytes);
    return KZ_ERR_DDI_DEVICE_WRITE_FAILED;
  }
  if (dataBytesWritten != nullptr) *dataBytesWritten = dataBytes;
  return KZ_ERR_NONE;
}

int16 VirtualCamera::Ioctl(uns32 request, void* arg) {
  if (!m_open.load()) {
    VirtualLastError::Set("Invalid file handle");
    return KZ_ERR_STATE_INVALID;
  }
  switch (request) {
    case TAVIK_IOC_ACQ_SET_ACTIVE:
      return SetActive(arg);
    case TAVIK_IOC_ACQ_ABORT:
      return Abort();
    case TAVIK_IOC_GET_DRIVER_API_VERSION:
    case TAVIK_IOC_GET_DRIVER_VERSION:
    case TAVIK_IOC_GET_DRIVER_CAPABILITIES:
    case TAVIK_IOC_GET_CURRENT_TIME_STAMP:
    case TAVIK_IOC_ACQ_GET_STATUS:
      break;
    default:
      VirtualLastError::Set("Request 0x%08x is not supported by camera '%.31s'", request,
                            m_device->name);
      return KZ_ERR_DDI_DEVICE_IOCTL_FAILED;
  }
  if (arg == nullptr) {
    VirtualLastError::Set("Null argument for request 0x%08x", request);
    return KZ_ERR_DDI_DEVICE_IOCTL_FAILED;
  }
  switch (request) {
    case TAVIK_IOC_GET_DRIVER_API_VERSION: {
      const uns32 v = TAVIK_VIRTUAL_DRIVER_API_VERSION;
      memcpy(arg, &v, sizeof v);
      break;
    }
    case TAVIK_IOC_GET_DRIVER_VERSION: {
      const uns16 v = TAVIK_VIRTUAL_DRIVER_VERSION;
      memcpy(arg, &v, sizeof v);
      break;
    }
    case TAVIK_IOC_GET_DRIVER_CAPABILITIES: {
      const uns16 v = TAVIK_VIRTUAL_DRIVER_CAPABILITIES;
      memcpy(arg, &v, sizeof v);
      break;
    }
    case TAVIK_IOC_GET_CURRENT_TIME_STAMP: {
      const uint64_t us = MonotonicNs() / 1000u;
      memcpy(arg, &us, sizeof us);
      break;
    }
    default: {  // TAVIK_IOC_ACQ_GET_STATUS
      tavik_virtual_acq_status status;
      FillStatus(&status);
      memcpy(arg, &status, sizeof status);
      break;
    }
  }
  return KZ_ERR_NONE;
}

void VirtualCamera::FillStatus(tavik_virtual_acq_status* status) const {
  // Read active before the count: a clock that finishes in between then reports
  // its final count as still collecting, never a stale count as done.
  const bool active = m_acqActive.load();
  status->frame_count = m_frameCount.load();
  status->frames_dropped = m_framesDropped.load();
  if (active)
    status->status = status->frame_count != 0 ? EXP_ST_COLLECT_OK_A : EXP_ST_NO_DATA_A;
  else
    status->status = status->frame_count != 0 ? EXP_ST_COLLECT_DONE_I : EXP_ST_NO_DATA_I;
}

int16 VirtualCamera::SetActive(const void* arg) {
  if (arg == nullptr) {
    VirtualLastError::Set("Null argument for request 0x%08x", TAVIK_IOC_ACQ_SET_ACTIVE);
    return KZ_ERR_DDI_DEVICE_IOCTL_FAILED;
  }
  tavik_virtual_acq_setup setup;
  memcpy(&setup, arg, sizeof setup);
  for (uns8 b : setup.reserved) {
    if (b != 0) {
      VirtualLastError::Set("Reserved bytes of the acquisition setup must be zero");
      return KZ_ERR_DDI_DEVICE_IOCTL_FAILED;
    }
  }
  const uint32_t fps = setup.fps != 0 ? setup.fps : m_defaultFps;
  if (fps < TAVIK_VIRTUAL_MIN_FPS || fps > TAVIK_VIRTUAL_MAX_FPS) {
    VirtualLastError::Set("Frame rate %u is outside %u to %u", fps, TAVIK_VIRTUAL_MIN_FPS,
                          TAVIK_VIRTUAL_MAX_FPS);
    return KZ_ERR_DDI_DEVICE_IOCTL_FAILED;
  }

  std::lock_guard<std::mutex> ctl(m_ctlMutex);
  if (!m_open.load()) {  // closed by a callback since the check in Ioctl
    VirtualLastError::Set("Invalid file handle");
    return KZ_ERR_STATE_INVALID;
  }
  if (m_acqActive.load()) {
    VirtualLastError::Set("Acquisition already active");
    return KZ_ERR_STATE_INVALID;
  }
  StopAcquisitionLocked();  // reaps a clock that ended at its frame limit
  {
    std::lock_guard<std::mutex> frame(m_frameMutex);
    ForgetFramesLocked();
  }
  m_frameCount.store(0);
  {
    std::lock_guard<std::mutex> acq(m_acqMutex);
    m_acqStop.store(false);
  }
  m_acqActive.store(true);
  try {
    m_frameThread = std::thread(&VirtualCamera::FrameLoop, this, MonotonicNs(), fps,
                                setup.frame_limit);
  } catch (const std::system_error& e) {
    m_acqActive.store(false);
    VirtualLastError::SetErrno("Cannot start frame thread", e.code().value());
    return KZ_ERR_INSUFFICIENT_RESOURCES;
  }
  return KZ_ERR_NONE;
}

int16 VirtualCamera::Abort() {
  std::lock_guard<std::mutex> ctl(m_ctlMutex);
  StopAcquisitionLocked();
  return KZ_ERR_NONE;
}

void VirtualCamera::StopAcquisitionLocked() {
  {
    std::lock_guard<std::mutex> acq(m_acqMutex);
    m_acqStop.store(true);
  }
  m_acqCv.notify_all();
  if (m_frameThread.joinable()) m_frameThread.join();
  m_acqActive.store(false);
}

void VirtualCamera::FrameLoop(uint64_t startNs, uint32_t fps, uint32_t frameLimit) {
  // A clock that woke late (busy host) catches up without bursts: the next frame
  // comes at its nominal time, but never sooner than half a period after the
  // previous one. Frame numbers never skip, and each frame stays the latest for
  // at least half a period, so a reader that keeps up still gets every frame.
  const uint64_t minGapNs = FrameOffsetNs(1, fps) / 2;
  uint64_t n = 0;
  uint64_t lastEmitNs = 0;
  std::unique_lock<std::mutex> lock(m_acqMutex);
  for (;;) {
    const uint64_t dueNs = std::max(startNs + FrameOffsetNs(n + 1, fps), lastEmitNs + minGapNs);
    if (m_acqCv.wait_until(lock, ToTimePoint(dueNs), [this] { return m_acqStop.load(); }))
      return;
    lock.unlock();
    ++n;
    const uint64_t stampUs = (startNs + FrameOffsetNs(n, fps)) / 1000u;
    EmitFrame(n, stampUs);
    lastEmitNs = MonotonicNs();
    if (frameLimit != 0 && n >= frameLimit) {
      {
        std::lock_guard<std::mutex> q(m_notifMutex);
        QueueLocked(NOTIFICATION_COMPLETE, n, stampUs);
      }
      m_notifCv.notify_one();
      m_acqActive.store(false);
      return;
    }
    lock.lock();
  }
}

void VirtualCamera::EmitFrame(uint64_t frameNumber, uint64_t stampUs) {
  bool bofQueued = false;
  uint64_t generation = 0;
  {
    std::lock_guard<std::mutex> q(m_notifMutex);
    if (m_notifRunning && !m_notifStop.load()) {
      // A pair is queued whole or not at all, so a reader never sees an EOF
      // without its BOF.
      if (TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY - m_queueCount >= 2) {
        bofQueued = QueueLocked(NOTIFICATION_BOF, frameNumber, stampUs);
        generation = m_notifGeneration;
      } else {
        m_framesDropped.fetch_add(1);
      }
    }
  }
  // No wake-up for the BOF alone: the EOF follows within microseconds, and one
  // wake-up per frame instead of two halves the context switches at high rates.

  WriteFrame(frameNumber, stampUs);
  m_frameCount.store(frameNumber);

  if (!bofQueued) return;
  {
    std::lock_guard<std::mutex> q(m_notifMutex);
    // A stop (and maybe a new start) in between discarded the BOF: do not send
    // its EOF alone into the new session.
    if (m_notifGeneration == generation)
      QueueLocked(NOTIFICATION_EOF, frameNumber, stampUs);
  }
  m_notifCv.notify_one();  // also delivers a BOF whose EOF a stop cut off
}

void VirtualCamera::ForgetFramesLocked() {
  m_haveFrame = false;
  m_deliveredFrame = 0;
  for (uint64_t& number : m_slotFrame) number = 0;
}

void VirtualCamera::WriteFrame(uint64_t frameNumber, uint64_t stampUs) {
  // Built aside first: a reader may be copying out any slot right now.
  alignas(64) uns8 built[TAVIK_VIRTUAL_FRAME_BYTES];
  tavik_virtual_frame_header header;
  header.frame_number = frameNumber;
  header.time_stamp_us = stampUs;
  header.camera_index = m_index;
  header.frame_bytes = TAVIK_VIRTUAL_FRAME_BYTES;
  header.check = ~frameNumber;
  memcpy(built, &header, sizeof header);
  uns16 pixels[TAVIK_VIRTUAL_FRAME_WORDS];
  for (uns32 j = 0; j < TAVIK_VIRTUAL_FRAME_WORDS; ++j)
    pixels[j] = tavik_virtual_frame_pixel(frameNumber, j);
  memcpy(built + sizeof header, pixels, sizeof pixels);
  const unsigned slot = static_cast<unsigned>(frameNumber % kFrameRing);
  std::lock_guard<std::mutex> frame(m_frameMutex);
  memcpy(m_frames[slot], built, sizeof built);
  m_slotFrame[slot] = frameNumber;
  m_newestSlot = slot;
  m_haveFrame = true;
}

bool VirtualCamera::QueueLocked(uint32_t type, uint64_t frameNumber, uint64_t stampUs) {
  if (!m_notifRunning || m_notifStop.load()) return false;
  if (m_queueCount == TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY) return false;
  tavik_notif& rec =
      m_queue[(m_queueHead + m_queueCount) % TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY];
  memset(&rec, 0, sizeof rec);
  rec.size = sizeof(tavik_notif);
  rec.version = 1;
  rec.type = type;
  tavik_virtual_notif_payload payload;
  payload.frame_number = frameNumber;
  payload.time_stamp_us = stampUs;
  payload.camera_index = m_index;
  payload.reserved = 0;
  memcpy(rec.payload, &payload, sizeof payload);
  ++m_queueCount;
  return true;
}

int16 VirtualCamera::StartNotifications(tavik_dcb_invoke_callback_fn callback) {
  if (callback == nullptr) {
    VirtualLastError::Set("Callback function is null");
    return KZ_ERR_NULL_POINTER;
  }
  std::lock_guard<std::mutex> ctl(m_notifCtlMutex);
  {
    std::lock_guard<std::mutex> q(m_notifMutex);
    if (m_notifRunning) {
      VirtualLastError::Set("Notification thread already running");
      return KZ_ERR_STATE_INVALID;
    }
    m_queueHead = 0;
    m_queueCount = 0;
    m_notifStop.store(false);
    m_notifRunning = true;
    ++m_notifGeneration;
  }
  try {
    m_notifThread = std::thread(&VirtualCamera::NotifyLoop, this, callback);
  } catch (const std::system_error& e) {
    std::lock_guard<std::mutex> q(m_notifMutex);
    m_notifRunning = false;
    VirtualLastError::SetErrno("Cannot start notification thread", e.code().value());
    return KZ_ERR_INSUFFICIENT_RESOURCES;
  }
  return KZ_ERR_NONE;
}

int16 VirtualCamera::StopNotifications() {
  if (t_deliveringCamera == this) {
    VirtualLastError::Set("Cannot stop the notification thread from its own callback");
    return KZ_ERR_STATE_INVALID;
  }
  std::lock_guard<std::mutex> ctl(m_notifCtlMutex);
  {
    std::lock_guard<std::mutex> q(m_notifMutex);
    if (!m_notifRunning) return KZ_ERR_NONE;  // stop without start succeeds
    m_notifStop.store(true);
  }
  m_notifCv.notify_all();
  if (m_notifThread.joinable()) m_notifThread.join();
  {
    // With nobody told of frames any more, reads go back to the newest one.
    std::lock_guard<std::mutex> frame(m_frameMutex);
    m_deliveredFrame = 0;
  }
  std::lock_guard<std::mutex> q(m_notifMutex);
  m_notifRunning = false;
  m_queueHead = 0;
  m_queueCount = 0;
  ++m_notifGeneration;
  return KZ_ERR_NONE;
}

void VirtualCamera::NotifyLoop(tavik_dcb_invoke_callback_fn callback) {
  t_deliveringCamera = this;
  tavik_notif batch[kDeliveryBatch];
  std::unique_lock<std::mutex> lock(m_notifMutex);
  for (;;) {
    m_notifCv.wait(lock, [this] { return m_notifStop.load() || m_queueCount != 0; });
    if (m_notifStop.load()) break;
    // Deliver outside the lock, so the clock keeps queueing while the core works
    // and a callback may call back into this camera.
    const unsigned n = std::min(m_queueCount, kDeliveryBatch);
    for (unsigned i = 0; i < n; ++i)
      batch[i] = m_queue[(m_queueHead + i) % TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY];
    m_queueHead = (m_queueHead + n) % TAVIK_VIRTUAL_NOTIF_QUEUE_CAPACITY;
    m_queueCount -= n;
    lock.unlock();
    for (unsigned i = 0; i < n; ++i) {
      if (batch[i].type == NOTIFICATION_EOF) {
        tavik_virtual_notif_payload payload;
        memcpy(&payload, batch[i].payload, sizeof payload);
        std::lock_guard<std::mutex> frame(m_frameMutex);
        m_deliveredFrame = payload.frame_number;
      }
      // A failing callback is the core's business; the next record still goes out.
      (void)callback(m_device, &batch[i]);
      if (m_notifStop.load()) break;  // stop promptly, not after the whole batch
    }
    lock.lock();
  }
  t_deliveringCamera = nullptr;
}

void VirtualCamera::Shutdown() {
  StopNotifications();
  std::lock_guard<std::mutex> ctl(m_ctlMutex);
  StopAcquisitionLocked();
  m_open.store(false);
}

}  // namespace tavik_virtual
