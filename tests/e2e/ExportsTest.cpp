// The built file exports exactly the four entry points, each at version
// TAVIK_DDI_3.0, and carries the SONAME libtavikDDI.so.3. Read straight from
// the ELF dynamic symbol table and version sections.
#include <elf.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include <tavik/tavik.h>

#include "ChildProcess.h"
#include "DdiLibrary.h"

extern "C" size_t tavik_c_layout(size_t* out, size_t n);

namespace {

struct DynamicInfo {
  std::string error;
  std::string soname;
  std::map<std::string, std::string> defined;  // symbol -> version ("" when unversioned)
  std::set<std::string> versionNodes;
};

template <typename T>
const T* At(const std::string& file, size_t off) {
  if (off + sizeof(T) > file.size()) return nullptr;
  return reinterpret_cast<const T*>(file.data() + off);
}

DynamicInfo ReadDynamic(const std::string& path) {
  DynamicInfo info;
  std::string f = tavik_test::ReadFile(path);
  const Elf64_Ehdr* eh = At<Elf64_Ehdr>(f, 0);
  if (eh == nullptr || std::memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 || eh->e_ident[EI_CLASS] != ELFCLASS64) {
    info.error = "not a 64-bit ELF file";
    return info;
  }
  auto section = [&](unsigned i) { return At<Elf64_Shdr>(f, eh->e_shoff + i * sizeof(Elf64_Shdr)); };
  const Elf64_Shdr *dynsym = nullptr, *versym = nullptr, *verdef = nullptr, *dynamic = nullptr;
  for (unsigned i = 0; i < eh->e_shnum; ++i) {
    const Elf64_Shdr* s = section(i);
    if (s == nullptr) break;
    if (s->sh_type == SHT_DYNSYM) dynsym = s;
    if (s->sh_type == SHT_GNU_versym) versym = s;
    if (s->sh_type == SHT_GNU_verdef) verdef = s;
    if (s->sh_type == SHT_DYNAMIC) dynamic = s;
  }
  if (dynsym == nullptr || versym == nullptr || verdef == nullptr || dynamic == nullptr) {
    info.error = "missing .dynsym, .gnu.version, .gnu.version_d or .dynamic";
    return info;
  }
  const Elf64_Shdr* strtab = section(dynsym->sh_link);
  auto str = [&](size_t off) { return std::string(f.c_str() + strtab->sh_offset + off); };

  std::map<unsigned, std::string> versionNames;
  size_t off = verdef->sh_offset;
  for (unsigned i = 0; i < verdef->sh_info; ++i) {
    const Elf64_Verdef* vd = At<Elf64_Verdef>(f, off);
    const Elf64_Verdaux* aux = At<Elf64_Verdaux>(f, off + vd->vd_aux);
    versionNames[vd->vd_ndx] = str(aux->vda_name);
    if (!(vd->vd_flags & VER_FLG_BASE)) info.versionNodes.insert(str(aux->vda_name));
    off += vd->vd_next;
  }
  for (size_t d = dynamic->sh_offset; d + sizeof(Elf64_Dyn) <= dynamic->sh_offset + dynamic->sh_size;
       d += sizeof(Elf64_Dyn)) {
    const Elf64_Dyn* dyn = At<Elf64_Dyn>(f, d);
    if (dyn->d_tag == DT_NULL) break;
    if (dyn->d_tag == DT_SONAME) info.soname = str(dyn->d_un.d_val);
  }
  size_t count = dynsym->sh_size / sizeof(Elf64_Sym);
  for (size_t i = 1; i < count; ++i) {
    const Elf64_Sym* sym = At<Elf64_Sym>(f, dynsym->sh_offset + i * sizeof(Elf64_Sym));
    unsigned bind = ELF64_ST_BIND(sym->st_info);
    if (sym->st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK)) continue;
    std::string name = str(sym->st_name);
    uint16_t v = *At<uint16_t>(f, versym->sh_offset + i * 2);
    std::string version = versionNames.count(v & 0x7fff) ? versionNames[v & 0x7fff] : "";
    // The linker's own symbol naming a version node is not an export.
    if (sym->st_shndx == SHN_ABS && name == version) continue;
    info.defined[name] = (v & 0x8000) ? version + " (hidden)" : version;
  }
  return info;
}

TEST(Exports, ExactlyTheFourEntryPointsAtTheirVersion) {
  DynamicInfo info = ReadDynamic(tavik_test::DdiLibrary::Path());
  ASSERT_EQ(info.error, "");
  std::map<std::string, std::string> expected = {
      {"tavik_ddi_init", "TAVIK_DDI_3.0"},
      {"tavik_ddi_uninit", "TAVIK_DDI_3.0"},
      {"tavik_ddi_get_lib_version", "TAVIK_DDI_3.0"},
      {"tavik_ddi_get_last_error_message", "TAVIK_DDI_3.0"},
  };
  EXPECT_EQ(info.defined, expected);
  EXPECT_EQ(info.versionNodes, std::set<std::string>{"TAVIK_DDI_3.0"});
}

TEST(Exports, SonameAndFileName) {
  DynamicInfo info = ReadDynamic(tavik_test::DdiLibrary::Path());
  ASSERT_EQ(info.error, "");
  EXPECT_EQ(info.soname, "libtavikDDI.so.3");
  std::string path = tavik_test::DdiLibrary::Path();
  EXPECT_EQ(path.substr(path.rfind('/') + 1), "libtavikDDI.so.3.1.88");
  EXPECT_STREQ(TAVIK_TEST_LIBRARY_SONAME_FILE, "libtavikDDI.so.3");
}

TEST(PublicHeaders, CompileAsCWithTheSameLayoutAsCxx) {
  size_t c[32] = {};
  size_t n = tavik_c_layout(c, 32);
  const size_t cxx[] = {
      sizeof(Ddi),
      offsetof(Ddi, devices),
      offsetof(Ddi, drivers),
      sizeof(tavik_driver),
      offsetof(tavik_driver, init),
      offsetof(tavik_driver, driver_word),
      sizeof(tavik_driver_device),
      offsetof(tavik_driver_device, stop_notif_thread),
      offsetof(tavik_driver_device, private_),
      sizeof(tavik_notif),
      sizeof(tavik_notif_list),
      sizeof(E_TAVIK_DDI_STATE),
      sizeof(rs_bool),
      static_cast<size_t>(TAVIK_IOC_GET_NOTIFICATIONS),
  };
  ASSERT_EQ(n, sizeof cxx / sizeof cxx[0]);
  for (size_t i = 0; i < n; ++i) EXPECT_EQ(c[i], cxx[i]) << "layout item " << i;
  EXPECT_EQ(c[0], 176u);
  EXPECT_EQ(c[10], 1616u);
}

}  // namespace
