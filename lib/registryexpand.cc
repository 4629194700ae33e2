// Registry: expansion of texts, and what the items of entries do.
#include <ka/registry.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include <ka/detail/scope.h>
#include <ka/message.h>

#include "libcontext.h"
#include "registryentry.h"

namespace {

constexpr std::size_t kMaxResult = 10238;  // characters
constexpr int kSideEffectNumbers = 800;    // added to message numbers with side effects
constexpr int kMaxDepth = 128;     // nested values and actions before they are searched for a loop
constexpr int kMaxChain = 1024;    // nested values and actions of any kind: they take stack
constexpr int kMaxSteps = 10'000;  // values and actions of one reference, side by side and nested

// What a thread follows: the value of an entry, with side effects also its actions.
struct Target {
  ka::string name;
  bool side_effects;
};
using Targets = ka::vector<Target>;

// One step deeper into the entries of this thread.
class Step {
 public:
  Step(const char* name, bool side_effects)
      : name_(name),
        side_effects_(side_effects),
        outer_(innermost),
        depth_(++ka::lib_context().expansions) {
    innermost = this;
  }
  ~Step() {
    innermost = outer_;
    --ka::lib_context().expansions;
  }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

  [[nodiscard]] const char* name() const { return name_; }
  [[nodiscard]] int depth() const { return depth_; }

  [[nodiscard]] bool is_among(const Targets& targets) const {
    return std::ranges::any_of(targets, [this](const Target& target) {
      return target.name == name_ && target.side_effects == side_effects_;
    });
  }

  // The next step outwards with the same target, null: none.
  [[nodiscard]] const Step* earlier() const {
    const Step* step = outer_;
    while (step && !step->has_target_of(*this)) step = step->outer_;
    return step;
  }

  // Appends the targets from this step outwards, up to another one.
  void append_up_to(const Step* end, Targets& targets) const {
    for (const Step* step = this; step != end; step = step->outer_) {
      targets.push_back({step->name_, step->side_effects_});
    }
  }

 private:
  [[nodiscard]] bool has_target_of(const Step& other) const {
    return side_effects_ == other.side_effects_ && std::strcmp(name_, other.name_) == 0;
  }

  static constinit thread_local const Step* innermost;

  const char* name_;  // of the entry
  bool side_effects_;
  const Step* outer_;
  int depth_;
};

constinit thread_local const Step* Step::innermost = nullptr;

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
  [[nodiscard]] bool may_follow(const Step& step);
  [[nodiscard]] bool may_go_deeper(const Step& step);
  [[nodiscard]] ka::string value_of(const char* name, const char* value);
  void perform(const char* name, const ka::RegistryItem& item);
  void act(const char* name, const ka::RegistryItem& item);
  void run_command(const char* name, const char* command);

  const char* text_;
  bool side_effects_;
  Expansion* outermost_;
  // Of the outermost, for the value or the action that it follows: the values that have turned out
  // to lead back to themselves. They are not followed again, because one that refers to itself
  // twice would double the work with every level.
  Targets loops_;
  int steps_ = 0;
  bool is_stopped_ = false;  // what is being followed has grown too large
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
  const std::optional<ka::RegistryEntry> entry = ka::registry_find(name.c_str());
  if (!entry) {
    if (name[1] == '_') {
      ka_debug("%s: registry entry %s not found", text_, name.c_str());
    } else {
      ka_nerror(number(25), "%s: registry entry %s not found", text_, name.c_str());
    }
    return false;
  }
  if (side_effects_) {
    for (const ka::RegistryItem& item : entry->items) perform(name.c_str(), item);
  }
  const ka::RegistryItem* const item = entry->value_item();
  if (!item || !item->value) {
    if (!side_effects_) ka_nerror(27, "%s: registry entry %s has no value", text_, name.c_str());
    return side_effects_;
  }
  if (add(value_of(name.c_str(), item->value.get()))) return true;
  ka_nerror(number(26), "%s: overflow at %s", text_, name.c_str());
  return false;
}

// A chain that is longer than a loop is followed has to be one of different entries.
bool Expansion::may_go_deeper(const Step& step) {
  Expansion& top = *outermost_;
  if (++top.steps_ > kMaxSteps || step.depth() > kMaxChain) {
    top.is_stopped_ = true;
  } else {
    if (step.depth() <= kMaxDepth) return true;
    if (step.is_among(top.loops_)) return false;
    const Step* const earlier = step.earlier();
    if (!earlier) return true;
    step.append_up_to(earlier, top.loops_);
  }
  ka_nerror(28, "infinite registry lookup loop near %s in %s, stop", step.name(), text_);
  return false;
}

bool Expansion::may_follow(const Step& step) {
  Expansion& top = *outermost_;
  if (&top == this) {
    top.loops_.clear();
    top.steps_ = 0;
    top.is_stopped_ = false;
  }
  return !top.is_stopped_ && may_go_deeper(step);
}

ka::string Expansion::value_of(const char* name, const char* value) {
  const Step step(name, side_effects_);
  if (!may_follow(step) || step.is_among(outermost_->loops_)) return value;
  return Expansion(value, side_effects_, this).run().value_or(value);
}

void Expansion::perform(const char* name, const ka::RegistryItem& item) {
  if (!item.key || !item.value) return;
  const Step step(name, true);
  if (!may_follow(step)) return;
  const bool was_stopped = outermost_->is_stopped_;
  act(name, item);
  outermost_->is_stopped_ = was_stopped;  // an action that has grown too large ends alone
}

// What would go to the link layer or to the scene reader is reported, and nothing more: they are not
// part of this library.
void Expansion::act(const char* name, const ka::RegistryItem& item) {
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
  if (!text || !ka::registry_is_started()) return ka_mem_strdup(text);
  const auto result = Expansion(text, side_effects != 0).run();
  return result ? ka_mem_strdup(result->c_str()) : nullptr;
}
