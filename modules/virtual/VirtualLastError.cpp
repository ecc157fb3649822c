#include "VirtualLastError.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace tavik_virtual {

namespace {
__attribute__((tls_model("initial-exec"))) thread_local char t_text[VirtualLastError::kCapacity];
}

void VirtualLastError::Set(const char* format, ...) {
  // Format into a scratch buffer first, so the current text may be an argument.
  char scratch[kCapacity];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(scratch, sizeof scratch, format, args);
  va_end(args);
  if (n < 0) scratch[0] = '\0';
  memcpy(t_text, scratch, sizeof scratch);
}

void VirtualLastError::SetErrno(const char* what, int err) {
  char text[128];
  // GNU strerror_r returns a pointer that may or may not be into text.
  const char* msg = strerror_r(err, text, sizeof text);
  if (what != nullptr && what[0] != '\0')
    Set("%s, error %d (%s)", what, err, msg);
  else
    Set("Error %d (%s)", err, msg);
}

const char* VirtualLastError::Get() { return t_text; }

uns32 VirtualLastError::CopyOut(char* buffer, uns32 size) {
  const size_t len = strnlen(t_text, kCapacity);
  const uns32 needed = static_cast<uns32>(len + 1);
  if (buffer == nullptr || size == 0) return needed;
  strncpy(buffer, t_text, size);
  buffer[size - 1] = '\0';
  return needed;
}

}  // namespace tavik_virtual
