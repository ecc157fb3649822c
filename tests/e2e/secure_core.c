/*
 * The smallest camera-control core: loads the library by path, as a setuid or setcap program must (its loader
 * ignores LD_LIBRARY_PATH and $ORIGIN), and prints what init found; then loads the camera emulator on its own and
 * prints how many cameras it made. Usage: secure_core LIBRARY EMULATOR
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <sys/auxv.h>

#include <tavik/tavik.h>

typedef int16 (*ddi_fn)(Ddi*);

int main(int argc, char** argv) {
  void* lib = argc == 3 ? dlopen(argv[1], RTLD_NOW) : NULL;
  if (lib == NULL) return 2;
  printf("secure %lu\n", getauxval(AT_SECURE));
  ddi_fn init = (ddi_fn)dlvsym(lib, "tavik_ddi_init", "TAVIK_DDI_3.0");
  ddi_fn uninit = (ddi_fn)dlvsym(lib, "tavik_ddi_uninit", "TAVIK_DDI_3.0");
  Ddi ddi = {0};
  printf("init %d\n", init(&ddi));
  for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t)
    if (ddi.drivers[t] != NULL && ddi.drivers[t]->mode == TAVIK_DRIVER_MODE_USER)
      printf("user-mode slot %d: '%s'\n", t, ddi.drivers[t]->file_path);
  printf("uninit %d\n", uninit(&ddi));
  dlclose(lib);

  void* emulator = dlopen(argv[2], RTLD_NOW);
  if (emulator == NULL) return printf("%s\n", dlerror()), 2;
  tavik_driver driver = {0};
  int cameras = 0;
  if (((tavik_driver_init_fn)dlsym(emulator, "init"))(&driver) == QX_OK)
    while (driver.device_list != NULL && driver.device_list[cameras] != NULL) ++cameras;
  printf("emulator cameras %d\n", cameras);
  ((tavik_driver_uninit_fn)dlsym(emulator, "uninit"))(&driver);
  return dlclose(emulator);
}
