#pragma once

#include <dirent.h>

#include <tavik/tavik_ddi.h>

// The three steps of tavik_ddi_init: user-mode modules first, kernel-mode drivers
// for the bus types still free, then the camera list. None of them fails as a
// whole; whatever cannot be loaded is logged and skipped.

inline constexpr const char* kDdiUmdPattern = "tavik_*.x86_64.umd";
inline constexpr const char* kDdiUmdPathVariable = "TAVIK_UMD_PATH";
// Tried by bare name, so that the dynamic loader's own search finds them.
extern const char* const kDdiKnownUmdNames[];

void ddi_load_user_mode_drivers(Ddi* ddi);
void ddi_load_user_mode_driver(Ddi* ddi, const char* file_path);
void ddi_load_kernel_mode_drivers(Ddi* ddi);
void ddi_load_kernel_mode_driver(Ddi* ddi, E_TAVIK_DRIVER_TYPE type);
void ddi_update_device_list(Ddi* ddi);

// Non-zero when the entry's name matches kDdiUmdPattern (the name only, whatever
// kind of file it is).
int _scandir_filter(const struct dirent* entry);
