// Small helpers shared by the end-to-end cases.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <tavik/tavik.h>

#include "ChildProcess.h"
#include "DdiLibrary.h"
#include "FakeDev.h"
#include "LogFile.h"

namespace tavik_test {

inline std::string FixtureDir(const std::string& folder) { return std::string(TAVIK_TEST_FIXTURES_DIR) + "/" + folder; }

inline unsigned long ThreadId() { return static_cast<unsigned long>(syscall(SYS_gettid)); }

// Trace signatures that the library's entry points and discovery steps use.
namespace sig {
inline const char kInit[] = "int16 tavik_ddi_init(Ddi*)";
inline const char kUninit[] = "int16 tavik_ddi_uninit(Ddi*)";
inline const char kVersion[] = "int16 tavik_ddi_get_lib_version(uns16*, uns16*, uns16*)";
inline const char kLoadUserModes[] = "void ddi_load_user_mode_drivers(Ddi*)";
inline const char kLoadUserMode[] = "void ddi_load_user_mode_driver(Ddi*, const char*)";
inline const char kLoadKernelModes[] = "void ddi_load_kernel_mode_drivers(Ddi*)";
inline const char kLoadKernelMode[] = "void ddi_load_kernel_mode_driver(Ddi*, E_TAVIK_DRIVER_TYPE)";
inline const char kUpdateList[] = "void ddi_update_device_list(Ddi*)";
inline const char kDriverLoadUser[] = "rs_bool tavik_driver_load_user_mode(const char*, tavik_driver**)";
inline const char kDriverLoadKernel[] = "rs_bool tavik_driver_load_kernel_mode(E_TAVIK_DRIVER_TYPE, tavik_driver**)";
inline const char kDriverUnload[] = "void tavik_driver_unload(tavik_driver**)";
}  // namespace sig

// The library loaded and initialised in a child, with the usual checks.
struct Session {
  DdiLibrary lib;
  Ddi ddi;
};

}  // namespace tavik_test

// Loads the library and runs tavik_ddi_init into s.ddi (pre-filled with garbage
// so that every field the library must write is proved written).
#define TAVIK_INIT_SESSION(s)                                     \
  do {                                                            \
    TAVIK_ASSERT_LOAD((s).lib);                                   \
    std::memset(&(s).ddi, 0xA5, sizeof((s).ddi));                 \
    ASSERT_EQ((s).lib.init(&(s).ddi), KZ_ERR_NONE);               \
    ASSERT_EQ((s).ddi.state, TAVIK_DDI_STATE_OPEN);               \
  } while (0)

#define TAVIK_UNINIT_SESSION(s)                                   \
  do {                                                            \
    ASSERT_EQ((s).lib.uninit(&(s).ddi), KZ_ERR_NONE);             \
    EXPECT_EQ((s).ddi.state, TAVIK_DDI_STATE_CLOSED);             \
    EXPECT_EQ((s).ddi.cam_count, 0);                              \
    (s).lib.Unload();                                             \
  } while (0)
