// Everything one probe run found out, and its two renderings: a table for
// people and a JSON document for scripts. The two are built from the same
// record so that they can never tell different stories.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace probe {

// The result of one call: an error code of the kit and, on failure, the
// last-error text that went with it.
struct CallOutcome {
  std::string call;  // e.g. "open", "start_notif_thread"
  int code = 0;
  std::string lastError;
};

struct CameraRecord {
  unsigned index = 0;
  int slot = -1;  // the driver slot whose driver owns the device; -1 if none does
  std::string bus;
  std::string mode;
  std::string name;
  std::string path;
  bool emulator = false;
};

struct DriverRecord {
  unsigned slot = 0;
  std::string type;
  bool loaded = false;
  std::string mode;
  std::string module;  // empty for a kernel-mode driver
  unsigned devices = 0;
  unsigned incompatible = 0;  // devices missing an operation, left out of the camera list
};

// A module of the searched folder that holds no driver slot, and why.
struct SkippedModule {
  std::string file;
  std::string reason;
};

struct OpenRecord {
  unsigned camera = 0;
  CallOutcome open;
  bool closed = false;  // close is only tried after a successful open
  CallOutcome close;
};

struct EventRecord {
  double seconds = 0;
  unsigned camera = 0;
  std::uint32_t type = 0;
};

struct WatchRecord {
  bool requested = false;
  double seconds = 0;
  unsigned watched = 0;                // cameras whose notifications ran
  std::vector<CallOutcome> failures;   // each names its camera in `call`
  std::vector<EventRecord> events;     // only kept for the JSON rendering
  std::uint64_t eventCount = 0;
  std::uint64_t eventsDropped = 0;
  bool interrupted = false;
};

struct ProbeReport {
  std::string libraryPath;
  unsigned versionMajor = 0, versionMinor = 0, versionBuild = 0;
  bool versionKnown = false;
  CallOutcome version;
  CallOutcome init;
  bool initialised = false;
  std::vector<CameraRecord> cameras;
  std::vector<DriverRecord> drivers;
  std::string moduleFolder;  // TAVIK_UMD_PATH, when it names a folder
  std::vector<SkippedModule> skippedModules;
  bool openRequested = false;
  std::vector<OpenRecord> opens;
  WatchRecord watch;
  CallOutcome uninit;
  bool uninitialised = false;
};

// Human-readable tables up to the open check; printed before a watch starts so
// that the live event lines follow the camera table they refer to.
void WriteText(const ProbeReport& report, std::FILE* out);

// The rest of the human-readable report: the watch summary and uninit.
void WriteTextClosing(const ProbeReport& report, std::FILE* out);

// One JSON document on one line.
void WriteJson(const ProbeReport& report, std::FILE* out);

// The live line of one event in the text rendering.
void WriteEventLine(const EventRecord& event, std::FILE* out);

// The JSON document that replaces the report when the library cannot be used at all.
void WriteJsonError(const std::string& message, int exitStatus, std::FILE* out);

}  // namespace probe
