// loading: what the library needs before it calls the module at all.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "ComplianceCheck.h"
#include "ModuleSession.h"
#include "tavik_module_file.h"

namespace compliance {
namespace {

// The library's own rule: "tavik_", at least one character, ".x86_64.umd",
// case-sensitive, on the file name alone.
Outcome FileName(ModuleSession& session) {
  const std::string& path = session.Path();
  const std::string name = path.substr(path.rfind('/') + 1);
  static const std::string prefix = "tavik_", suffix = ".x86_64.umd";
  if (name.size() > prefix.size() + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
      name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
    return Pass();
  return Fail("file name: expected tavik_*.x86_64.umd, got " + name + "; the library never tries it");
}

Outcome ModuleFile(ModuleSession& session) {
  char reason[256] = "";
  switch (tavik_module_file_check(session.Path().c_str(), reason, sizeof reason)) {
    case TAVIK_MODULE_FILE_OK: return Pass();
    case TAVIK_MODULE_FILE_WARN: return Warn(std::string("the library loads it with a warning: ") + reason);
    default: return Fail(std::string("the library refuses the file: ") + reason);
  }
}

Outcome Dlopen(ModuleSession& session) {
  void* handle = dlopen(session.Path().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return Fail(std::string("dlopen with RTLD_NOW: ") + dlerror());
  dlclose(handle);
  return Pass();
}

Outcome EntryPoints(ModuleSession& session) {
  void* handle = dlopen(session.Path().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return Skip(std::string("the module cannot be loaded: ") + dlerror());
  std::string missing;
  for (const char* name : {"init", "uninit", "type"})
    if (dlsym(handle, name) == nullptr) missing += std::string(missing.empty() ? "" : ", ") + name;
  dlclose(handle);
  if (missing.empty()) return Pass();
  return Fail("entry points: expected init, uninit and type, missing " + missing);
}

// The defined symbols of the file's dynamic symbol table that other objects can
// bind to, read from the file itself; empty with `error` set if it is no ELF.
std::set<std::string> ExportedSymbols(const std::string& path, std::string& error) {
  std::set<std::string> names;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(sizeof(Elf64_Ehdr))) {
    if (fd >= 0) close(fd);
    error = "cannot read the file";
    return names;
  }
  const size_t size = static_cast<size_t>(st.st_size);
  void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  close(fd);
  if (map == MAP_FAILED) {
    error = "cannot map the file";
    return names;
  }
  const auto* base = static_cast<const unsigned char*>(map);
  const auto* eh = reinterpret_cast<const Elf64_Ehdr*>(base);
  auto inside = [&](size_t offset, size_t length) { return offset <= size && length <= size - offset; };
  if (memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 || eh->e_ident[EI_CLASS] != ELFCLASS64 ||
      !inside(eh->e_shoff, size_t{eh->e_shnum} * sizeof(Elf64_Shdr))) {
    error = "not a 64-bit ELF file";
  } else {
    const auto* sh = reinterpret_cast<const Elf64_Shdr*>(base + eh->e_shoff);
    for (unsigned i = 0; i < eh->e_shnum; ++i) {
      if (sh[i].sh_type != SHT_DYNSYM || sh[i].sh_link >= eh->e_shnum) continue;
      const Elf64_Shdr& strings = sh[sh[i].sh_link];
      if (!inside(sh[i].sh_offset, sh[i].sh_size) || !inside(strings.sh_offset, strings.sh_size)) break;
      const auto* syms = reinterpret_cast<const Elf64_Sym*>(base + sh[i].sh_offset);
      for (size_t k = 0; k < sh[i].sh_size / sizeof(Elf64_Sym); ++k) {
        const Elf64_Sym& s = syms[k];
        const unsigned bind = ELF64_ST_BIND(s.st_info);
        // A version script's node names are absolute symbols of value 0.
        if (s.st_shndx == SHN_UNDEF || (s.st_shndx == SHN_ABS && s.st_value == 0) || s.st_name >= strings.sh_size || ELF64_ST_TYPE(s.st_info) == STT_SECTION ||
            (bind != STB_GLOBAL && bind != STB_WEAK && bind != STB_GNU_UNIQUE) ||
            ELF64_ST_VISIBILITY(s.st_other) != STV_DEFAULT)
          continue;
        const char* name = reinterpret_cast<const char*>(base + strings.sh_offset + s.st_name);
        names.insert(std::string(name, strnlen(name, strings.sh_size - s.st_name)));
      }
    }
  }
  munmap(map, size);
  return names;
}

Outcome Exports(ModuleSession& session) {
  std::string error;
  std::set<std::string> names = ExportedSymbols(session.Path(), error);
  if (!error.empty()) return Fail("exports: " + error);
  std::string extra, missing;
  for (const char* wanted : {"init", "uninit", "type"})
    if (names.erase(wanted) == 0) missing += std::string(missing.empty() ? "" : " ") + wanted;
  int shown = 0;
  for (const std::string& name : names)
    if (++shown <= 5) extra += (shown > 1 ? " " : "") + name;
  if (names.size() > 5) extra += Format(" (and %zu more)", names.size() - 5);
  if (names.empty() && missing.empty()) return Pass();
  return Fail("exported symbols: expected init, uninit and type only, got" +
              (extra.empty() ? std::string() : " also " + extra) +
              (missing.empty() ? std::string() : " without " + missing));
}

Outcome NoLibraryLink(ModuleSession& session) {
  std::string found;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        const char* slash = std::strrchr(info->dlpi_name, '/');
        const char* base = slash ? slash + 1 : info->dlpi_name;
        if (std::strncmp(base, "libtavikDDI.so", 14) != 0) return 0;
        *static_cast<std::string*>(data) = info->dlpi_name;
        return 1;
      },
      &found);
  (void)session;
  if (found.empty()) return Pass();
  return Fail("loading the module brings in " + found + "; a module must not link the library that loads it");
}

Outcome Type(ModuleSession& session) {
  const unsigned first = session.type();
  session.typeSeen = first;
  for (int i = 0; i < 3; ++i) {
    const unsigned again = session.type();
    if (again != first) return Fail(Format("type: expected the same value on every call, got %u, then %u", first, again));
  }
  if (first >= TAVIK_DRIVER_TYPE_COUNT)
    return Fail(Format("type: expected a bus type from 0 to 4, got %u; the library refuses the module", first));
  const std::string why = session.Init();
  const unsigned afterInit = session.type();
  if (why.empty() && afterInit != first)
    return Fail(Format("type: expected the same value after init, got %u, then %u", first, afterInit));
  return Pass();
}

}  // namespace

void AddLoadingChecks(std::vector<Check>& checks) {
  const char* g = "loading";
  checks.insert(checks.end(), {
      {g, "file-name", "the file name matches tavik_*.x86_64.umd", Needs::kFile, FileName},
      {g, "module-file", "the library's file rule: a regular file nobody else can replace", Needs::kFile, ModuleFile},
      {g, "dlopen", "dlopen with every symbol resolved (RTLD_NOW)", Needs::kFile, Dlopen},
      {g, "entry-points", "init, uninit and type are found", Needs::kFile, EntryPoints},
      {g, "exports", "init, uninit and type are the only exported symbols", Needs::kFile, Exports},
      {g, "no-library-link", "the module does not link libtavikDDI", Needs::kModule, NoLibraryLink},
      {g, "type", "type() is a bus type below 5, the same on every call", Needs::kModule, Type},
  });
}

}  // namespace compliance
