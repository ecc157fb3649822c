#include "driver/tavik_driver_device_private.h"

#include "log/LogTrace.h"

tavik_driver_device_private::tavik_driver_device_private() noexcept
    : handle(-1),
      notif_buffer(nullptr),
      notif_thread(),
      notif_stop(false),
      abort_pipe_read(-1),
      abort_pipe_write(-1) {
    // Tracing must never make the construction fail.
    try {
        auto fn = kt::LogDdi::CreateLogFn("tavik_driver_device_private::tavik_driver_device_private()");
        DDI_TRACE_ENTER(fn, "(this=%p)", static_cast<void*>(this));
    } catch (...) {
    }
}

tavik_driver_device_private::~tavik_driver_device_private() {
    try {
        auto fn = kt::LogDdi::CreateLogFn("tavik_driver_device_private::~tavik_driver_device_private()");
        DDI_TRACE_ENTER(fn, "(this=%p)", static_cast<void*>(this));
    } catch (...) {
    }
}
