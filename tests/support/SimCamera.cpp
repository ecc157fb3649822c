// This file defines poll and ioctl for the whole program. glibc's fortified
// headers define poll inline, which clang takes for a redefinition.
#undef _FORTIFY_SOURCE

#include "SimCamera.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <tavik/tavik_driver.h>

namespace tavik_test {
namespace {

constexpr int kMax = 8;
SimCamera g_cams[kMax];
std::atomic<int> g_count{0};

SimCamera* Find(int fd) {
  struct stat st;
  int n = g_count.load(std::memory_order_acquire);
  if (n == 0 || fd < 0 || fstat(fd, &st) != 0) return nullptr;
  for (int i = 0; i < n; ++i)
    if (g_cams[i].ino == st.st_ino && g_cams[i].dev == st.st_dev) return &g_cams[i];
  return nullptr;
}

// Only the notification thread consumes, while the test waits for it.
bool Consume(std::atomic<int>& failures) { return failures > 0 && failures-- > 0; }

int Answer(SimCamera& c, tavik_notif_list* list) {
  std::lock_guard<std::mutex> lock(c.mutex);
  c.capacity = list->capacity;
  c.countBefore = list->count;
  c.recordSize = list->notifications[0].size;
  c.recordVersion = list->notifications[0].version;
  std::vector<uint32_t> batch;
  if (!c.batches.empty()) {
    batch = std::move(c.batches.front());
    c.batches.pop_front();
  }
  uint64_t drained;
  if (c.batches.empty() && read(c.eventFd, &drained, sizeof drained) < 0) drained = 0;
  if (c.answer != nullptr) return c.answer(list);
  if (Consume(c.requestFailures)) {
    errno = c.requestErr;
    return -1;
  }
  size_t n = batch.size() < TAVIK_NOTIF_LIST_CAPACITY ? batch.size() : TAVIK_NOTIF_LIST_CAPACITY;
  for (size_t i = 0; i < n; ++i) {
    tavik_notif& rec = list->notifications[i];
    std::memset(&rec, 0, sizeof rec);
    rec.size = sizeof(tavik_notif);
    rec.version = 1;
    rec.type = batch[i];
    rec.payload[0] = static_cast<uns8>(i);  // lets a callback prove which record it got
  }
  list->count = static_cast<uns16>(n);
  return 0;
}

}  // namespace

SimCamera* SimCamera::Attach(const std::string& nodePath) {
  struct stat st;
  int i = g_count.load();
  if (i >= kMax || stat(nodePath.c_str(), &st) != 0) return nullptr;
  SimCamera& c = g_cams[i];
  c.dev = st.st_dev;
  c.ino = st.st_ino;
  c.eventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (c.eventFd < 0) return nullptr;
  g_count.store(i + 1, std::memory_order_release);
  return &c;
}

void SimCamera::Push(const std::vector<uint32_t>& types) {
  std::lock_guard<std::mutex> lock(mutex);
  batches.push_back(types);
  uint64_t one = 1;
  if (write(eventFd, &one, sizeof one) < 0) one = 0;
}

}  // namespace tavik_test

using tavik_test::SimCamera;

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
  using IoctlFn = int (*)(int, unsigned long, ...);
  static IoctlFn real = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  SimCamera* cam = static_cast<uint32_t>(request) == TAVIK_IOC_GET_NOTIFICATIONS ? tavik_test::Find(fd) : nullptr;
  return cam != nullptr ? tavik_test::Answer(*cam, static_cast<tavik_notif_list*>(arg)) : real(fd, request, arg);
}

extern "C" __attribute__((visibility("default"))) int poll(struct pollfd* fds, nfds_t nfds, int timeout) {
  using PollFn = int (*)(struct pollfd*, nfds_t, int);
  static PollFn real = reinterpret_cast<PollFn>(dlsym(RTLD_NEXT, "poll"));
  constexpr nfds_t kMaxFds = 8;
  SimCamera* cams[kMaxFds] = {};
  bool any = false;
  for (nfds_t i = 0; i < nfds && nfds <= kMaxFds; ++i)
    any |= (cams[i] = (fds[i].events & POLLPRI) ? tavik_test::Find(fds[i].fd) : nullptr) != nullptr;
  if (!any) return real(fds, nfds, timeout);
  // Wait on the cameras' eventfds instead of their nodes; the blocking stays real.
  struct pollfd swapped[kMaxFds];
  for (nfds_t i = 0; i < nfds; ++i) {
    swapped[i] = fds[i];
    if (cams[i] == nullptr) continue;
    ++cams[i]->polls;
    if (tavik_test::Consume(cams[i]->pollFailures)) {
      for (nfds_t j = 0; j < nfds; ++j) fds[j].revents = j == i ? POLLERR : 0;
      errno = cams[i]->pollErr;
      return errno == 0 ? 1 : -1;
    }
    swapped[i].fd = cams[i]->eventFd;
    swapped[i].events = POLLIN;
  }
  int r = real(swapped, nfds, timeout);
  int saved = errno;
  for (nfds_t i = 0; i < nfds; ++i) {
    short rev = swapped[i].revents;
    fds[i].revents = cams[i] == nullptr ? rev : static_cast<short>((rev & POLLIN ? POLLPRI : 0) | (rev & (POLLERR | POLLHUP | POLLNVAL)));
  }
  errno = saved;
  return r;
}
