#include "tavik_module_file.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

__attribute__((format(printf, 3, 4))) void SetReason(char* reason, size_t reasonSize,
                                                     const char* format, ...) {
    if (reason == nullptr || reasonSize == 0) return;
    va_list args;
    va_start(args, format);
    vsnprintf(reason, reasonSize, format, args);
    va_end(args);
}

// Who may change a file or folder decides whose code the process runs: only
// root and the process's effective user may, or else a group at most.
tavik_module_file_verdict Judge(const struct stat& st, bool folder, char* reason,
                                size_t reasonSize) {
    const char* what = folder ? "folder" : "file";
    if (st.st_uid != 0 && st.st_uid != geteuid()) {
        const unsigned owner = static_cast<unsigned>(st.st_uid);
        if (folder)
            SetReason(reason, reasonSize, "folder owned by uid %u", owner);
        else
            SetReason(reason, reasonSize, "owned by uid %u", owner);
        return TAVIK_MODULE_FILE_REFUSE;
    }
    // Also a sticky folder: anyone may add a module to it.
    if ((st.st_mode & S_IWOTH) != 0) {
        SetReason(reason, reasonSize, "world-writable %s", what);
        return TAVIK_MODULE_FILE_REFUSE;
    }
    if ((st.st_mode & S_IWGRP) != 0) {
        SetReason(reason, reasonSize, "group-writable %s", what);
        return TAVIK_MODULE_FILE_WARN;
    }
    return TAVIK_MODULE_FILE_OK;
}

tavik_module_file_verdict Fail(int error, char* reason, size_t reasonSize) {
    char text[128];
    SetReason(reason, reasonSize, "%s", strerror_r(error, text, sizeof text));
    return TAVIK_MODULE_FILE_REFUSE;
}

// Judges the folder that holds path; the worse of it and `sofar` is kept.
tavik_module_file_verdict JudgeFolder(const char* path, tavik_module_file_verdict sofar,
                                      char* reason, size_t reasonSize) {
    char folder[PATH_MAX];
    const char* slash = strrchr(path, '/');
    if (slash == nullptr) {
        snprintf(folder, sizeof folder, ".");
    } else if (slash == path) {
        snprintf(folder, sizeof folder, "/");
    } else {
        const size_t length = static_cast<size_t>(slash - path);
        if (length >= sizeof folder) return Fail(ENAMETOOLONG, reason, reasonSize);
        memcpy(folder, path, length);
        folder[length] = '\0';
    }
    struct stat st;
    if (stat(folder, &st) != 0) return Fail(errno, reason, reasonSize);
    char own[64];
    const tavik_module_file_verdict verdict = Judge(st, true, own, sizeof own);
    if (verdict <= sofar) return sofar;
    SetReason(reason, reasonSize, "%s", own);
    return verdict;
}

} // namespace

extern "C" tavik_module_file_verdict tavik_module_file_check(const char* path, char* reason,
                                                             size_t reasonSize) {
    if (reason != nullptr && reasonSize > 0) reason[0] = '\0';
    if (path == nullptr || path[0] == '\0') return Fail(ENOENT, reason, reasonSize);

    // stat, not open: opening a FIFO for reading waits for a writer.
    struct stat st;
    if (stat(path, &st) != 0) return Fail(errno, reason, reasonSize);
    if (!S_ISREG(st.st_mode)) {
        SetReason(reason, reasonSize, "%s", "not a regular file");
        return TAVIK_MODULE_FILE_REFUSE;
    }
    tavik_module_file_verdict verdict = Judge(st, false, reason, reasonSize);
    if (verdict == TAVIK_MODULE_FILE_REFUSE) return verdict;
    verdict = JudgeFolder(path, verdict, reason, reasonSize);
    if (verdict == TAVIK_MODULE_FILE_REFUSE) return verdict;

    // Whoever may change a link's folder chooses the module as well as whoever
    // may change the file it leads to.
    struct stat link;
    if (lstat(path, &link) != 0) return Fail(errno, reason, reasonSize);
    if (S_ISLNK(link.st_mode)) {
        char target[PATH_MAX];
        if (realpath(path, target) == nullptr) return Fail(errno, reason, reasonSize);
        verdict = JudgeFolder(target, verdict, reason, reasonSize);
    }
    return verdict;
}
