// Whole scenarios through the shipped library, each ending in one golden transcript: what the core got back (codes,
// texts, records), which module functions ran, and every line the library logged, in order.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "E2e.h"
#include "SimCamera.h"

namespace tavik_test {
namespace {

class Scenario : public E2eTest {};

TEST_F(Scenario, EntryPointsOnAMachineWithoutDrivers) {
  RunScenario("entry_points", "trace", [](DdiLibrary* lib) {
    uns16 v[3] = {0, 0, 0};
    int16 rc = lib->getLibVersion(&v[0], &v[1], &v[2]);
    Note("version %d: %u.%u.%u", rc, v[0], v[1], v[2]);
    for (int missing = 0; missing < 3; ++missing) {
      uns16 w[3] = {7, 7, 7};
      uns16* p[3] = {&w[0], &w[1], &w[2]};
      p[missing] = nullptr;
      int rc = lib->getLibVersion(p[0], p[1], p[2]);
      Note("version, argument %d null: %d, '%s', values %u %u %u", missing, rc, lib->LastErrorText().c_str(), w[0], w[1], w[2]);
    }
    rc = lib->init(nullptr);
    Note("init(null): %d, '%s'", rc, lib->LastErrorText().c_str());
    Note("uninit(null): %d", lib->uninit(nullptr));
    std::thread([&] {
      Note("new thread: needs %u", lib->getLastErrorMessage(nullptr, 0));
      lib->getLibVersion(nullptr, nullptr, nullptr);
      Note("new thread after its own failure: '%s'", lib->LastErrorText().c_str());
    }).join();
    Note("first thread keeps '%s'", lib->LastErrorText().c_str());
    Ddi ddi;
    std::memset(&ddi, 0xA5, sizeof ddi);
    Note("init: %d", lib->init(&ddi));
    NoteDdi(ddi);
    Note("uninit: %d", lib->uninit(&ddi));
    NoteDdi(ddi);
    std::memset(&ddi, 0, sizeof ddi);
    ddi.state = TAVIK_DDI_STATE_OPEN;
    ddi.cam_count = 7;
    Note("uninit without init: %d", lib->uninit(&ddi));
    NoteDdi(ddi);
  }, "^(?!. DDI )|^. DDI +int16 tavik_ddi_|kernel_(init|mode)\\(.*RETURN");  // the rest: other scenarios
}

// The /dev scan: five name patterns, names it must reject, collation order, cut names, a regular file, a dangling
// link, and the limit of 16 cameras.
TEST_F(Scenario, KernelNodes) {
  RunScenario("kernel_nodes", "debug", [](DdiLibrary* lib) {
    for (const char* n : {"tavikPCI_0", "tavikPCI_1", "tavikPCI_2", "tavikPCI_3", "tavikPCI_4", "tavikPCI_5",
                          "tavikUSB_10", "tavikUSB_2", "tavikUSB_0", "tavikUSB_3", "tavikUSB_11", "tavik1394_0",
                          "tavik1394_1", "tavik1394_2", "tavik1394_3", "tavikPCIE_0", "tavikPCIE_1", "tavikSW_0", "tavikSW_",
                          "tavikSW_1a", "tavikSWx0", "xtavikSW_1", "TAVIKSW_2", "tavikSW_-3", "tavikPCIe_0", "tavikUSB_5 "})
      MakeFifo(n);
    WriteFile(DevPath("tavikUSB_4"), "");
    ASSERT_EQ(symlink("/nonexistent/camera", DevPath("tavikSW_9").c_str()), 0);
    MakeFifo("tavik1394_" + std::string(40, '7'));
    setenv("TAVIK_UMD_PATH", "/nonexistent-modules", 1);
    InitAndUninit(lib);
  }, "enumerate_devices|update_device_list|kernel_mode_driver\\(.*(PCI|VIRTUAL) type");
}

// One folder with every kind of module: broken ones, two of one bus, names the filter must skip, files it accepts
// but cannot load, good ones.
TEST_F(Scenario, UserModeModules) {
  RunScenario("modules", "info", [](DdiLibrary* lib) {
    for (const char* n : {"tavikUSB_0", "tavikSW_0", "tavik1394_0"}) MakeFifo(n);
    setenv("TAVIK_UMD_PATH", FixtureDir("mixed").c_str(), 1);
    InitAndUninit(lib);
  }, "user_mode|update_device_list|already loaded");
}

TEST_F(Scenario, ModuleFolders) {
  namespace fs = std::filesystem;
  const std::string longDir = ctx_.tmp + "/" + std::string(120, 'd') + "/" + std::string(120, 'e');
  fs::create_directories(longDir);
  fs::create_directories(ctx_.tmp + "/empty");
  fs::copy_file(FixtureDir("good") + "/tavik_good.x86_64.umd", longDir + "/tavik_" + std::string(40, 'l') + ".x86_64.umd");
  RunScenario("module_folders", "info", [&](DdiLibrary* lib) {
    for (const std::string& folder : {ctx_.tmp + "/missing", std::string(), ctx_.tmp + "/empty", longDir}) {
      setenv("TAVIK_UMD_PATH", folder.c_str(), 1);
      Ddi ddi{};
      Note("folder '%s': init %d", folder.c_str(), lib->init(&ddi));
      if (ddi.drivers[0] != nullptr) Note("slot 0 path '%s'", ddi.drivers[0]->file_path);
      Note("uninit: %d", lib->uninit(&ddi));
    }
  }, "user_mode|Cannot scan");
}

// Device operations on a FIFO: real reads and writes, the kernel's ENOTTY for a camera request code, every state
// error and its text; and on this process's memory file, whose unmapped first page fails reads and writes (EIO).
TEST_F(Scenario, DeviceOperations) {
  RunScenario("device_io", "trace", [](DdiLibrary* lib) {
    MakeFifo("tavikSW_0");
    ASSERT_EQ(symlink("/proc/self/mem", DevPath("tavikPCI_0").c_str()), 0);
    Ddi ddi{};
    ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
    ASSERT_EQ(ddi.cam_count, 2);
    tavik_driver_device* d = ddi.devices[1];  // the FIFO; the PCI row comes first
    uns8 in[16] = {};
    const uns8 out[5] = {0x01, 0x02, 0x03, 0x0A, 0xFF};
    uns16 n = 99;
    auto step = [&](const char* what, int16 rc) {
      Note("%s: %d, n %u, '%s'", what, rc, n, lib->LastErrorText().c_str());
      n = 99;
    };
    step("close while closed", d->close(d));
    step("read while closed", d->read(d, in, sizeof in, &n));
    step("write while closed", d->write(d, out, sizeof out, &n));
    step("ioctl while closed", d->ioctl(d, TAVIK_IOC_CAM_POST_OPEN, nullptr));
    step("open", d->open(d));
    step("open again", d->open(d));
    step("write 5", d->write(d, out, sizeof out, &n));
    step("read 16", d->read(d, in, sizeof in, &n));
    Note("read back %02x %02x %02x %02x %02x %02x", in[0], in[1], in[2], in[3], in[4], in[5]);
    step("read 0", d->read(d, in, 0, &n));
    step("write 2 without count", d->write(d, out, 2, nullptr));
    int pending = -1;
    step("ioctl FIONREAD", d->ioctl(d, FIONREAD, &pending));
    Note("pending %d", pending);
    step("read 16 without count", d->read(d, in, sizeof in, nullptr));
    uns16 version = 0;
    step("ioctl driver version", d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, &version));
    char text[512] = "";
    Note("the device's text is the thread's: %d", d->last_error_msg(d, text, sizeof text) && text == lib->LastErrorText());
    step("close", d->close(d));
    step("close again", d->close(d));
    char saved[sizeof d->file_path];
    std::memcpy(saved, d->file_path, sizeof saved);
    d->file_path[0] = '\0';
    step("open with empty path", d->open(d));
    std::memcpy(d->file_path, saved, sizeof saved);
    unlink(DevPath("tavikSW_0").c_str());
    step("open removed node", d->open(d));
    step("close after failed open", d->close(d));
    d = ddi.devices[0];
    step("open memory", d->open(d));
    step("read memory", d->read(d, in, sizeof in, &n));
    step("write memory", d->write(d, out, sizeof out, &n));
    step("close memory", d->close(d));
    Note("uninit: %d", lib->uninit(&ddi));
  }, "^(?!T .*_(open|close|read|write)\\(|E ).*_dev_");  // the errors' texts are in the notes
}

// The notification thread against a simulated camera behind a FIFO node.
std::atomic<int> g_delivered{0}, g_failCallbacks{0};
pid_t g_mainTid = 0;

int16 Record(tavik_driver_device* d, tavik_notif* n) {
  Note("callback: %s, type 0x%x, record %u, %s thread", d->name, n->type, n->payload[0],
       syscall(SYS_gettid) == g_mainTid ? "calling" : "other");
  ++g_delivered;
  return g_failCallbacks.load() > 0 && g_failCallbacks-- > 0 ? KZ_ERR_DATA_INVALID : KZ_ERR_NONE;
}

template <typename Done>
void WaitUntil(Done done) {
  while (!done()) usleep(200);  // the child's alarm ends a hang
}

TEST_F(Scenario, Notifications) {
  RunScenario("notifications", "trace", [](DdiLibrary* lib) {
    g_mainTid = static_cast<pid_t>(syscall(SYS_gettid));
    MakeFifo("tavikSW_0");
    SimCamera* cam = SimCamera::Attach("/dev/tavikSW_0");
    ASSERT_NE(cam, nullptr);
    Ddi ddi{};
    ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
    tavik_driver_device* d = ddi.devices[0];
    ASSERT_EQ(d->open(d), KZ_ERR_NONE);
    int16 rc = d->start_notif_thread(d, nullptr);
    Note("start without callback: %d '%s'", rc, lib->LastErrorText().c_str());
    Note("stop without start: %d", d->stop_notif_thread(d));
    const size_t fds = CountOpenFds(), threads = CountThreads();
    Note("start: %d", d->start_notif_thread(d, Record));
    // Each batch ends once the thread waits again, counted in polls: one per batch, two where a poll fails first.
    int polls = 1;
    WaitUntil([&] { return cam->polls >= polls; });
    auto batch = [&](std::vector<uint32_t> types, int delivered, int failedPolls = 0) {
      polls += 1 + failedPolls;
      cam->Push(types);
      WaitUntil([&] { return cam->polls >= polls && g_delivered >= delivered; });
    };
    batch({NOTIFICATION_BOF, NOTIFICATION_EOF, NOTIFICATION_BOF_EOF}, 3);
    batch({0x100u}, 4);  // unknown: delivered as removal of the device
    batch({}, 4);        // a count of 0 calls nothing
    g_failCallbacks = 1;
    batch({NOTIFICATION_ACK_FLUSH, NOTIFICATION_COMPLETE, NOTIFICATION_EOF}, 7);
    cam->FailRequests(EINTR, 1);  // a request cut short by a signal fails like any other
    batch({NOTIFICATION_BOF}, 7);
    cam->FailPolls(EINTR, 1);
    batch({NOTIFICATION_EOF}, 8, 1);
    cam->FailPolls(0, 1);  // a device error: the thread waits again
    batch({NOTIFICATION_BOF}, 9, 1);
    cam->FailPolls(EAGAIN, 1);
    batch({NOTIFICATION_EOF}, 10, 1);  // the thread is blocked in poll again: stop must wake it
    Note("host side: capacity %d, count before %d, record size %d, version %d", cam->capacity.load(),
         cam->countBefore.load(), cam->recordSize.load(), cam->recordVersion.load());
    Note("stop: %d", d->stop_notif_thread(d));
    Note("descriptors back: %d, threads back: %d", CountOpenFds() == fds, SettledThreadCount(threads) == threads);
    // Without descriptors for its wake-up pipe the thread is not started.
    struct rlimit old, none = {0, 0};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    none.rlim_max = old.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    rc = d->start_notif_thread(d, Record);
    std::string text = lib->LastErrorText();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    Note("start without descriptors: %d '%s', descriptors back: %d", rc, text.c_str(), CountOpenFds() == fds);
    int a = dup(0), b = dup(0);
    rc = d->stop_notif_thread(d);
    Note("stop after the failed start: %d, closed nothing of ours: %d", rc, fcntl(a, F_GETFD) != -1 && fcntl(b, F_GETFD) != -1);
    close(a);
    close(b);
    Note("start again: %d", d->start_notif_thread(d, Record));
    Note("stop: %d", d->stop_notif_thread(d));
    Note("close: %d", d->close(d));
    Note("uninit: %d", lib->uninit(&ddi));
  }, "^(?!T .*_(start|stop)_notif_thread\\().*notif");  // the thread's own trace only
}

// System calls that fail on a real machine, from real causes: a descriptor limit during init and open, and a storm of
// signals (handled without SA_RESTART) that interrupts blocking reads and writes and the notification thread's poll.
void OnSignal(int) {}

TEST_F(Scenario, FailingSystemCalls) {
  RunScenario("system_calls", "info", [](DdiLibrary* lib) {
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    MakeFifo("tavikSW_0");
    for (int i = 0; i < 13; ++i) MakeFifo("tavikUSB_" + std::to_string(i));  // with 2 of the module: 16 cameras
    SimCamera* cam = SimCamera::Attach("/dev/tavikSW_0");
    setenv("TAVIK_UMD_PATH", FixtureDir("good").c_str(), 1);
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    auto limitFreeFds = [&](int more) {  // allows `more` descriptors beyond those open now
      const int lowest = dup(0);
      close(lowest);
      struct rlimit tight = {static_cast<rlim_t>(lowest + more), old.rlim_max};
      ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    };
    // Once while descriptors are to spare: UndefinedBehaviorSanitizer checks a virtual call through a pipe the first
    // time it meets the object's type, and would take a type it cannot check then for a wrong one.
    Ddi ddi{};
    ASSERT_EQ(lib->init(&ddi) | lib->uninit(&ddi), KZ_ERR_NONE);
    limitFreeFds(0);
    Note("init without descriptors: %d", lib->init(&ddi));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    Note("uninit: %d", lib->uninit(&ddi));
    ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
    auto step = [&](const char* what, int16 rc) { Note("%s: %d, '%s'", what, rc, rc ? lib->LastErrorText().c_str() : ""); };
    limitFreeFds(3);
    int16 opened[TAVIK_DDI_MAX_CAMERAS];
    std::string outcome;  // the cameras in order: '+' opened, else the code and the text
    for (unsigned i = 0; i < ddi.cam_count; ++i)
      outcome += (opened[i] = ddi.devices[i]->open(ddi.devices[i])) ? std::to_string(opened[i]) + " '" + lib->LastErrorText() + "' " : "+ ";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    Note("open all with 3 descriptors to spare: %s", outcome.c_str());
    for (unsigned i = 0; i < ddi.cam_count; ++i)
      if (opened[i] == KZ_ERR_NONE) ddi.devices[i]->close(ddi.devices[i]);
    // The storm: every thread but the sender's gets a signal every millisecond.
    std::atomic<bool> storming{true};
    std::thread storm([&] {
      const pid_t sender = static_cast<pid_t>(syscall(SYS_gettid));
      while (storming) {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
          if (const pid_t tid = std::stoi(task.path().filename()); tid != sender)
            syscall(SYS_tgkill, getpid(), tid, SIGUSR1);
        usleep(1000);
      }
    });
    tavik_driver_device* d = ddi.devices[ddi.cam_count - 1];  // the simulated camera
    tavik_driver_device* fifo = ddi.devices[2];  // tavikUSB_0, after the module's two
    ASSERT_EQ(fifo->open(fifo), KZ_ERR_NONE);
    uns8 byte[16] = {};
    uns16 n = 0;
    step("read from an empty FIFO", fifo->read(fifo, byte, sizeof byte, &n));
    const int filler = open("/dev/tavikUSB_0", O_WRONLY | O_NONBLOCK);
    while (write(filler, byte, 1) == 1) {}
    step("write to a full FIFO", fifo->write(fifo, byte, 1, &n));
    close(filler);
    ASSERT_EQ(d->open(d), KZ_ERR_NONE);
    Note("start: %d", d->start_notif_thread(d, [](tavik_driver_device*, tavik_notif*) -> int16 { return ++g_delivered, 0; }));
    for (int i = 1; i <= 20; ++i) {
      cam->Push({NOTIFICATION_EOF});
      WaitUntil([&] { return g_delivered >= i; });
    }
    WaitUntil([&] { return cam->polls > 21; });  // one a frame and the one waiting now, and a retry
    Note("20 frames delivered, a poll interrupted and retried");
    Note("stop: %d", d->stop_notif_thread(d));
    storming = false;
    storm.join();
    Note("close: %d %d", d->close(d), fifo->close(fifo));
    Note("uninit: %d", lib->uninit(&ddi));
  }, "^E (?!.*(Poll error|_dev_open))");  // the notes hold the texts of open
}

}  // namespace
}  // namespace tavik_test
