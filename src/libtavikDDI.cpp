// The shared object's own translation unit. Everything else comes whole from the
// internal static library; this file pins the exported signatures to the
// function-pointer types that a core resolves with dlvsym.
#include <type_traits>

#include <tavik/tavik_ddi.h>

static_assert(std::is_same_v<decltype(&tavik_ddi_init), tavik_ddi_init_fn>);
static_assert(std::is_same_v<decltype(&tavik_ddi_uninit), tavik_ddi_uninit_fn>);
static_assert(std::is_same_v<decltype(&tavik_ddi_get_lib_version), tavik_ddi_get_lib_version_fn>);
static_assert(std::is_same_v<decltype(&tavik_ddi_get_last_error_message),
                             tavik_ddi_get_last_error_message_fn>);
