#pragma once

#include <cstddef>

#include <tavik/tavik_driver.h>

#include "driver/kernel/tavik_driver_kernel.h"

// Zero-filled records from the C allocator (null when memory ran out); the core and
// driver modules written in C see them as plain structs, and free() releases them.
tavik_driver* tavik_driver_alloc();
tavik_driver_device* tavik_driver_device_alloc();

// Copies text into a fixed-size field, cut to size-1 characters and terminated.
void tavik_driver_copy_text(char* target, size_t size, const char* text);

// Builds "folder/name" into a fixed-size buffer, cut to size-1 characters.
void tavik_driver_join_path(char* target, size_t size, const char* folder, const char* name);

// Text of a bus type or driver mode in dumps: "PCI", ..., "<invalid>".
const char* tavik_driver_type_text(uns32 type);
const char* tavik_driver_mode_text(uns32 mode);

// Loading fills *driver with a record whose init has run, or leaves it null.
rs_bool tavik_driver_load_user_mode(const char* file_path, tavik_driver** driver);
rs_bool tavik_driver_load_kernel_mode(E_TAVIK_DRIVER_TYPE drv_type, tavik_driver** driver);
// Calls the driver's uninit, closes its module, frees the record, nulls the slot.
void tavik_driver_unload(tavik_driver** driver);

// Debugging aids: print the records to standard output.
void tavik_driver_dump(tavik_driver* driver);
void tavik_driver_device_list_dump(tavik_driver_device** device_list);
void tavik_driver_device_dump(tavik_driver_device* device);

// Gives a kernel-mode driver record the same three entry points that a user-mode
// module exports, so the rest of the library treats both modes alike.
template <E_TAVIK_DRIVER_TYPE N>
struct KernelDriverHelper {
    static rs_bool Init(tavik_driver* driver) { return tavik_driver_kernel_init(driver, N); }
    static void Uninit(tavik_driver* driver) { tavik_driver_kernel_uninit(driver); }
    static E_TAVIK_DRIVER_TYPE GetType() { return N; }
};
