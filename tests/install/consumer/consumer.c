/* A minimal core built against the installed kit: it acquires frames from the emulated
 * camera and takes everything down in the core's order; exit status 0 only if all worked. */
#define _GNU_SOURCE /* setenv, dladdr, usleep in strict C11 */
#include <dlfcn.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <tavik/tavik.h>

static atomic_uint g_eofs;

static int16 on_notification(tavik_driver_device* device, tavik_notif* notif) {
  (void)device;
  if (notif->type == NOTIFICATION_EOF) atomic_fetch_add(&g_eofs, 1);
  return KZ_ERR_NONE;
}

static void check(int16 rc, const char* step) {
  if (rc == KZ_ERR_NONE) return;
  fprintf(stderr, "consumer: %s failed with %d\n", step, rc);
  exit(1);
}

int main(void) {
  setenv("TAVIK_UMD_PATH", TAVIK_CONSUMER_MODULES_DIR, 0); /* read at init: in time */
  Dl_info where; /* which copy the loader picked: the test wants the installed one */
  printf("consumer: library '%s'\n", dladdr((void*)&tavik_ddi_init, &where) ? where.dli_fname : "?");
  Ddi ddi = {0};
  check(tavik_ddi_init(&ddi), "tavik_ddi_init");
  tavik_driver_device* camera = NULL;
  for (unsigned i = 0; i < ddi.cam_count; ++i) {
    if (ddi.devices[i]->driver == ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL]) camera = ddi.devices[i];
  }
  if (camera == NULL) return fprintf(stderr, "consumer: no emulated camera\n"), 1;
  printf("consumer: camera '%s'\n", camera->name);
  uns8 setup[32] = {0}; /* no frame limit, the module's frame rate */
  check(camera->open(camera), "open");
  check(camera->start_notif_thread(camera, on_notification), "start_notif_thread");
  check(camera->ioctl(camera, TAVIK_IOC_ACQ_SET_ACTIVE, setup), "TAVIK_IOC_ACQ_SET_ACTIVE");
  for (int waited = 0; waited < 1000 && atomic_load(&g_eofs) < 3; ++waited) usleep(10000);
  check(camera->ioctl(camera, TAVIK_IOC_ACQ_ABORT, NULL), "TAVIK_IOC_ACQ_ABORT");
  check(camera->stop_notif_thread(camera), "stop_notif_thread");
  check(camera->close(camera), "close");
  check(tavik_ddi_uninit(&ddi), "tavik_ddi_uninit");
  printf("consumer: %u frames\n", atomic_load(&g_eofs));
  return atomic_load(&g_eofs) >= 3 ? 0 : 1;
}
