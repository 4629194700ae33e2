// Registry: expansion of texts, and what the items of entries do.
#include <ka/registry.h>

#include <cstdlib>
#include <string_view>
#include <utility>

#include <ka/detail/scope.h>
#include <ka/message.h>

#include "libcontext.h"
#include "registry.h"

namespace {

constexpr std::size_t kMaxResult = 10238;  // characters
constexpr int kSideEffectNumbers = 800;    // added to message numbers with side effects
constexpr int kMaxDepth = 128;             // nested values and actions

// One step deeper into the entries of this thread.
class Depth {
 public:
  Depth() : depth_(++lib_context().expansions) {}
  ~Depth() { --lib_context().expansions; }
  Depth(const Depth&) = delete;
  Depth& operator=(const Depth&) = delete;

  [[nodiscard]] bool is_allowed() const { return depth_ <= kMaxDepth; }

 private:
  int depth_;
};

// The expansion of one text. References of its entries' values are nested expansions.
class Expansion {
 public:
  Expansion(const char* text, bool side_effects, Expansion* outer = nullptr)
      : text_(text), side_effects_(side_effects), outermost_(outer ? outer->outermost_ : this) {}

  // The expanded text, empty after an error.
  [[nodiscard]] std::optional<ka::string> run();

 private:
  [[nodiscard]] int number(int base) const {
    return side_effects_ ? base + kSideEffectNumbers : base;
  }
  [[nodiscard]] bool add(std::string_view piece);
  [[nodiscard]] bool add_variable(std::string_view reference);
  [[nodiscard]] bool add_entry(std::string_view reference);
  [[nodiscard]] bool may_go_deeper(const Depth& depth, const char* name);
  [[nodiscard]] ka::string value_of(const char* name, const char* value);
  void perform(const char* name, const RegistryItem& item);
  void run_command(const char* name, const char* command);

  const char* text_;
  bool side_effects_;
  Expansion* outermost_;
  // Of the outermost: its current reference has run into a loop. What is left of it is not
  // followed, because an entry that refers to itself twice would double the work with every level.
  bool is_stopped_ = false;
  ka::string result_;
};

std::optional<ka::string> Expansion::run() {
  for (std::string_view rest = text_; !rest.empty();) {
    const std::string_view plain = rest.substr(0, rest.find('{'));
    if (!add(plain)) {
      const char* const overflow = rest.data() + (kMaxResult - result_.size());
      ka_nerror(number(20), "%s: overflow at '%s'", text_, overflow);
      return std::nullopt;
    }
    rest.remove_prefix(plain.size());
    if (rest.empty()) break;
    const std::size_t end = rest.find_first_of("{}", 1);
    if (end == std::string_view::npos) {
      ka_nerror(number(22), "%s: closing '}' is missing", text_);
      return std::nullopt;
    }
    if (rest[end] == '{') {
      ka_nerror(number(21), "%s: nested '{' not allowed", text_);
      return std::nullopt;
    }
    const std::string_view reference = rest.substr(0, end + 1);
    if (!(reference[1] == '$' ? add_variable(reference) : add_entry(reference))) {
      return std::nullopt;
    }
    rest.remove_prefix(reference.size());
  }
  ka_debug("registry lookup: \"%s\" -> \"%s\"", text_, result_.c_str());
  return std::move(result_);
}

bool Expansion::add(std::string_view piece) {
  if (piece.size() > kMaxResult - result_.size()) return false;
  result_ += piece;
  return true;
}

bool Expansion::add_variable(std::string_view reference) {
  const ka::string name(reference.substr(1, reference.size() - 2));  // with its dollar sign
  const char* const value = std::getenv(name.c_str() + 1);
  if (!value) {
    ka_nerror(number(23), "%s: %s is undefined", text_, name.c_str());
    return false;
  }
  if (add(value)) return true;
  ka_nerror(number(24), "%s: overflow at %s", text_, name.c_str());
  return false;
}

bool Expansion::add_entry(std::string_view reference) {
  const ka::string name(reference);
  const std::optional<RegistryEntry> entry = registry_find(name.c_str());
  if (!entry) {
    if (name[1] == '_') {
      ka_debug("%s: registry entry %s not found", text_, name.c_str());
    } else {
      ka_nerror(number(25), "%s: registry entry %s not found", text_, name.c_str());
    }
    return false;
  }
  if (side_effects_) {
    for (const RegistryItem& item : entry->items) perform(name.c_str(), item);
  }
  const RegistryItem* const item = entry->value_item();
  if (!item || !item->value) {
    if (!side_effects_) ka_nerror(27, "%s: registry entry %s has no value", text_, name.c_str());
    return side_effects_;
  }
  if (add(value_of(name.c_str(), item->value.get()))) return true;
  ka_nerror(number(26), "%s: overflow at %s", text_, name.c_str());
  return false;
}

bool Expansion::may_go_deeper(const Depth& depth, const char* name) {
  bool& is_stopped = outermost_->is_stopped_;
  if (outermost_ == this) is_stopped = false;
  if (!is_stopped && !depth.is_allowed()) {
    is_stopped = true;
    ka_nerror(28, "infinite registry lookup loop near %s in %s, stop", name, text_);
  }
  return !is_stopped;
}

ka::string Expansion::value_of(const char* name, const char* value) {
  const Depth depth;
  if (!may_go_deeper(depth, name)) return value;
  return Expansion(value, side_effects_, this).run().value_or(value);
}

// What would go to the link layer or to the scene reader is told, and nothing more: they are not
// part of this library.
void Expansion::perform(const char* name, const RegistryItem& item) {
  if (!item.key || !item.value) return;
  const Depth depth;
  if (!may_go_deeper(depth, name)) return;
  const std::string_view key = item.key.get();
  if (key == "link" || key == "code") {
    ka_debug("registry %s links %s", name, item.value.get());
    return;
  }
  const bool is_scene = key == "ka" || key == "spdl";
  if (!is_scene && key != "echo" && key != "system") return;
  const auto value = Expansion(item.value.get(), false, this).run();
  if (!value) return;
  if (is_scene) {
    ka_debug("registry %s reads %s", name, value->c_str());
  } else if (key == "echo") {
    ka_info("%s", value->c_str());
  } else {
    run_command(name, value->c_str());
  }
}

void Expansion::run_command(const char* name, const char* command) {
  ka_debug("registry %s execs %s", name, command);
  if (std::system(command) != 0) ka_nwarning(7, "system \"%s\" failed", command);
}

}  // namespace

char* ka_lib_registry_lookup(const char* text, int side_effects) {
  const ka::ModuleScope scope(KA_LIB);
  if (!text || !registry_is_started()) return ka_mem_strdup(text);
  const auto result = Expansion(text, side_effects != 0).run();
  return result ? ka_mem_strdup(result->c_str()) : nullptr;
}
