/*
 * A minimal core built against the installed kit: it links libtavikDDI, finds
 * the emulated camera, starts an acquisition through the operation table,
 * waits for a few frames and takes everything down again in the core's order.
 * Exit status 0 only when every step worked and the frames arrived.
 */
#define _GNU_SOURCE /* setenv, dladdr in strict C11 */

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tavik/tavik.h>

#define WANTED_EOFS 3u
#define WAIT_SECONDS 10

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_cond = PTHREAD_COND_INITIALIZER;
static unsigned g_bofs, g_eofs;

static int16 on_notification(tavik_driver_device* device, tavik_notif* notif) {
  (void)device;
  pthread_mutex_lock(&g_lock);
  if (notif->type == NOTIFICATION_BOF) ++g_bofs;
  if (notif->type == NOTIFICATION_EOF) ++g_eofs;
  pthread_cond_broadcast(&g_cond);
  pthread_mutex_unlock(&g_lock);
  return KZ_ERR_NONE;
}

static int fail(const char* step, int code, tavik_driver_device* device) {
  char text[256] = "";
  if (device != NULL) {
    device->last_error_msg(device, text, sizeof text);
  } else {
    tavik_ddi_get_last_error_message(text, sizeof text);
  }
  fprintf(stderr, "consumer: %s failed with %d: '%s'\n", step, code, text);
  return 1;
}

static int wait_for_frames(void) {
  struct timespec until;
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += WAIT_SECONDS;
  int rc = 0;
  pthread_mutex_lock(&g_lock);
  while (g_eofs < WANTED_EOFS && rc != ETIMEDOUT) rc = pthread_cond_timedwait(&g_cond, &g_lock, &until);
  const int enough = g_eofs >= WANTED_EOFS;
  pthread_mutex_unlock(&g_lock);
  return enough;
}

int main(void) {
#ifdef TAVIK_CONSUMER_MODULES_DIR
  /* The library reads the module folder at init, so setting it here is in time. */
  setenv("TAVIK_UMD_PATH", TAVIK_CONSUMER_MODULES_DIR, 0);
#endif
  uns16 major = 0, minor = 0, build = 0;
  int16 rc = tavik_ddi_get_lib_version(&major, &minor, &build);
  if (rc != KZ_ERR_NONE) return fail("tavik_ddi_get_lib_version", rc, NULL);
  /* Which copy of the library the loader picked: the test insists on the installed one. */
  Dl_info where;
  const char* library = dladdr((void*)&tavik_ddi_init, &where) && where.dli_fname ? where.dli_fname : "?";
  printf("consumer: library '%s'\n", library);
  printf("consumer: libtavikDDI %u.%u.%u, modules in '%s'\n", major, minor, build,
         getenv("TAVIK_UMD_PATH") ? getenv("TAVIK_UMD_PATH") : "(unset)");

  Ddi ddi;
  memset(&ddi, 0, sizeof ddi);
  rc = tavik_ddi_init(&ddi);
  if (rc != KZ_ERR_NONE) return fail("tavik_ddi_init", rc, NULL);

  const tavik_driver* emulator = ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL];
  tavik_driver_device* camera = NULL;
  for (unsigned i = 0; i < ddi.cam_count; ++i) {
    if (emulator != NULL && emulator->mode == TAVIK_DRIVER_MODE_USER && ddi.devices[i]->driver == emulator) {
      camera = ddi.devices[i];
      break;
    }
  }
  if (camera == NULL) {
    fprintf(stderr, "consumer: no emulated camera among %u camera(s)\n", ddi.cam_count);
    tavik_ddi_uninit(&ddi);
    return 1;
  }
  printf("consumer: camera '%s'\n", camera->name);

  int status = 0;
  rc = camera->open(camera);
  if (rc != KZ_ERR_NONE) {
    status = fail("open", rc, camera);
  } else {
    rc = camera->start_notif_thread(camera, on_notification);
    if (rc != KZ_ERR_NONE) {
      status = fail("start_notif_thread", rc, camera);
    } else {
      uns8 setup[32];
      memset(setup, 0, sizeof setup);
      rc = camera->ioctl(camera, TAVIK_IOC_ACQ_SET_ACTIVE, setup);
      if (rc != KZ_ERR_NONE) {
        status = fail("TAVIK_IOC_ACQ_SET_ACTIVE", rc, camera);
      } else {
        if (!wait_for_frames()) {
          fprintf(stderr, "consumer: fewer than %u frames within %d s\n", WANTED_EOFS, WAIT_SECONDS);
          status = 1;
        }
        rc = camera->ioctl(camera, TAVIK_IOC_ACQ_ABORT, NULL);
        if (rc != KZ_ERR_NONE) status = fail("TAVIK_IOC_ACQ_ABORT", rc, camera);
      }
      rc = camera->stop_notif_thread(camera);
      if (rc != KZ_ERR_NONE) status = fail("stop_notif_thread", rc, camera);
    }
    rc = camera->close(camera);
    if (rc != KZ_ERR_NONE) status = fail("close", rc, camera);
  }
  rc = tavik_ddi_uninit(&ddi);
  if (rc != KZ_ERR_NONE) status = fail("tavik_ddi_uninit", rc, NULL);

  pthread_mutex_lock(&g_lock);
  printf("consumer: %u BOF, %u EOF\n", g_bofs, g_eofs);
  pthread_mutex_unlock(&g_lock);
  return status;
}
