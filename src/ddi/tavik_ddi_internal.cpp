#include "ddi/tavik_ddi_internal.h"

#include "driver/tavik_driver_internal.h"
#include "log/LogTrace.h"
#include "names/EnumUtils.h"

const char* const kDdiKnownUmdNames[] = {"tavik_usb.x86_64.umd", "tavik_virtual.x86_64.umd",
                                         nullptr};

namespace {

struct CameraRow {
    const char* label;
    E_TAVIK_DRIVER_TYPE type;
};

// The row order, not the type order, decides the order of the cameras. The labels
// are all 16 characters wide so that the counts in the log line up.
const CameraRow kCameraRows[] = {
    {"Cameras on   PCI", TAVIK_DRIVER_TYPE_PCI},
    {"Cameras on   USB", TAVIK_DRIVER_TYPE_USB},
    {"Cameras on  1394", TAVIK_DRIVER_TYPE_1394},
    {"Cameras on  PCIe", TAVIK_DRIVER_TYPE_PCIE},
    {"Camera emulators", TAVIK_DRIVER_TYPE_VIRTUAL},
};

bool IsCompatible(const tavik_driver_device* device) {
    return device->open && device->close && device->read && device->write && device->ioctl &&
           device->last_error_msg && device->start_notif_thread && device->stop_notif_thread;
}

const char* TypeName(E_TAVIK_DRIVER_TYPE type) {
    return kt::EnumUtils::GetName<_KZ_DRIVER_TYPE>(type);
}

} // namespace

void ddi_load_user_mode_driver(Ddi* ddi, const char* file_path) {
    auto fn = kt::LogDdi::CreateLogFn("void ddi_load_user_mode_driver(Ddi*, const char*)");
    DDI_TRACE_ENTER(fn, "ddi=0x%p, file_path='%s'", static_cast<void*>(ddi), DdiStr(file_path));
    DDI_TRACE_MSG(fn, Info, "Loading '%s'...", DdiStr(file_path));
    if (!ddi) return;

    tavik_driver* driver = nullptr;
    if (tavik_driver_load_user_mode(file_path, &driver) == QX_FAIL) return;

    // The loader accepted the module's first answer, but a module may answer
    // differently when asked again, and the answer indexes the slots.
    const E_TAVIK_DRIVER_TYPE type = driver->type();
    if (static_cast<uns32>(type) >= TAVIK_DRIVER_TYPE_COUNT) {
        DDI_TRACE_MSG(fn, Error, "Invalid driver type %u", static_cast<uns32>(type));
        tavik_driver_unload(&driver);
        return;
    }
    if (ddi->drivers[type]) {
        // The first module found for a type wins.
        DDI_TRACE_MSG(fn, Warning, "There is already loaded driver with %s type, skipping",
                      TypeName(type));
        tavik_driver_unload(&driver);
        return;
    }
    ddi->drivers[type] = driver;
    DDI_TRACE_MSG(fn, Info, "Accepted valid user mode driver '%s' with %s type", driver->file_path,
                  TypeName(type));
}

void ddi_load_kernel_mode_driver(Ddi* ddi, E_TAVIK_DRIVER_TYPE type) {
    auto fn = kt::LogDdi::CreateLogFn("void ddi_load_kernel_mode_driver(Ddi*, E_TAVIK_DRIVER_TYPE)");
    DDI_TRACE_ENTER(fn, "ddi=0x%p, type=%u(%s)", static_cast<void*>(ddi), static_cast<uns32>(type),
                    TypeName(type));
    if (!ddi || static_cast<uns32>(type) >= TAVIK_DRIVER_TYPE_COUNT) return;

    if (ddi->drivers[type]) {
        DDI_TRACE_MSG(fn, Info, "There is already loaded driver with %s type, skipping",
                      TypeName(type));
        return;
    }
    DDI_TRACE_MSG(fn, Info, "Loading driver for %s type...", TypeName(type));
    if (tavik_driver_load_kernel_mode(type, &ddi->drivers[type]) == QX_OK)
        DDI_TRACE_MSG(fn, Info, "Accepted valid kernel mode driver for %s type", TypeName(type));
}

void ddi_load_kernel_mode_drivers(Ddi* ddi) {
    auto fn = kt::LogDdi::CreateLogFn("void ddi_load_kernel_mode_drivers(Ddi*)");
    DDI_TRACE_ENTER(fn, "ddi=0x%p", static_cast<void*>(ddi));
    for (uns32 type = 0; type < TAVIK_DRIVER_TYPE_COUNT; ++type)
        ddi_load_kernel_mode_driver(ddi, static_cast<E_TAVIK_DRIVER_TYPE>(type));
}

void ddi_update_device_list(Ddi* ddi) {
    auto fn = kt::LogDdi::CreateLogFn("void ddi_update_device_list(Ddi*)");
    DDI_TRACE_ENTER(fn, "ddi=0x%p", static_cast<void*>(ddi));
    if (!ddi) return;

    uns16 count = 0;
    for (const CameraRow& row : kCameraRows) {
        // A slot left empty (its driver could not even be allocated) has no devices.
        const tavik_driver* driver = ddi->drivers[row.type];
        tavik_driver_device* const* list = driver ? driver->device_list : nullptr;
        if (!list || !list[0] || count >= TAVIK_DDI_MAX_CAMERAS) {
            DDI_TRACE_MSG(fn, Info, "%s: %u", row.label, 0u);
            continue;
        }

        uns16 compatible = 0;
        uns16 incompatible = 0;
        for (tavik_driver_device* device; (device = list[compatible + incompatible]) != nullptr;) {
            if (IsCompatible(device)) {
                ddi->devices[count++] = device;
                ++compatible;
            } else {
                ++incompatible;
            }
            if (count >= TAVIK_DDI_MAX_CAMERAS) break;
        }

        if (incompatible != 0)
            DDI_TRACE_MSG(fn, Info, "%s: %u (and %u incompatible ignored)", row.label,
                          static_cast<uns32>(compatible), static_cast<uns32>(incompatible));
        else
            DDI_TRACE_MSG(fn, Info, "%s: %u", row.label, static_cast<uns32>(compatible));
    }

    ddi->cam_count = count;
    DDI_TRACE_MSG(fn, Info, "Total cameras: %u", static_cast<uns32>(count));
}
