// The module's three exported entry functions and the device operation table.
// Everything crossing into the library is plain C: no exception may leave, so
// every operation catches at its boundary.
#include <cstdio>
#include <cstdlib>
#include <new>

#include "VirtualCamera.h"
#include "VirtualConfig.h"
#include "VirtualLastError.h"
#include "tavik_virtual.h"

#define TAVIK_VIRTUAL_EXPORT extern "C" __attribute__((visibility("default")))

using tavik_virtual::VirtualCamera;
using tavik_virtual::VirtualLastError;

namespace {

int16 Unexpected() {
  VirtualLastError::Set("Unexpected internal failure of the camera emulator");
  return KZ_ERR_UNKNOWN;
}

// One trampoline per operation: find the camera, forward, keep exceptions inside.
template <typename Fn>
int16 WithCamera(tavik_driver_device* device, Fn fn) {
  try {
    VirtualCamera* camera = VirtualCamera::FromDevice(device);
    if (camera == nullptr) return KZ_ERR_DEVICE_HANDLE_INVALID;
    return fn(camera);
  } catch (...) {
    return Unexpected();
  }
}

int16 _virtual_dev_open(tavik_driver_device* device) {
  return WithCamera(device, [](VirtualCamera* c) { return c->Open(); });
}

int16 _virtual_dev_close(tavik_driver_device* device) {
  return WithCamera(device, [](VirtualCamera* c) { return c->Close(); });
}

int16 _virtual_dev_read(tavik_driver_device* device, uns8* data, uns16 dataBytes,
                        uns16* dataBytesRead) {
  return WithCamera(device,
                    [&](VirtualCamera* c) { return c->Read(data, dataBytes, dataBytesRead); });
}

int16 _virtual_dev_write(tavik_driver_device* device, const uns8* data, uns16 dataBytes,
                         uns16* dataBytesWritten) {
  return WithCamera(
      device, [&](VirtualCamera* c) { return c->Write(data, dataBytes, dataBytesWritten); });
}

int16 _virtual_dev_ioctl(tavik_driver_device* device, uns32 request, void* arg) {
  return WithCamera(device, [&](VirtualCamera* c) { return c->Ioctl(request, arg); });
}

// Like the kernel devices, the text is the calling thread's, whichever device set it.
uns32 _virtual_dev_last_error_msg(tavik_driver_device*, char* buffer, uns32 size) {
  return VirtualLastError::CopyOut(buffer, size);
}

int16 _virtual_dev_start_notif_thread(tavik_driver_device* device,
                                      tavik_dcb_invoke_callback_fn callback) {
  return WithCamera(device,
                    [&](VirtualCamera* c) { return c->StartNotifications(callback); });
}

int16 _virtual_dev_stop_notif_thread(tavik_driver_device* device) {
  return WithCamera(device, [](VirtualCamera* c) { return c->StopNotifications(); });
}

void _free_device(tavik_driver_device* device) {
  if (device == nullptr) return;
  delete reinterpret_cast<VirtualCamera*>(device->private_);
  device->private_ = nullptr;
  free(device);
}

tavik_driver_device* _new_device(tavik_driver* driver, unsigned index, unsigned fps) {
  auto* device = static_cast<tavik_driver_device*>(calloc(1, sizeof(tavik_driver_device)));
  if (device == nullptr) return nullptr;
  device->driver = driver;
  snprintf(device->name, sizeof device->name, "tavikSW_%u", index);
  snprintf(device->file_path, sizeof device->file_path, "virtual:tavikSW_%u", index);
  device->open = _virtual_dev_open;
  device->close = _virtual_dev_close;
  device->read = _virtual_dev_read;
  device->write = _virtual_dev_write;
  device->ioctl = _virtual_dev_ioctl;
  device->last_error_msg = _virtual_dev_last_error_msg;
  device->start_notif_thread = _virtual_dev_start_notif_thread;
  device->stop_notif_thread = _virtual_dev_stop_notif_thread;
  device->device_word = 0;
  auto* camera = new (std::nothrow) VirtualCamera(device, index, fps);
  if (camera == nullptr) {
    free(device);
    return nullptr;
  }
  device->private_ = camera->AsPrivate();
  return device;
}

}  // namespace

// Fills driver->device_list with the configured number of cameras. On failure
// nothing is left behind and the list stays null, so the library's unconditional
// uninit after a failed init has nothing to free.
TAVIK_VIRTUAL_EXPORT rs_bool init(tavik_driver* driver) {
  if (driver == nullptr) return QX_FAIL;
  if (driver->device_list != nullptr) {
    fprintf(stderr, "tavik_virtual: init called twice on the same driver record\n");
    return QX_FAIL;
  }
  try {
    const auto config = tavik_virtual::VirtualConfig::FromEnvironment();
    auto** list = static_cast<tavik_driver_device**>(
        calloc(config.cameras + 1, sizeof(tavik_driver_device*)));
    if (list == nullptr) return QX_FAIL;
    for (unsigned i = 0; i < config.cameras; ++i) {
      list[i] = _new_device(driver, i, config.fps);
      if (list[i] == nullptr) {
        for (unsigned k = 0; k < i; ++k) _free_device(list[k]);
        free(list);
        return QX_FAIL;
      }
    }
    driver->device_list = list;
    return QX_OK;
  } catch (...) {
    return QX_FAIL;
  }
}

// Stops every camera's threads (also when the core forgot to), frees the cameras
// and the list. Accepts a record whose init failed or never ran.
TAVIK_VIRTUAL_EXPORT void uninit(tavik_driver* driver) {
  if (driver == nullptr || driver->device_list == nullptr) return;
  try {
    for (tavik_driver_device** p = driver->device_list; *p != nullptr; ++p) {
      _free_device(*p);
      *p = nullptr;
    }
  } catch (...) {
  }
  free(driver->device_list);
  driver->device_list = nullptr;
}

TAVIK_VIRTUAL_EXPORT E_TAVIK_DRIVER_TYPE type(void) { return TAVIK_DRIVER_TYPE_VIRTUAL; }
