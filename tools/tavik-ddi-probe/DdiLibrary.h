// The library as the camera-control core sees it: a shared object opened at run
// time whose four entry points are taken by their versioned names, so that a
// library of another interface version is refused instead of misused.
#pragma once

#include <memory>
#include <string>

#include <tavik/tavik_ddi.h>

namespace probe {

class DdiLibrary {
 public:
  // Opens `nameOrPath` (a bare SONAME goes through the loader's search path,
  // anything with a slash is taken as a file) and resolves all four entry
  // points. Returns null and a readable reason in `error` on any failure; a
  // half-resolved library is closed again, never handed out.
  static std::unique_ptr<DdiLibrary> Open(const std::string& nameOrPath, std::string& error);

  ~DdiLibrary();
  DdiLibrary(const DdiLibrary&) = delete;
  DdiLibrary& operator=(const DdiLibrary&) = delete;

  // Unloads the library now, so that its static teardown (which finishes the
  // log file) runs while the probe can still report a failure of it.
  bool Close(std::string& error);

  // The file the loader actually mapped, as it reports it.
  const std::string& FilePath() const { return m_filePath; }

  tavik_ddi_init_fn init = nullptr;
  tavik_ddi_uninit_fn uninit = nullptr;
  tavik_ddi_get_lib_version_fn getLibVersion = nullptr;
  tavik_ddi_get_last_error_message_fn getLastErrorMessage = nullptr;

  // The calling thread's last-error text of the library ("" when none).
  std::string LastErrorText() const;

 private:
  DdiLibrary() = default;

  void* m_handle = nullptr;
  std::string m_filePath;
};

}  // namespace probe
