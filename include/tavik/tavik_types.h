/* Integer and truth-value types shared by the core, this library and driver modules. */
#ifndef TAVIK_TYPES_H
#define TAVIK_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t uns8;
typedef uint16_t uns16;
typedef uint32_t uns32;
typedef int16_t int16;

/* 16-bit truth value of internal operations (driver loading, a driver's init). */
typedef uint16_t rs_bool;
#define QX_OK ((rs_bool)1)
#define QX_FAIL ((rs_bool)0)

/* C++ gets a fixed underlying type so that any 32-bit value read from a record is a
 * valid value of the enumeration type (names of unknown values are looked up too). */
#ifdef __cplusplus
#define TAVIK_ENUM_BASE(type) : type
#else
#define TAVIK_ENUM_BASE(type)
#endif

#ifdef __cplusplus
}
#endif

#endif /* TAVIK_TYPES_H */
