#include "tavik_module_file.h"

#include <sys/stat.h>

#include <cstdio>

extern "C" enum tavik_module_file_verdict tavik_module_file_check(const char* path, char* reason,
                                                                  size_t reasonSize) {
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    snprintf(reason, reasonSize, "not a regular file");
    return TAVIK_MODULE_FILE_REFUSE;
  }
  if ((st.st_mode & S_IWOTH) != 0) {
    snprintf(reason, reasonSize, "writable by every user");
    return TAVIK_MODULE_FILE_REFUSE;
  }
  return TAVIK_MODULE_FILE_OK;
}
