/* The public headers compiled as C, as a core or a module author in C compiles
 * them: their static assertions on every size and offset hold in C too, and C
 * spells the record's "private" field as a plain name. */
#include <tavik/tavik.h>

size_t tavik_c_private_offset(void);
size_t tavik_c_private_offset(void) { return offsetof(tavik_driver_device, private); }
