// The emulator's settings, read from the environment once per init.
#pragma once

namespace tavik_virtual {

struct VirtualConfig {
  unsigned cameras;
  unsigned fps;

  // Reads TAVIK_VIRTUAL_CAMERAS and TAVIK_VIRTUAL_FPS. A value that is set but not
  // a plain decimal number within its bounds falls back to the default, with one
  // line on standard error; unset or empty means the default, silently.
  static VirtualConfig FromEnvironment();

  // Strict decimal parse: digits only, no sign, no blanks, within [lo, hi].
  static bool ParseBounded(const char* text, unsigned lo, unsigned hi, unsigned* out);
};

}  // namespace tavik_virtual
