/* Everything a core or a user-mode driver module needs from libtavikDDI. */
#ifndef TAVIK_H
#define TAVIK_H
#include <tavik/tavik_types.h>
#include <tavik/tavik_errors.h>
#include <tavik/tavik_driver.h>
#include <tavik/tavik_ddi.h>
#endif
