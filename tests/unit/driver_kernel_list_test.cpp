// The kernel driver's device list: what one add writes, how a skipped index (an
// add that failed) leaves a null slot, and that uninit frees every device even
// behind such a hole (LeakSanitizer checks the last part in the asan run).
#include <string>

#include <gtest/gtest.h>

#include "driver/kernel/tavik_driver_kernel.h"
#include "driver/tavik_driver_device_private.h"
#include "driver/tavik_driver_internal.h"

namespace {

class DriverKernelList : public ::testing::Test {
protected:
    void TearDown() override {
        tavik_driver_kernel_uninit(&driver);
        EXPECT_EQ(driver.device_list, nullptr);
        EXPECT_EQ(driver.driver_word, 0u);
    }
    bool Add(uns16 index, const std::string& name) {
        const std::string path = "/dev/" + name;
        return tavik_driver_kernel_add_new_device(&driver, index, name.c_str(), path.c_str()) ==
               QX_OK;
    }
    tavik_driver driver{};
};

TEST_F(DriverKernelList, AddFillsTheRecordAndBindsTheKernelOperations) {
    ASSERT_TRUE(Add(0, "tavikUSB_1"));
    ASSERT_NE(driver.device_list, nullptr);
    tavik_driver_device* device = driver.device_list[0];
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(driver.device_list[1], nullptr);
    EXPECT_EQ(device->driver, &driver);
    EXPECT_STREQ(device->name, "tavikUSB_1");
    EXPECT_STREQ(device->file_path, "/dev/tavikUSB_1");
    EXPECT_EQ(device->open, tavik_driver_kernel_dev_open);
    EXPECT_EQ(device->close, tavik_driver_kernel_dev_close);
    EXPECT_EQ(device->read, tavik_driver_kernel_dev_read);
    EXPECT_EQ(device->write, tavik_driver_kernel_dev_write);
    EXPECT_EQ(device->ioctl, tavik_driver_kernel_dev_ioctl);
    EXPECT_EQ(device->last_error_msg, tavik_driver_kernel_dev_last_error_msg);
    EXPECT_EQ(device->start_notif_thread, tavik_driver_kernel_dev_start_notif_thread);
    EXPECT_EQ(device->stop_notif_thread, tavik_driver_kernel_dev_stop_notif_thread);
    EXPECT_EQ(device->device_word, 0u);

    const tavik_driver_device_private* priv = device->private_;
    ASSERT_NE(priv, nullptr);
    EXPECT_EQ(priv->handle, -1);
    EXPECT_EQ(priv->notif_buffer, nullptr);
    EXPECT_FALSE(priv->notif_thread.joinable());
    EXPECT_FALSE(priv->notif_stop.load());
    EXPECT_EQ(priv->abort_pipe_read, -1);
    EXPECT_EQ(priv->abort_pipe_write, -1);
}

TEST_F(DriverKernelList, ConsecutiveAddsKeepTheirOrderAndTerminator) {
    ASSERT_TRUE(Add(0, "tavikUSB_1"));
    ASSERT_TRUE(Add(1, "tavikUSB_10"));
    ASSERT_TRUE(Add(2, "tavikUSB_2"));
    EXPECT_STREQ(driver.device_list[0]->name, "tavikUSB_1");
    EXPECT_STREQ(driver.device_list[1]->name, "tavikUSB_10");
    EXPECT_STREQ(driver.device_list[2]->name, "tavikUSB_2");
    EXPECT_EQ(driver.device_list[3], nullptr);
}

TEST_F(DriverKernelList, LongNameIsCutToThirtyOneAndPathKeptWhole) {
    const std::string name(40, '7');
    const std::string full = "tavikSW_" + name; // 48 characters
    ASSERT_TRUE(Add(0, full));
    EXPECT_EQ(std::string(driver.device_list[0]->name), full.substr(0, 31));
    EXPECT_EQ(std::string(driver.device_list[0]->file_path), "/dev/" + full);
}

TEST_F(DriverKernelList, OverlongPathIsCutTo255) {
    const std::string path(300, 'p');
    ASSERT_EQ(tavik_driver_kernel_add_new_device(&driver, 0, "tavikSW_0", path.c_str()), QX_OK);
    EXPECT_EQ(std::string(driver.device_list[0]->file_path), path.substr(0, 255));
}

TEST_F(DriverKernelList, FailedFirstAddLeavesANullFirstSlot) {
    // Index 0 was counted but never written: the list must read as empty.
    ASSERT_TRUE(Add(1, "tavikPCI_1"));
    EXPECT_EQ(driver.device_list[0], nullptr);
    ASSERT_NE(driver.device_list[1], nullptr);
    EXPECT_EQ(driver.device_list[2], nullptr);
}

TEST_F(DriverKernelList, FailedMiddleAddsLeaveNullSlotsAndUninitFreesEverything) {
    ASSERT_TRUE(Add(0, "tavikPCI_0"));
    ASSERT_TRUE(Add(2, "tavikPCI_2"));  // index 1 failed
    ASSERT_TRUE(Add(5, "tavikPCI_5"));  // indices 3 and 4 failed
    EXPECT_NE(driver.device_list[0], nullptr);
    EXPECT_EQ(driver.device_list[1], nullptr);
    EXPECT_NE(driver.device_list[2], nullptr);
    EXPECT_EQ(driver.device_list[3], nullptr);
    EXPECT_EQ(driver.device_list[4], nullptr);
    EXPECT_NE(driver.device_list[5], nullptr);
    EXPECT_EQ(driver.device_list[6], nullptr);
    // TearDown's uninit must free all three devices, not only the one before the hole.
}

TEST_F(DriverKernelList, UninitOfADriverWithoutListOnlyClearsTheWord) {
    driver.driver_word = 0xfeed;
    // TearDown checks the word and the list.
}

TEST(DriverKernelInit, UnknownTypeFailsWithoutAList) {
    tavik_driver driver{};
    driver.driver_word = 7;
    EXPECT_EQ(tavik_driver_kernel_init(&driver, static_cast<E_TAVIK_DRIVER_TYPE>(5)), QX_FAIL);
    EXPECT_EQ(driver.device_list, nullptr);
    EXPECT_EQ(driver.driver_word, 0u);
    tavik_driver_kernel_uninit(&driver);
}

} // namespace
