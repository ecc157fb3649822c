// What the end-to-end cases share: a child with a private /dev that loads the shipped library, notes what it sees,
// and a golden transcript to match.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>

#include <tavik/tavik.h>

#include "ChildProcess.h"
#include "DdiLibrary.h"
#include "FakeDev.h"
#include "Golden.h"
#include "ProcessStats.h"

namespace tavik_test {

inline std::string FixtureDir(const std::string& folder) { return std::string(TAVIK_TEST_FIXTURES_DIR) + "/" + folder; }

// Lines a child notes for its transcript; any thread may note.
inline std::string g_notes;
inline std::mutex g_notesMutex;
__attribute__((format(printf, 1, 2))) inline void Note(const char* format, ...) {
  char line[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  std::lock_guard<std::mutex> lock(g_notesMutex);
  g_notes += std::string(line) + "\n";
}

// The record as the core sees it after init or uninit.
inline void NoteDdi(const Ddi& ddi) {
  Note("ddi state %d, cam_count %u", static_cast<int>(ddi.state), ddi.cam_count);
  for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t) {
    const tavik_driver* d = ddi.drivers[t];
    if (d == nullptr) continue;
    int devices = 0;
    while (d->device_list != nullptr && d->device_list[devices] != nullptr) ++devices;
    Note("slot %d: mode %d, type %d, handle %s, word %lu, path '%s', %d devices", t, static_cast<int>(d->mode),
         d->mode == TAVIK_DRIVER_MODE_KERNEL && d->type != nullptr ? static_cast<int>(d->type()) : -1, d->handle != nullptr ? "set" : "null",
         static_cast<unsigned long>(d->driver_word), d->file_path, devices);
  }
  std::string cameras;
  for (unsigned i = 0; i < ddi.cam_count && i < TAVIK_DDI_MAX_CAMERAS; ++i)
    cameras += std::string(" '") + ddi.devices[i]->name + "' at " + ddi.devices[i]->file_path + ";";
  Note("cameras:%s", cameras.c_str());
}

inline void InitAndUninit(DdiLibrary* lib) {
  Ddi ddi{};
  Note("init: %d", lib->init(&ddi));
  NoteDdi(ddi);
  Note("uninit: %d", lib->uninit(&ddi));
}

class E2eTest : public ChildTest {
 protected:
  // Runs body in a child with a private /dev, the log at level (nullptr: no log) and the fixture calls recorded; then
  // the notes, the calls and the normalised log lines that match keep (all when null) must equal golden/<name>.txt.
  void RunScenario(const std::string& name, const char* level, const std::function<void(DdiLibrary*)>& body,
                   const char* keep = nullptr) {
    if (!RunInChild([&](ChildContext& ctx) {
          EnterPrivateDev();
          if (level != nullptr) ctx.EnableLog(level);
          ctx.RecordFixtureCalls();
          TAVIK_LOAD(lib);
          body(lib.get());
          lib.reset();
          WriteFile(ctx.tmp + "/notes.txt", g_notes);
        }))
      return;
    const Substitutions subs = {{ctx_.tmp, "@TMP"}, {FixtureDir(""), "@FIX/"}, {TAVIK_TEST_LIBRARY_PATH, "@LIB"},
                                {ReadLink("/proc/self/exe"), "@EXE"}};
    std::string log;
    std::istringstream in(NormalizeLog(ReadFile(ctx_.LogPath())));
    for (std::string line; std::getline(in, line);)
      if (keep == nullptr || std::regex_search(line, std::regex(keep))) log += line + "\n";
    std::string calls = ReadScratch("calls.txt");  // one line: the order is what counts
    std::replace(calls.begin(), calls.end(), '\n', ';');
    ExpectGolden(name, ReadScratch("notes.txt") + "module calls: " + calls + "\n" + log, subs);
  }
};

}  // namespace tavik_test
