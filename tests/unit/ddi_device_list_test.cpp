// The camera list over in-memory driver records: order of the rows, the
// compatibility rule, the 16-camera limit and empty slots.
#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "ddi/tavik_ddi_internal.h"

namespace {

int16 Open(tavik_driver_device*) { return 0; }
int16 Close(tavik_driver_device*) { return 0; }
int16 Read(tavik_driver_device*, uns8*, uns16, uns16*) { return 0; }
int16 Write(tavik_driver_device*, const uns8*, uns16, uns16*) { return 0; }
int16 Ioctl(tavik_driver_device*, uns32, void*) { return 0; }
uns32 LastErrorMsg(tavik_driver_device*, char*, uns32) { return 1; }
int16 Start(tavik_driver_device*, tavik_dcb_invoke_callback_fn) { return 0; }
int16 Stop(tavik_driver_device*) { return 0; }

tavik_driver_device MakeDevice() {
    tavik_driver_device device{};
    device.open = Open;
    device.close = Close;
    device.read = Read;
    device.write = Write;
    device.ioctl = Ioctl;
    device.last_error_msg = LastErrorMsg;
    device.start_notif_thread = Start;
    device.stop_notif_thread = Stop;
    return device;
}

// A driver record with n compatible devices and its null-terminated list.
struct FakeDriver {
    explicit FakeDriver(size_t n) : devices(n, MakeDevice()), list(n + 1, nullptr) {
        for (size_t i = 0; i < n; ++i) list[i] = &devices[i];
        record.device_list = list.data();
    }
    tavik_driver record{};
    std::vector<tavik_driver_device> devices;
    std::vector<tavik_driver_device*> list;
};

class DdiDeviceList : public ::testing::Test {
protected:
    Ddi ddi{};
    void Attach(E_TAVIK_DRIVER_TYPE type, FakeDriver& driver) { ddi.drivers[type] = &driver.record; }
};

TEST_F(DdiDeviceList, CamerasFollowRowOrderNotTypeOrder) {
    FakeDriver pci(1), pcie(1), usb(1), fw(1), sw(1);
    Attach(TAVIK_DRIVER_TYPE_PCI, pci);
    Attach(TAVIK_DRIVER_TYPE_PCIE, pcie);
    Attach(TAVIK_DRIVER_TYPE_USB, usb);
    Attach(TAVIK_DRIVER_TYPE_1394, fw);
    Attach(TAVIK_DRIVER_TYPE_VIRTUAL, sw);
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 5);
    EXPECT_EQ(ddi.devices[0], &pci.devices[0]);
    EXPECT_EQ(ddi.devices[1], &usb.devices[0]);
    EXPECT_EQ(ddi.devices[2], &fw.devices[0]);
    EXPECT_EQ(ddi.devices[3], &pcie.devices[0]);
    EXPECT_EQ(ddi.devices[4], &sw.devices[0]);
}

TEST_F(DdiDeviceList, IncompatibleDeviceIsSkippedAndWalkContinues) {
    FakeDriver usb(3);
    usb.devices[1].ioctl = nullptr; // B lacks one of its eight operations
    Attach(TAVIK_DRIVER_TYPE_USB, usb);
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 2);
    EXPECT_EQ(ddi.devices[0], &usb.devices[0]);
    EXPECT_EQ(ddi.devices[1], &usb.devices[2]);
}

TEST_F(DdiDeviceList, EveryOneOfTheEightOperationsIsRequired) {
    using Member = void (*)(tavik_driver_device&);
    const std::array<Member, 8> clear = {
        [](tavik_driver_device& d) { d.open = nullptr; },
        [](tavik_driver_device& d) { d.close = nullptr; },
        [](tavik_driver_device& d) { d.read = nullptr; },
        [](tavik_driver_device& d) { d.write = nullptr; },
        [](tavik_driver_device& d) { d.ioctl = nullptr; },
        [](tavik_driver_device& d) { d.last_error_msg = nullptr; },
        [](tavik_driver_device& d) { d.start_notif_thread = nullptr; },
        [](tavik_driver_device& d) { d.stop_notif_thread = nullptr; },
    };
    for (size_t op = 0; op < clear.size(); ++op) {
        FakeDriver sw(1);
        clear[op](sw.devices[0]);
        Ddi fresh{};
        fresh.drivers[TAVIK_DRIVER_TYPE_VIRTUAL] = &sw.record;
        ddi_update_device_list(&fresh);
        EXPECT_EQ(fresh.cam_count, 0) << "operation " << op;
    }
}

TEST_F(DdiDeviceList, TwentyPciCamerasAreCutToSixteenAndLaterRowsGetNone) {
    FakeDriver pci(20), usb(2);
    Attach(TAVIK_DRIVER_TYPE_PCI, pci);
    Attach(TAVIK_DRIVER_TYPE_USB, usb);
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, TAVIK_DDI_MAX_CAMERAS);
    for (int i = 0; i < TAVIK_DDI_MAX_CAMERAS; ++i) EXPECT_EQ(ddi.devices[i], &pci.devices[i]) << i;
}

TEST_F(DdiDeviceList, LimitIsSharedAcrossRows) {
    FakeDriver pci(10), usb(10);
    Attach(TAVIK_DRIVER_TYPE_PCI, pci);
    Attach(TAVIK_DRIVER_TYPE_USB, usb);
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 16);
    EXPECT_EQ(ddi.devices[9], &pci.devices[9]);
    EXPECT_EQ(ddi.devices[10], &usb.devices[0]);
    EXPECT_EQ(ddi.devices[15], &usb.devices[5]);
}

TEST_F(DdiDeviceList, IncompatibleDevicesDoNotUseUpTheLimit) {
    FakeDriver pci(20);
    for (int i = 0; i < 4; ++i) pci.devices[i].read = nullptr;
    Attach(TAVIK_DRIVER_TYPE_PCI, pci);
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 16);
    EXPECT_EQ(ddi.devices[0], &pci.devices[4]);
    EXPECT_EQ(ddi.devices[15], &pci.devices[19]);
}

TEST_F(DdiDeviceList, EmptySlotsNullListsAndNullFirstEntriesGiveNoCameras) {
    FakeDriver none(0), holed(2), sw(1);
    holed.list[0] = nullptr; // the first add of this driver failed
    Attach(TAVIK_DRIVER_TYPE_PCIE, none);
    Attach(TAVIK_DRIVER_TYPE_USB, holed);
    Attach(TAVIK_DRIVER_TYPE_VIRTUAL, sw);
    tavik_driver nullList{};
    ddi.drivers[TAVIK_DRIVER_TYPE_1394] = &nullList;
    // PCI slot stays null: a kernel driver that could not even be allocated.
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 1);
    EXPECT_EQ(ddi.devices[0], &sw.devices[0]);
}

TEST_F(DdiDeviceList, WalkStopsAtTheFirstHole) {
    FakeDriver usb(3);
    usb.list[1] = nullptr; // an add that failed in the middle
    Attach(TAVIK_DRIVER_TYPE_USB, usb);
    ddi_update_device_list(&ddi);
    ASSERT_EQ(ddi.cam_count, 1);
    EXPECT_EQ(ddi.devices[0], &usb.devices[0]);
}

TEST_F(DdiDeviceList, RebuildReplacesTheEarlierCount) {
    FakeDriver sw(3);
    Attach(TAVIK_DRIVER_TYPE_VIRTUAL, sw);
    ddi.cam_count = 9;
    ddi_update_device_list(&ddi);
    EXPECT_EQ(ddi.cam_count, 3);
    ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL] = nullptr;
    ddi_update_device_list(&ddi);
    EXPECT_EQ(ddi.cam_count, 0);
}

} // namespace
