// The emulator's own per-thread last-error text. A fixed thread-local buffer:
// setting it never allocates (so it cannot fail or throw), and it has no
// destructor, so threads of the core that die after the module was unloaded do
// not call back into unmapped code. It lives in the static TLS that a thread
// gets when it is created: the module is loaded with dlopen, and a first touch of
// dynamic TLS makes the C library allocate, ending the process if that fails.
// The room for static TLS in libraries loaded later is about a kilobyte and a half,
// shared by all of them, hence a capacity that just holds the longest text the
// emulator makes.
#pragma once

#include <tavik/tavik_types.h>

namespace tavik_virtual {

class VirtualLastError {
 public:
  static constexpr unsigned kCapacity = 256;

  // printf-style; a text longer than kCapacity - 1 is cut.
  static void Set(const char* format, ...) __attribute__((format(printf, 1, 2)));
  // "Error %d (%s)" with the error number and its text.
  static void SetErrno(const char* what, int err);
  static const char* Get();

  // Copies the calling thread's text by the kit's buffer rules: returns the size
  // needed (length + 1); copies nothing for a null buffer or size 0; otherwise
  // copies at most size characters and always terminates at buffer[size - 1].
  static uns32 CopyOut(char* buffer, uns32 size);
};

}  // namespace tavik_virtual
