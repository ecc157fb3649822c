#pragma once

#include <tavik/tavik_types.h>

// Naming cameras from a configuration file is not supported; both calls exist so
// that the interface is in place, and both fail.
rs_bool ini_get_path(char* iniPathName, uns32 bufLen);
rs_bool ini_get_camera_name(char* camName, const char* devicePath, const char* iniPathName);
