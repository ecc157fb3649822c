// A private /dev for one child: an empty tmpfs over /dev in a mount namespace of its own, so that the library's real
// scan of "/dev" sees exactly the nodes a case creates.
#pragma once

#include <string>

namespace tavik_test {

// False with the reason when the kernel or the user's rights do not allow it.
bool TryEnterPrivateDev(std::string* why);
// Child only: as above, or ends the child as skipped with the reason.
void EnterPrivateDev();
inline std::string DevPath(const std::string& name) { return "/dev/" + name; }
// A FIFO node under /dev: real blocking reads and writes, the kernel's ENOTTY for camera requests.
void MakeFifo(const std::string& name);

}  // namespace tavik_test
