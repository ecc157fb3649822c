#pragma once

#include <atomic>
#include <thread>

#include <tavik/tavik_driver.h>

// The kernel backend's state of one device. Created with a non-throwing
// allocation when the device record is made; the device must be closed and its
// notification thread stopped before it is destroyed (a still joinable thread
// ends the process, loudly, as the caller broke the order).
struct tavik_driver_device_private {
    tavik_driver_device_private() noexcept;
    ~tavik_driver_device_private();
    tavik_driver_device_private(const tavik_driver_device_private&) = delete;
    tavik_driver_device_private& operator=(const tavik_driver_device_private&) = delete;

    int handle;                      // open device file, -1 while closed
    tavik_notif_list* notif_buffer;  // owned by a running notification thread
    std::thread notif_thread;
    std::atomic<bool> notif_stop;
    int abort_pipe_read;
    int abort_pipe_write;
};
