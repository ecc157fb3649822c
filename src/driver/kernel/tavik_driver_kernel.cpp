// The generic half of the kernel-mode driver: the bus type's device list, built
// from what the operating-system half finds, and the device operations.
#include "driver/kernel/tavik_driver_kernel.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "driver/kernel/linux_tavik_driver_kernel_os.h"
#include "driver/tavik_driver_device_private.h"
#include "driver/tavik_driver_internal.h"
#include "error/LastError.h"
#include "error/LastErrorText.h"
#include "error/ReportFailure.h"
#include "error/tavik_error_strings.h"
#include "log/LogTrace.h"
#include "log/LogUtils.h"
#include "names/EnumUtils.h"

namespace {

// The device list is handed out as a plain null-terminated array, but the block
// behind it starts with the number of slots it holds. An add that failed leaves
// its slot null and the next device one index further, so a walk of the list
// stops at the hole; the slot count lets uninit still free every device behind it.
struct DeviceListBlock {
    size_t slots;
    tavik_driver_device* devices[1];
};

DeviceListBlock* BlockOf(tavik_driver_device** list) {
    return reinterpret_cast<DeviceListBlock*>(reinterpret_cast<char*>(list) -
                                              offsetof(DeviceListBlock, devices));
}

// Grows the list to at least `slots` entries; every slot that no add wrote yet is
// null. Returns null, with the old list untouched, when memory ran out.
tavik_driver_device** GrowDeviceList(tavik_driver_device** list, size_t slots) {
    DeviceListBlock* old = list ? BlockOf(list) : nullptr;
    const size_t oldSlots = old ? old->slots : 0;
    if (slots < oldSlots) slots = oldSlots;
    void* grown = std::realloc(
        old, offsetof(DeviceListBlock, devices) + slots * sizeof(tavik_driver_device*));
    if (!grown) return nullptr;
    DeviceListBlock* block = static_cast<DeviceListBlock*>(grown);
    for (size_t i = oldSlots; i < slots; ++i) block->devices[i] = nullptr;
    block->slots = slots;
    return block->devices;
}

void DestroyDevice(tavik_driver_device* device) {
    delete device->private_;
    device->private_ = nullptr;
    std::free(device);
}

inline tavik_driver_device_private* PrivateOf(tavik_driver_device* device) {
    return device ? device->private_ : nullptr;
}

const char* const kNoDevice = "Device structure is null";

tavik_driver_kernel_node_filter FilterOf(E_TAVIK_DRIVER_TYPE type) {
    switch (type) {
    case TAVIK_DRIVER_TYPE_PCI: return _kernel_scandir_filter_PCI;
    case TAVIK_DRIVER_TYPE_PCIE: return _kernel_scandir_filter_PCIE;
    case TAVIK_DRIVER_TYPE_USB: return _kernel_scandir_filter_USB;
    case TAVIK_DRIVER_TYPE_1394: return _kernel_scandir_filter_1394;
    case TAVIK_DRIVER_TYPE_VIRTUAL: return _kernel_scandir_filter_SW;
    }
    return nullptr;
}

} // namespace

rs_bool tavik_driver_kernel_init(tavik_driver* driver, E_TAVIK_DRIVER_TYPE type) {
    auto fn = kt::LogDdi::CreateLogFn(
        "rs_bool tavik_driver_kernel_init(tavik_driver*, E_TAVIK_DRIVER_TYPE)");
    DDI_TRACE_ENTER(fn, "driver=0x%p, type=%u(%s)", static_cast<void*>(driver),
                    static_cast<uns32>(type), kt::EnumUtils::GetName<_KZ_DRIVER_TYPE>(type));
    if (!driver) {
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }
    driver->driver_word = 0;
    const rs_bool result = tavik_driver_kernel_enumerate_devices(driver, type) ? QX_OK : QX_FAIL;
    DDI_TRACE_RESULT(fn, "%s", result == QX_OK ? "QX_OK" : "QX_FAIL");
    return result;
}

void tavik_driver_kernel_uninit(tavik_driver* driver) {
    auto fn = kt::LogDdi::CreateLogFn("void tavik_driver_kernel_uninit(tavik_driver*)");
    DDI_TRACE_ENTER(fn, "driver=0x%p", static_cast<void*>(driver));
    if (!driver) return;
    if (driver->device_list) {
        DeviceListBlock* block = BlockOf(driver->device_list);
        for (size_t i = 0; i < block->slots; ++i) {
            if (!block->devices[i]) continue;
            DestroyDevice(block->devices[i]);
            block->devices[i] = nullptr;
        }
        std::free(block);
        driver->device_list = nullptr;
    }
    driver->driver_word = 0;
}

rs_bool tavik_driver_kernel_enumerate_devices(tavik_driver* driver, E_TAVIK_DRIVER_TYPE type) {
    auto fn = kt::LogDdi::CreateLogFn(
        "rs_bool tavik_driver_kernel_enumerate_devices(tavik_driver*, E_TAVIK_DRIVER_TYPE)");
    DDI_TRACE_ENTER(fn, "driver=0x%p, type=%u(%s)", static_cast<void*>(driver),
                    static_cast<uns32>(type), kt::EnumUtils::GetName<_KZ_DRIVER_TYPE>(type));
    if (!driver) {
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }
    driver->device_list = nullptr;
    DDI_TRACE_MSG(fn, Info, "Searching for kernel devices with %s type in '%s' ...",
                  kt::EnumUtils::GetName<_KZ_DRIVER_TYPE>(type), kKernelDevFolder);

    const tavik_driver_kernel_node_filter filter = FilterOf(type);
    if (!filter) {
        DDI_TRACE_MSG(fn, Error, "Unknown driver type (%u)", static_cast<uns32>(type));
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }

    struct dirent** nodes = nullptr;
    int error = 0;
    const int count = tavik_driver_kernel_os_scan_nodes(kKernelDevFolder, filter, &nodes, &error);
    if (count < 0) {
        // An unreadable /dev is not a failure of the driver: it just has no devices.
        DDI_TRACE_MSG(fn, Error, "Cannot scan folder '%s', errno %d (%s)", kKernelDevFolder, error,
                      kt::LogUtils::GetErrorString(error).c_str());
    } else {
        uns16 camCount = 0;
        for (int i = 0; i < count; ++i) {
            const char* name = nodes[i]->d_name;
            char path[256];
            tavik_driver_join_path(path, sizeof(path), kKernelDevFolder, name);
            if (tavik_driver_kernel_os_node_exists(path, &error)) {
                // The index moves on also when the add failed (its slot stays null).
                tavik_driver_kernel_add_new_device(driver, camCount, name, path);
                ++camCount;
            } else {
                DDI_TRACE_MSG(fn, Warning, "Cannot access file '%s', error %d (%s)", name, error,
                              kt::LogUtils::GetErrorString(error).c_str());
            }
        }
        tavik_driver_kernel_os_free_nodes(nodes, count);
    }

    DDI_TRACE_MSG(fn, Info, "Done with kernel devices");
    DDI_TRACE_RESULT(fn, "%s", "QX_OK");
    return QX_OK;
}

rs_bool tavik_driver_kernel_add_new_device(tavik_driver* driver, uns16 camCount,
                                           const char* camName, const char* devicePath) {
    auto fn = kt::LogDdi::CreateLogFn(
        "rs_bool tavik_driver_kernel_add_new_device(tavik_driver*, uns16, const char*, const "
        "char*)");
    DDI_TRACE_ENTER(fn, "driver=0x%p, camCount=%u, camName='%s', devicePath='%s'",
                    static_cast<void*>(driver), camCount, DdiStr(camName), DdiStr(devicePath));
    DDI_TRACE_MSG(fn, Info, "Found '%s', testing...", DdiStr(camName));
    if (!driver) {
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }

    tavik_driver_device* device = tavik_driver_device_alloc();
    if (!device) {
        DDI_TRACE_MSG(fn, Error, "Cannot allocate memory for device");
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }
    device->driver = driver;
    tavik_driver_copy_text(device->file_path, sizeof(device->file_path), devicePath);
    tavik_driver_copy_text(device->name, sizeof(device->name), camName);
    device->open = tavik_driver_kernel_dev_open;
    device->close = tavik_driver_kernel_dev_close;
    device->read = tavik_driver_kernel_dev_read;
    device->write = tavik_driver_kernel_dev_write;
    device->ioctl = tavik_driver_kernel_dev_ioctl;
    device->last_error_msg = tavik_driver_kernel_dev_last_error_msg;
    device->start_notif_thread = tavik_driver_kernel_dev_start_notif_thread;
    device->stop_notif_thread = tavik_driver_kernel_dev_stop_notif_thread;
    device->device_word = 0;
    device->private_ = nullptr;

    tavik_driver_device_private* priv = new (std::nothrow) tavik_driver_device_private();
    if (!priv) {
        std::free(device);
        DDI_TRACE_MSG(fn, Error, "Cannot allocate device's private structure");
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }

    tavik_driver_device** list =
        GrowDeviceList(driver->device_list, static_cast<size_t>(camCount) + 2);
    if (!list) {
        delete priv;
        std::free(device);
        DDI_TRACE_MSG(fn, Error, "Cannot allocate memory for device");
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
        return QX_FAIL;
    }
    driver->device_list = list;

    device->private_ = priv;
    list[camCount] = device;
    list[camCount + 1] = nullptr;
    DDI_TRACE_MSG(fn, Info, "Accepted valid kernel device '%s'", device->name);
    DDI_TRACE_RESULT(fn, "%s", "QX_OK");
    return QX_OK;
}

// ---------------------------------------------------------------------------
// Device operations. Each public one is a catch-all shell around the real work,
// so that no exception reaches the C caller; with logging off the work is a
// pointer test, the state check and the one system call. The work is inlined
// into its shell: after a system call the processor's return predictions are
// gone, and a call level of its own cost the caller one more mispredicted return.

namespace {

__attribute__((always_inline)) inline int16 DevOpen(tavik_driver_device* device) {
    auto fn = kt::LogDdi::CreateLogFn("int16 tavik_driver_kernel_dev_open(tavik_driver_device*)");
    DDI_TRACE_ENTER(fn, "device=0x%p", static_cast<void*>(device));
    tavik_driver_device_private* priv = PrivateOf(device);
    if (!priv) return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", kNoDevice);
    if (priv->handle != -1)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "Device already open");
    if (device->file_path[0] == '\0')
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "File path is empty");

    priv->handle = tavik_driver_kernel_os_open(device->file_path);
    if (priv->handle == -1)
        return kt::ReportFailure(fn.get(), KZ_ERR_DDI_DEVICE_OPEN_FAILED, "%s",
                                 kt::LastError::GetDetails());

    DDI_TRACE_MSG(fn, Debug, "Opened device '%s' (%s)", device->name, device->file_path);
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

__attribute__((always_inline)) inline int16 DevClose(tavik_driver_device* device) {
    auto fn =
        kt::LogDdi::CreateLogFn("int16 tavik_driver_kernel_dev_close(tavik_driver_device*)");
    DDI_TRACE_ENTER(fn, "device=0x%p", static_cast<void*>(device));
    tavik_driver_device_private* priv = PrivateOf(device);
    if (!priv) return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", kNoDevice);
    if (priv->handle == -1)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "Device already closed");

    const rs_bool closed = tavik_driver_kernel_os_close(priv->handle);
    // A failed close still leaves the descriptor unusable: the device counts as closed.
    priv->handle = -1;
    if (!closed)
        return kt::ReportFailure(fn.get(), KZ_ERR_DDI_DEVICE_CLOSE_FAILED, "%s",
                                 kt::LastError::GetDetails());

    DDI_TRACE_MSG(fn, Debug, "Closed device '%s' (%s)", device->name, device->file_path);
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

__attribute__((always_inline)) inline int16 DevRead(tavik_driver_device* device, uns8* data,
                                                   uns16 data_bytes, uns16* data_bytes_read) {
    auto fn = kt::LogDdi::CreateLogFn(
        "int16 tavik_driver_kernel_dev_read(tavik_driver_device*, uns8*, uns16, uns16*)");
    DDI_TRACE_ENTER(fn, "device=0x%p, data=0x%p, data_bytes=%u, data_bytes_read=0x%p",
                    static_cast<void*>(device), static_cast<void*>(data), data_bytes,
                    static_cast<void*>(data_bytes_read));
    tavik_driver_device_private* priv = PrivateOf(device);
    if (!priv) return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", kNoDevice);
    if (priv->handle == -1)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "Invalid file handle");

    uns16 done = 0;
    if (!tavik_driver_kernel_os_read(priv->handle, data, data_bytes, &done))
        return kt::ReportFailure(fn.get(), KZ_ERR_DDI_DEVICE_READ_FAILED, "%s",
                                 kt::LastError::GetDetails());
    if (data_bytes_read) *data_bytes_read = done;

    DDI_TRACE_DUMP(fn, Debug, data, done, "Read data from device '%s', %u bytes: ",
                   device->name, done);
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

__attribute__((always_inline)) inline int16 DevWrite(tavik_driver_device* device, const uns8* data,
                                                    uns16 data_bytes, uns16* data_bytes_written) {
    auto fn = kt::LogDdi::CreateLogFn(
        "int16 tavik_driver_kernel_dev_write(tavik_driver_device*, const uns8*, uns16, uns16*)");
    DDI_TRACE_ENTER(fn, "device=0x%p, data=0x%p, data_bytes=%u, data_bytes_written=0x%p",
                    static_cast<void*>(device), static_cast<const void*>(data), data_bytes,
                    static_cast<void*>(data_bytes_written));
    tavik_driver_device_private* priv = PrivateOf(device);
    if (!priv) return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", kNoDevice);
    if (priv->handle == -1)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "Invalid file handle");

    uns16 done = 0;
    if (!tavik_driver_kernel_os_write(priv->handle, data, data_bytes, &done))
        return kt::ReportFailure(fn.get(), KZ_ERR_DDI_DEVICE_WRITE_FAILED, "%s",
                                 kt::LastError::GetDetails());
    if (data_bytes_written) *data_bytes_written = done;

    DDI_TRACE_DUMP(fn, Debug, data, done, "Written data to device '%s', %u bytes: ",
                   device->name, done);
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

__attribute__((always_inline)) inline int16 DevIoctl(tavik_driver_device* device, uns32 request,
                                                    void* arg) {
    auto fn = kt::LogDdi::CreateLogFn(
        "int16 tavik_driver_kernel_dev_ioctl(tavik_driver_device*, uns32, void*)");
    DDI_TRACE_ENTER(fn, "device=0x%p, request=%s(0x%08x), arg=0x%p", static_cast<void*>(device),
                    kt::EnumUtils::GetName<_KZ_IOCTL>(static_cast<_KZ_IOCTL>(request)), request,
                    arg);
    tavik_driver_device_private* priv = PrivateOf(device);
    if (!priv) return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "%s", kNoDevice);
    if (priv->handle == -1)
        return kt::ReportFailure(fn.get(), KZ_ERR_STATE_INVALID, "Invalid file handle");

    if (!tavik_driver_kernel_os_ioctl(priv->handle, request, arg))
        return kt::ReportFailure(fn.get(), KZ_ERR_DDI_DEVICE_IOCTL_FAILED, "%s",
                                 kt::LastError::GetDetails());

    DDI_TRACE_MSG(fn, Debug, "Done IOCTL for device '%s', command %s(0x%08x), arg 0x%p",
                  device->name, kt::EnumUtils::GetName<_KZ_IOCTL>(static_cast<_KZ_IOCTL>(request)),
                  request, arg);
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

uns32 DevLastErrorMsg(tavik_driver_device* device, char* pBuffer, uns32 bufferSize) {
    auto fn = kt::LogDdi::CreateLogFn(
        "uns32 tavik_driver_kernel_dev_last_error_msg(tavik_driver_device*, char*, uns32)");
    DDI_TRACE_ENTER(fn, "device=0x%p, pBuffer=0x%p, bufferSize=%u", static_cast<void*>(device),
                    static_cast<void*>(pBuffer), bufferSize);
    const uns32 needed = kt::CopyLastErrorText(pBuffer, bufferSize);
    // Only a buffer that was written to can be quoted.
    if (pBuffer && bufferSize != 0)
        DDI_TRACE_RETURN_ARGS(fn, "%u, pBuffer='%s'", needed, pBuffer);
    else
        DDI_TRACE_RETURN_ARGS(fn, "%u", needed);
    return needed;
}

} // namespace

int16 tavik_driver_kernel_dev_open(tavik_driver_device* device) {
    try {
        return DevOpen(device);
    } catch (...) {
        return kt::ReportException();
    }
}

int16 tavik_driver_kernel_dev_close(tavik_driver_device* device) {
    try {
        return DevClose(device);
    } catch (...) {
        return kt::ReportException();
    }
}

int16 tavik_driver_kernel_dev_read(tavik_driver_device* device, uns8* data, uns16 data_bytes,
                                   uns16* data_bytes_read) {
    try {
        return DevRead(device, data, data_bytes, data_bytes_read);
    } catch (...) {
        return kt::ReportException();
    }
}

int16 tavik_driver_kernel_dev_write(tavik_driver_device* device, const uns8* data,
                                    uns16 data_bytes, uns16* data_bytes_written) {
    try {
        return DevWrite(device, data, data_bytes, data_bytes_written);
    } catch (...) {
        return kt::ReportException();
    }
}

int16 tavik_driver_kernel_dev_ioctl(tavik_driver_device* device, uns32 request, void* arg) {
    try {
        return DevIoctl(device, request, arg);
    } catch (...) {
        return kt::ReportException();
    }
}

uns32 tavik_driver_kernel_dev_last_error_msg(tavik_driver_device* device, char* pBuffer,
                                             uns32 bufferSize) {
    try {
        return DevLastErrorMsg(device, pBuffer, bufferSize);
    } catch (...) {
        // The copy itself cannot throw; only tracing can, after the copy was made.
        return kt::CopyLastErrorText(nullptr, 0);
    }
}
