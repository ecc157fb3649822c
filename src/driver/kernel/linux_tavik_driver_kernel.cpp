// The operating-system half of the kernel-mode driver: the scan of a folder for
// nodes, the system-call wrappers and the notification thread. Every call goes to
// the plain C library symbol.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "driver/kernel/linux_tavik_driver_kernel_os.h"
#include "driver/tavik_driver_device_private.h"
#include "error/LastError.h"
#include "error/ReportFailure.h"
#include "error/tavik_error_strings.h"
#include "log/LogTrace.h"
#include "log/LogUtils.h"
#include "names/EnumUtils.h"

namespace {

// '#' stands for a run of decimal digits: the name must start with what precedes
// it, end with what follows it, and hold only digits in between.
int MatchNodeName(const char* name, const char* pattern) {
    const size_t nameLength = std::strlen(name);
    const size_t patternLength = std::strlen(pattern);
    if (nameLength < patternLength) return 0;
    const char* hash = std::strchr(pattern, '#');
    if (!hash) return 0;
    const size_t prefixLength = static_cast<size_t>(hash - pattern);
    const char* suffix = hash + 1;
    const size_t suffixLength = std::strlen(suffix);
    if (std::strncmp(name, pattern, prefixLength) != 0) return 0;
    if (std::strcmp(name + nameLength - suffixLength, suffix) != 0) return 0;
    const char* middle = name + prefixLength;
    const size_t middleLength = nameLength - suffixLength - prefixLength;
    return middleLength > 0 && std::strspn(middle, "0123456789") >= middleLength ? 1 : 0;
}

} // namespace

void tavik_driver_kernel_os_set_errno_details(int error) {
    kt::LastError::SetDetails("Error %d (%s)", error, kt::LogUtils::GetErrorString(error).c_str());
}

int _kernel_scandir_filter_PCI(const struct dirent* entry) {
    return MatchNodeName(entry->d_name, "tavikPCI_#");
}
int _kernel_scandir_filter_PCIE(const struct dirent* entry) {
    return MatchNodeName(entry->d_name, "tavikPCIE_#");
}
int _kernel_scandir_filter_USB(const struct dirent* entry) {
    return MatchNodeName(entry->d_name, "tavikUSB_#");
}
int _kernel_scandir_filter_1394(const struct dirent* entry) {
    return MatchNodeName(entry->d_name, "tavik1394_#");
}
int _kernel_scandir_filter_SW(const struct dirent* entry) {
    return MatchNodeName(entry->d_name, "tavikSW_#");
}

int tavik_driver_kernel_os_scan_nodes(const char* folder, tavik_driver_kernel_node_filter filter,
                                      struct dirent*** nodes, int* error) {
    *nodes = nullptr;
    const int count = scandir(folder, nodes, filter, alphasort);
    if (count < 0 && error) *error = errno;
    return count;
}

void tavik_driver_kernel_os_free_nodes(struct dirent** nodes, int count) {
    if (!nodes) return;
    for (int i = 0; i < count; ++i) std::free(nodes[i]);
    std::free(nodes);
}

bool tavik_driver_kernel_os_node_exists(const char* path, int* error) {
    if (access(path, F_OK) == 0) return true;
    if (error) *error = errno;
    return false;
}

// ---------------------------------------------------------------------------
// Notification thread.

namespace {

constexpr short kPollFailure = POLLERR | POLLHUP | POLLNVAL;

void NotifThreadLoop(kt::LogFn* fn, tavik_driver_device* device,
                     tavik_dcb_invoke_callback_fn callback) {
    tavik_driver_device_private* priv = device->private_;
    tavik_notif_list* list = priv->notif_buffer;
    const char* name = device->name;

    struct pollfd fds[2];
    fds[0].fd = priv->handle;
    fds[0].events = POLLPRI;
    fds[1].fd = priv->abort_pipe_read;
    fds[1].events = POLLIN;

    while (!priv->notif_stop.load(std::memory_order_seq_cst)) {
        fds[0].revents = 0;
        fds[1].revents = 0;
        if (poll(fds, 2, -1) == -1) {
            const int error = errno;
            if (error == EAGAIN) continue;
            // EINTR lands here too: a signal storm must not turn into a busy loop.
            DDI_TRACE_MSG(fn, Error, ">>> '%s': Poll error %d (%s)", name, error,
                          kt::LogUtils::GetErrorString(error).c_str());
            usleep(10000);
            continue;
        }
        // Stop sets the flag, then writes to the pipe: the flag ends the loop at
        // the next pass, data on the pipe alone does not. A pipe in error does.
        if (fds[1].revents & kPollFailure) break;
        if (fds[0].revents & kPollFailure) {
            DDI_TRACE_MSG(fn, Error, ">>> '%s': Device error", name);
            // An unplugged camera reports its error on every poll at once; without
            // the pause the thread would take a core and flood the log.
            usleep(10000);
            continue;
        }
        if (!(fds[0].revents & POLLPRI)) continue;

        list->count = 0;
        if (ioctl(fds[0].fd, static_cast<unsigned long>(TAVIK_IOC_GET_NOTIFICATIONS), list) == -1) {
            const int error = errno;
            DDI_TRACE_MSG(fn, Error, ">>> '%s': Can't get notification list, error %d (%s)", name,
                          error, kt::LogUtils::GetErrorString(error).c_str());
            continue;
        }
        // The count is re-read on every pass, as a callback may look at the list;
        // the list never holds more than its capacity, whatever a driver reports.
        for (uns32 index = 0; index < list->count && index < TAVIK_NOTIF_LIST_CAPACITY; ++index) {
            tavik_notif* notif = &list->notifications[index];
            // A notification this library does not know means the device is gone.
            if ((notif->type & TAVIK_NOTIF_KNOWN_MASK) == 0) notif->type = NOTIFICATION_DEVICE_REMOVAL;
            const _KZ_NOTIF type = static_cast<_KZ_NOTIF>(notif->type);
            DDI_TRACE_MSG(fn, Debug, ">>> '%s': %s", name, kt::EnumUtils::GetName<_KZ_NOTIF>(type));
            const int16 result = callback(device, notif);
            if (result != KZ_ERR_NONE) {
                DDI_TRACE_MSG(fn, Error,
                              ">>> '%s': Invoking callback function for %s(%u) failed with error "
                              "%s(%d)",
                              name, kt::EnumUtils::GetName<_KZ_NOTIF>(type),
                              static_cast<uns32>(type),
                              GetErrCodeName(static_cast<uint16_t>(result)),
                              static_cast<int>(result));
            }
        }
    }
}

void _kernel_notif_thread(tavik_driver_device* device, tavik_dcb_invoke_callback_fn callback) {
    try {
        auto fn = kt::LogDdi::CreateLogFn(
            "void _kernel_notif_thread(tavik_driver_device*, tavik_dcb_invoke_callback_fn)");
        DDI_TRACE_ENTER(fn, "device=0x%p", static_cast<void*>(device));
        DDI_TRACE_MSG(fn, Debug, ">>> '%s': Notification thread started", device->name);
        NotifThreadLoop(fn.get(), device, callback);
        DDI_TRACE_MSG(fn, Debug, ">>> '%s': Notification thread stopped", device->name);
    } catch (...) {
        // Only logging can throw here (out of memory); the thread must not take
        // the process down for it. Stop still finds a finished thread to join.
    }
}

void ReleaseNotifResources(tavik_driver_device_private* priv) {
    if (priv->abort_pipe_read != -1) close(priv->abort_pipe_read);
    if (priv->abort_pipe_write != -1) close(priv->abort_pipe_write);
    priv->abort_pipe_read = -1;
    priv->abort_pipe_write = -1;
    std::free(priv->notif_buffer);
    priv->notif_buffer = nullptr;
}

int16 DevStartNotifThread(tavik_driver_device* device, tavik_dcb_invoke_callback_fn callback) {
    auto fn = kt::LogDdi::CreateLogFn(
        "int16 tavik_driver_kernel_dev_start_notif_thread(tavik_driver_device*, "
        "tavik_dcb_invoke_callback_fn)");
    DDI_TRACE_ENTER(fn, "device=0x%p", static_cast<void*>(device));
    tavik_driver_device_private* priv = device ? device->private_ : nullptr;
    if (!priv)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", "Device structure is null");
    DDI_TRACE_MSG(fn, Debug, "Called start_notif_thread for device '%s'", device->name);
    if (!callback)
        return kt::ReportFailure(fn.get(), KZ_ERR_NULL_POINTER, "%s",
                                 "Callback function is null");

    tavik_notif_list* list = static_cast<tavik_notif_list*>(std::calloc(1, sizeof(tavik_notif_list)));
    if (!list)
        return kt::ReportFailure(fn.get(), KZ_ERR_INSUFFICIENT_RESOURCES,
                                 "Cannot allocate structure for IOCTL notifications");
    priv->notif_buffer = list;
    list->capacity = TAVIK_NOTIF_LIST_CAPACITY;
    list->notifications[0].size = sizeof(tavik_notif);
    list->notifications[0].version = 1;
    priv->notif_stop.store(false, std::memory_order_seq_cst);

    // Close-on-exec for both ends: a program that the core starts must not hold
    // them, and no other call is made between the two.
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) == -1) {
        const int error = errno;
        ReleaseNotifResources(priv);
        return kt::ReportFailure(fn.get(), KZ_ERR_INSUFFICIENT_RESOURCES,
                                 "Cannot create abort pipe for notification thread, error %d (%s)",
                                 error, kt::LogUtils::GetErrorString(error).c_str());
    }
    priv->abort_pipe_read = pipeEnds[0];
    priv->abort_pipe_write = pipeEnds[1];

    int error = 0;
    try {
        // Replacing a joinable thread ends the process: starting twice is a
        // caller error the library refuses to paper over.
        priv->notif_thread = std::thread(_kernel_notif_thread, device, callback);
    } catch (const std::system_error& e) {
        error = e.code().value();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    if (error != 0) {
        ReleaseNotifResources(priv);
        return kt::ReportFailure(fn.get(), KZ_ERR_INSUFFICIENT_RESOURCES,
                                 "Cannot start notification thread, error %d (%s)", error,
                                 kt::LogUtils::GetErrorString(error).c_str());
    }

    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

int16 DevStopNotifThread(tavik_driver_device* device) {
    auto fn = kt::LogDdi::CreateLogFn(
        "int16 tavik_driver_kernel_dev_stop_notif_thread(tavik_driver_device*)");
    DDI_TRACE_ENTER(fn, "device=0x%p", static_cast<void*>(device));
    tavik_driver_device_private* priv = device ? device->private_ : nullptr;
    if (!priv)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", "Device structure is null");
    DDI_TRACE_MSG(fn, Debug, "Called stop_notif_thread for device '%s'", device->name);

    priv->notif_stop.store(true, std::memory_order_seq_cst);
    // A byte on the pipe is the wake-up. Closing the pipe would not be: a program
    // forked meanwhile may hold its write end, so it would not hang up, and the
    // numbers could be reused while the thread still polls them. So the pipe is
    // closed only after the join. One byte on an empty pipe neither blocks nor fails.
    if (priv->abort_pipe_write != -1) {
        const char wake = 1;
        const ssize_t written = write(priv->abort_pipe_write, &wake, 1);
        static_cast<void>(written);
    }
    if (priv->notif_thread.joinable()) priv->notif_thread.join();
    ReleaseNotifResources(priv);

    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

} // namespace

int16 tavik_driver_kernel_dev_start_notif_thread(tavik_driver_device* device,
                                                 tavik_dcb_invoke_callback_fn callback) {
    try {
        return DevStartNotifThread(device, callback);
    } catch (...) {
        return kt::ReportException();
    }
}

int16 tavik_driver_kernel_dev_stop_notif_thread(tavik_driver_device* device) {
    try {
        return DevStopNotifThread(device);
    } catch (...) {
        return kt::ReportException();
    }
}
