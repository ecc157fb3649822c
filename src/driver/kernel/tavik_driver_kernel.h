#pragma once

#include <dirent.h>

#include <tavik/tavik_driver.h>

// The built-in kernel-mode driver: one bus type, its device nodes under /dev, and
// the eight device operations over plain system calls.

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
int16 tavik_driver_kernel_dev_start_notif_thread(tavik_driver_device* device,
                                                 tavik_dcb_invoke_callback_fn callback);
int16 tavik_driver_kernel_dev_stop_notif_thread(tavik_driver_device* device);

// The system-call wrappers (tavik_driver_kernel_os_*) are in
// linux_tavik_driver_kernel_os.h.

// Node-name filters handed to scandir, one per bus type: the type's prefix, then
// one or more decimal digits, and nothing after them.
int _kernel_scandir_filter_PCI(const struct dirent* entry);
int _kernel_scandir_filter_PCIE(const struct dirent* entry);
int _kernel_scandir_filter_USB(const struct dirent* entry);
int _kernel_scandir_filter_1394(const struct dirent* entry);
int _kernel_scandir_filter_SW(const struct dirent* entry);
