#pragma once

#include <type_traits>

#include <tavik/tavik_ddi.h>
#include <tavik/tavik_driver.h>

namespace kt {
namespace EnumUtils {

// Name of an enumeration value as the kit's definitions spell it, "<UNKNOWN>"
// for a value that is not a member. Only the explicit specialisations exist.
template <typename T>
const char* GetName(T value);

template <> const char* GetName<_KZ_DRIVER_TYPE>(_KZ_DRIVER_TYPE value);
template <> const char* GetName<_KZ_DRIVER_MODE>(_KZ_DRIVER_MODE value);
template <> const char* GetName<_KZ_DDI_STATE>(_KZ_DDI_STATE value);
template <> const char* GetName<_KZ_CAM_STATE>(_KZ_CAM_STATE value);
template <> const char* GetName<_KZ_DDI_STATUS>(_KZ_DDI_STATUS value);
template <> const char* GetName<_KZ_IOCTL>(_KZ_IOCTL value);
template <> const char* GetName<_KZ_NOTIF>(_KZ_NOTIF value);

} // namespace EnumUtils
} // namespace kt
