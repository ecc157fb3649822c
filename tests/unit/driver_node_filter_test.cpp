// Node-name filters of the kernel backend and the module-name filter of driver
// discovery: the names they accept decide which cameras and modules exist at all.
#include <dirent.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "ddi/tavik_ddi_internal.h"
#include "driver/kernel/tavik_driver_kernel.h"

namespace {

using Filter = int (*)(const struct dirent*);

bool Accepts(Filter filter, const std::string& name) {
    struct dirent entry {};
    std::strncpy(entry.d_name, name.c_str(), sizeof(entry.d_name) - 1);
    return filter(&entry) != 0;
}

struct FilterCase {
    const char* label;
    Filter filter;
    const char* accepted[4];
    const char* rejected[8];
};

const FilterCase kFilterCases[] = {
    {"PCI",
     _kernel_scandir_filter_PCI,
     {"tavikPCI_0", "tavikPCI_17", "tavikPCI_007", "tavikPCI_123456789012345678901234567890"},
     {"tavikPCI_", "tavikPCI_1a", "tavikPCIE_0", "tavikpci_0", "xtavikPCI_0", "tavikPCI_-1",
      "tavikPCI_1 ", "tavikPCI_0.bak"}},
    {"PCIE",
     _kernel_scandir_filter_PCIE,
     {"tavikPCIE_0", "tavikPCIE_99", nullptr, nullptr},
     {"tavikPCIE_", "tavikPCI_0", "tavikPCIe_0", "tavikPCIE_x", "tavikPCIE_0x", nullptr, nullptr,
      nullptr}},
    {"USB",
     _kernel_scandir_filter_USB,
     {"tavikUSB_1", "tavikUSB_10", "tavikUSB_12", nullptr},
     {"tavikUSB_", "tavikusb_1", "tavikUSB1", "tavikUSB_1_", "tavikSW_1", nullptr, nullptr,
      nullptr}},
    {"1394",
     _kernel_scandir_filter_1394,
     {"tavik1394_00", "tavik1394_0", nullptr, nullptr},
     {"tavik1394_5x", "tavik1394_", "tavik1394", "tavik13940", nullptr, nullptr, nullptr,
      nullptr}},
    {"SW",
     _kernel_scandir_filter_SW,
     {"tavikSW_0", "tavikSW_3", nullptr, nullptr},
     {"tavikSW_", "tavikSW", "tavikSW_a", "tavikSWX_0", "TAVIKSW_0", "", nullptr, nullptr}},
};

TEST(DriverNodeFilter, AcceptsPrefixFollowedByDigitsOnly) {
    for (const FilterCase& c : kFilterCases) {
        for (const char* name : c.accepted) {
            if (!name) continue;
            EXPECT_TRUE(Accepts(c.filter, name)) << c.label << " should keep " << name;
        }
        for (const char* name : c.rejected) {
            if (!name) continue;
            EXPECT_FALSE(Accepts(c.filter, name)) << c.label << " should drop '" << name << "'";
        }
    }
}

TEST(DriverNodeFilter, EachTypeKeepsOnlyItsOwnNodes) {
    const char* nodes[] = {"tavikPCI_0", "tavikPCIE_0", "tavikUSB_0", "tavik1394_0", "tavikSW_0"};
    for (size_t f = 0; f < 5; ++f) {
        for (size_t n = 0; n < 5; ++n) {
            EXPECT_EQ(Accepts(kFilterCases[f].filter, nodes[n]), f == n)
                << kFilterCases[f].label << " on " << nodes[n];
        }
    }
}

TEST(DdiModuleFilter, AcceptsPrefixAnythingSuffix) {
    for (const char* name : {"tavik_a.x86_64.umd", "tavik_usb.x86_64.umd", "tavik_virtual.x86_64.umd",
                             "tavik_x.y.x86_64.umd", "tavik_.x86_64.umd.x86_64.umd"}) {
        EXPECT_TRUE(Accepts(_scandir_filter, name)) << name;
    }
}

TEST(DdiModuleFilter, RejectsEmptyMiddleWrongCaseAndExtraText) {
    for (const char* name : {"tavik_.x86_64.umd", "tavik_a.x86_64.umd.bak", "xtavik_a.x86_64.umd",
                             "TAVIK_a.x86_64.umd", "tavik_a.X86_64.umd", "tavik_a.x86_64.so", "",
                             "tavik_a.x86_64.um"}) {
        EXPECT_FALSE(Accepts(_scandir_filter, name)) << "'" << name << "'";
    }
}

} // namespace
