// Names in a folder, through the library's scan (scandir, alphasort) with the five node-name filters and the
// module-name filter, and through the module search of that folder, whose empty files never load.
#include <fuzzer/FuzzedDataProvider.h>
#include <fcntl.h>
#include <unistd.h>

#include "ddi/tavik_ddi_internal.h"
#include "driver/kernel/linux_tavik_driver_kernel_os.h"

static char folder[] = "/tmp/tavik-fuzz-names-XXXXXX";

extern "C" int LLVMFuzzerInitialize(int*, char***) { return mkdtemp(folder) ? setenv("TAVIK_UMD_PATH", folder, 1) : 1; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const int dir = open(folder, O_RDONLY | O_DIRECTORY);
  std::vector<std::string> made;
  while (made.size() < 8 && in.remaining_bytes() > 0) {  // a slash would lead out of the folder
    const std::string name = in.ConsumeRandomLengthString(300);
    if (name.find('/') == std::string::npos && close(openat(dir, name.c_str(), O_CREAT | O_EXCL, 0600)) == 0) made.push_back(name);
  }
  int kept = 0;  // a node is of one bus type at most
  for (auto filter : {_kernel_scandir_filter_PCI, _kernel_scandir_filter_PCIE, _kernel_scandir_filter_USB,
                      _kernel_scandir_filter_1394, _kernel_scandir_filter_SW, _scandir_filter}) {
    struct dirent** nodes;
    const int count = tavik_driver_kernel_os_scan_nodes(folder, filter, &nodes, nullptr);
    kept += filter == _scandir_filter ? 0 : count;
    for (int i = 1; i < count; ++i)
      if (std::strcmp(nodes[i - 1]->d_name, nodes[i]->d_name) >= 0) std::abort();
    tavik_driver_kernel_os_free_nodes(nodes, count);
  }
  Ddi ddi{};
  ddi_load_user_mode_drivers(&ddi);
  if (kept > static_cast<int>(made.size()) || std::count(ddi.drivers, ddi.drivers + 5, nullptr) != 5) std::abort();
  for (const std::string& name : made) unlinkat(dir, name.c_str(), 0);
  return close(dir);
}
