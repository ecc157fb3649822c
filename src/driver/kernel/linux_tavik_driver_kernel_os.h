#pragma once

// The operating-system half of the kernel-mode driver. It answers questions (which
// nodes of a type a folder holds, whether a node exists, what a system call
// returned) and runs the notification thread; it never calls back into the
// generic half, which owns the device list and decides what to log.
#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include <tavik/tavik_driver.h>

// Node-name filters, one per bus type: the type's prefix, then one or more decimal
// digits, and nothing after them.
int _kernel_scandir_filter_PCI(const struct dirent* entry);
int _kernel_scandir_filter_PCIE(const struct dirent* entry);
int _kernel_scandir_filter_USB(const struct dirent* entry);
int _kernel_scandir_filter_1394(const struct dirent* entry);
int _kernel_scandir_filter_SW(const struct dirent* entry);

using tavik_driver_kernel_node_filter = int (*)(const struct dirent*);

// The entries of folder that filter accepts, in collation order. Returns their
// count, or -1 with the error number in *error when the folder cannot be scanned.
// tavik_driver_kernel_os_free_nodes releases the list.
int tavik_driver_kernel_os_scan_nodes(const char* folder, tavik_driver_kernel_node_filter filter,
                                      struct dirent*** nodes, int* error);
void tavik_driver_kernel_os_free_nodes(struct dirent** nodes, int count);
// Whether path names an existing file; false with the error number in *error.
bool tavik_driver_kernel_os_node_exists(const char* path, int* error);

// The notification thread's two device operations.
int16 tavik_driver_kernel_dev_start_notif_thread(tavik_driver_device* device,
                                                 tavik_dcb_invoke_callback_fn callback);
int16 tavik_driver_kernel_dev_stop_notif_thread(tavik_driver_device* device);

// The system-call wrappers: one call each, and on failure "Error %d (%s)" with
// errno as the calling thread's last-error text. They are inline because they sit
// on the device I/O path; only failures pay for formatting, out of line.
void tavik_driver_kernel_os_set_errno_details(int error);

// The open that a camera's kernel driver sees is O_RDWR with no other flag.
// Close-on-exec belongs to this process's descriptor alone and is set right
// after, so that a program the core starts does not keep the camera open; it
// cannot fail on a descriptor just opened.
inline int tavik_driver_kernel_os_open(const char* path) {
    const int fd = open(path, O_RDWR);
    if (fd == -1) {
        tavik_driver_kernel_os_set_errno_details(errno);
        return fd;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
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

