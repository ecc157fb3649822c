/* The four entry points of libtavikDDI.so.3 (symbol version TAVIK_DDI_3.0) and the Ddi record. */
#ifndef TAVIK_DDI_H
#define TAVIK_DDI_H

#include <tavik/tavik_driver.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TAVIK_DDI_MAX_CAMERAS 16
#define TAVIK_DDI_VERSION_NODE "TAVIK_DDI_3.0"
#define TAVIK_DDI_SONAME "libtavikDDI.so.3"

#if defined(TAVIK_DDI_BUILDING)
#define TAVIK_DDI_API __attribute__((visibility("default")))
#else
#define TAVIK_DDI_API
#endif

typedef enum _KZ_DDI_STATE TAVIK_ENUM_BASE(uint32_t) {
  TAVIK_DDI_STATE_CLOSED = 0,
  TAVIK_DDI_STATE_OPEN = 1
} E_TAVIK_DDI_STATE;

/* Owned by the caller; the library fills and empties it. */
typedef struct Ddi {
  E_TAVIK_DDI_STATE state;
  uns16 cam_count;
  tavik_driver_device* devices[TAVIK_DDI_MAX_CAMERAS]; /* borrowed from the drivers */
  tavik_driver* drivers[TAVIK_DRIVER_TYPE_COUNT];      /* indexed by E_TAVIK_DRIVER_TYPE */
} Ddi;

TAVIK_STATIC_ASSERT(offsetof(Ddi, cam_count) == 4, "Ddi.cam_count at 4");
TAVIK_STATIC_ASSERT(offsetof(Ddi, devices) == 8, "Ddi.devices at 8");
TAVIK_STATIC_ASSERT(offsetof(Ddi, drivers) == 136, "Ddi.drivers at 136");
TAVIK_STATIC_ASSERT(sizeof(Ddi) == 176, "Ddi is 176 bytes");

TAVIK_DDI_API int16 tavik_ddi_init(Ddi* pDdi);
TAVIK_DDI_API int16 tavik_ddi_uninit(Ddi* pDdi);
TAVIK_DDI_API int16 tavik_ddi_get_lib_version(uns16* pVerMajor, uns16* pVerMinor, uns16* pVerBuild);
TAVIK_DDI_API uns32 tavik_ddi_get_last_error_message(char* buffer, uns32 size);

/* Function-pointer types for a core that resolves the entry points with dlvsym. */
typedef int16 (*tavik_ddi_init_fn)(Ddi* pDdi);
typedef int16 (*tavik_ddi_uninit_fn)(Ddi* pDdi);
typedef int16 (*tavik_ddi_get_lib_version_fn)(uns16*, uns16*, uns16*);
typedef uns32 (*tavik_ddi_get_last_error_message_fn)(char*, uns32);

#ifdef __cplusplus
}
#endif

#endif /* TAVIK_DDI_H */
