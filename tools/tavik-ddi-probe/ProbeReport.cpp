#include "ProbeReport.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "ProbeNames.h"

namespace probe {
namespace {

nlohmann::json ToJson(const CallOutcome& outcome) {
  return {{"code", outcome.code},
          {"name", ErrorCodeName(static_cast<std::uint32_t>(outcome.code))},
          {"last_error", outcome.lastError}};
}

void WriteOutcome(const CallOutcome& outcome, std::FILE* out) {
  std::fprintf(out, "%d (%s)", outcome.code,
               ErrorCodeName(static_cast<std::uint32_t>(outcome.code)));
  if (outcome.code != 0) std::fprintf(out, ": '%s'", outcome.lastError.c_str());
}

// Dumps strings as they are; a device name from a module is not guaranteed to
// be valid UTF-8, and a probe must show it rather than throw on it.
std::string Dump(const nlohmann::json& document) {
  return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

void WriteText(const ProbeReport& report, std::FILE* out) {
  std::fprintf(out, "Library: %s\n", report.libraryPath.c_str());
  if (report.versionKnown) {
    std::fprintf(out, "Version: %u.%u.%u\n", report.versionMajor, report.versionMinor,
                 report.versionBuild);
  } else {
    std::fprintf(out, "Version: unknown, tavik_ddi_get_lib_version returned ");
    WriteOutcome(report.version, out);
    std::fputc('\n', out);
  }
  std::fprintf(out, "Init: ");
  WriteOutcome(report.init, out);
  std::fputc('\n', out);
  if (!report.initialised) return;

  std::size_t nameWidth = 4, busWidth = 3;
  for (const CameraRecord& camera : report.cameras) {
    nameWidth = std::max(nameWidth, camera.name.size());
    busWidth = std::max(busWidth, camera.bus.size());
  }
  const int nw = static_cast<int>(nameWidth), bw = static_cast<int>(busWidth);
  std::fprintf(out, "\nCameras: %zu\n", report.cameras.size());
  if (!report.cameras.empty()) {
    std::fprintf(out, "  %5s  %-*s  %-6s  %-*s  %s\n", "Index", bw, "Bus", "Mode", nw, "Name",
                 "Node");
    for (const CameraRecord& camera : report.cameras) {
      std::fprintf(out, "  %5u  %-*s  %-6s  %-*s  %s\n", camera.index, bw, camera.bus.c_str(),
                   camera.mode.c_str(), nw, camera.name.c_str(), camera.path.c_str());
    }
  }

  std::fprintf(out, "\nDriver slots:\n");
  std::fprintf(out, "  %4s  %-8s  %-6s  %7s  %s\n", "Slot", "Type", "Mode", "Devices", "Module");
  for (const DriverRecord& driver : report.drivers) {
    if (!driver.loaded) {
      std::fprintf(out, "  %4u  %-8s  %-6s  %7s  %s\n", driver.slot, driver.type.c_str(), "-", "-",
                   "(empty)");
      continue;
    }
    std::fprintf(out, "  %4u  %-8s  %-6s  %7u  %s\n", driver.slot, driver.type.c_str(),
                 driver.mode.c_str(), driver.devices,
                 driver.module.empty() ? "-" : driver.module.c_str());
  }

  // Each module the library did not keep, or kept with devices it left out of
  // the list: the compliance checker tells the module's author what is wrong.
  if (!report.skippedModules.empty()) std::fprintf(out, "\nSkipped modules in %s:\n", report.moduleFolder.c_str());
  for (const SkippedModule& skipped : report.skippedModules) {
    std::fprintf(out, "  %s: %s\n", skipped.file.c_str(), skipped.reason.c_str());
    std::fprintf(out, "    Check it with: tavik-ddi-compliance %s\n", skipped.file.c_str());
  }
  for (const DriverRecord& driver : report.drivers) {
    if (driver.incompatible == 0) continue;
    std::fprintf(out, "\nIncompatible devices left out of the camera list: %u of slot %u (%s)\n",
                 driver.incompatible, driver.slot, driver.module.empty() ? "kernel mode" : driver.module.c_str());
    if (!driver.module.empty()) std::fprintf(out, "  Check it with: tavik-ddi-compliance %s\n", driver.module.c_str());
  }

  if (report.openRequested) {
    std::fprintf(out, "\nOpen and close:\n");
    if (report.opens.empty()) std::fprintf(out, "  no cameras\n");
    for (const OpenRecord& record : report.opens) {
      std::fprintf(out, "  %5u  open ", record.camera);
      WriteOutcome(record.open, out);
      if (record.closed) {
        std::fprintf(out, ", close ");
        WriteOutcome(record.close, out);
      }
      std::fputc('\n', out);
    }
  }
}

void WriteTextClosing(const ProbeReport& report, std::FILE* out) {
  if (report.watch.requested) {
    for (const CallOutcome& failure : report.watch.failures) {
      std::fprintf(out, "  %s: ", failure.call.c_str());
      WriteOutcome(failure, out);
      std::fputc('\n', out);
    }
    std::fprintf(out, "Watch ended%s: %llu events from %u camera(s)",
                 report.watch.interrupted ? " (interrupted)" : "",
                 static_cast<unsigned long long>(report.watch.eventCount), report.watch.watched);
    if (report.watch.eventsDropped != 0) {
      std::fprintf(out, ", %llu not shown (queue full)",
                   static_cast<unsigned long long>(report.watch.eventsDropped));
    }
    std::fputc('\n', out);
  }

  if (report.uninitialised) {
    std::fprintf(out, "\nUninit: ");
    WriteOutcome(report.uninit, out);
    std::fputc('\n', out);
  }
}

void WriteEventLine(const EventRecord& event, std::FILE* out) {
  std::fprintf(out, "  %12.6f  camera %u  %s\n", event.seconds, event.camera,
               NotificationName(event.type));
}

void WriteJson(const ProbeReport& report, std::FILE* out) {
  nlohmann::json document;
  document["library"] = {{"path", report.libraryPath}};
  if (report.versionKnown) {
    document["library"]["version"] = std::to_string(report.versionMajor) + "." +
                                     std::to_string(report.versionMinor) + "." +
                                     std::to_string(report.versionBuild);
    document["library"]["major"] = report.versionMajor;
    document["library"]["minor"] = report.versionMinor;
    document["library"]["build"] = report.versionBuild;
  } else {
    document["library"]["version"] = nullptr;
    document["library"]["version_result"] = ToJson(report.version);
  }
  document["init"] = ToJson(report.init);

  nlohmann::json cameras = nlohmann::json::array();
  for (const CameraRecord& camera : report.cameras) {
    cameras.push_back({{"index", camera.index},
                       {"bus", camera.bus},
                       {"slot", camera.slot},
                       {"mode", camera.mode},
                       {"name", camera.name},
                       {"path", camera.path}});
  }
  document["cameras"] = cameras;

  nlohmann::json drivers = nlohmann::json::array();
  for (const DriverRecord& driver : report.drivers) {
    nlohmann::json entry = {{"slot", driver.slot}, {"type", driver.type}, {"loaded", driver.loaded}};
    if (driver.loaded) {
      entry["mode"] = driver.mode;
      entry["module"] = driver.module;
      entry["devices"] = driver.devices;
    } else {
      entry["mode"] = nullptr;
      entry["module"] = nullptr;
      entry["devices"] = 0;
    }
    entry["incompatible"] = driver.incompatible;
    drivers.push_back(entry);
  }
  document["drivers"] = drivers;

  nlohmann::json skipped = nlohmann::json::array();
  for (const SkippedModule& module : report.skippedModules)
    skipped.push_back({{"file", module.file}, {"reason", module.reason}});
  document["skipped_modules"] = skipped;

  if (report.openRequested) {
    nlohmann::json opens = nlohmann::json::array();
    for (const OpenRecord& record : report.opens) {
      nlohmann::json entry = {{"camera", record.camera}, {"open", ToJson(record.open)}};
      entry["close"] = record.closed ? ToJson(record.close) : nlohmann::json(nullptr);
      opens.push_back(entry);
    }
    document["open"] = opens;
  }

  if (report.watch.requested) {
    nlohmann::json events = nlohmann::json::array();
    for (const EventRecord& event : report.watch.events) {
      events.push_back({{"time", event.seconds},
                        {"camera", event.camera},
                        {"type", event.type},
                        {"name", NotificationName(event.type)}});
    }
    nlohmann::json failures = nlohmann::json::array();
    for (const CallOutcome& failure : report.watch.failures) {
      nlohmann::json entry = ToJson(failure);
      entry["call"] = failure.call;
      failures.push_back(entry);
    }
    document["watch"] = {{"seconds", report.watch.seconds},
                         {"cameras", report.watch.watched},
                         {"interrupted", report.watch.interrupted},
                         {"event_count", report.watch.eventCount},
                         {"events_dropped", report.watch.eventsDropped},
                         {"failures", failures},
                         {"events", events}};
  }

  document["uninit"] = report.uninitialised ? ToJson(report.uninit) : nlohmann::json(nullptr);
  std::fprintf(out, "%s\n", Dump(document).c_str());
}

void WriteJsonError(const std::string& message, int exitStatus, std::FILE* out) {
  nlohmann::json document = {{"error", message}, {"exit_status", exitStatus}};
  std::fprintf(out, "%s\n", Dump(document).c_str());
}

}  // namespace probe
