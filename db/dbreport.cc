// Reports of the store. Parts of the memory manager's post-mortem: they ask for no memory and take no
// lock.
#include <ka/mem.h>
#include <ka/message.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "store.h"

namespace {

struct Sum {
  std::size_t elements, bytes;
};

// Numbers of module and type.
constexpr std::size_t kNumbers = 256;
using Sums = std::array<Sum, kNumbers>;

template <typename Function>
void for_all_entries(Function function) {
  ka::for_each_entry(ka::kFirstDataPage, ka::kFirstJobPage, function);
  ka::for_each_entry(ka::kFirstJobPage, ka::kPageCount, function);
}

Sums sums_by(std::uint8_t ka_db_entry::*number) {
  Sums sums{};
  for_all_entries([&](std::uint32_t, ka_db_entry& entry) {
    Sum& sum = sums[ka::shared(entry.*number).load()];
    ++sum.elements;
    if (ka::shared(entry.data).load()) sum.bytes += ka::shared(entry.size).load();
  });
  return sums;
}

template <typename Name>
void print_sums(const Sums& sums, Name name) {
  for (std::size_t number = 0; number < sums.size(); ++number) {
    const Sum& sum = sums[number];
    if (sum.elements == 0) continue;
    ka_info("%-20.20s %9zu elements %9zu KB", name(int(number)).text.data(), sum.elements,
            sum.bytes / 1024);
  }
}

ka::TypeName module_name(int module) {
  ka::TypeName name{};
  const int known = std::min(module, int{KA_MODULE_COUNT} - 1);
  std::snprintf(name.text.data(), name.text.size(), "%s", ka_modname[known]);
  return name;
}

void print_entry(std::uint32_t tag, ka_db_entry& entry) {
  ka_info("%4u  %-8.8s %8x %9p %8x %7zu %4u %c%c %d %4d %4s    %-13.13s -", tag >> ka::kHostShift,
          module_name(ka::shared(entry.module).load()).text.data(), tag,
          ka::shared(entry.data).load(), ka::shared(entry.owner).load(),
          ka::shared(entry.size).load(), unsigned(ka::shared(entry.pin_slot).load()),
          ka::shared(entry.state).load() == KA_DB_ON_DISK ? 'd' : '-',
          ka::is_job_tag(tag) ? 'j' : '-', 0, int(entry.private_level), "-",
          ka::type_name(ka::shared(entry.type).load()).text.data());
}

}  // namespace

ka::TypeName ka::type_name(int type) {
  struct Known {
    int type;
    const char* name;
  };
  constexpr std::array known = {Known{KA_DB_IMAGE, "image"}, Known{KA_DB_STRING, "string"},
                                Known{KA_TRANS_WORLD, "world"}, Known{KA_TRANS_SESSION, "session"},
                                Known{KA_TRANS_TRANSACTION, "transaction"}};
  TypeName name{};
  const auto* const found = std::ranges::find(known, type, &Known::type);
  if (found != known.end()) {
    std::snprintf(name.text.data(), name.text.size(), "%s", found->name);
  } else {
    std::snprintf(name.text.data(), name.text.size(), "type%d", type);
  }
  return name;
}

void ka_db_summary() {
  const ka::ModuleScope scope(KA_DB);
  ka_info("database elements by module:");
  print_sums(sums_by(&ka_db_entry::module), module_name);
  ka_info("database elements by type:");
  print_sums(sums_by(&ka_db_entry::type), ka::type_name);
}

void ka_db_dump() {
  const ka::ModuleScope scope(KA_DB);
  ka_info(
      "host  mod        tag      addr   ctrans    size pidx fj v priv refs    type          ka "
      "name");
  for_all_entries(print_entry);
}
