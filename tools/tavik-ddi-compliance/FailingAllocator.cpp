// The process's replaceable allocation functions, so that a check can make a
// module's allocations fail: a module's references to operator new bind to the
// executable's definition first. Alone in its file, where nothing inlines them.
#include <atomic>
#include <cstdlib>
#include <new>

#include "ModuleSession.h"

namespace compliance {

namespace {
std::atomic<bool> g_failAllocations{false};
}

void FailAllocations(bool fail) { g_failAllocations.store(fail); }

}  // namespace compliance


void* operator new(std::size_t size) {
  void* p = compliance::g_failAllocations.load() ? nullptr : std::malloc(size ? size : 1);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return compliance::g_failAllocations.load() ? nullptr : std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
