// SPDX-License-Identifier: Apache-2.0
#include "imports.h"

#include <dlfcn.h>
#include <link.h>

#include <cstddef>
#include <cstring>

#include "demangled.h"

namespace conformance {

namespace {

bool IsOfThePlatform(const char* symbol) {
  for (const char* prefix : {"_ZN5Ormis", "_ZNK5Ormis", "_ZN3ara3log", "_ZNK3ara3log"}) {
    if (std::strncmp(symbol, prefix, std::strlen(prefix)) == 0) return true;
  }
  return std::strcmp(symbol, "memcpy_s") == 0;
}

template <typename T>
const T* At(ElfW(Addr) address) {
  return reinterpret_cast<const T*>(address);  // NOLINT(performance-no-int-to-ptr): the loader gives integers
}

// Every call into a library goes through the procedure linkage table, whose relocations name the symbols.
void ReadImports(const dl_phdr_info& program, std::vector<std::string>& symbols) {
  const ElfW(Dyn)* dynamic = nullptr;
  for (std::size_t i = 0; i < program.dlpi_phnum; ++i) {
    if (program.dlpi_phdr[i].p_type == PT_DYNAMIC) {
      dynamic = At<ElfW(Dyn)>(program.dlpi_addr + program.dlpi_phdr[i].p_vaddr);
    }
  }
  const ElfW(Sym)* table = nullptr;
  const char* names = nullptr;
  const ElfW(Rela)* relocations = nullptr;
  std::size_t bytes = 0;
  for (; dynamic != nullptr && dynamic->d_tag != DT_NULL; ++dynamic) {
    // On some architectures the loader replaces these by addresses.
    ElfW(Addr) address = dynamic->d_un.d_ptr;
    if (address < program.dlpi_addr) address += program.dlpi_addr;
    if (dynamic->d_tag == DT_SYMTAB) table = At<ElfW(Sym)>(address);
    if (dynamic->d_tag == DT_STRTAB) names = At<char>(address);
    if (dynamic->d_tag == DT_JMPREL) relocations = At<ElfW(Rela)>(address);
    if (dynamic->d_tag == DT_PLTRELSZ) bytes = dynamic->d_un.d_val;
  }
  if (table == nullptr || names == nullptr || relocations == nullptr) return;
  for (std::size_t i = 0; i < bytes / sizeof(ElfW(Rela)); ++i) {
    const char* const symbol = names + table[ELF64_R_SYM(relocations[i].r_info)].st_name;
    if (IsOfThePlatform(symbol)) symbols.emplace_back(symbol);
  }
}

bool HoldsThisFunction(const dl_phdr_info& object) {
  const auto here = reinterpret_cast<ElfW(Addr)>(&HoldsThisFunction);
  for (std::size_t i = 0; i < object.dlpi_phnum; ++i) {
    const ElfW(Phdr)& part = object.dlpi_phdr[i];
    const ElfW(Addr) begin = object.dlpi_addr + part.p_vaddr;
    if (part.p_type == PT_LOAD && here >= begin && here - begin < part.p_memsz) return true;
  }
  return false;
}

}  // namespace

std::vector<Import> PlatformImports() {
  std::vector<std::string> symbols;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* argument) {
        if (!HoldsThisFunction(*info)) return 0;
        ReadImports(*info, *static_cast<std::vector<std::string>*>(argument));
        return 1;
      },
      &symbols);
  std::vector<Import> imports;
  for (const std::string& symbol : symbols) {
    Import import{Demangled(symbol), ""};
    Dl_info where{};
    if (void* const address = dlsym(RTLD_DEFAULT, symbol.c_str());
        address != nullptr && dladdr(address, &where) != 0) {
      import.library = where.dli_fname;
    }
    imports.push_back(import);
  }
  return imports;
}

}  // namespace conformance
