#include "driver/tavik_ini.h"

#include "log/LogTrace.h"

rs_bool ini_get_path(char* iniPathName, uns32 bufLen) {
    try {
        auto fn = kt::LogDdi::CreateLogFn("rs_bool ini_get_path(char*, uns32)");
        DDI_TRACE_ENTER(fn, "iniPathName=0x%p, bufLen=%u", static_cast<void*>(iniPathName), bufLen);
        DDI_TRACE_MSG(fn, Error, "NOT IMPLEMENTED");
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
    } catch (...) {
    }
    return QX_FAIL;
}

rs_bool ini_get_camera_name(char* camName, const char* devicePath, const char* iniPathName) {
    try {
        auto fn = kt::LogDdi::CreateLogFn("rs_bool ini_get_camera_name(char*, const char*, const char*)");
        DDI_TRACE_ENTER(fn, "camName=0x%p, devicePath='%s', iniPathName='%s'",
                        static_cast<void*>(camName), DdiStr(devicePath), DdiStr(iniPathName));
        DDI_TRACE_MSG(fn, Error, "NOT IMPLEMENTED");
        DDI_TRACE_RESULT(fn, "%s", "QX_FAIL");
    } catch (...) {
    }
    return QX_FAIL;
}
