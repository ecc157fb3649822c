#pragma once

#include <tavik/tavik_driver.h>

#include "driver/kernel/linux_tavik_driver_kernel_os.h"

// The built-in kernel-mode driver: one bus type, its device nodes under /dev, and
// the eight device operations over plain system calls. This generic half owns the
// device list; the operating-system half (linux_tavik_driver_kernel_os.h) only
// answers its questions.

inline constexpr const char* kKernelDevFolder = "/dev";

// Driver record of one bus type. init returns QX_OK for every valid type, also
// when no node matches; uninit frees every device and the list, and accepts a
// record whose init did nothing or only part of its work.
rs_bool tavik_driver_kernel_init(tavik_driver* driver, E_TAVIK_DRIVER_TYPE type);
void tavik_driver_kernel_uninit(tavik_driver* driver);
rs_bool tavik_driver_kernel_enumerate_devices(tavik_driver* driver, E_TAVIK_DRIVER_TYPE type);
// camCount is the number of entries already tried, which is also the new index.
rs_bool tavik_driver_kernel_add_new_device(tavik_driver* driver, uns16 camCount,
                                           const char* camName, const char* devicePath);

// Device operations bound into every kernel device's table.
int16 tavik_driver_kernel_dev_open(tavik_driver_device* device);
int16 tavik_driver_kernel_dev_close(tavik_driver_device* device);
int16 tavik_driver_kernel_dev_read(tavik_driver_device* device, uns8* data, uns16 data_bytes,
                                   uns16* data_bytes_read);
int16 tavik_driver_kernel_dev_write(tavik_driver_device* device, const uns8* data,
                                    uns16 data_bytes, uns16* data_bytes_written);
int16 tavik_driver_kernel_dev_ioctl(tavik_driver_device* device, uns32 request, void* arg);
uns32 tavik_driver_kernel_dev_last_error_msg(tavik_driver_device* device, char* pBuffer,
                                             uns32 bufferSize);
// start_notif_thread and stop_notif_thread are the operating-system half's.
