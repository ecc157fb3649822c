// tavik-ddi-probe: loads the device-driver interface library exactly as the
// camera-control core does and shows what it finds. It is the first thing to run
// on a rig that "sees no camera": it tells apart a library that cannot be
// loaded, a module that was not found, a node that is missing, and a camera
// that is listed but cannot be opened or stays silent.
#include <pthread.h>
#include <signal.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "DdiLibrary.h"
#include "DeviceSurvey.h"
#include "EventWatch.h"
#include "ModuleSurvey.h"
#include "ProbeNames.h"
#include "ProbeReport.h"

namespace {

// Exit statuses, documented in --help.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitLibrary = 2;
constexpr int kExitEntryPoint = 3;
constexpr int kExitDevice = 4;

struct Options {
  std::string library = TAVIK_DDI_SONAME;
  bool json = false;
  bool open = false;
  double watchSeconds = 0;
  std::string umdPath;
  std::string logFile;
  std::string logLevel;
  // Passed on as they are: the library itself judges them and says in its log
  // when it refuses one.
  std::string logMaxSize, logMaxFiles;
  bool maxSizeGiven = false, maxFilesGiven = false;
};

const char* kDescription =
    "Loads libtavikDDI the way the camera-control core does (dlopen, then the four entry\n"
    "points by their versioned names @" TAVIK_DDI_VERSION_NODE "), calls tavik_ddi_init, prints the\n"
    "library version, the camera list (index, bus, driver mode, name, node path) and the\n"
    "five driver slots (type, mode USER/KERNEL, module path, device count), then calls\n"
    "tavik_ddi_uninit and unloads the library.";

const char* kFooter =
    "Environment:\n"
    "  The library reads TAVIK_UMD_PATH, TAVIK_DDI_LOG_FILE, TAVIK_DDI_LOG_LEVEL,\n"
    "  TAVIK_DDI_LOG_MAX_SIZE and TAVIK_DDI_LOG_MAX_FILES once, when it is loaded; --umd-path,\n"
    "  --log, --log-level, --log-max-size and --log-max-files set them before that. Values inherited\n"
    "  from the environment are used when the options are not given. Without TAVIK_UMD_PATH\n"
    "  the library asks the dynamic loader for the known modules tavik_usb.x86_64.umd and\n"
    "  tavik_virtual.x86_64.umd (LD_LIBRARY_PATH and the loader cache apply).\n"
    "\n"
    "Watching:\n"
    "  --watch opens every camera, starts its notification thread and prints each event\n"
    "  (seconds since the watch began, camera index, notification name). On the camera\n"
    "  emulator (tavik_virtual.x86_64.umd) it also starts an acquisition with\n"
    "  TAVIK_IOC_ACQ_SET_ACTIVE so that frames flow, and ends it with TAVIK_IOC_ACQ_ABORT.\n"
    "  Ctrl-C ends the watch early and still stops, closes and uninitialises cleanly.\n"
    "\n"
    "Error codes are printed with their names from the probe's own copy of the kit's\n"
    "error table (the library does not export its table).\n"
    "\n"
    "Exit status:\n"
    "  0  everything worked\n"
    "  1  bad command line\n"
    "  2  the library or one of its entry points cannot be found\n"
    "  3  an entry point returned an error, or the library could not be unloaded\n"
    "  4  a camera operation (--open, --watch) failed";

bool SetVariable(const char* name, const std::string& value, bool given) {
  if (!given) return true;
  if (setenv(name, value.c_str(), 1) != 0) {
    std::fprintf(stderr, "tavik-ddi-probe: cannot set %s\n", name);
    return false;
  }
  return true;
}

probe::CallOutcome LibraryOutcome(const probe::DdiLibrary& library, const char* call, int16 code) {
  probe::CallOutcome outcome;
  outcome.call = call;
  outcome.code = static_cast<uns16>(code);
  if (code != KZ_ERR_NONE) outcome.lastError = library.LastErrorText();
  return outcome;
}

int Fail(const Options& options, int status, const std::string& message) {
  std::fprintf(stderr, "tavik-ddi-probe: %s\n", message.c_str());
  if (options.json) probe::WriteJsonError(message, status, stdout);
  return status;
}

int Run(const Options& options, bool umdGiven, bool logGiven, bool levelGiven) {
  // The library reads its environment once, at load time: set it first.
  if (!SetVariable("TAVIK_UMD_PATH", options.umdPath, umdGiven) ||
      !SetVariable("TAVIK_DDI_LOG_FILE", options.logFile, logGiven) ||
      !SetVariable("TAVIK_DDI_LOG_LEVEL", options.logLevel, levelGiven) ||
      !SetVariable("TAVIK_DDI_LOG_MAX_SIZE", options.logMaxSize, options.maxSizeGiven) ||
      !SetVariable("TAVIK_DDI_LOG_MAX_FILES", options.logMaxFiles, options.maxFilesGiven)) {
    return kExitUsage;
  }

  // Threads inherit the signal mask of their creator. Blocking the stop
  // signals before the library exists keeps them away from its log worker and
  // notification threads, whose blocking calls would otherwise be interrupted;
  // the watch collects them instead.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  const bool watching = options.watchSeconds > 0;
  if (watching) pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string error;
  std::unique_ptr<probe::DdiLibrary> library = probe::DdiLibrary::Open(options.library, error);
  if (!library) return Fail(options, kExitLibrary, error);

  probe::ProbeReport report;
  report.libraryPath = library->FilePath();
  int status = kExitOk;

  uns16 major = 0, minor = 0, build = 0;
  report.version = LibraryOutcome(*library, "tavik_ddi_get_lib_version",
                                  library->getLibVersion(&major, &minor, &build));
  report.versionKnown = report.version.code == KZ_ERR_NONE;
  if (report.versionKnown) {
    report.versionMajor = major;
    report.versionMinor = minor;
    report.versionBuild = build;
  } else {
    status = kExitEntryPoint;
  }

  Ddi ddi{};
  report.init = LibraryOutcome(*library, "tavik_ddi_init", library->init(&ddi));
  report.initialised = report.init.code == KZ_ERR_NONE;
  if (!report.initialised) {
    status = kExitEntryPoint;
  } else {
    probe::SurveyDevices(ddi, report);
    const char* folder = std::getenv("TAVIK_UMD_PATH");
    probe::SurveyModules(folder != nullptr ? folder : "", ddi, report);
    if (options.open && !probe::CheckOpenClose(ddi, report)) status = kExitDevice;
    if (!options.json) {
      probe::WriteText(report, stdout);
      std::fflush(stdout);
    }
    if (watching && !probe::EventWatch::Run(ddi, options.watchSeconds, stopSignals,
                                            options.json ? nullptr : stdout, report)) {
      status = kExitDevice;
    }
    report.uninit = LibraryOutcome(*library, "tavik_ddi_uninit", library->uninit(&ddi));
    report.uninitialised = true;
    if (report.uninit.code != KZ_ERR_NONE) status = kExitEntryPoint;
  }

  if (options.json) {
    probe::WriteJson(report, stdout);
  } else if (report.initialised) {
    probe::WriteTextClosing(report, stdout);
  } else {
    probe::WriteText(report, stdout);
  }
  std::fflush(stdout);

  // Unloading runs the library's static teardown, which finishes its log file.
  if (!library->Close(error)) {
    std::fprintf(stderr, "tavik-ddi-probe: %s\n", error.c_str());
    status = kExitEntryPoint;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(kDescription, "tavik-ddi-probe");
  app.footer(kFooter);
  app.add_option("--library", options.library,
                 "Library to load: a SONAME searched by the dynamic loader, or a file path")
      ->capture_default_str()
      ->type_name("PATH")
      ->check([](const std::string& value) { return value.empty() ? std::string("must not be empty") : std::string(); });
  app.add_flag("--json", options.json, "Print one JSON document instead of tables");
  app.add_flag("--open", options.open,
               "Open and close each camera; show the result code, its name and the last-error text");
  app.add_option("--watch", options.watchSeconds,
                 "Start notifications on every camera and print each event for SECONDS seconds")
      ->type_name("SECONDS")
      ->check(CLI::Validator(
          [](std::string& value) -> std::string {
            char* end = nullptr;
            const double seconds = std::strtod(value.c_str(), &end);
            if (end == value.c_str() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 ||
                seconds > 31536000.0) {
              return "SECONDS must be a number above 0 and at most 31536000 (one year)";
            }
            return {};
          },
          ""));
  CLI::Option* umd = app.add_option("--umd-path", options.umdPath,
                                    "Folder of user-mode driver modules (sets TAVIK_UMD_PATH)")
                         ->type_name("DIR")
                         ->check(CLI::Validator(CLI::ExistingDirectory).description(""));
  CLI::Option* log = app.add_option("--log", options.logFile,
                                    "Make the library log to FILE (sets TAVIK_DDI_LOG_FILE; appends)")
                         ->type_name("FILE")
                         ->check([](const std::string& value) {
                           return value.empty() ? std::string("must not be empty") : std::string();
                         });
  CLI::Option* level = app.add_option("--log-level", options.logLevel,
                                      "Log level (sets TAVIK_DDI_LOG_LEVEL): error, warning, info, "
                                      "debug or trace; only the first letter counts, anything else "
                                      "means trace")
                           ->type_name("LEVEL");
  CLI::Option* maxSize = app.add_option("--log-max-size", options.logMaxSize,
                                        "Bound of the log file (sets TAVIK_DDI_LOG_MAX_SIZE): bytes, "
                                        "or a number with K, M or G; a full file is renamed FILE.1")
                             ->type_name("SIZE");
  CLI::Option* maxFiles = app.add_option("--log-max-files", options.logMaxFiles,
                                         "Renamed log files kept under a bound (sets "
                                         "TAVIK_DDI_LOG_MAX_FILES; default 4)")
                              ->type_name("N");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  if (level->count() > 0 && log->count() == 0 && std::getenv("TAVIK_DDI_LOG_FILE") == nullptr) {
    std::fprintf(stderr,
                 "tavik-ddi-probe: note: --log-level has no effect without --log or TAVIK_DDI_LOG_FILE\n");
  }
  options.maxSizeGiven = maxSize->count() > 0;
  options.maxFilesGiven = maxFiles->count() > 0;
  return Run(options, umd->count() > 0, log->count() > 0, level->count() > 0);
}
