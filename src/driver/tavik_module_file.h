/*
 * Whether a user-mode driver module file may be loaded into this process.
 * Self-contained (the C library only), so that tools show the same refusals
 * as the library.
 */
#ifndef TAVIK_MODULE_FILE_H
#define TAVIK_MODULE_FILE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum tavik_module_file_verdict {
    TAVIK_MODULE_FILE_OK = 0,
    TAVIK_MODULE_FILE_WARN = 1,
    TAVIK_MODULE_FILE_REFUSE = 2
};

/*
 * Only a regular file is loaded. A module runs with all the rights of the
 * process, so neither the file nor the folder that holds it (nor, for a
 * symbolic link, the file and folder it leads to) may be writable by a user
 * other than root and the process's effective user: world-writable or owned by
 * another user is refused, group-writable is loaded with a warning. Writes a
 * short reason ("not a regular file", "world-writable folder", "owned by uid
 * 1000", ...) on WARN and REFUSE. Never opens the file.
 */
enum tavik_module_file_verdict tavik_module_file_check(const char* path, char* reason,
                                                       size_t reasonSize);

#ifdef __cplusplus
}
#endif

#endif
