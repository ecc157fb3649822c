#pragma once

#include <type_traits>

#include <tavik/tavik_ddi.h>
#include <tavik/tavik_driver.h>

#include "names/kit_enums.h"

namespace kt {
namespace EnumUtils {

template <typename>
inline constexpr bool kHasNameTable = false;

// Name of an enumeration value as the kit's definitions spell it, "<UNKNOWN>"
// for a value that is not a member. Only the explicit specialisations below
// exist; any other type is rejected when compiling rather than when linking.
template <typename T>
const char* GetName(T value) {
  static_assert(std::is_enum<T>::value, "GetName names enumeration values only");
  static_assert(kHasNameTable<T>, "no name table for this enumeration type");
  (void)value;
  return nullptr;
}

template <> const char* GetName<_KZ_DRIVER_TYPE>(_KZ_DRIVER_TYPE value);
template <> const char* GetName<_KZ_DRIVER_MODE>(_KZ_DRIVER_MODE value);
template <> const char* GetName<_KZ_DDI_STATE>(_KZ_DDI_STATE value);
template <> const char* GetName<_KZ_CAM_STATE>(_KZ_CAM_STATE value);
template <> const char* GetName<_KZ_DDI_STATUS>(_KZ_DDI_STATUS value);
template <> const char* GetName<_KZ_IOCTL>(_KZ_IOCTL value);
template <> const char* GetName<_KZ_NOTIF>(_KZ_NOTIF value);

#define KT_DECLARE_GET_NAME(type, list) template <> const char* GetName<type>(type value);
KT_KIT_NAMED_ENUMS(KT_DECLARE_GET_NAME)
#undef KT_DECLARE_GET_NAME

// The combined exposure mode is composed into one process-wide text that every
// call overwrites: the result stays valid only until the next call from any
// thread. Log lines format it at once, which is all it is for.
template <> const char* GetName<_KZ_EXP_MODE>(_KZ_EXP_MODE value);

} // namespace EnumUtils
} // namespace kt
