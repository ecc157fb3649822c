#include "driver/tavik_driver_internal.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "driver/tavik_module_file.h"
#include "log/LogTrace.h"
#include "log/LogUtils.h"
#include "names/EnumUtils.h"

namespace {

const char* const kTypeTexts[TAVIK_DRIVER_TYPE_COUNT] = {"PCI", "PCIe", "USB", "FireWire",
                                                         "Virtual"};
const char* const kModeTexts[2] = {"USER", "KERNEL"};
const char* const kInvalidText = "<invalid>";

template <E_TAVIK_DRIVER_TYPE N>
void BindKernelHelper(tavik_driver* driver) {
    driver->init = &KernelDriverHelper<N>::Init;
    driver->uninit = &KernelDriverHelper<N>::Uninit;
    driver->type = &KernelDriverHelper<N>::GetType;
}

void BindKernelHelper(tavik_driver* driver, E_TAVIK_DRIVER_TYPE type) {
    switch (type) {
    case TAVIK_DRIVER_TYPE_PCI: BindKernelHelper<TAVIK_DRIVER_TYPE_PCI>(driver); break;
    case TAVIK_DRIVER_TYPE_PCIE: BindKernelHelper<TAVIK_DRIVER_TYPE_PCIE>(driver); break;
    case TAVIK_DRIVER_TYPE_USB: BindKernelHelper<TAVIK_DRIVER_TYPE_USB>(driver); break;
    case TAVIK_DRIVER_TYPE_1394: BindKernelHelper<TAVIK_DRIVER_TYPE_1394>(driver); break;
    case TAVIK_DRIVER_TYPE_VIRTUAL: BindKernelHelper<TAVIK_DRIVER_TYPE_VIRTUAL>(driver); break;
    }
}

// The module's resolved path; the lookup reports its own failure as a text
// beginning with "Failed ", in which case the caller's path is kept instead.
void StoreModulePath(tavik_driver* driver, const char* file_path) {
    try {
        const std::string full = kt::LogUtils::GetLibFullFileNameByHandle(driver->handle);
        if (full.compare(0, 7, "Failed ") != 0) {
            tavik_driver_copy_text(driver->file_path, sizeof(driver->file_path), full.c_str());
            return;
        }
    } catch (...) {
        // Out of memory while asking: the caller's path is still a valid name.
    }
    tavik_driver_copy_text(driver->file_path, sizeof(driver->file_path), file_path);
}

// A load that fails leaves nothing behind: a record that exists is unloaded
// (which calls the driver's uninit when it is bound) and the caller's pointer is
// null. Loaders only log; they set no last-error text.
rs_bool FailLoad(kt::LogFn* fn, tavik_driver** record, const char* message) {
    if (message) DDI_TRACE_MSG(fn, Error, "%s", message);
    if (record) tavik_driver_unload(record);
    DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
    return QX_FAIL;
}

// A module runs with the process's rights: one that another user can change is
// refused, one that a group can change is loaded with a warning. False when refused.
bool AcceptModuleFile(kt::LogFn* fn, const char* file_path) {
    char reason[128];
    const tavik_module_file_verdict verdict =
        tavik_module_file_check(file_path, reason, sizeof reason);
    if (verdict == TAVIK_MODULE_FILE_REFUSE) {
        DDI_TRACE_MSG(fn, Error, "Refused library '%s' (%s)", file_path, reason);
        return false;
    }
    if (verdict == TAVIK_MODULE_FILE_WARN)
        DDI_TRACE_MSG(fn, Warning, "Loading library '%s' anyway (%s)", file_path, reason);
    return true;
}

// The file that the loader found for a bare name, by its own search.
const char* LoadedFileName(void* handle) {
    struct link_map* map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr || map->l_name == nullptr) {
        dlerror();
        return nullptr;
    }
    return map->l_name;
}

template <typename Fn>
Fn LookUp(void* handle, const char* name) {
    return reinterpret_cast<Fn>(dlsym(handle, name));
}

} // namespace

tavik_driver* tavik_driver_alloc() {
    return static_cast<tavik_driver*>(std::calloc(1, sizeof(tavik_driver)));
}

tavik_driver_device* tavik_driver_device_alloc() {
    return static_cast<tavik_driver_device*>(std::calloc(1, sizeof(tavik_driver_device)));
}

void tavik_driver_copy_text(char* target, size_t size, const char* text) {
    if (!target || size == 0) return;
    if (!text) text = "";
    std::strncpy(target, text, size - 1);
    target[size - 1] = '\0';
}

void tavik_driver_join_path(char* target, size_t size, const char* folder, const char* name) {
    if (!target || size == 0) return;
    std::snprintf(target, size, "%s/%s", folder ? folder : "", name ? name : "");
}

const char* tavik_driver_type_text(uns32 type) {
    return type < TAVIK_DRIVER_TYPE_COUNT ? kTypeTexts[type] : kInvalidText;
}

const char* tavik_driver_mode_text(uns32 mode) {
    return mode < 2 ? kModeTexts[mode] : kInvalidText;
}

rs_bool tavik_driver_load_user_mode(const char* file_path, tavik_driver** driver) {
    auto fn = kt::LogDdi::CreateLogFn(
        "rs_bool tavik_driver_load_user_mode(const char*, tavik_driver**)");
    DDI_TRACE_ENTER(fn, "file_path='%s', driver=0x%p", DdiStr(file_path),
                    static_cast<void*>(driver));
    // A null name would make the loader hand out the main program; refuse it.
    if (!driver || !file_path) {
        if (driver) *driver = nullptr;
        return FailLoad(fn.get(), nullptr, nullptr);
    }

    *driver = tavik_driver_alloc();
    if (!*driver) return FailLoad(fn.get(), nullptr, "Cannot allocate driver");
    tavik_driver* record = *driver;

    // A name with a slash is the file itself, judged before the loader opens it
    // (so a FIFO never blocks the open and a refused module's constructors never
    // run); a bare name is found by the loader's own search, and only the file it
    // found can be judged.
    const bool bareName = std::strchr(file_path, '/') == nullptr;
    if (!bareName && !AcceptModuleFile(fn.get(), file_path))
        return FailLoad(fn.get(), driver, nullptr);

    // Bound now, so that a module that calls a function nobody provides is
    // refused here instead of ending the process at that call.
    record->handle = dlopen(file_path, RTLD_NOW);
    if (!record->handle) {
        if (fn && fn->WillBeLogged(kt::LogEntry::Error)) {
            fn->LogMessage(kt::LogEntry::Error, "Failed to load library '%s' (%s)", file_path,
                           kt::LogUtils::GetDynLibErrorString().c_str());
        } else {
            dlerror(); // leave no stale loader error behind for later lookups
        }
        return FailLoad(fn.get(), driver, nullptr);
    }

    if (bareName) {
        const char* found = LoadedFileName(record->handle);
        if (found != nullptr && !AcceptModuleFile(fn.get(), found))
            return FailLoad(fn.get(), driver, nullptr);
    }

    record->mode = TAVIK_DRIVER_MODE_USER;
    StoreModulePath(record, file_path);

    record->init = LookUp<tavik_driver_init_fn>(record->handle, "init");
    record->uninit = LookUp<tavik_driver_uninit_fn>(record->handle, "uninit");
    record->type = LookUp<tavik_driver_type_fn>(record->handle, "type");
    dlerror(); // a missing name leaves a loader error that later lookups must not see
    const char* missing = nullptr;
    if (!record->init)
        missing = "Init function not found in driver";
    else if (!record->uninit)
        missing = "Uninit function not found in driver";
    else if (!record->type)
        missing = "Type function not found in driver";
    if (missing) {
        return FailLoad(fn.get(), driver, missing);
    }

    if (record->init(record) != QX_OK) {
        return FailLoad(fn.get(), driver, "Driver initialization failed");
    }

    const uns32 type = static_cast<uns32>(record->type());
    if (type >= TAVIK_DRIVER_TYPE_COUNT) {
        DDI_TRACE_MSG(fn, Error, "Invalid driver type %u", type);
        return FailLoad(fn.get(), driver, nullptr);
    }

    DDI_TRACE_RETURN_ARGS(fn, "*driver=0x%p", static_cast<void*>(*driver));
    DDI_TRACE_RESULT(fn, "%s", "QX_OK");
    return QX_OK;
}

rs_bool tavik_driver_load_kernel_mode(E_TAVIK_DRIVER_TYPE drv_type, tavik_driver** driver) {
    auto fn = kt::LogDdi::CreateLogFn(
        "rs_bool tavik_driver_load_kernel_mode(E_TAVIK_DRIVER_TYPE, tavik_driver**)");
    DDI_TRACE_ENTER(fn, "drv_type=%u(%s), driver=0x%p", static_cast<uns32>(drv_type),
                    kt::EnumUtils::GetName<_KZ_DRIVER_TYPE>(drv_type), static_cast<void*>(driver));
    if (!driver) return FailLoad(fn.get(), nullptr, nullptr);

    *driver = tavik_driver_alloc();
    if (!*driver) return FailLoad(fn.get(), nullptr, "Cannot allocate driver");
    tavik_driver* record = *driver;
    record->handle = nullptr;
    record->mode = TAVIK_DRIVER_MODE_KERNEL;
    record->file_path[0] = '\0';

    if (static_cast<uns32>(drv_type) >= TAVIK_DRIVER_TYPE_COUNT) {
        DDI_TRACE_MSG(fn, Error, "Unknown driver type: %u", static_cast<uns32>(drv_type));
        return FailLoad(fn.get(), driver, nullptr);
    }

    BindKernelHelper(record, drv_type);
    if (record->init(record) != QX_OK) {
        return FailLoad(fn.get(), driver, "Driver initialization failed");
    }

    DDI_TRACE_RETURN_ARGS(fn, "*driver=0x%p", static_cast<void*>(*driver));
    DDI_TRACE_RESULT(fn, "%s", "QX_OK");
    return QX_OK;
}

void tavik_driver_unload(tavik_driver** driver) {
    auto fn = kt::LogDdi::CreateLogFn("void tavik_driver_unload(tavik_driver**)");
    DDI_TRACE_ENTER(fn, "*driver=0x%p", driver ? static_cast<void*>(*driver) : nullptr);
    if (!driver || !*driver) return;

    tavik_driver* record = *driver;
    // Also after a failed or missing init: a driver's uninit must cope with that.
    if (record->uninit) record->uninit(record);
    if (record->handle) dlclose(record->handle);
    std::free(record);
    *driver = nullptr;
}

void tavik_driver_dump(tavik_driver* driver) {
    static const char* const self = "tavik_driver_dump";
    std::printf("%s: driver: 0x%p\n", self, static_cast<void*>(driver));
    if (!driver) return;
    const char* type = driver->type ? tavik_driver_type_text(static_cast<uns32>(driver->type()))
                                    : kInvalidText;
    // A damaged record may hold any mode: read it as the plain number it is.
    uns32 mode = 0;
    std::memcpy(&mode, &driver->mode, sizeof(mode));
    std::printf("%s: mode: %s, type: %s, handle: 0x%p, file_path: '%s'\n", self,
                tavik_driver_mode_text(mode), type, driver->handle,
                driver->file_path);
    std::printf("%s: init: 0x%p, uninit: 0x%p, type: 0x%p\n", self,
                reinterpret_cast<void*>(driver->init), reinterpret_cast<void*>(driver->uninit),
                reinterpret_cast<void*>(driver->type));
    tavik_driver_device_list_dump(driver->device_list);
}

void tavik_driver_device_list_dump(tavik_driver_device** device_list) {
    std::printf("%s: device_list: 0x%p\n", "tavik_driver_device_list_dump",
                static_cast<void*>(device_list));
    if (!device_list) return;
    for (uns16 index = 0; device_list[index]; ++index) tavik_driver_device_dump(device_list[index]);
}

void tavik_driver_device_dump(tavik_driver_device* device) {
    static const char* const self = "tavik_driver_device_dump";
    std::printf("%s: device: 0x%p\n", self, static_cast<void*>(device));
    if (!device) return;
    std::printf("%s: name: '%s', file_path: '%s'\n", self, device->name, device->file_path);
    std::printf("%s: open: 0x%p, close: 0x%p, last_error_msg: 0x%p\n", self,
                reinterpret_cast<void*>(device->open), reinterpret_cast<void*>(device->close),
                reinterpret_cast<void*>(device->last_error_msg));
    std::printf("%s: read: 0x%p, write: 0x%p, ioctl: 0x%p\n", self,
                reinterpret_cast<void*>(device->read), reinterpret_cast<void*>(device->write),
                reinterpret_cast<void*>(device->ioctl));
    std::printf("%s: start_notif_thread: 0x%p, stop_notif_thread: 0x%p\n", self,
                reinterpret_cast<void*>(device->start_notif_thread),
                reinterpret_cast<void*>(device->stop_notif_thread));
}
