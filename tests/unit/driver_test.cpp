// Camera-list and device-list rules on records no module or /dev gives cheaply: holes left by failed adds, a bad type.
#include <gtest/gtest.h>

#include <cstring>

#include "ddi/tavik_ddi_internal.h"
#include "driver/tavik_driver_internal.h"

namespace {

void NeverCalled() {}

// A driver record whose null-terminated list holds the given devices (-1: a hole). The camera list only tests that
// the eight operations are there; none is called.
struct FakeDriver {
    explicit FakeDriver(std::vector<int> slots) : devices(slots.size()) {
        void (*ops[8])() = {NeverCalled, NeverCalled, NeverCalled, NeverCalled, NeverCalled, NeverCalled, NeverCalled,
                            NeverCalled};  // open to stop_notif_thread, side by side
        for (auto& d : devices) std::memcpy(&d.open, ops, sizeof ops);
        for (int s : slots) list.push_back(s < 0 ? nullptr : &devices[s]);
        list.push_back(nullptr);
        record.device_list = list.data();
    }
    std::vector<tavik_driver_device> devices;
    std::vector<tavik_driver_device*> list;
    tavik_driver record{};
};

TEST(CameraList, WalkStopsAtTheFirstHoleAndEmptySlotsGiveNoCameras) {
    FakeDriver firstFailed({-1, 0}), holed({0, -1, 1}), emulator({0});
    tavik_driver noList{};
    Ddi ddi{};
    ddi.cam_count = 9;
    ddi.drivers[TAVIK_DRIVER_TYPE_USB] = &firstFailed.record; // the PCI slot stays null
    ddi.drivers[TAVIK_DRIVER_TYPE_1394] = &holed.record;
    ddi.drivers[TAVIK_DRIVER_TYPE_PCIE] = &noList;
    ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL] = &emulator.record;
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 2);
    EXPECT_TRUE(ddi.devices[0] == &holed.devices[0] && ddi.devices[1] == &emulator.devices[0]);
}

TEST(KernelDriver, FailedAddsLeaveHolesThatUninitStillFreesAndUnknownTypesAreRefused) {
    tavik_driver driver{};
    // The adds of indexes 0, 3 and 4 failed: counted, never written. Uninit must still free the devices behind the
    // holes (the leak check of the asan run).
    for (uns16 index : {1, 2, 5}) ASSERT_EQ(tavik_driver_kernel_add_new_device(&driver, index, "tavikSW", ""), QX_OK);
    const bool filled[7] = {false, true, true, false, false, true, false};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(driver.device_list[i] != nullptr, filled[i]) << i;
    tavik_driver_kernel_uninit(&driver);
    EXPECT_TRUE(driver.device_list == nullptr && driver.driver_word == 0);

    tavik_driver* loaded = reinterpret_cast<tavik_driver*>(0x1);
    EXPECT_EQ(tavik_driver_load_kernel_mode(static_cast<E_TAVIK_DRIVER_TYPE>(5), &loaded), QX_FAIL);
    EXPECT_EQ(loaded, nullptr);
    driver.driver_word = 7;
    EXPECT_EQ(tavik_driver_kernel_init(&driver, static_cast<E_TAVIK_DRIVER_TYPE>(5)), QX_FAIL);
    EXPECT_TRUE(driver.device_list == nullptr && driver.driver_word == 0);
}

} // namespace

// The dumps print to standard output, not to the log: nothing outside reaches them.
E_TAVIK_DRIVER_TYPE FireWire() { return TAVIK_DRIVER_TYPE_1394; }

TEST(DriverDump, RecordLinesWithTheModeAndTypeTexts) {
    FakeDriver usb({0});
    usb.record.mode = TAVIK_DRIVER_MODE_KERNEL;
    usb.record.type = FireWire;
    std::strcpy(usb.devices[0].name, "cam");
    testing::internal::CaptureStdout();
    tavik_driver_dump(&usb.record);
    tavik_driver_dump(nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    for (const char* line : {"tavik_driver_dump: mode: KERNEL, type: FireWire, handle: 0x(nil), file_path: ''\n",
                             "tavik_driver_device_list_dump: device_list: 0x", "tavik_driver_device_dump: device: 0x",
                             "tavik_driver_dump: driver: 0x(nil)\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << " in\n" << out;
    EXPECT_STREQ(tavik_driver_type_text(5), "<invalid>");
    EXPECT_STREQ(tavik_driver_mode_text(2), "<invalid>");
}
