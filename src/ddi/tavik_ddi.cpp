// The four exported entry points. Each is a catch-all shell around its work, so
// that no exception ever reaches the calling core.
#include <tavik/tavik_ddi.h>

#include <memory>

#include "ddi/tavik_ddi_internal.h"
#include "driver/tavik_driver_internal.h"
#include "error/LastErrorText.h"
#include "error/ReportFailure.h"
#include "error/tavik_error_strings.h"
#include "log/Log.h"
#include "log/LogTrace.h"

namespace {

constexpr uns16 kVersionMajor = 3;
constexpr uns16 kVersionMinor = 1;
constexpr uns16 kVersionBuild = 88;

// The core relies on a null argument being reported as an invalid state.
constexpr int16 kNullArgument = KZ_ERR_STATE_INVALID;

int16 DdiInit(Ddi* pDdi) {
    auto fn = kt::LogDdi::CreateLogFn("int16 tavik_ddi_init(Ddi*)");
    DDI_TRACE_ENTER(fn, "pDdi=0x%p", static_cast<void*>(pDdi));
    if (!pDdi) return kt::ReportFailure(fn.get(), kNullArgument, "Ddi structure is null");

    // Whatever the slots held is not released here: the caller pairs init and uninit.
    for (tavik_driver*& slot : pDdi->drivers) slot = nullptr;

    DDI_TRACE_MSG(fn, Info, "Searching for user mode drivers (%s)...", kDdiUmdPattern);
    ddi_load_user_mode_drivers(pDdi);
    DDI_TRACE_MSG(fn, Info, "Done with user mode drivers");

    DDI_TRACE_MSG(fn, Info, "Loading kernel mode drivers for remaining types...");
    ddi_load_kernel_mode_drivers(pDdi);
    DDI_TRACE_MSG(fn, Info, "Done with kernel mode drivers");

    ddi_update_device_list(pDdi);
    pDdi->state = TAVIK_DDI_STATE_OPEN;
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

int16 DdiUninit(Ddi* pDdi) {
    auto fn = kt::LogDdi::CreateLogFn("int16 tavik_ddi_uninit(Ddi*)");
    DDI_TRACE_ENTER(fn, "pDdi=0x%p", static_cast<void*>(pDdi));
    if (!pDdi) return kt::ReportFailure(fn.get(), kNullArgument, "Ddi structure is null");

    for (tavik_driver*& slot : pDdi->drivers) tavik_driver_unload(&slot);

    if (std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog()) {
        const uint64_t dropped = log->Flush(1000);
        if (dropped != 0)
            DDI_TRACE_MSG(fn, Warning, "%llu log messages were dropped during flush",
                          static_cast<unsigned long long>(dropped));
    }

    pDdi->state = TAVIK_DDI_STATE_CLOSED;
    pDdi->cam_count = 0;
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

int16 DdiGetLibVersion(uns16* pVerMajor, uns16* pVerMinor, uns16* pVerBuild) {
    auto fn = kt::LogDdi::CreateLogFn("int16 tavik_ddi_get_lib_version(uns16*, uns16*, uns16*)");
    DDI_TRACE_ENTER(fn, "pVerMajor=0x%p, pVerMinor=0x%p, pVerBuild=0x%p",
                    static_cast<void*>(pVerMajor), static_cast<void*>(pVerMinor),
                    static_cast<void*>(pVerBuild));
    if (!pVerMajor || !pVerMinor || !pVerBuild)
        return kt::ReportFailure(fn.get(), kNullArgument, "Some input argument is null");

    *pVerMajor = kVersionMajor;
    *pVerMinor = kVersionMinor;
    *pVerBuild = kVersionBuild;
    DDI_TRACE_RETURN_ARGS(fn, "version %u.%u.%u", static_cast<uns32>(kVersionMajor),
                          static_cast<uns32>(kVersionMinor), static_cast<uns32>(kVersionBuild));
    DDI_TRACE_RESULT(fn, "%s", GetErrCodeName(KZ_ERR_NONE));
    return KZ_ERR_NONE;
}

} // namespace

extern "C" {

TAVIK_DDI_API int16 tavik_ddi_init(Ddi* pDdi) {
    try {
        return DdiInit(pDdi);
    } catch (...) {
        return kt::ReportException();
    }
}

TAVIK_DDI_API int16 tavik_ddi_uninit(Ddi* pDdi) {
    try {
        return DdiUninit(pDdi);
    } catch (...) {
        return kt::ReportException();
    }
}

TAVIK_DDI_API int16 tavik_ddi_get_lib_version(uns16* pVerMajor, uns16* pVerMinor,
                                              uns16* pVerBuild) {
    try {
        return DdiGetLibVersion(pVerMajor, pVerMinor, pVerBuild);
    } catch (...) {
        return kt::ReportException();
    }
}

TAVIK_DDI_API uns32 tavik_ddi_get_last_error_message(char* buffer, uns32 size) {
    return kt::CopyLastErrorText(buffer, size);
}

} // extern "C"
