// Kernel device operations against real kernel objects (regular files and FIFOs
// in a private temporary folder): state errors, system-call failures with their
// texts, transfer counts, the last-error copy rules, and start/stop of the
// notification thread without leaking descriptors or threads.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/ThreadCount.h"

#include "driver/kernel/tavik_driver_kernel.h"
#include "driver/tavik_driver_device_private.h"
#include "error/LastError.h"

namespace {

size_t CountEntries(const char* folder) {
    size_t count = 0;
    if (DIR* dir = opendir(folder)) {
        while (readdir(dir)) ++count;
        closedir(dir);
    }
    return count;
}
size_t OpenDescriptors() { return CountEntries("/proc/self/fd"); }


std::string LastErrorText(tavik_driver_device* device) {
    char buffer[256];
    device->last_error_msg(device, buffer, sizeof(buffer));
    return buffer;
}

int16 IgnoreNotification(tavik_driver_device*, tavik_notif*) { return KZ_ERR_NONE; }

class DriverKernelDeviceIo : public ::testing::Test {
protected:
    void SetUp() override {
        char folder[] = "/tmp/tavik-io-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        m_folder = folder;
        ASSERT_EQ(tavik_driver_kernel_add_new_device(&m_driver, 0, "tavikSW_0", "/dev/tavikSW_0"),
                  QX_OK);
        device = m_driver.device_list[0];
    }
    void TearDown() override {
        if (device->private_->handle != -1) device->close(device);
        tavik_driver_kernel_uninit(&m_driver);
        for (const std::string& file : m_files) unlink(file.c_str());
        rmdir(m_folder.c_str());
    }
    // Points the device at a new node in the temporary folder.
    std::string UseNode(const char* name, bool fifo, const std::string& content = "") {
        const std::string path = m_folder + "/" + name;
        if (fifo) {
            EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        } else {
            const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
            EXPECT_GE(fd, 0);
            EXPECT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
            close(fd);
        }
        m_files.push_back(path);
        std::strncpy(device->file_path, path.c_str(), sizeof(device->file_path) - 1);
        return path;
    }

    tavik_driver_device* device = nullptr;

private:
    tavik_driver m_driver{};
    std::string m_folder;
    std::vector<std::string> m_files;
};

TEST_F(DriverKernelDeviceIo, ClosedDeviceRefusesEveryTransfer) {
    uns8 data[4] = {};
    uns16 done = 0xBEEF;
    EXPECT_EQ(device->read(device, data, sizeof(data), &done), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastErrorText(device), "Invalid file handle");
    kt::LastError::ClearDetails();
    EXPECT_EQ(device->write(device, data, sizeof(data), &done), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastErrorText(device), "Invalid file handle");
    kt::LastError::ClearDetails();
    EXPECT_EQ(device->ioctl(device, TAVIK_IOC_ACQ_ABORT, nullptr), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastErrorText(device), "Invalid file handle");
    EXPECT_EQ(done, 0xBEEF);
    EXPECT_EQ(device->close(device), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastErrorText(device), "Device already closed");
}

TEST_F(DriverKernelDeviceIo, OpenNeedsAPathAndAnExistingNode) {
    device->file_path[0] = '\0';
    EXPECT_EQ(device->open(device), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastErrorText(device), "File path is empty");

    std::strcpy(device->file_path, "/nonexistent-tavik/tavikSW_0");
    EXPECT_EQ(device->open(device), KZ_ERR_DDI_DEVICE_OPEN_FAILED);
    EXPECT_EQ(LastErrorText(device), "Error 2 (No such file or directory)");
    EXPECT_EQ(device->private_->handle, -1);
}

TEST_F(DriverKernelDeviceIo, SecondOpenFailsAndKeepsTheFirstDescriptor) {
    UseNode("tavikSW_0", false);
    const size_t before = OpenDescriptors();
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    const int fd = device->private_->handle;
    EXPECT_NE(fd, -1);
    EXPECT_EQ(device->open(device), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastErrorText(device), "Device already open");
    EXPECT_EQ(device->private_->handle, fd);
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_EQ(device->close(device), KZ_ERR_NONE);
    EXPECT_EQ(device->private_->handle, -1);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(DriverKernelDeviceIo, ReadOfAnEmptyNodeSucceedsWithZeroBytes) {
    UseNode("tavikSW_0", false);
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    uns8 data[8];
    uns16 done = 0xBEEF;
    EXPECT_EQ(device->read(device, data, sizeof(data), &done), KZ_ERR_NONE);
    EXPECT_EQ(done, 0);
}

TEST_F(DriverKernelDeviceIo, WriteAndReadMoveOneCallsWorthOfBytes) {
    UseNode("tavikSW_0", true);
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    const uns8 out[5] = {1, 2, 3, 4, 5};
    uns16 written = 0;
    ASSERT_EQ(device->write(device, out, sizeof(out), &written), KZ_ERR_NONE);
    EXPECT_EQ(written, 5);
    // A short read is a success: one call, no loop.
    uns8 in[3] = {};
    uns16 read = 0;
    ASSERT_EQ(device->read(device, in, sizeof(in), &read), KZ_ERR_NONE);
    EXPECT_EQ(read, 3);
    EXPECT_EQ(in[2], 3);
    // The count pointer is optional.
    EXPECT_EQ(device->read(device, in, sizeof(in), nullptr), KZ_ERR_NONE);
    EXPECT_EQ(in[1], 5);
}

TEST_F(DriverKernelDeviceIo, SystemCallFailuresGiveTheirOwnCodeAndErrnoText) {
    UseNode("tavikSW_0", false, "data");
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    EXPECT_EQ(device->ioctl(device, 0x12345678u, nullptr), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
    EXPECT_EQ(LastErrorText(device), "Error 25 (Inappropriate ioctl for device)");

    // A descriptor that the kernel no longer knows fails every call with EBADF.
    const int fd = device->private_->handle;
    ASSERT_EQ(close(fd), 0);
    uns8 data[4];
    uns16 done = 0xBEEF;
    EXPECT_EQ(device->read(device, data, sizeof(data), &done), KZ_ERR_DDI_DEVICE_READ_FAILED);
    EXPECT_EQ(LastErrorText(device), "Error 9 (Bad file descriptor)");
    EXPECT_EQ(done, 0xBEEF);
    EXPECT_EQ(device->write(device, data, sizeof(data), &done), KZ_ERR_DDI_DEVICE_WRITE_FAILED);
    EXPECT_EQ(LastErrorText(device), "Error 9 (Bad file descriptor)");
    // A failed close still leaves the device closed.
    EXPECT_EQ(device->close(device), KZ_ERR_DDI_DEVICE_CLOSE_FAILED);
    EXPECT_EQ(LastErrorText(device), "Error 9 (Bad file descriptor)");
    EXPECT_EQ(device->private_->handle, -1);
}

TEST_F(DriverKernelDeviceIo, LastErrorMessageSizesAndCuts) {
    kt::LastError::SetDetails("%s", "twenty characters!!!");
    char buffer[8];
    std::memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(device->last_error_msg(device, nullptr, 0), 21u);
    EXPECT_EQ(device->last_error_msg(device, buffer, 0), 21u);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(device->last_error_msg(device, buffer, 4), 21u);
    EXPECT_STREQ(buffer, "twe");
    EXPECT_EQ(buffer[4], 'x');
    EXPECT_EQ(device->last_error_msg(device, buffer, 1), 21u);
    EXPECT_EQ(buffer[0], '\0');

    kt::LastError::ClearDetails();
    EXPECT_EQ(device->last_error_msg(device, nullptr, 0), 1u);
}

TEST_F(DriverKernelDeviceIo, LastErrorTextBelongsToTheFailingThread) {
    std::thread other([this] {
        uns8 data[1];
        EXPECT_EQ(device->read(device, data, 1, nullptr), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(LastErrorText(device), "Invalid file handle");
    });
    other.join();
    kt::LastError::ClearDetails();
    EXPECT_EQ(device->last_error_msg(device, nullptr, 0), 1u);
}

TEST_F(DriverKernelDeviceIo, StopWithoutStartSucceeds) {
    EXPECT_EQ(device->stop_notif_thread(device), KZ_ERR_NONE);
    EXPECT_EQ(device->private_->abort_pipe_read, -1);
    EXPECT_EQ(device->private_->notif_buffer, nullptr);
}

TEST_F(DriverKernelDeviceIo, StartStopCyclesLeaveNoDescriptorOrThread) {
    UseNode("tavikSW_0", true);
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    const size_t fds = OpenDescriptors();
    const size_t threads = tavik_test::CountThreadsSettled();
    for (int cycle = 0; cycle < 5; ++cycle) {
        ASSERT_EQ(device->start_notif_thread(device, IgnoreNotification), KZ_ERR_NONE);
        tavik_driver_device_private* priv = device->private_;
        ASSERT_NE(priv->notif_buffer, nullptr);
        EXPECT_EQ(priv->notif_buffer->capacity, TAVIK_NOTIF_LIST_CAPACITY);
        EXPECT_EQ(priv->notif_buffer->notifications[0].size, sizeof(tavik_notif));
        EXPECT_EQ(priv->notif_buffer->notifications[0].version, 1);
        EXPECT_NE(priv->abort_pipe_read, -1);
        EXPECT_EQ(OpenDescriptors(), fds + 2);
        // Give the thread time to block in poll: stop must wake it from there.
        if (cycle == 0) usleep(20000);
        ASSERT_EQ(device->stop_notif_thread(device), KZ_ERR_NONE);
        EXPECT_EQ(priv->notif_buffer, nullptr);
        EXPECT_EQ(priv->abort_pipe_read, -1);
        EXPECT_EQ(priv->abort_pipe_write, -1);
        EXPECT_FALSE(priv->notif_thread.joinable());
        EXPECT_EQ(OpenDescriptors(), fds);
        EXPECT_EQ(tavik_test::SettledThreadCount(threads), threads);
    }
}

TEST_F(DriverKernelDeviceIo, FailingPipeLeavesNothingBehind) {
    UseNode("tavikSW_0", true);
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    // With only the lowest free descriptor left, pipe() fails with EMFILE.
    const int probe = open("/dev/null", O_RDONLY);
    ASSERT_GE(probe, 0);
    close(probe);
    struct rlimit saved {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(probe) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const int16 result = device->start_notif_thread(device, IgnoreNotification);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);

    EXPECT_EQ(result, KZ_ERR_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(LastErrorText(device),
              "Cannot create abort pipe for notification thread, error 24 (Too many open files)");
    EXPECT_EQ(device->private_->notif_buffer, nullptr);
    EXPECT_EQ(device->private_->abort_pipe_read, -1);
    EXPECT_EQ(device->private_->abort_pipe_write, -1);
    EXPECT_FALSE(device->private_->notif_thread.joinable());
    // The device is still usable afterwards.
    EXPECT_EQ(device->start_notif_thread(device, IgnoreNotification), KZ_ERR_NONE);
    EXPECT_EQ(device->stop_notif_thread(device), KZ_ERR_NONE);
}

TEST_F(DriverKernelDeviceIo, StartRefusesANullCallback) {
    UseNode("tavikSW_0", true);
    ASSERT_EQ(device->open(device), KZ_ERR_NONE);
    EXPECT_EQ(device->start_notif_thread(device, nullptr), KZ_ERR_NULL_POINTER);
    EXPECT_EQ(device->private_->notif_buffer, nullptr);
    EXPECT_FALSE(device->private_->notif_thread.joinable());
}

} // namespace
