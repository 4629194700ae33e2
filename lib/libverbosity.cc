// Settings of the message log: levels, groups of optional messages, colors.
#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <ka/detail/context.h>
#include <ka/detail/scope.h>
#include <ka/detail/textlines.h>

#include "messagelog.h"

namespace {

// Settings are read on every message and changed at start-up: a reader sees the old or the new
// value.
std::array<std::atomic<std::uint32_t>, KA_MODULE_COUNT> msg_bitmap;
std::atomic<bool> masks_are_set{false};

// Groups of messages by name. The order decides what an abbreviation means, and is that of the
// error message.
struct Group {
  std::string_view name;
  std::uint32_t mask;
};
constexpr std::array<Group, 19> messages = {{
    {"none", 0},
    {"default", KA_SUBVERB_DEFAULT},
    {"all", 0xffffffff},
    {"none", 0},
    {"phase", 0x1},
    {"progress", 0x2},
    {"vprogress", 0x4},
    {"time", KA_SUBVERB_TIME},
    {"scene", 0x10},
    {"memory", 0x20},
    {"render", 0x40},
    {"vrender", 0x80},
    {"resources", 0x100},
    {"network", 0x200},
    {"files", KA_SUBVERB_FILES},
    {"debug", KA_SUBVERB_DEBUG},
    {"msgcode", KA_SUBVERB_MSGCODE},
    {"msgtrans", KA_SUBVERB_MSGTRANS},
    {"tessellate", 0x4000},
}};

constexpr std::array<const char*, 9> color_codes = {"\033[0m",  "\033[30m", "\033[31m",
                                                    "\033[32m", "\033[33m", "\033[34m",
                                                    "\033[35m", "\033[36m", "\033[37m"};
constexpr std::string_view kColorLetters =
    ".krgybmc";  // in the order of color_codes; white has no letter
constexpr std::string_view kDefaultColors = "rrc..gg.";
constexpr std::size_t kColorSlots = 8;

std::atomic<bool> color_messages{false};
std::array<std::atomic<const char*>, kColorSlots> msg_color;

void report_invalid_list() {
  char text[300];
  std::size_t length =
      std::size_t(std::snprintf(text, sizeof text, "invalid message list, use 0..31"));
  for (const Group& group : messages) {
    length +=
        std::size_t(std::snprintf(text + length, sizeof text - length, ",%s", group.name.data()));
  }
  ka_nerror(48, "%s", text);
}

// The bits that an item represents; false for a name that is not known.
bool find_group(std::string_view item, std::uint32_t& bits) {
  if (!item.empty() && ka::is_digit(item.front())) {
    unsigned number =
        0;  // only the low five bits count, so the wrapped value of a long number is as good
    for (const char c : item) {
      if (!ka::is_digit(c)) break;
      number = number * 10 + unsigned(c - '0');
    }
    bits = std::uint32_t{1} << number % 32;
    return true;
  }
  for (const Group& group : messages) {
    if (!group.name.starts_with(item)) continue;
    bits = group.mask;
    return true;
  }
  return false;
}

// Every change in the master of a network reaches all hosts.
void notify_hosts() {
  if (ka::context().host == 0) ka::send_verbosities(-1);
}

void set_masks(int module, std::uint32_t mask) {
  ka_lib_init_subverbosity();
  if (module == KA_NULL) {
    for (auto& entry : msg_bitmap) entry = mask;
  } else if (module > KA_NULL && module < KA_MODULE_COUNT) {
    msg_bitmap[std::size_t(module)] = mask;
  }
}

void load_colors(std::string_view letters) {
  for (std::size_t slot = 0; slot < kColorSlots; ++slot) {
    msg_color[slot] = color_codes[kColorLetters.find(letters[slot])];
  }
}

}  // namespace

void ka_lib_init_subverbosity() {
  if (masks_are_set.exchange(true)) return;
  for (auto& mask : msg_bitmap) mask = KA_SUBVERB_DEFAULT;
}

void ka_set_subverbosity(int module, std::uint32_t mask) {
  set_masks(module, mask);
  notify_hosts();
}

std::uint32_t ka_get_subverbosity(int module) {
  return msg_bitmap[std::size_t(module)].load(std::memory_order_relaxed);
}

void ka::send_verbosities(int host) {
  ka_message_record record{};
  record.kind = KA_RECORD_SETTINGS;
  record.level = ka_get_verbosity();
  for (std::size_t module = 0; module < KA_MODULE_COUNT; ++module) {
    const std::uint32_t mask = msg_bitmap[module];
    std::memcpy(record.text + module * sizeof mask, &mask, sizeof mask);
  }
  ka::network.send(host, record);
}

void ka::take_verbosities(const ka_message_record& record) {
  ka::take_level_mask(record.level);
  for (int module = 0; module < KA_MODULE_COUNT;
       ++module) {  // module 0 represents all, then each has its own
    std::uint32_t mask;
    std::memcpy(&mask, record.text + std::size_t(module) * sizeof mask, sizeof mask);
    set_masks(module, mask);
  }
}

int ka_parse_subverbosity(std::uint32_t* mask, const char* text) {
  const ka::ModuleScope scope(KA_LIB);
  *mask = 0;
  for (std::string_view rest = text; !rest.empty();) {
    std::string_view item = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(rest.size(), item.size() + 1));
    if (item.empty()) continue;
    const bool removes = std::string_view("-!~").find(item.front()) != std::string_view::npos;
    if (removes) item.remove_prefix(1);
    std::uint32_t bits;
    if (!find_group(item, bits)) {
      report_invalid_list();
      return 0;
    }
    *mask = removes ? *mask & ~bits : *mask | bits;
  }
  return 1;
}

void ka_set_colormessage(const char* text) {
  std::string_view letters = text;
  color_messages = false;
  const auto starts_with_any = [&](std::string_view set) {
    return !letters.empty() && set.find(letters.front()) != std::string_view::npos;
  };
  if (starts_with_any("-f0") || letters == "off") return;
  load_colors(kDefaultColors);
  color_messages = true;
  if (starts_with_any("t1") || letters == "on") return;
  if (letters.starts_with('"')) letters.remove_prefix(1);
  for (std::size_t slot = 0; slot < std::min(letters.size(), kColorSlots); ++slot) {
    const std::size_t color = kColorLetters.find(letters[slot]);
    if (color == std::string_view::npos) {
      ka_nwarning(18, "unknown color '%c', expected [.rgbcmyk]", letters[slot]);
    } else {
      msg_color[slot] = color_codes[color];
    }
  }
}

int ka_get_colormessage() { return color_messages; }

void ka_set_default_console_colour() {}

const char* ka::color_of(std::size_t slot) { return color_messages ? msg_color[slot].load() : ""; }
