// Loading and unloading driver records, and the texts of the dump functions.
#include <dlfcn.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "driver/tavik_driver_internal.h"

namespace {

TEST(DriverLoadKernelMode, EveryValidTypeLoadsEvenWithoutDevices) {
    for (uns32 type = 0; type < TAVIK_DRIVER_TYPE_COUNT; ++type) {
        tavik_driver* driver = nullptr;
        ASSERT_EQ(tavik_driver_load_kernel_mode(static_cast<E_TAVIK_DRIVER_TYPE>(type), &driver),
                  QX_OK);
        ASSERT_NE(driver, nullptr);
        EXPECT_EQ(driver->mode, TAVIK_DRIVER_MODE_KERNEL);
        EXPECT_EQ(driver->handle, nullptr);
        EXPECT_STREQ(driver->file_path, "");
        ASSERT_NE(driver->type, nullptr);
        EXPECT_EQ(static_cast<uns32>(driver->type()), type);
        EXPECT_NE(driver->init, nullptr);
        EXPECT_NE(driver->uninit, nullptr);
        tavik_driver_unload(&driver);
        EXPECT_EQ(driver, nullptr);
    }
}

TEST(DriverLoadKernelMode, UnknownTypeFailsAndLeavesNull) {
    tavik_driver* driver = reinterpret_cast<tavik_driver*>(0x1);
    EXPECT_EQ(tavik_driver_load_kernel_mode(static_cast<E_TAVIK_DRIVER_TYPE>(5), &driver), QX_FAIL);
    EXPECT_EQ(driver, nullptr);
}

TEST(DriverLoadUserMode, MissingOrNonModuleFilesFailAndLeaveNull) {
    char path[] = "/tmp/tavik_x-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "not an ELF file\n", 16), 16);
    close(fd);
    for (const char* file : {"/nonexistent-tavik/tavik_a.x86_64.umd", "tavik_none.x86_64.umd",
                             static_cast<const char*>(path)}) {
        tavik_driver* driver = reinterpret_cast<tavik_driver*>(0x1);
        EXPECT_EQ(tavik_driver_load_user_mode(file, &driver), QX_FAIL) << file;
        EXPECT_EQ(driver, nullptr) << file;
    }
    unlink(path);
    // The loader's error was consumed, not left for later lookups.
    EXPECT_EQ(dlerror(), nullptr);
}

TEST(DriverLoadUserMode, ModuleWithoutEntryPointsIsRejected) {
    // The C library is a real loadable module that exports none of the three names.
    tavik_driver* driver = nullptr;
    EXPECT_EQ(tavik_driver_load_user_mode("libc.so.6", &driver), QX_FAIL);
    EXPECT_EQ(driver, nullptr);
}

TEST(DriverUnload, NullSlotAndNullPointerAreHarmless) {
    tavik_driver* driver = nullptr;
    tavik_driver_unload(&driver);
    EXPECT_EQ(driver, nullptr);
    tavik_driver_unload(nullptr);
}

int g_uninitCalls = 0;
void CountingUninit(tavik_driver*) { ++g_uninitCalls; }

TEST(DriverUnload, CallsUninitEvenWithoutInitAndFreesTheRecord) {
    tavik_driver* driver = tavik_driver_alloc();
    ASSERT_NE(driver, nullptr);
    driver->uninit = CountingUninit;
    g_uninitCalls = 0;
    tavik_driver_unload(&driver);
    EXPECT_EQ(g_uninitCalls, 1);
    EXPECT_EQ(driver, nullptr);
}

TEST(DriverRecordText, TypeAndModeTexts) {
    EXPECT_STREQ(tavik_driver_type_text(0), "PCI");
    EXPECT_STREQ(tavik_driver_type_text(1), "PCIe");
    EXPECT_STREQ(tavik_driver_type_text(2), "USB");
    EXPECT_STREQ(tavik_driver_type_text(3), "FireWire");
    EXPECT_STREQ(tavik_driver_type_text(4), "Virtual");
    EXPECT_STREQ(tavik_driver_type_text(5), "<invalid>");
    EXPECT_STREQ(tavik_driver_mode_text(0), "USER");
    EXPECT_STREQ(tavik_driver_mode_text(1), "KERNEL");
    EXPECT_STREQ(tavik_driver_mode_text(2), "<invalid>");
}

std::string Hex(const void* p) {
    char text[64];
    std::snprintf(text, sizeof(text), "0x%p", p);
    return text;
}

TEST(DriverDump, PrintsEveryRecordLineInOrder) {
    tavik_driver driver{};
    driver.mode = TAVIK_DRIVER_MODE_KERNEL;
    driver.type = KernelDriverHelper<TAVIK_DRIVER_TYPE_PCIE>::GetType;
    tavik_driver_device device{};
    std::snprintf(device.name, sizeof(device.name), "tavikPCIE_0");
    std::snprintf(device.file_path, sizeof(device.file_path), "/dev/tavikPCIE_0");
    tavik_driver_device* list[] = {&device, nullptr};
    driver.device_list = list;

    testing::internal::CaptureStdout();
    tavik_driver_dump(&driver);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string nil = Hex(nullptr);
    const std::string expected =
        "tavik_driver_dump: driver: " + Hex(&driver) + "\n" +
        "tavik_driver_dump: mode: KERNEL, type: PCIe, handle: " + nil + ", file_path: ''\n" +
        "tavik_driver_dump: init: " + nil + ", uninit: " + nil + ", type: " +
        Hex(reinterpret_cast<void*>(driver.type)) + "\n" +
        "tavik_driver_device_list_dump: device_list: " + Hex(list) + "\n" +
        "tavik_driver_device_dump: device: " + Hex(&device) + "\n" +
        "tavik_driver_device_dump: name: 'tavikPCIE_0', file_path: '/dev/tavikPCIE_0'\n" +
        "tavik_driver_device_dump: open: " + nil + ", close: " + nil + ", last_error_msg: " + nil +
        "\n" + "tavik_driver_device_dump: read: " + nil + ", write: " + nil + ", ioctl: " + nil +
        "\n" + "tavik_driver_device_dump: start_notif_thread: " + nil +
        ", stop_notif_thread: " + nil + "\n";
    EXPECT_EQ(out, expected);
}

TEST(DriverDump, NullRecordsStopAfterTheirFirstLine) {
    testing::internal::CaptureStdout();
    tavik_driver_dump(nullptr);
    tavik_driver_device_list_dump(nullptr);
    tavik_driver_device_dump(nullptr);
    tavik_driver driver{};
    const uns32 badMode = 7;
    std::memcpy(&driver.mode, &badMode, sizeof(badMode));
    tavik_driver_dump(&driver);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string nil = Hex(nullptr);
    EXPECT_EQ(out.substr(0, out.find("tavik_driver_dump: driver: " + Hex(&driver))),
              "tavik_driver_dump: driver: " + nil + "\n" +
                  "tavik_driver_device_list_dump: device_list: " + nil + "\n" +
                  "tavik_driver_device_dump: device: " + nil + "\n");
    EXPECT_NE(out.find("mode: <invalid>, type: <invalid>"), std::string::npos);
}

} // namespace
