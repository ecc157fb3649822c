// A kernel device's notification thread against the tests' simulated camera, whose request answers with any count (0,
// up to the list's capacity, beyond it, the largest the field holds), any records, or a failure. The callback sees
// only known types (ASan guards the list's bounds) and returns any code.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "SimCamera.h"
#include "driver/tavik_driver_internal.h"
#include "log/LogDdi.h"
#include "log/LogSetupFile.h"

static tavik_test::SimCamera* camera;
static tavik_driver_device* device;
static FuzzedDataProvider* input;  // the notification thread's while it runs
static std::atomic<int> answered;

static int Answer(void* arg) {
  auto* list = static_cast<tavik_notif_list*>(arg);
  const uns16 counts[] = {0, input->ConsumeIntegralInRange<uns16>(1, 50), input->ConsumeIntegral<uns16>(), 65535};
  list->count = counts[input->ConsumeIntegralInRange(0, 3)];
  input->ConsumeData(list->notifications, std::min<size_t>(list->count, 50) * sizeof(tavik_notif));
  errno = input->ConsumeIntegralInRange(1, 133);
  ++answered;
  return input->ConsumeIntegralInRange(0, 7) == 0 ? -1 : 0;
}

static int16 Callback(tavik_driver_device*, tavik_notif* notif) {
  if (!(notif->type & TAVIK_NOTIF_KNOWN_MASK)) std::abort();
  return static_cast<int16>(notif->payload[0] | notif->payload[1] << 8);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kt::LogDdi::setup = std::make_shared<kt::LogSetupFile>("/dev/null", "T");  // the thread's lines too
  static char folder[] = "/tmp/tavik-fuzz-notif-XXXXXX";
  const std::string node = std::string(mkdtemp(folder)) + "/tavikUSB_0";
  tavik_driver* driver = tavik_driver_alloc();
  if (mkfifo(node.c_str(), 0600) != 0 || !(camera = tavik_test::SimCamera::Attach(node)) ||
      !tavik_driver_kernel_add_new_device(driver, 0, "tavikUSB_0", node.c_str()))
    std::abort();
  camera->answer = Answer;
  device = driver->device_list[0];
  return device->open(device);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const int requests = in.ConsumeIntegralInRange(1, 4);
  camera->FailPolls(in.ConsumeBool() ? EAGAIN : 0, in.ConsumeIntegralInRange(0, 2));  // 0: a device error
  input = &in;
  answered = 0;
  if (device->start_notif_thread(device, Callback) != KZ_ERR_NONE) std::abort();
  for (int i = 0; i < requests; ++i) camera->Push({});
  while (answered < requests) usleep(20);
  return device->stop_notif_thread(device);
}
