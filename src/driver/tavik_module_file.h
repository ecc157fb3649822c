/*
 * Whether a file may be loaded as a driver module: loading runs the file's code
 * in the caller's process, so a file that someone else could have replaced is
 * refused.
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

/* Writes a short reason on WARN/REFUSE. */
enum tavik_module_file_verdict tavik_module_file_check(const char* path, char* reason, size_t reasonSize);

#ifdef __cplusplus
}
#endif

#endif /* TAVIK_MODULE_FILE_H */
