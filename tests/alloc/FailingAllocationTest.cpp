// Rigs run for days, and sooner or later an allocation fails. The executable replaces malloc, calloc, realloc and
// operator new for the library, its modules, the loader and libc alike; a child per k fails the k-th of a scenario.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <new>

#include "E2e.h"
#include "SimCamera.h"
#include "tavik_virtual.h"

namespace {

// Called before the sanitizers' runtime is set up, hence not instrumented, and atomic builtins on plain data instead
// of std::atomic's out-of-line members.
#define TAVIK_RAW __attribute__((no_sanitize("address", "undefined", "thread")))
#define TAVIK_NEXT(name) reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))

long g_failAt = 0, g_count = 0;  // failAt 0: not counting
// A thread counts once its own code runs: AddressSanitizer's start of a thread asks for memory for itself alone.
thread_local bool t_counts = false;

TAVIK_RAW bool Fails() {
  const long k = __atomic_load_n(&g_failAt, __ATOMIC_SEQ_CST);
  return k != 0 && t_counts && __atomic_add_fetch(&g_count, 1, __ATOMIC_SEQ_CST) == k && (errno = ENOMEM);
}

struct { decltype(&::malloc) malloc; decltype(&::calloc) calloc; decltype(&::realloc) realloc;
         decltype(&::free) free; decltype(&::posix_memalign) memalign; } g_next;
int g_resolved = 0;  // 1 while resolving, 2 once done

TAVIK_RAW bool Resolved() {
  int none = 0;
  if (__atomic_compare_exchange_n(&g_resolved, &none, 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
    g_next = {TAVIK_NEXT(malloc), TAVIK_NEXT(calloc), TAVIK_NEXT(realloc), TAVIK_NEXT(free), TAVIK_NEXT(posix_memalign)},
    __atomic_store_n(&g_resolved, 2, __ATOMIC_SEQ_CST);
  return __atomic_load_n(&g_resolved, __ATOMIC_SEQ_CST) == 2;
}

void* New(size_t size, size_t align, bool nothrow) {
  void* p = nullptr;
  if (!Fails() && Resolved() && (align > 16 ? g_next.memalign(&p, align, size) : (p = g_next.malloc(size), 0)) != 0) p = nullptr;
  if (p == nullptr && !nothrow) throw std::bad_alloc();
  return p;
}

struct Start { void* (*fn)(void*); void* arg; };

void* Started(void* p) {
  const Start start = *static_cast<Start*>(p);
  g_next.free(p);
  t_counts = true;
  return start.fn(start.arg);
}

}  // namespace

extern "C" {
int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
  static const auto next = TAVIK_NEXT(pthread_create);
  auto* start = Resolved() ? static_cast<Start*>(g_next.malloc(sizeof(Start))) : nullptr;
  if (start == nullptr) return EAGAIN;
  *start = Start{fn, arg};
  const int rc = next(thread, attr, &Started, start);
  if (rc != 0) g_next.free(start);
  return rc;
}
// Should dlsym ask for memory while it looks the allocator up, it gets none: the loader falls back to static storage.
TAVIK_RAW void* malloc(size_t size) { return !Resolved() || Fails() ? nullptr : g_next.malloc(size); }
TAVIK_RAW void* calloc(size_t n, size_t size) { return !Resolved() || Fails() ? nullptr : g_next.calloc(n, size); }
TAVIK_RAW void* realloc(void* p, size_t size) { return !Resolved() || Fails() ? nullptr : g_next.realloc(p, size); }
TAVIK_RAW void free(void* p) { Resolved() ? g_next.free(p) : void(); }
}

#define TAVIK_NEW(op)                                                                                 \
  void* op(size_t n) { return New(n, 0, false); }                                                     \
  void* op(size_t n, const std::nothrow_t&) noexcept { return New(n, 0, true); }                      \
  void* op(size_t n, std::align_val_t a) { return New(n, size_t(a), false); }                         \
  void* op(size_t n, std::align_val_t a, const std::nothrow_t&) noexcept { return New(n, size_t(a), true); }
#define TAVIK_DELETE(op)                                                                                \
  void op(void* p) noexcept { free(p); }                                                              \
  void op(void* p, size_t) noexcept { free(p); }                                                      \
  void op(void* p, std::align_val_t) noexcept { free(p); }                                            \
  void op(void* p, size_t, std::align_val_t) noexcept { free(p); }                                    \
  void op(void* p, const std::nothrow_t&) noexcept { free(p); }                                       \
  void op(void* p, std::align_val_t, const std::nothrow_t&) noexcept { free(p); }
TAVIK_NEW(operator new)
TAVIK_NEW(operator new[])
TAVIK_DELETE(operator delete)
TAVIK_DELETE(operator delete[])

namespace tavik_test {
namespace {

class FailingAllocations : public ChildTest {};

std::atomic<int> g_delivered{0};
int16 Count(tavik_driver_device*, tavik_notif*) { return ++g_delivered, KZ_ERR_NONE; }

// While counting, the scenario allocates nothing of its own: codes are judged afterwards.
int g_codes[64], g_nCodes = 0;
int16 Keep(int16 rc) { return g_codes[g_nCodes < 64 ? g_nCodes++ : 63] = rc; }

// Every operation of one device; on a FIFO the acquisition request is one the kernel refuses.
void Operate(tavik_driver_device* d, bool fifo) {
  uns8 data[16] = {1, 2, 3, 4, 5};
  uns16 n = 0;
  tavik_virtual_acq_setup setup{2, 1000, {}};
  const int delivered = g_delivered;
  if (Keep(d->open(d)) != 0) return;
  const bool started = Keep(d->start_notif_thread(d, Count)) == 0;
  Keep(d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, &setup));
  const bool wrote = Keep(d->write(d, data, 5, &n)) == 0 && n == 5;
  if (wrote || !fifo) Keep(d->read(d, data, sizeof data, &n));  // an empty FIFO would block
  d->last_error_msg(d, reinterpret_cast<char*>(data), sizeof data);
  for (int i = 0; started && i < 2000 && g_delivered == delivered; ++i) usleep(100);
  Keep(d->stop_notif_thread(d));
  Keep(d->close(d));
}

// Load (the log's set-up and its file at Trace), init with two modules (a fixture's PCI driver and the emulator) and
// 16 kernel nodes, a kernel device with notifications and an emulated one, uninit, unload.
TEST_F(FailingAllocations, EachOneLeavesACleanProcessAndAKnownCode) {
  const std::string modules = ctx_.tmp + "/modules";
  ASSERT_EQ(mkdir(modules.c_str(), 0755), 0);
  ASSERT_EQ(symlink(FixtureDir("good/tavik_good.x86_64.umd").c_str(), (modules + "/tavik_good.x86_64.umd").c_str()), 0);
  ASSERT_EQ(symlink(TAVIK_EMU_MODULE_DIR "/tavik_virtual.x86_64.umd", (modules + "/tavik_virtual.x86_64.umd").c_str()), 0);
  long points = 0;
  for (long k = 1;; ++k) {
    SCOPED_TRACE("failing allocation " + std::to_string(k));
    const bool clean = RunInChild([&](ChildContext& ctx) {
      EnterPrivateDev();
      for (int i = 0; i < 8; ++i) MakeFifo("tavikUSB_" + std::to_string(i)), MakeFifo("tavik1394_" + std::to_string(i));
      SimCamera::Attach("/dev/tavikUSB_0")->Push({NOTIFICATION_EOF});  // answers the thread's first poll
      ctx.EnableLog("T");
      setenv("TAVIK_UMD_PATH", modules.c_str(), 1);
      const size_t fds = CountOpenFds(), threads = CountThreads();
      t_counts = true;
      __atomic_store_n(&g_failAt, k, __ATOMIC_SEQ_CST);
      // dlopen and dlvsym by hand: the probe's loader keeps texts that a failed allocation would throw from.
      if (void* handle = dlopen(TAVIK_TEST_LIBRARY_PATH, RTLD_NOW)) {
        auto init = reinterpret_cast<tavik_ddi_init_fn>(dlvsym(handle, "tavik_ddi_init", TAVIK_DDI_VERSION_NODE));
        auto uninit = reinterpret_cast<tavik_ddi_uninit_fn>(dlvsym(handle, "tavik_ddi_uninit", TAVIK_DDI_VERSION_NODE));
        Ddi ddi{};
        Keep(init(&ddi));
        for (int type : {TAVIK_DRIVER_TYPE_USB, TAVIK_DRIVER_TYPE_VIRTUAL})
          if (tavik_driver* driver = ddi.drivers[type]; driver != nullptr && driver->device_list != nullptr && driver->device_list[0] != nullptr)
            Operate(driver->device_list[0], type == TAVIK_DRIVER_TYPE_USB);
        Keep(uninit(&ddi));
        dlclose(handle);
      }
      dlerror(), dlerror();  // a failed load's text: the loader frees it only on the call after the one that takes it
      __atomic_store_n(&g_failAt, 0, __ATOMIC_SEQ_CST);
      WriteFile(ctx.tmp + "/reached", std::to_string(__atomic_load_n(&g_count, __ATOMIC_SEQ_CST)));
      for (int i = 0; i < g_nCodes; ++i)  // codes of the error table only
        EXPECT_TRUE((g_codes[i] >= 0 && g_codes[i] <= 18) || g_codes[i] == 129 || (g_codes[i] >= 150 && g_codes[i] <= 203)) << g_codes[i];
      EXPECT_EQ(CountOpenFds(), fds);
      EXPECT_EQ(SettledThreadCount(threads), threads);
    }, 30);
    const long count = std::atol(ReadScratch("reached").c_str());
    if (!clean || count < k) break;
    points = std::max(points, count);
  }
  std::printf("allocation points: %ld, each failed in turn\n", points);
}

}  // namespace
}  // namespace tavik_test
