// The operating-system half of driver discovery: the module search.
#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ddi/tavik_ddi_internal.h"
#include "driver/tavik_driver_internal.h"
#include "log/LogTrace.h"
#include "log/LogUtils.h"

int _scandir_filter(const struct dirent* entry) {
    const char* name = entry->d_name;
    const char* pattern = kDdiUmdPattern;
    const size_t nameLength = std::strlen(name);
    if (nameLength < std::strlen(pattern)) return 0;
    const char* star = std::strchr(pattern, '*');
    if (!star) return 0;
    const size_t prefixLength = static_cast<size_t>(star - pattern);
    const char* suffix = star + 1;
    const size_t suffixLength = std::strlen(suffix);
    // Case-sensitive: the prefix at the very start, the suffix at the very end.
    if (std::strncmp(name, pattern, prefixLength) != 0) return 0;
    return std::strcmp(name + nameLength - suffixLength, suffix) == 0 ? 1 : 0;
}

void ddi_load_user_mode_drivers(Ddi* ddi) {
    auto fn = kt::LogDdi::CreateLogFn("void ddi_load_user_mode_drivers(Ddi*)");
    DDI_TRACE_ENTER(fn, "ddi=0x%p", static_cast<void*>(ddi));

    // A program that runs with more rights than its user (setuid, file
    // capabilities) takes no folder from that user: the loader's own secure
    // search finds the known names, as it ignores LD_LIBRARY_PATH there.
    const char* folder = secure_getenv(kDdiUmdPathVariable);
    if (!folder || folder[0] == '\0') {
        DDI_TRACE_MSG(fn, Info,
                      "Env. var. %s not set, searching known user mode drivers in system...",
                      kDdiUmdPathVariable);
        for (const char* const* name = kDdiKnownUmdNames; *name; ++name)
            ddi_load_user_mode_driver(ddi, *name);
        return;
    }

    DDI_TRACE_MSG(fn, Info, "Searching for user mode drivers in %s='%s'...", kDdiUmdPathVariable,
                  folder);
    struct dirent** entries = nullptr;
    const int count = scandir(folder, &entries, _scandir_filter, alphasort);
    if (count < 0) {
        const int error = errno;
        // No fallback to the known names: the folder was chosen explicitly.
        DDI_TRACE_MSG(fn, Error, "Cannot scan folder '%s', errno %d (%s)", folder, error,
                      kt::LogUtils::GetErrorString(error).c_str());
        return;
    }
    for (int i = 0; i < count; ++i) {
        char path[4096];
        tavik_driver_join_path(path, sizeof(path), folder, entries[i]->d_name);
        ddi_load_user_mode_driver(ddi, path);
        std::free(entries[i]);
    }
    std::free(entries);
}
