/*
 * The smallest camera-control core: loads the library by path, as a setuid or
 * setcap program must (its loader ignores LD_LIBRARY_PATH and $ORIGIN), and
 * prints what init found; then loads the camera emulator on its own and prints
 * how many cameras it made. Usage: secure_core LIBRARY EMULATOR
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <sys/auxv.h>

#include <tavik/tavik.h>

typedef int16 (*ddi_fn)(Ddi*);

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  printf("secure %lu\n", getauxval(AT_SECURE));
  void* lib = dlopen(argv[1], RTLD_NOW);
  if (lib == NULL) {
    printf("library: %s\n", dlerror());
    return 2;
  }
  ddi_fn init = (ddi_fn)dlvsym(lib, "tavik_ddi_init", "TAVIK_DDI_3.0");
  ddi_fn uninit = (ddi_fn)dlvsym(lib, "tavik_ddi_uninit", "TAVIK_DDI_3.0");
  if (init == NULL || uninit == NULL) return 2;
  Ddi ddi;
  memset(&ddi, 0, sizeof ddi);
  printf("init %d\n", init(&ddi));
  for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t)
    if (ddi.drivers[t] != NULL && ddi.drivers[t]->mode == TAVIK_DRIVER_MODE_USER)
      printf("user-mode slot %d: '%s'\n", t, ddi.drivers[t]->file_path);
  printf("uninit %d\n", uninit(&ddi));
  dlclose(lib);

  void* emulator = dlopen(argv[2], RTLD_NOW);
  if (emulator == NULL) {
    printf("emulator: %s\n", dlerror());
    return 2;
  }
  tavik_driver_init_fn emuInit = (tavik_driver_init_fn)dlsym(emulator, "init");
  tavik_driver_uninit_fn emuUninit = (tavik_driver_uninit_fn)dlsym(emulator, "uninit");
  if (emuInit == NULL || emuUninit == NULL) return 2;
  tavik_driver driver;
  memset(&driver, 0, sizeof driver);
  int cameras = 0;
  if (emuInit(&driver) == QX_OK)
    while (driver.device_list != NULL && driver.device_list[cameras] != NULL) ++cameras;
  printf("emulator cameras %d\n", cameras);
  emuUninit(&driver);
  dlclose(emulator);
  return 0;
}
