// SPDX-License-Identifier: BSD-3-Clause
//
// A shared library reaches a function of another one through a slot in its own
// global offset table, which the dynamic linker fills with the function's
// address. A relocation names each slot's symbol:
//
//   PT_DYNAMIC --> DT_JMPREL, DT_RELA --> Rela{offset, symbol} ... --> slot
//                  DT_SYMTAB, DT_STRTAB --> the symbol's name
//
// Libraries that are bound when they are loaded have their slots in memory that
// the linker makes read-only afterwards (PT_GNU_RELRO); it is opened for the
// one store.
#include "utils/internal/import_slot.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Dpdk::internal {
namespace {

using Dyn = ElfW(Dyn);
using Rela = ElfW(Rela);
using Sym = ElfW(Sym);

// The pages that are read-only once the library is loaded.
struct Pages {
  uintptr_t begin = 0;
  uintptr_t end = 0;
};

struct Library {
  std::string path;
  uintptr_t base = 0;
  const Dyn* dynamic = nullptr;
  Pages readOnly;
};

struct Search {
  std::string_view prefix;
  Library found;
};

uintptr_t pageSize() {
  static const auto size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  return size;
}

int visit(dl_phdr_info* info, size_t, void* argument) {
  auto& search = *static_cast<Search*>(argument);
  std::string_view name = info->dlpi_name;
  name.remove_prefix(name.rfind('/') + 1);
  if (!name.starts_with(search.prefix)) return 0;
  Library& library = search.found;
  library.path = info->dlpi_name;
  library.base = info->dlpi_addr;
  for (int i = 0; i < info->dlpi_phnum; i++) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    const uintptr_t address = library.base + header.p_vaddr;
    if (header.p_type == PT_DYNAMIC) {
      library.dynamic = reinterpret_cast<const Dyn*>(address);
    } else if (header.p_type == PT_GNU_RELRO) {
      const uintptr_t mask = ~(pageSize() - 1);
      library.readOnly = {address & mask, (address + header.p_memsz) & mask};
    }
  }
  return 1;
}

// Of a shared library, as the dynamic linker sees it. glibc has already turned
// the addresses in the dynamic section into absolute ones.
class Imports {
 public:
  explicit Imports(const Library& library) : base_(library.base) {
    for (const Dyn* entry = library.dynamic; entry->d_tag != DT_NULL; entry++) {
      switch (entry->d_tag) {
        case DT_SYMTAB:
          symbols_ = pointer<Sym>(entry);
          break;
        case DT_STRTAB:
          names_ = pointer<char>(entry);
          break;
        case DT_JMPREL:
          calls_.first = pointer<Rela>(entry);
          break;
        case DT_PLTRELSZ:
          calls_.bytes = entry->d_un.d_val;
          break;
        case DT_RELA:
          data_.first = pointer<Rela>(entry);
          break;
        case DT_RELASZ:
          data_.bytes = entry->d_un.d_val;
          break;
        default:
          break;
      }
    }
  }

  // Null when the library does not import `function`.
  std::atomic<void*>* slotOf(std::string_view function) const {
    if (symbols_ == nullptr || names_ == nullptr) return nullptr;
    for (const Table& table : {calls_, data_}) {
      for (size_t i = 0; i < table.bytes / sizeof(Rela); i++) {
        const Rela& relocation = table.first[i];
        const auto type = ELF64_R_TYPE(relocation.r_info);
        if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT) continue;
        const Sym& symbol = symbols_[ELF64_R_SYM(relocation.r_info)];
        if (names_ + symbol.st_name == function) {
          return reinterpret_cast<std::atomic<void*>*>(base_ +
                                                       relocation.r_offset);
        }
      }
    }
    return nullptr;
  }

 private:
  struct Table {
    const Rela* first = nullptr;
    size_t bytes = 0;
  };

  template <class T>
  static const T* pointer(const Dyn* entry) {
    return reinterpret_cast<const T*>(entry->d_un.d_ptr);
  }

  const uintptr_t base_;
  const Sym* symbols_ = nullptr;
  const char* names_ = nullptr;
  Table calls_;
  Table data_;
};

}  // namespace

bool redirectImport(const std::string& library, const std::string& function,
                    void* replacement) {
  Search search{library, {}};
  dl_iterate_phdr(visit, &search);
  const Library& found = search.found;
  if (found.dynamic == nullptr) return false;
  // Never closed: the library stays, or what is stored would go with it.
  if (dlopen(found.path.c_str(), RTLD_LAZY | RTLD_NOLOAD) == nullptr) {
    return false;
  }
  std::atomic<void*>* slot = Imports(found).slotOf(function);
  if (slot == nullptr) return false;

  const uintptr_t page = reinterpret_cast<uintptr_t>(slot) & ~(pageSize() - 1);
  const bool readOnly =
      page >= found.readOnly.begin && page < found.readOnly.end;
  auto* memory = reinterpret_cast<void*>(page);
  if (readOnly && mprotect(memory, pageSize(), PROT_READ | PROT_WRITE) != 0) {
    return false;
  }
  slot->store(replacement, std::memory_order_release);
  if (readOnly) mprotect(memory, pageSize(), PROT_READ);
  return true;
}

}  // namespace Dpdk::internal
