// Records that come from other hosts of a network, and the first one that a new host gets.
#include <array>

#include <ka/detail/context.h>
#include <ka/detail/hooks.h>
#include <ka/endian.h>

#include "messagelog.h"

namespace {
std::array<void (*)(int host), KA_MODULE_COUNT> senders{};  // indexed by module
}

void ka_lib_netmessage(int /*channel*/, ka_message_record* record, std::size_t /*length*/,
                       int swap) {
  if (swap) {
    ka_swap(record, "5i");  // six words, up to the prefix
    if (record->kind == KA_RECORD_SETTINGS) ka_swap_ints(record->text, KA_MODULE_COUNT);
  }
  if (record->kind == KA_RECORD_LINE) {
    record->prefix[sizeof record->prefix - 1] = record->text[sizeof record->text - 1] = '\0';
    ka::output_message(*record, false);
  } else if (record->kind == KA_RECORD_SETTINGS) {
    ka::take_verbosities(*record);
    if (ka::context().host == 0) ka::send_verbosities(-1);
  }
}

void ka::call_for_new_host(int module, void (*function)(int host)) {
  senders[std::size_t(module)] = function;
}

void ka_lib_hostcallback(int host) {
  ka::send_verbosities(host);
  for (const auto send : senders) {
    if (send) send(host);
  }
}
