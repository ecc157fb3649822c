// operations and last error: the kernel devices' state rules, texts and buffer
// rules, which every module's devices follow so that the core sees one
// behaviour whatever the bus.
#include <algorithm>
#include <cstring>

#include "ComplianceCheck.h"
#include "ModuleSession.h"
#include "ProbeNames.h"

namespace compliance {
namespace {

// A request that no camera of the kit knows: type '=', number 0xEE, no argument.
constexpr uns32 kUnknownRequest = 0x00003DEEu;
constexpr uns16 kUntouched = 0xBEEF;

// The first problem of a step list, prefixed with the device's name.
struct Problems {
  std::string first;
  void Add(const tavik_driver_device* d, const std::string& p) {
    if (first.empty() && !p.empty()) first = "'" + DeviceName(d) + "': " + p;
  }
  void Code(const tavik_driver_device* d, const char* what, int16 want, int16 got) {
    if (got != want) Add(d, Format("%s: expected %s, got %s", what, compliance::Code(want).c_str(), compliance::Code(got).c_str()));
  }
  // A state error: its code and the kernel devices' exact text.
  void State(tavik_driver_device* d, const char* what, int16 got, const char* text) {
    Code(d, what, KZ_ERR_STATE_INVALID, got);
    const std::string t = got == KZ_ERR_STATE_INVALID ? LastErrorText(d) : text;
    if (t != text) Add(d, Format("%s: expected the text \"%s\", got \"%s\"", what, text, t.c_str()));
  }
  Outcome Result() const { return first.empty() ? Pass() : Fail(first); }
};

template <typename Fn>
Outcome EachDevice(ModuleSession& session, Fn steps) {
  Problems problems;
  for (tavik_driver_device* d : session.devices) steps(d, problems);
  return problems.Result();
}

Outcome OpenTwice(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    p.Code(d, "open", KZ_ERR_NONE, d->open(d));
    p.State(d, "open twice", d->open(d), "Device already open");
    p.Code(d, "close after open twice", KZ_ERR_NONE, d->close(d));
  });
}

Outcome CloseTwice(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    p.State(d, "close before open", d->close(d), "Device already closed");
    p.Code(d, "open", KZ_ERR_NONE, d->open(d));
    p.Code(d, "close", KZ_ERR_NONE, d->close(d));
    p.State(d, "close twice", d->close(d), "Device already closed");
  });
}

void ClosedCalls(tavik_driver_device* d, Problems& p, const char* when) {
  uns8 buffer[64] = {};
  uns16 n = 0;
  p.State(d, Format("read %s", when).c_str(), d->read(d, buffer, sizeof buffer, &n), "Invalid file handle");
  p.State(d, Format("write %s", when).c_str(), d->write(d, buffer, sizeof buffer, &n), "Invalid file handle");
  p.State(d, Format("ioctl %s", when).c_str(), d->ioctl(d, TAVIK_IOC_GET_DRIVER_VERSION, buffer),
          "Invalid file handle");
}

Outcome ClosedDevice(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    ClosedCalls(d, p, "before open");
    p.Code(d, "open", KZ_ERR_NONE, d->open(d));
    p.Code(d, "close", KZ_ERR_NONE, d->close(d));
    ClosedCalls(d, p, "after close");
  });
}

// Calls that a module may answer as it likes, as long as it answers with a code
// of the table: odd sizes, null buffers, the requests a core reads.
Outcome ResultCodes(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    static uns8 buffer[65535];
    uns16 n = 0;
    auto code = [&](const char* what, int16 got) {
      if (std::strcmp(probe::ErrorCodeName(static_cast<uns16>(got)), "<UNKNOWN>") == 0)
        p.Add(d, Format("%s: expected a code of the error table, got %d", what, got));
    };
    code("open", d->open(d));
    code("read of 65535 bytes", d->read(d, buffer, 65535, &n));
    code("write of 65535 bytes", d->write(d, buffer, 65535, &n));
    code("read into a null buffer of 16 bytes", d->read(d, nullptr, 16, &n));
    code("write from a null buffer of 16 bytes", d->write(d, nullptr, 16, &n));
    for (uns32 request : std::initializer_list<uns32>{TAVIK_IOC_GET_DRIVER_API_VERSION, TAVIK_IOC_GET_DRIVER_VERSION,
                          TAVIK_IOC_GET_DRIVER_CAPABILITIES, TAVIK_IOC_GET_CURRENT_TIME_STAMP,
                          TAVIK_IOC_ACQ_GET_STATUS, kUnknownRequest}) {
      std::memset(buffer, 0, 64);
      code(Format("ioctl 0x%08x", request).c_str(), d->ioctl(d, request, buffer));
    }
    code("close", d->close(d));
  });
}

// Each failure on a thread of its own, whose text starts empty: a text left by
// an earlier failure cannot stand in for a missing one.
Outcome LastErrorAfterFailure(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    uns8 buffer[64] = {};
    uns16 n = 0;
    auto failure = [&](const char* what, const std::function<int16()>& call) {
      OnFreshThread([&] {
        const int16 code = call();
        if (code != KZ_ERR_NONE && LastErrorText(d).empty())
          p.Add(d, Format("%s failed with %s: expected a last-error text, got none", what,
                          Code(code).c_str()));
      });
    };
    failure("close of a closed device", [&] { return d->close(d); });
    failure("read of a closed device", [&] { return d->read(d, buffer, 16, &n); });
    d->open(d);
    failure("open of an open device", [&] { return d->open(d); });
    failure("an unknown request", [&] { return d->ioctl(d, kUnknownRequest, buffer); });
    failure("a read into a null buffer", [&] { return d->read(d, nullptr, 16, &n); });
    failure("a write from a null buffer", [&] { return d->write(d, nullptr, 16, &n); });
    d->close(d);
  });
}

Outcome CountsOnSuccess(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    uns8 buffer[64] = {};
    uns16 n = kUntouched;
    if (d->read(d, buffer, 16, &n) != KZ_ERR_NONE && n != kUntouched)
      p.Add(d, Format("failed read: expected the count untouched (0x%04x), got %u", kUntouched, n));
    n = kUntouched;
    if (d->write(d, buffer, 16, &n) != KZ_ERR_NONE && n != kUntouched)
      p.Add(d, Format("failed write: expected the count untouched (0x%04x), got %u", kUntouched, n));
    d->open(d);
    n = kUntouched;
    if (d->read(d, buffer, 16, &n) == KZ_ERR_NONE && n > 16)
      p.Add(d, Format("read of 16 bytes: expected a count of at most 16, got %u", n));
    n = kUntouched;
    if (d->write(d, buffer, 16, &n) == KZ_ERR_NONE && n > 16)
      p.Add(d, Format("write of 16 bytes: expected a count of at most 16, got %u", n));
    d->close(d);
  });
}

Outcome ZeroBytes(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    uns8 buffer[16] = {};
    p.Code(d, "open", KZ_ERR_NONE, d->open(d));
    uns16 n = kUntouched;
    p.Code(d, "read of 0 bytes", KZ_ERR_NONE, d->read(d, buffer, 0, &n));
    if (n != 0) p.Add(d, Format("read of 0 bytes: expected a count of 0, got %u", n));
    n = kUntouched;
    p.Code(d, "write of 0 bytes", KZ_ERR_NONE, d->write(d, buffer, 0, &n));
    if (n != 0) p.Add(d, Format("write of 0 bytes: expected a count of 0, got %u", n));
    d->close(d);
  });
}

Outcome UnknownRequest(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    uns8 buffer[64] = {};
    d->open(d);
    p.Code(d, Format("request 0x%08x", kUnknownRequest).c_str(), KZ_ERR_DDI_DEVICE_IOCTL_FAILED,
           d->ioctl(d, kUnknownRequest, buffer));
    d->close(d);
  });
}

// Every request of the kit whose code carries an argument, with none.
Outcome NullArgument(ModuleSession& session) {
  static constexpr uns32 kRequests[] = {
      TAVIK_IOC_GET_DRIVER_API_VERSION, TAVIK_IOC_ACQ_SET_ACTIVE, TAVIK_IOC_ACQ_GET_STATUS,
      TAVIK_IOC_STOP_DATA_TRANSFER, TAVIK_IOC_GET_IRQS, TAVIK_IOC_GET_NOTIFICATIONS,
      TAVIK_IOC_GET_CURRENT_TIME_STAMP, TAVIK_IOC_GET_DRIVER_VERSION, TAVIK_IOC_GET_DRIVER_CAPABILITIES,
      TAVIK_IOC_GET_PCI_FW_REVISION, TAVIK_IOC_GET_BRIDGE_CAPABILITIES_SIZE, TAVIK_IOC_GET_BRIDGE_CAPABILITIES,
      TAVIK_IOC_DRIVER_DEBUG_COMMAND, TAVIK_IOC_GET_INFO_DUMP, TAVIK_IOC_GET_INFO_LENGTH,
      TAVIK_IOC_GET_MAX_RETRIES, TAVIK_IOC_SET_MAX_RETRIES, TAVIK_IOC_GET_MAX_TIMEOUT, TAVIK_IOC_SET_MAX_TIMEOUT};
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    d->open(d);
    for (uns32 request : kRequests) {
      const int16 got = d->ioctl(d, request, nullptr);
      if (got == KZ_ERR_NONE)
        p.Add(d, Format("request 0x%08x with a null argument: expected a failure code, got %s", request,
                        Code(got).c_str()));
    }
    d->close(d);
  });
}

// The text of a failure every device has: close of a closed device. Its words
// are another check's business; these checks need only some text.
std::string ClosedText(tavik_driver_device* d) {
  d->close(d);
  return LastErrorText(d);
}

Outcome SizeQuery(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    const uns32 size = static_cast<uns32>(ClosedText(d).size() + 1);
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    const std::pair<const char*, uns32> asks[] = {{"null buffer, size 0", d->last_error_msg(d, nullptr, 0)},
                                                  {"null buffer, size 64", d->last_error_msg(d, nullptr, 64)},
                                                  {"a buffer of size 0", d->last_error_msg(d, buffer, 0)}};
    for (const auto& [what, got] : asks)
      if (got != size) p.Add(d, Format("%s: expected %u, got %u", what, size, got));
    if (std::count(buffer, buffer + sizeof buffer, 'x') != sizeof buffer)
      p.Add(d, "a buffer of size 0: expected nothing written, got bytes written");
  });
}

Outcome CutText(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    const std::string text = ClosedText(d);
    if (text.size() < 4) return p.Add(d, "close of a closed device: expected a text of 4 characters or more, got \"" + text + "\"");
    const uns32 size = static_cast<uns32>(text.size() + 1);
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    const uns32 got = d->last_error_msg(d, buffer, 4);
    if (got != size) p.Add(d, Format("a 4-byte buffer: expected a return of %u, got %u", size, got));
    const std::string want = text.substr(0, 3) + std::string(1, '\0') + "xxxx";
    if (std::memcmp(buffer, want.data(), 8) != 0)
      p.Add(d, Format("a 4-byte buffer: expected \"%s\" and a terminator, untouched beyond, got \"%s\"",
                      text.substr(0, 3).c_str(), std::string(buffer, 8).c_str()));
  });
}

Outcome PerThread(ModuleSession& session) {
  return EachDevice(session, [](tavik_driver_device* d, Problems& p) {
    const std::string text = ClosedText(d);
    OnFreshThread([&] {
      const std::string fresh = LastErrorText(d);
      if (!fresh.empty())
        p.Add(d, Format("a thread that never failed: expected an empty text, got \"%s\"", fresh.c_str()));
      uns8 buffer[16];
      d->read(d, buffer, sizeof buffer, nullptr);
    });
    const std::string mine = LastErrorText(d);
    if (mine != text)
      p.Add(d, Format("after a failure on another thread: expected \"%s\" still, got \"%s\"", text.c_str(),
                      mine.c_str()));
  });
}

}  // namespace

void AddOperationChecks(std::vector<Check>& checks) {
  const char* g = "operations";
  const char* e = "last-error";
  checks.insert(checks.end(), {
      {g, "open-twice", "open of an open device: KZ_ERR_STATE_INVALID, \"Device already open\"", Needs::kDevices, OpenTwice},
      {g, "close-twice", "close of a closed device: KZ_ERR_STATE_INVALID, \"Device already closed\"", Needs::kDevices, CloseTwice},
      {g, "closed-device", "read, write, ioctl while closed: KZ_ERR_STATE_INVALID, \"Invalid file handle\"", Needs::kDevices, ClosedDevice},
      {g, "result-codes", "every result is a code of the error table", Needs::kDevices, ResultCodes},
      {g, "failure-text", "every failure leaves a last-error text", Needs::kDevices, LastErrorAfterFailure},
      {g, "counts", "read and write store their count only on success, never above the size", Needs::kDevices, CountsOnSuccess},
      {g, "zero-bytes", "reads and writes of 0 bytes succeed with a count of 0", Needs::kDevices, ZeroBytes},
      {g, "unknown-request", "an unknown request: KZ_ERR_DDI_DEVICE_IOCTL_FAILED", Needs::kDevices, UnknownRequest},
      {g, "null-argument", "every request with an argument refuses a null one", Needs::kDevices, NullArgument},
      {e, "size-query", "a null buffer or size 0 copies nothing and returns the size needed", Needs::kDevices, SizeQuery},
      {e, "cut-text", "a short buffer gets a cut, terminated text and the full size", Needs::kDevices, CutText},
      {e, "per-thread", "one text per thread", Needs::kDevices, PerThread},
  });
}

}  // namespace compliance
