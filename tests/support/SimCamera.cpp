#include "SimCamera.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <mutex>

#include <tavik/tavik_driver.h>

namespace tavik_test {

struct SimCameraAccess {
  struct State {
    std::mutex mutex;
    std::deque<std::vector<uint32_t>> batches;
    int failErr = 0;
    int failCount = 0;
    std::atomic<int> pollFailErr{0};
    std::atomic<int> pollFailCount{0};
    std::atomic<int> requests{0};
    std::atomic<int> polls{0};
    std::atomic<int> capacity{-1};
    std::atomic<int> countBefore{-1};
    std::atomic<int> firstSize{-1};
    std::atomic<int> firstVersion{-1};
  };
  static constexpr int kMax = 8;
  static SimCamera cams[kMax];
  static State states[kMax];
  static std::atomic<int> count;

  static int Find(int fd) {
    int n = count.load(std::memory_order_acquire);
    if (n == 0 || fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    for (int i = 0; i < n; ++i)
      if (cams[i].ino_ == st.st_ino && cams[i].dev_ == st.st_dev) return i;
    return -1;
  }
};

SimCamera SimCameraAccess::cams[SimCameraAccess::kMax];
SimCameraAccess::State SimCameraAccess::states[SimCameraAccess::kMax];
std::atomic<int> SimCameraAccess::count{0};

SimCamera* SimCamera::Attach(const std::string& nodePath) {
  struct stat st;
  if (stat(nodePath.c_str(), &st) != 0) return nullptr;
  int i = SimCameraAccess::count.load();
  if (i >= SimCameraAccess::kMax) return nullptr;
  SimCamera& c = SimCameraAccess::cams[i];
  c.dev_ = st.st_dev;
  c.ino_ = st.st_ino;
  c.eventFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (c.eventFd_ < 0) return nullptr;
  SimCameraAccess::count.store(i + 1, std::memory_order_release);
  return &c;
}

static SimCameraAccess::State& StateOf(const SimCamera* c) { return SimCameraAccess::states[c - SimCameraAccess::cams]; }

void SimCamera::Push(const std::vector<uint32_t>& types) {
  auto& s = StateOf(this);
  std::lock_guard<std::mutex> lock(s.mutex);
  s.batches.push_back(types);
  uint64_t one = 1;
  ssize_t ignored = write(eventFd_, &one, sizeof one);
  (void)ignored;
}

void SimCamera::FailRequests(int err, int n) {
  auto& s = StateOf(this);
  std::lock_guard<std::mutex> lock(s.mutex);
  s.failErr = err;
  s.failCount = n;
}

void SimCamera::FailPolls(int err, int n) {
  auto& s = StateOf(this);
  s.pollFailErr.store(err);
  s.pollFailCount.store(n);
}

int SimCamera::Requests() const { return StateOf(this).requests.load(); }
int SimCamera::PolledWaits() const { return StateOf(this).polls.load(); }
int SimCamera::CapacitySeen() const { return StateOf(this).capacity.load(); }
int SimCamera::CountBeforeLastRequest() const { return StateOf(this).countBefore.load(); }
int SimCamera::FirstRecordSize() const { return StateOf(this).firstSize.load(); }
int SimCamera::FirstRecordVersion() const { return StateOf(this).firstVersion.load(); }

}  // namespace tavik_test

namespace {

using IoctlFn = int (*)(int, unsigned long, ...);
using PollFn = int (*)(struct pollfd*, nfds_t, int);

IoctlFn RealIoctl() {
  static IoctlFn fn = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
  return fn;
}

PollFn RealPoll() {
  static PollFn fn = reinterpret_cast<PollFn>(dlsym(RTLD_NEXT, "poll"));
  return fn;
}

int AnswerNotifications(int cam, tavik_notif_list* list) {
  using tavik_test::SimCameraAccess;
  auto& s = SimCameraAccess::states[cam];
  const tavik_test::SimCamera& c = SimCameraAccess::cams[cam];
  std::lock_guard<std::mutex> lock(s.mutex);
  s.requests.fetch_add(1);
  s.capacity.store(list->capacity);
  s.countBefore.store(list->count);
  if (s.firstSize.load() < 0) {
    s.firstSize.store(list->notifications[0].size);
    s.firstVersion.store(list->notifications[0].version);
  }
  std::vector<uint32_t> batch;
  if (!s.batches.empty()) {
    batch = std::move(s.batches.front());
    s.batches.pop_front();
  }
  if (s.batches.empty()) {
    uint64_t drained;
    ssize_t ignored = read(c.eventFd(), &drained, sizeof drained);
    (void)ignored;
  }
  if (s.failCount > 0) {
    --s.failCount;
    errno = s.failErr;
    return -1;
  }
  size_t n = batch.size() < TAVIK_NOTIF_LIST_CAPACITY ? batch.size() : TAVIK_NOTIF_LIST_CAPACITY;
  for (size_t i = 0; i < n; ++i) {
    tavik_notif& rec = list->notifications[i];
    rec.size = sizeof(tavik_notif);
    rec.version = 1;
    rec.type = batch[i];
    std::memset(rec.payload, 0, sizeof rec.payload);
    rec.payload[0] = static_cast<uns8>(i);
  }
  list->count = static_cast<uns16>(n);
  return 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  if (static_cast<uint32_t>(request) == TAVIK_IOC_GET_NOTIFICATIONS) {
    int cam = tavik_test::SimCameraAccess::Find(fd);
    if (cam >= 0) return AnswerNotifications(cam, static_cast<tavik_notif_list*>(arg));
  }
  return RealIoctl()(fd, request, arg);
}

extern "C" __attribute__((visibility("default"))) int poll(struct pollfd* fds, nfds_t nfds, int timeout) {
  constexpr nfds_t kMaxSwap = 8;
  int cams[kMaxSwap];
  bool any = false;
  if (nfds <= kMaxSwap) {
    for (nfds_t i = 0; i < nfds; ++i) {
      cams[i] = (fds[i].events & POLLPRI) ? tavik_test::SimCameraAccess::Find(fds[i].fd) : -1;
      any = any || cams[i] >= 0;
    }
  }
  if (!any) return RealPoll()(fds, nfds, timeout);

  for (nfds_t i = 0; i < nfds; ++i) {
    if (cams[i] < 0) continue;
    auto& st = tavik_test::SimCameraAccess::states[cams[i]];
    if (st.pollFailCount.load() > 0) {
      st.pollFailCount.fetch_sub(1);
      st.polls.fetch_add(1);
      errno = st.pollFailErr.load();
      return -1;
    }
  }

  // Wait on the cameras' eventfds instead of their nodes; the blocking stays real.
  struct pollfd swapped[kMaxSwap];
  for (nfds_t i = 0; i < nfds; ++i) {
    swapped[i] = fds[i];
    if (cams[i] >= 0) {
      swapped[i].fd = tavik_test::SimCameraAccess::cams[cams[i]].eventFd();
      swapped[i].events = POLLIN;
      tavik_test::SimCameraAccess::states[cams[i]].polls.fetch_add(1);
    }
  }
  int r = RealPoll()(swapped, nfds, timeout);
  int saved = errno;
  for (nfds_t i = 0; i < nfds; ++i) {
    short rev = swapped[i].revents;
    if (cams[i] >= 0) rev = static_cast<short>((rev & POLLIN ? POLLPRI : 0) | (rev & (POLLERR | POLLHUP | POLLNVAL)));
    fds[i].revents = rev;
  }
  errno = saved;
  return r;
}
