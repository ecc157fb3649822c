// The camera emulator as the core reaches it, found by the shipped library in TAVIK_UMD_PATH; a fresh child a case.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ChildProcess.h"
#include "DdiLibrary.h"
#include "ProcessStats.h"
#include "tavik_virtual.h"

using namespace tavik_test;
namespace {

using Dev = tavik_driver_device;
struct Event { uns16 size, version; uns32 type; tavik_virtual_notif_payload p; bool whole; };
std::vector<Event> g_events[TAVIK_VIRTUAL_MAX_CAMERAS];  // each written by one camera's thread only
std::atomic<unsigned> g_calls{0};
std::atomic<int> g_hold{0};  // 1: the next callback waits until 3 (a stop under way), then lets it act
uns8 g_buf[TAVIK_VIRTUAL_FRAME_BYTES + 8];

// The frame's number when its header and every pixel agree with it, else 0.
uint64_t WholeFrame(const uns8* f, uns16 bytes) {
  tavik_virtual_frame_header h;
  memcpy(&h, f, sizeof h);
  bool whole = bytes == TAVIK_VIRTUAL_FRAME_BYTES && h.frame_bytes == bytes && h.check == ~h.frame_number;
  for (uns16 j = 0, px; whole && j < (bytes - sizeof h) / 2; ++j)
    whole = (memcpy(&px, f + sizeof h + 2 * j, 2), px) == static_cast<uns16>(h.frame_number * 7 + j);
  return whole ? h.frame_number : 0;
}

// Keeps each record, with whether the frame read on an EOF is that frame, whole.
int16 Record(Dev* d, tavik_notif* n) {
  if (g_hold == 1) for (g_hold = 2; g_hold != 3;) usleep(1000);
  usleep(g_hold == 3 ? 100000 : 1000);  // late enough for a fast clock to overtake the frame an EOF names
  Event e{n->size, n->version, n->type, {}, true};
  memcpy(&e.p, n->payload, sizeof e.p);
  static thread_local uns8 frame[TAVIK_VIRTUAL_FRAME_BYTES];
  uns16 got = 0;
  if (e.type == NOTIFICATION_EOF)
    e.whole = d->read(d, frame, sizeof frame, &got) == 0 && WholeFrame(frame, got) == e.p.frame_number;
  g_events[e.p.camera_index % TAVIK_VIRTUAL_MAX_CAMERAS].push_back(e);
  ++g_calls;
  return KZ_ERR_NONE;
}

int16 Status(Dev* d, uint64_t* v) {  // the status code, and whether any frame was counted
  tavik_virtual_acq_status st{};
  const int16 rc = d->ioctl(d, TAVIK_IOC_ACQ_GET_STATUS, &st);
  return *v = st.status * 10u + (st.frame_count != 0), rc;
}

// Frames come from the emulator's own clock, which a loaded machine may hold up for a while: wait until the
// acquisition has counted one instead of guessing how long that takes.
void WaitForFrame(Dev* d) {
  uint64_t v = 0;
  for (int ms = 0; ms < 5000 && (Status(d, &v), v % 10 == 0); ++ms) usleep(1000);
}

int16 SetActive(Dev* d, uns32 fps, uns32 limit = 0, uns8 reserved = 0) {
  tavik_virtual_acq_setup setup{limit, fps, {reserved}};
  return d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, &setup);
}

// The library loaded with the emulator's folder as TAVIK_UMD_PATH; its end is the library's uninit.
struct Session {
  std::string why;
  std::unique_ptr<DdiLibrary> lib = DdiLibrary::Open(TAVIK_TEST_LIBRARY_PATH, why);
  Ddi ddi{};
  std::vector<Dev*> cams;  // the emulator's
  Session() {
    setenv("TAVIK_UMD_PATH", TAVIK_EMU_MODULE_DIR, 1);
    EXPECT_EQ(lib ? lib->init(&ddi) : -1, KZ_ERR_NONE) << why;
    for (unsigned i = 0; i < ddi.cam_count; ++i)
      if (ddi.devices[i]->driver == ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL]) cams.push_back(ddi.devices[i]);
  }
  ~Session() { EXPECT_EQ(lib ? lib->uninit(&ddi) : 0, KZ_ERR_NONE); }
};

class Emulator : public ChildTest {};

// Each row: the fallback lines, the cameras, and a two-frame acquisition at the configured rate; then the uninit
// stops the notification threads left running, and nothing leaks.
TEST_F(Emulator, CountAndRateFromTheEnvironmentShapeALimitedAcquisition) {
  auto fallback = [](std::string var, const char* value, const char* range) {
    return "tavik_virtual: TAVIK_VIRTUAL_" + var + "='" + value + "' is not a number from 1 to " + range + "\n";
  };
  struct { const char *cams, *fps; unsigned count, periodUs; bool badCams, badFps; } rows[] = {
      {nullptr, nullptr, 1, 100000, 0, 0}, {"", "", 1, 100000, 0, 0},     {"16", "10000", 16, 100, 0, 0},
      {"1", "200", 1, 5000, 0, 0},         {"3", "50", 3, 20000, 0, 0},   {"17", "0", 1, 100000, 1, 1},
      {"0", "10001", 1, 100000, 1, 1},     {"+2", "2s", 1, 100000, 1, 1}, {" 3", "200", 1, 5000, 1, 0},
      {"3 ", "99999999999999999999", 1, 100000, 1, 1}};
  for (const auto& row : rows) RunInChild([&](ChildContext& ctx) {
    row.cams ? setenv("TAVIK_VIRTUAL_CAMERAS", row.cams, 1) : unsetenv("TAVIK_VIRTUAL_CAMERAS");
    row.fps ? setenv("TAVIK_VIRTUAL_FPS", row.fps, 1) : unsetenv("TAVIK_VIRTUAL_FPS");
    dup2(open((ctx.tmp + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    const size_t fds = CountOpenFds(), threads = CountThreads();
    {
      Session s;
      EXPECT_EQ(ReadFile(ctx.tmp + "/stderr"), (row.badCams ? fallback("CAMERAS", row.cams, "16, using 1") : "") +
                                                   (row.badFps ? fallback("FPS", row.fps, "10000, using 10") : ""));
      ASSERT_EQ(s.cams.size(), row.count);
      for (Dev* d : s.cams)  // fps 0: the configured rate
        ASSERT_TRUE(d->open(d) == 0 && d->start_notif_thread(d, Record) == 0 && SetActive(d, 0, 2) == 0);
      for (int ms = 0; ms < 5000 && g_calls < 5 * row.count; ++ms) usleep(1000);
      ASSERT_EQ(g_calls, 5 * row.count);  // after which no camera adds an event
      for (unsigned i = 0; i < row.count; ++i) {
        const std::vector<Event>& ev = g_events[i];
        ASSERT_EQ(ev.size(), 5u) << "camera " << i;
        for (unsigned k = 0; k < 5; ++k) {
          const uint64_t frame = k < 2 ? 1 : 2, stamp = ev[0].p.time_stamp_us + (frame - 1) * row.periodUs;
          const uns32 type = k == 4 ? NOTIFICATION_COMPLETE : k % 2 ? NOTIFICATION_EOF : NOTIFICATION_BOF;
          EXPECT_EQ(std::tie(ev[k].size, ev[k].version, ev[k].type, ev[k].p.frame_number, ev[k].p.camera_index,
                             ev[k].p.reserved, ev[k].p.time_stamp_us, ev[k].whole),
                    std::make_tuple(32, 1, type, frame, i, 0, stamp, true)) << "camera " << i << ", event " << k;
        }
        uns16 got = 0;  // the latest frame, whole, once
        EXPECT_EQ(s.cams[i]->read(s.cams[i], g_buf, sizeof g_buf, &got) == 0 ? WholeFrame(g_buf, got) : 0, 2u);
      }
    }
    EXPECT_EQ(SettledThreadCount(threads), threads) << "a clock and a notifier per camera";
    EXPECT_EQ(CountOpenFds(), fds);
  });
}

tavik_driver_device g_foreign = [] { tavik_driver_device d{}; std::strcpy(d.name, "foreign"); return d; }();

// One camera through its rules: each step's result, its text on failure, and what it returned.
#define OP(call) #call, [](Dev* d, [[maybe_unused]] uint64_t* v) -> int16 { return call; }
TEST_F(Emulator, StateRulesRequestCodesAndAPromptStop) {
  const int16 kNone = KZ_ERR_NONE, kState = KZ_ERR_STATE_INVALID, kIoctl = KZ_ERR_DDI_DEVICE_IOCTL_FAILED;
  const char* kClosed = "Invalid file handle";
  const struct { const char* what; int16 (*fn)(Dev*, uint64_t*); int16 code; const char* text; uint64_t v; } steps[] = {
      {OP(d->read(d, g_buf, 8, nullptr)), kState, kClosed, 0}, {OP(d->write(d, g_buf, 8, nullptr)), kState, kClosed, 0},
      {OP(d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, v)), kState, kClosed, 0},
      {OP(d->close(d)), kState, "Device already closed", 0}, {OP(d->open(d)), kNone, "", 0},
      {OP(Status(d, v)), kNone, "", EXP_ST_NO_DATA_I * 10}, {OP(d->read(d, nullptr, 0, nullptr)), kNone, "", 0},
      {OP(d->ioctl(d, TAVIK_IOC_ACQ_SET_ACTIVE, nullptr)), kIoctl, "Null argument for request 0x40203d0a", 0},
      {OP(d->open(d)), kState, "Device already open", 0},
      {OP(d->close(nullptr)), KZ_ERR_DEVICE_HANDLE_INVALID, "Device is null", 0},
      {OP(d->close(&g_foreign)), KZ_ERR_DEVICE_HANDLE_INVALID, "Device 'foreign' does not belong to the camera emulator", 0},
      {OP(d->read(d, nullptr, 8, nullptr)), KZ_ERR_DDI_DEVICE_READ_FAILED, "Null data buffer for 8 bytes", 0},
      {OP(d->write(d, nullptr, 8, nullptr)), KZ_ERR_DDI_DEVICE_WRITE_FAILED, "Null data buffer for 8 bytes", 0},
      {OP(d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, nullptr)), kIoctl, "Null argument for request 0x80023d3c", 0},
      {OP(d->write(d, g_buf, 100, reinterpret_cast<uns16*>(v))), kNone, "", 100},
      {OP(d->ioctl(d, TAVIK_IOC_GET_DRIVER_API_VERSION, v)), kNone, "", 0x00010000},
      {OP(d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, v)), kNone, "", 0x0100},
      {OP(d->ioctl(d, TAVIK_IOC_GET_DRIVER_CAPABILITIES, v)), kNone, "", 0x0004},
      {OP(d->ioctl(d, 0x12345678u, v)), kIoctl, "Request 0x12345678 is not supported by camera 'tavikSW_0'", 0},
      {OP(SetActive(d, 1000, 0, 1)), kIoctl, "Reserved bytes of the acquisition setup must be zero", 0},
      {OP(SetActive(d, 10001)), kIoctl, "Frame rate 10001 is outside 1 to 10000", 0},
      {OP(d->start_notif_thread(d, nullptr)), KZ_ERR_NULL_POINTER, "Callback function is null", 0},
      {OP(d->stop_notif_thread(d)), kNone, "", 0}, {OP(d->start_notif_thread(d, Record)), kNone, "", 0},
      {OP(d->start_notif_thread(d, Record)), kState, "Notification thread already running", 0},
      {OP(SetActive(d, 1000)), kNone, "", 0}, {OP(SetActive(d, 1000)), kState, "Acquisition already active", 0},
      {OP((WaitForFrame(d), d->read(d, g_buf, 8, reinterpret_cast<uns16*>(v)))), kNone, "", 8},  // frames by now
      {OP(Status(d, v)), kNone, "", EXP_ST_COLLECT_OK_A * 10 + 1},
      {OP(d->stop_notif_thread(d)), kNone, "", 0}, {OP(d->stop_notif_thread(d)), kNone, "", 0},
      {OP(d->close(d)), kNone, "", 0}, {OP(d->open(d)), kNone, "", 0},
      {OP(d->read(d, g_buf, 8, reinterpret_cast<uns16*>(v))), kNone, "", 0},  // no frame since the open
      {OP(SetActive(d, 1000)), kNone, "", 0},  // as the close ended the acquisition
      {OP(d->open(d)), kState, "Device already open", 0},
      {OP((WaitForFrame(d), d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr))), kNone, "", 0},
      {OP(Status(d, v)), kNone, "", EXP_ST_COLLECT_DONE_I * 10 + 1}};  // the last acquisition's count
  RunInChild([&](ChildContext&) {
    Session s;
    ASSERT_EQ(s.cams.size(), 1u);
    Dev* d = s.cams[0];
    for (const auto& step : steps) {
      uint64_t v = 0;
      char text[256] = "";
      EXPECT_EQ(step.fn(d, &v), step.code) << step.what;
      if (step.code != kNone) d->last_error_msg(d, text, sizeof text);
      EXPECT_EQ(std::string(text) + " " + std::to_string(v), step.text + (" " + std::to_string(step.v))) << step.what;
    }
    // The calling thread's text, cut to the buffer and terminated; the result is the size it needs.
    for (auto [size, want] : {std::pair{0u, "xxxxx"}, {1u, "\0xxxx"}, {4u, "Dev\0x"}, {64u, "Devic"}}) {
      char buf[64] = "xxxxxxxx";
      EXPECT_EQ(d->last_error_msg(d, buf, size), 20u);
      EXPECT_EQ(std::string(buf, 5), std::string(want, 5)) << "size " << size;
    }
    std::thread([d] { EXPECT_EQ(d->last_error_msg(d, nullptr, 0), 1u) << "another thread's text"; }).join();
    // The notification thread waits for the first frame, whose callback holds until a stop is under way; the queue
    // overflows meanwhile, and the stop ends the delivery after that callback.
    g_calls = 0;
    g_hold = 1;
    ASSERT_TRUE(d->ioctl(d, TAVIK_IOC_ACQ_ABORT, nullptr) == 0 && d->start_notif_thread(d, Record) == 0);
    usleep(20000);  // so that the thread waits for the first frame's wake-up
    ASSERT_EQ(SetActive(d, 1000), kNone);
    for (int ms = 0; ms < 5000 && g_hold != 2; ++ms) usleep(1000);
    tavik_virtual_acq_status st{};  // until the queue has overflowed, however slow the machine
    for (int ms = 0; ms < 10000 && (d->ioctl(d, TAVIK_IOC_ACQ_GET_STATUS, &st) != 0 || st.frames_dropped == 0); ms += 10)
      usleep(10000);
    g_hold = 3;
    EXPECT_TRUE(d->stop_notif_thread(d) == 0 && d->ioctl(d, TAVIK_IOC_ACQ_GET_STATUS, &st) == 0);
    EXPECT_EQ(g_calls, 1u) << "records delivered after the stop began";
    EXPECT_GT(st.frames_dropped, 0u) << "a full queue counts the pairs it drops";
  });
}

}  // namespace
