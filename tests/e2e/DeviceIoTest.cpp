// Device operations of kernel devices on FIFO nodes: real blocking reads and
// writes, the kernel's own ENOTTY for camera request codes, every state error,
// and the lines each operation logs.
#include <sys/ioctl.h>

#include <cstring>

#include "E2eCommon.h"

namespace tavik_test {
namespace {

class DeviceIo : public ChildTest {
 protected:
  // One FIFO camera "tavikSW_0" in a private /dev; body gets its device record.
  bool WithDevice(const std::function<void(Session&, tavik_driver_device*)>& body, const char* level = nullptr) {
    return RunInChild([&](ChildContext& ctx) {
      EnterPrivateDev();
      MakeFifo("tavikSW_0");
      ctx.EnableLog(level);
      Session s;
      TAVIK_INIT_SESSION(s);
      ASSERT_EQ(s.ddi.cam_count, 1);
      body(s, s.ddi.devices[0]);
      TAVIK_UNINIT_SESSION(s);
    });
  }
  LogFile Log() const { return LogFile::Read(ctx_.LogPath()); }
};

std::string DeviceText(tavik_driver_device* d) {
  uns32 need = d->last_error_msg(d, nullptr, 0);
  std::string buf(need, '\0');
  d->last_error_msg(d, buf.data(), need);
  return std::string(buf.c_str());
}

TEST_F(DeviceIo, StateErrorsLeaveTheDeviceAsItWas) {
  if (!WithDevice([](Session& s, tavik_driver_device* d) {
        uns8 buf[8] = {};
        uns16 n = 0;
        EXPECT_EQ(d->close(d), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Device already closed");
        EXPECT_EQ(s.lib.LastError(), "Device already closed") << "one per-thread store behind both";
        EXPECT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Invalid file handle");
        EXPECT_EQ(d->write(d, buf, sizeof buf, &n), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Invalid file handle");
        EXPECT_EQ(d->ioctl(d, TAVIK_IOC_CAM_POST_OPEN, nullptr), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Invalid file handle");

        ASSERT_EQ(d->open(d), KZ_ERR_NONE);
        EXPECT_EQ(d->open(d), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Device already open");
        // The first descriptor is still the one in use.
        const uns8 out[3] = {7, 8, 9};
        ASSERT_EQ(d->write(d, out, 3, &n), KZ_ERR_NONE);
        EXPECT_EQ(n, 3);
        ASSERT_EQ(d->read(d, buf, sizeof buf, &n), KZ_ERR_NONE);
        EXPECT_EQ(n, 3);
        EXPECT_EQ(std::memcmp(buf, out, 3), 0);
        ASSERT_EQ(d->close(d), KZ_ERR_NONE);
        EXPECT_EQ(d->close(d), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Device already closed");

        // A device whose path was emptied cannot be opened, and stays closed.
        char saved[sizeof d->file_path];
        std::memcpy(saved, d->file_path, sizeof saved);
        d->file_path[0] = '\0';
        EXPECT_EQ(d->open(d), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "File path is empty");
        std::memcpy(d->file_path, saved, sizeof saved);
        EXPECT_EQ(d->close(d), KZ_ERR_STATE_INVALID);
      }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_close", Re(std::string("ENTER \\(device=") + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_close", "Device already closed", 1));
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_close", Re(std::string("RETURN \\(KZ_ERR_STATE_INVALID\\) ") + kMicros), 0));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_read", "Invalid file handle", 1));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_write", "Invalid file handle", 1));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_ioctl", "Invalid file handle", 1));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_open", "Opened device 'tavikSW_0' (/dev/tavikSW_0)", 1));
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_open", Re(std::string("RETURN \\(KZ_ERR_NONE\\) ") + kMicros), 0));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_open", "Device already open", 1));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_close", "Closed device 'tavikSW_0' (/dev/tavikSW_0)", 1));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_close", "Device already closed", 1));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_open", "File path is empty", 1));
}

TEST_F(DeviceIo, ReadAndWriteMoveBytesOnceAndDumpThem) {
  if (!WithDevice([](Session&, tavik_driver_device* d) {
        ASSERT_EQ(d->open(d), KZ_ERR_NONE);
        const uns8 out[5] = {0x01, 0x02, 0x03, 0x0A, 0xFF};
        uns16 n = 0;
        ASSERT_EQ(d->write(d, out, sizeof out, &n), KZ_ERR_NONE);
        EXPECT_EQ(n, 5);
        // A short read is a success with the count the kernel gave.
        uns8 in[16];
        std::memset(in, 0, sizeof in);
        n = 0;
        ASSERT_EQ(d->read(d, in, sizeof in, &n), KZ_ERR_NONE);
        EXPECT_EQ(n, 5);
        EXPECT_EQ(std::memcmp(in, out, 5), 0);
        // Zero bytes asked, zero stored: the kernel does not block for it.
        n = 77;
        ASSERT_EQ(d->read(d, in, 0, &n), KZ_ERR_NONE);
        EXPECT_EQ(n, 0);
        // A null count pointer is allowed.
        ASSERT_EQ(d->write(d, out, 2, nullptr), KZ_ERR_NONE);
        ASSERT_EQ(d->read(d, in, sizeof in, nullptr), KZ_ERR_NONE);
        EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_write",
                     Re(std::string("ENTER \\(device=") + kPtr + ", data=" + kPtr + ", data_bytes=5, data_bytes_written=" + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_write", "Written data to device 'tavikSW_0', 5 bytes: 0x01,0x02,0x03,0x0A,0xFF", 1));
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_read",
                     Re(std::string("ENTER \\(device=") + kPtr + ", data=" + kPtr + ", data_bytes=16, data_bytes_read=" + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_read", "Read data from device 'tavikSW_0', 5 bytes: 0x01,0x02,0x03,0x0A,0xFF", 1));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_read", "Read data from device 'tavikSW_0', 0 bytes: ", 1));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_write", "Written data to device 'tavikSW_0', 2 bytes: 0x01,0x02", 1));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_read", "Read data from device 'tavikSW_0', 2 bytes: 0x01,0x02", 1));
}

TEST_F(DeviceIo, HexDumpIsNotLoggedBelowDebug) {
  if (!WithDevice(
          [](Session&, tavik_driver_device* d) {
            ASSERT_EQ(d->open(d), KZ_ERR_NONE);
            const uns8 out[2] = {1, 2};
            uns16 n = 0;
            ASSERT_EQ(d->write(d, out, 2, &n), KZ_ERR_NONE);
            EXPECT_EQ(d->close(d), KZ_ERR_NONE);
          },
          "info"))
    return;
  LogFile log = Log();
  EXPECT_EQ(log.Count('D', "", Re(".*")), 0u) << log.Dump();
  EXPECT_EQ(log.Count('T', "", Re(".*")), 0u);
}

TEST_F(DeviceIo, RequestCodesGoToTheKernelUnchanged) {
  if (!WithDevice([](Session& s, tavik_driver_device* d) {
        ASSERT_EQ(d->open(d), KZ_ERR_NONE);
        // A camera request code on a FIFO: the kernel answers ENOTTY.
        uns16 version = 0;
        EXPECT_EQ(d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, &version), KZ_ERR_DDI_DEVICE_IOCTL_FAILED);
        EXPECT_EQ(DeviceText(d), "Error 25 (Inappropriate ioctl for device)");
        EXPECT_EQ(s.lib.LastError(), "Error 25 (Inappropriate ioctl for device)");
        // FIONREAD is a request the FIFO understands: passed through, answered.
        const uns8 out[3] = {1, 2, 3};
        uns16 n = 0;
        ASSERT_EQ(d->write(d, out, 3, &n), KZ_ERR_NONE);
        int pending = -1;
        EXPECT_EQ(d->ioctl(d, FIONREAD, &pending), KZ_ERR_NONE);
        EXPECT_EQ(pending, 3);
        uns8 in[3];
        ASSERT_EQ(d->read(d, in, 3, &n), KZ_ERR_NONE);
        EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_ioctl",
                     Re(std::string("ENTER \\(device=") + kPtr + ", request=TAVIK_IOC_GET_DRIVER_VERSION\\(0x80023d3c\\), arg=" + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('E', "tavik_driver_kernel_dev_ioctl", "Error 25 (Inappropriate ioctl for device)", 1));
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_ioctl", Re(std::string("RETURN \\(KZ_ERR_DDI_DEVICE_IOCTL_FAILED\\) ") + kMicros), 0));
  EXPECT_TRUE(c.Next('T', "tavik_driver_kernel_dev_ioctl",
                     Re(std::string("ENTER \\(device=") + kPtr + ", request=<UNKNOWN>\\(0x0000541b\\), arg=" + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('D', "tavik_driver_kernel_dev_ioctl",
                     Re(std::string("Done IOCTL for device 'tavikSW_0', command <UNKNOWN>\\(0x0000541b\\), arg ") + kPtr), 1));
}

TEST_F(DeviceIo, NodeRemovedAfterInitFailsToOpen) {
  if (!WithDevice([](Session& s, tavik_driver_device* d) {
        RemoveNode("tavikSW_0");
        EXPECT_EQ(d->open(d), KZ_ERR_DDI_DEVICE_OPEN_FAILED);
        EXPECT_EQ(DeviceText(d), "Error 2 (No such file or directory)");
        EXPECT_EQ(s.lib.LastError(), "Error 2 (No such file or directory)");
        // The failed open leaves the device closed.
        EXPECT_EQ(d->close(d), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(DeviceText(d), "Device already closed");
      }))
    return;
  LogFile log = Log();
  EXPECT_EQ(log.Count('E', "tavik_driver_kernel_dev_open", "Error 2 (No such file or directory)"), 1u) << log.Dump();
  EXPECT_EQ(log.Count('T', "tavik_driver_kernel_dev_open", Re(std::string("RETURN \\(KZ_ERR_DDI_DEVICE_OPEN_FAILED\\) ") + kMicros)), 1u);
}

TEST_F(DeviceIo, LastErrorTextIsCutToTheBufferAndReportsItsFullSize) {
  WithDevice([](Session&, tavik_driver_device* d) {
    ASSERT_EQ(d->close(d), KZ_ERR_STATE_INVALID);  // "Device already closed", 21 characters
    char buf[8];
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(d->last_error_msg(d, buf, 4), 22u);
    EXPECT_STREQ(buf, "Dev");
    EXPECT_EQ(buf[4], 'X');
    EXPECT_EQ(d->last_error_msg(d, nullptr, 100), 22u);
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(d->last_error_msg(d, buf, 0), 22u);
    EXPECT_EQ(buf[0], 'X');
  });
}

}  // namespace
}  // namespace tavik_test
