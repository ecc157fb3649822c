/* A minimal core built against the installed kit: which library the loader
 * picked, the modules folder the build was told, and the cameras that init finds.
 * In C the headers' static assertions hold too. */
#define _GNU_SOURCE /* dladdr in strict C11 */
#include <dlfcn.h>
#include <stdio.h>

#include <tavik/tavik.h>

_Static_assert(sizeof(((tavik_driver_device*)0)->private) != 0, "C names the record's field 'private'");

int main(void) {
  Dl_info where;
  Ddi ddi = {0};
  int16 init = tavik_ddi_init(&ddi);
  printf("library '%s'\nmodules '%s'\ninit %d, cameras %u\n",
         dladdr((void*)&tavik_ddi_init, &where) ? where.dli_fname : "?", TAVIK_CONSUMER_MODULES_DIR, init,
         ddi.cam_count);
  return init == KZ_ERR_NONE && tavik_ddi_uninit(&ddi) == KZ_ERR_NONE ? 0 : 1;
}
