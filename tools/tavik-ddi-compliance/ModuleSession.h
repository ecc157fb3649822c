// The module as the library meets it, inside a check's child process: loaded
// with every symbol bound at once (as the library binds it), its driver record,
// its devices, and what the process looked like before init.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <tavik/tavik_driver.h>

namespace compliance {

class ModuleSession {
 public:
  explicit ModuleSession(std::string path) : m_path(std::move(path)) {}
  ModuleSession(const ModuleSession&) = delete;
  ModuleSession& operator=(const ModuleSession&) = delete;

  const std::string& Path() const { return m_path; }

  // Each step returns an empty text on success, or why it could not be taken.
  std::string Load();
  std::string Init();
  std::string FindDevices();

  // Calls uninit if init ran, checks that no thread of the module outlived it,
  // and unloads the module unless one did (its code would vanish under it).
  // Returns an empty text, or what was left behind.
  std::string Finish();

  void* handle = nullptr;
  tavik_driver_init_fn init = nullptr;
  tavik_driver_uninit_fn uninit = nullptr;
  tavik_driver_type_fn type = nullptr;
  tavik_driver driver{};
  bool initialised = false;
  rs_bool initResult = QX_FAIL;
  std::vector<tavik_driver_device*> devices;  // the compatible ones, in list order
  int threadsBeforeInit = 0;
  std::vector<std::string> tasksBeforeInit;  // ids in /proc/self/task: the checker's and its runtime's threads
  long long typeSeen = -1;  // what type() answered, for the report's module line

 private:
  std::string m_path;
};

// Threads and open descriptors of this process, from /proc/self.
int CountThreads();
// The ids of this process's threads, as named in /proc/self/task.
std::vector<std::string> TaskIds();
int CountDescriptors();
// Bytes the C allocator has handed out and not taken back.
size_t HeapInUse();

// A device's name for details, cut at its 32 characters even when unterminated.
std::string DeviceName(const tavik_driver_device* device);
// The calling thread's last-error text as the device reports it.
std::string LastErrorText(tavik_driver_device* device);
// Runs fn on a thread of its own, whose last-error text starts empty.
void OnFreshThread(const std::function<void()>& fn);

// Operator new fails (throws, or returns null for the nothrow forms) while set;
// the checker's own code allocates nothing meanwhile.
void FailAllocations(bool fail);

}  // namespace compliance
