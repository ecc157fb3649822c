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

// Nodes under /dev; each fails the current case when it cannot be made.
void MakeFifo(const std::string& name);
void MakeFile(const std::string& name, const std::string& content = std::string());
void MakeDanglingSymlink(const std::string& name);
void RemoveNode(const std::string& name);
inline std::string DevPath(const std::string& name) { return "/dev/" + name; }

}  // namespace tavik_test
