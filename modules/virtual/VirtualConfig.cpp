#include "VirtualConfig.h"

#include <cstdio>
#include <cstdlib>

#include "tavik_virtual.h"

namespace tavik_virtual {

bool VirtualConfig::ParseBounded(const char* text, unsigned lo, unsigned hi, unsigned* out) {
  if (text == nullptr || text[0] == '\0') return false;
  unsigned long value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<unsigned long>(*p - '0');
    if (value > hi) return false;  // also stops overflow on long digit runs
  }
  if (value < lo) return false;
  *out = static_cast<unsigned>(value);
  return true;
}

namespace {

unsigned ReadSetting(const char* name, unsigned lo, unsigned hi, unsigned fallback) {
  // A program with more rights than its user keeps the defaults.
  const char* text = secure_getenv(name);
  if (text == nullptr || text[0] == '\0') return fallback;
  unsigned value = 0;
  if (VirtualConfig::ParseBounded(text, lo, hi, &value)) return value;
  fprintf(stderr, "tavik_virtual: %s='%s' is not a number from %u to %u, using %u\n", name,
          text, lo, hi, fallback);
  return fallback;
}

}  // namespace

VirtualConfig VirtualConfig::FromEnvironment() {
  VirtualConfig config;
  config.cameras = ReadSetting(TAVIK_VIRTUAL_ENV_CAMERAS, TAVIK_VIRTUAL_MIN_CAMERAS,
                               TAVIK_VIRTUAL_MAX_CAMERAS, TAVIK_VIRTUAL_DEFAULT_CAMERAS);
  config.fps = ReadSetting(TAVIK_VIRTUAL_ENV_FPS, TAVIK_VIRTUAL_MIN_FPS, TAVIK_VIRTUAL_MAX_FPS,
                           TAVIK_VIRTUAL_DEFAULT_FPS);
  return config;
}

}  // namespace tavik_virtual
