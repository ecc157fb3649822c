/*
 * The public headers compiled as C, as a core or a module author in C compiles
 * them. The headers carry their own static assertions on sizes and offsets;
 * this file reports the C view of the layout so that a test can compare it
 * with the C++ view, and touches the field that C spells "private".
 */
#include <stddef.h>

#include <tavik/tavik.h>

size_t tavik_c_layout(size_t* out, size_t n);

size_t tavik_c_layout(size_t* out, size_t n) {
  const size_t v[] = {
      sizeof(Ddi),
      offsetof(Ddi, devices),
      offsetof(Ddi, drivers),
      sizeof(tavik_driver),
      offsetof(tavik_driver, init),
      offsetof(tavik_driver, driver_word),
      sizeof(tavik_driver_device),
      offsetof(tavik_driver_device, stop_notif_thread),
      offsetof(tavik_driver_device, private),
      sizeof(tavik_notif),
      sizeof(tavik_notif_list),
      sizeof(E_TAVIK_DDI_STATE),
      sizeof(rs_bool),
      (size_t)TAVIK_IOC_GET_NOTIFICATIONS,
  };
  size_t count = sizeof v / sizeof v[0];
  for (size_t i = 0; i < count && i < n; ++i) out[i] = v[i];
  return count;
}
