// A private /dev for one child: a mount namespace of its own with an empty
// tmpfs over /dev, so that the library's real scan of "/dev" sees exactly the
// nodes a case creates (FIFOs, regular files, dangling symlinks).
#pragma once

#include <string>

namespace tavik_test {

// False with the reason when the kernel or the user's rights do not allow it.
bool TryEnterPrivateDev(std::string* why);
// Child only: as above, or ends the child as skipped with the reason.
void EnterPrivateDev();
inline std::string DevPath(const std::string& name) { return "/dev/" + name; }
// A FIFO node under /dev: real blocking reads and writes, the kernel's own
// ENOTTY for camera request codes. Fails the current case when it can't.
void MakeFifo(const std::string& name);

}  // namespace tavik_test
