// The exported entry points as the core calls them: argument checks with their
// exact codes and texts, the last-error copy rules, and init/uninit on a machine
// whose folders hold no drivers.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <tavik/tavik_ddi.h>

#include "error/LastError.h"
#include "error/ReportFailure.h"

namespace {

std::string LastError() {
    char buffer[256];
    tavik_ddi_get_last_error_message(buffer, sizeof(buffer));
    return buffer;
}

TEST(DdiEntryPoints, VersionIs3_1_88) {
    uns16 major = 0, minor = 0, build = 0;
    EXPECT_EQ(tavik_ddi_get_lib_version(&major, &minor, &build), KZ_ERR_NONE);
    EXPECT_EQ(major, 3);
    EXPECT_EQ(minor, 1);
    EXPECT_EQ(build, 88);
}

TEST(DdiEntryPoints, AnyNullVersionPointerWritesNothing) {
    for (int missing = 0; missing < 3; ++missing) {
        uns16 values[3] = {7, 7, 7};
        uns16* pointers[3] = {&values[0], &values[1], &values[2]};
        pointers[missing] = nullptr;
        kt::LastError::ClearDetails();
        EXPECT_EQ(tavik_ddi_get_lib_version(pointers[0], pointers[1], pointers[2]),
                  KZ_ERR_STATE_INVALID);
        EXPECT_EQ(values[0] + values[1] + values[2], 21) << "pointer " << missing;
        EXPECT_EQ(LastError(), "Some input argument is null");
    }
}

TEST(DdiEntryPoints, NullRecordIsAnInvalidState) {
    kt::LastError::ClearDetails();
    EXPECT_EQ(tavik_ddi_init(nullptr), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastError(), "Ddi structure is null");
    kt::LastError::ClearDetails();
    EXPECT_EQ(tavik_ddi_uninit(nullptr), KZ_ERR_STATE_INVALID);
    EXPECT_EQ(LastError(), "Ddi structure is null");
}

TEST(DdiEntryPoints, LastErrorMessageSizeQueryAndCuts) {
    kt::LastError::ClearDetails();
    EXPECT_EQ(tavik_ddi_get_last_error_message(nullptr, 0), 1u);
    kt::LastError::SetDetails("%s", "Some input argument is null"); // 27 characters
    char buffer[8];
    std::memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(tavik_ddi_get_last_error_message(nullptr, 0), 28u);
    EXPECT_EQ(tavik_ddi_get_last_error_message(buffer, 0), 28u);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(tavik_ddi_get_last_error_message(buffer, 1), 28u);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'x');
    EXPECT_EQ(tavik_ddi_get_last_error_message(buffer, sizeof(buffer)), 28u);
    EXPECT_STREQ(buffer, "Some in");
}

TEST(DdiEntryPoints, ShortTextIsZeroPaddedInTheBuffer) {
    kt::LastError::SetDetails("%s", "ab");
    char buffer[6];
    std::memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(tavik_ddi_get_last_error_message(buffer, sizeof(buffer)), 3u);
    EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string("ab\0\0\0\0", 6));
}

TEST(DdiEntryPoints, FailureTextStaysWithItsThread) {
    kt::LastError::ClearDetails();
    std::thread([] {
        EXPECT_EQ(tavik_ddi_init(nullptr), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(LastError(), "Ddi structure is null");
    }).join();
    EXPECT_EQ(tavik_ddi_get_last_error_message(nullptr, 0), 1u);
}

TEST(DdiEntryPoints, SuccessDoesNotClearAnEarlierFailureText) {
    EXPECT_EQ(tavik_ddi_uninit(nullptr), KZ_ERR_STATE_INVALID);
    uns16 a, b, c;
    EXPECT_EQ(tavik_ddi_get_lib_version(&a, &b, &c), KZ_ERR_NONE);
    EXPECT_EQ(LastError(), "Ddi structure is null");
}

class DdiInitUninit : public ::testing::Test {
protected:
    void SetUp() override {
        const char* saved = std::getenv("TAVIK_UMD_PATH");
        m_hadPath = saved != nullptr;
        if (saved) m_savedPath = saved;
        char folder[] = "/tmp/tavik-umd-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        m_folder = folder;
    }
    void TearDown() override {
        if (m_hadPath)
            setenv("TAVIK_UMD_PATH", m_savedPath.c_str(), 1);
        else
            unsetenv("TAVIK_UMD_PATH");
        rmdir(m_folder.c_str());
    }
    std::string m_folder;

private:
    bool m_hadPath = false;
    std::string m_savedPath;
};

TEST_F(DdiInitUninit, EmptyModuleFolderStillGivesAKernelDriverPerType) {
    setenv("TAVIK_UMD_PATH", m_folder.c_str(), 1);
    Ddi ddi;
    std::memset(&ddi, 0xA5, sizeof(ddi)); // the record's earlier contents are not trusted
    EXPECT_EQ(tavik_ddi_init(&ddi), KZ_ERR_NONE);
    EXPECT_EQ(ddi.state, TAVIK_DDI_STATE_OPEN);
    EXPECT_LE(ddi.cam_count, TAVIK_DDI_MAX_CAMERAS);
    for (tavik_driver* driver : ddi.drivers) {
        ASSERT_NE(driver, nullptr);
        EXPECT_EQ(driver->mode, TAVIK_DRIVER_MODE_KERNEL);
    }
    EXPECT_EQ(tavik_ddi_uninit(&ddi), KZ_ERR_NONE);
    EXPECT_EQ(ddi.state, TAVIK_DDI_STATE_CLOSED);
    EXPECT_EQ(ddi.cam_count, 0);
    for (tavik_driver* driver : ddi.drivers) EXPECT_EQ(driver, nullptr);
}

TEST_F(DdiInitUninit, UnreadableModuleFolderIsNotAnError) {
    setenv("TAVIK_UMD_PATH", (m_folder + "/missing").c_str(), 1);
    Ddi ddi{};
    EXPECT_EQ(tavik_ddi_init(&ddi), KZ_ERR_NONE);
    for (tavik_driver* driver : ddi.drivers) EXPECT_NE(driver, nullptr);
    EXPECT_EQ(tavik_ddi_uninit(&ddi), KZ_ERR_NONE);
}

TEST_F(DdiInitUninit, UninitWithoutInitOnlyResets) {
    Ddi ddi{};
    ddi.state = TAVIK_DDI_STATE_OPEN;
    ddi.cam_count = 3;
    EXPECT_EQ(tavik_ddi_uninit(&ddi), KZ_ERR_NONE);
    EXPECT_EQ(ddi.state, TAVIK_DDI_STATE_CLOSED);
    EXPECT_EQ(ddi.cam_count, 0);
}

TEST(ReportFailure, SetsTextAndReturnsTheCodeWithoutATraceObject) {
    kt::LastError::ClearDetails();
    EXPECT_EQ(kt::ReportFailure(nullptr, KZ_ERR_DDI_DEVICE_OPEN_FAILED, "Error %d (%s)", 2, "x"),
              KZ_ERR_DDI_DEVICE_OPEN_FAILED);
    EXPECT_EQ(LastError(), "Error 2 (x)");
    // The current text may feed the next one.
    kt::ReportFailure(nullptr, KZ_ERR_UNKNOWN, "%s", kt::LastError::GetDetails());
    EXPECT_EQ(LastError(), "Error 2 (x)");
}

} // namespace
