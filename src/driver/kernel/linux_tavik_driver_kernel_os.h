#pragma once

// The system-call wrappers of the kernel-mode driver: one call each, and on
// failure "Error %d (%s)" with errno as the calling thread's last-error text.
// They are inline because they sit on the device I/O path.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "driver/kernel/tavik_driver_kernel.h"

// Out of line: only failures pay for formatting.
void tavik_driver_kernel_os_set_errno_details(int error);

inline int tavik_driver_kernel_os_open(const char* path) {
    const int fd = open(path, O_RDWR);
    if (fd == -1) tavik_driver_kernel_os_set_errno_details(errno);
    return fd;
}

inline rs_bool tavik_driver_kernel_os_close(int fd) {
    if (close(fd) == 0) return QX_OK;
    tavik_driver_kernel_os_set_errno_details(errno);
    return QX_FAIL;
}

inline rs_bool tavik_driver_kernel_os_read(int fd, uns8* buf, uns16 size, uns16* done) {
    const ssize_t result = read(fd, buf, size);
    if (result == -1) {
        tavik_driver_kernel_os_set_errno_details(errno);
        return QX_FAIL;
    }
    if (done) *done = static_cast<uns16>(result);
    return QX_OK;
}

inline rs_bool tavik_driver_kernel_os_write(int fd, const uns8* buf, uns16 size, uns16* done) {
    const ssize_t result = write(fd, buf, size);
    if (result == -1) {
        tavik_driver_kernel_os_set_errno_details(errno);
        return QX_FAIL;
    }
    if (done) *done = static_cast<uns16>(result);
    return QX_OK;
}

inline rs_bool tavik_driver_kernel_os_ioctl(int fd, uns32 request, void* arg) {
    if (ioctl(fd, static_cast<unsigned long>(request), arg) != -1) return QX_OK;
    tavik_driver_kernel_os_set_errno_details(errno);
    return QX_FAIL;
}

