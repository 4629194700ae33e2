// Path substitution: the rules of the environment, and their application to a name.
#include <ka/subst.h>

#include <errno.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <span>
#include <utility>

#include <ka/detail/mutex.h>
#include <ka/detail/paths.h>
#include <ka/detail/scope.h>
#include <ka/detail/textlines.h>
#include <ka/message.h>
#include <ka/registry.h>
#include <ka/trans.h>

#include "registryentry.h"
#include "substrules.h"

namespace {

using ka::PathText;
using ka::SubstRule;
using ka::SubstRules;

constexpr char kEscape = '\033';
constexpr std::size_t kMaxPiece = 2047;  // characters of a search text, and of a replacement
constexpr char kDefaultRules[] = "/.dll$/.so/ /.obj$/.o/ /.lib$/.a/ /^[a-z]:// /^[A-Z]:// %\\%/%";

// Of the process, made at the first substitution. The lock is taken again by a message handler that
// opens a file while the rules are being read; it finds no rules.
std::atomic<SubstRules*> rule_list{nullptr};
constinit ka::RecursiveMutex build_lock;
bool is_building KA_GUARDED_BY(build_lock) = false;

// --- Environment variables -----------------------------------------------------------------------

bool is_name_character(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

std::size_t name_length(std::string_view text) {
  return std::size_t(std::ranges::find_if_not(text, is_name_character) - text.begin());
}

// Takes a reference, which begins with its dollar sign, off `from`. False after an error message.
bool add_variable(std::string_view& from, PathText& to) {
  const bool has_braces = from[1] == '{';
  from.remove_prefix(has_braces ? 2 : 1);
  const std::size_t length = has_braces ? from.find('}') : name_length(from);
  const ka::string name(from.substr(0, length));
  if (length == std::string_view::npos) {
    ka_nerror(39, "path substitution: unterminated $var name \"%s\"", name.c_str());
    return false;
  }
  const char* const value = std::getenv(name.c_str());
  if (!value) {
    ka_nerror(40, "path substitution: undefined $var \"%s\"", name.c_str());
    return false;
  }
  to.add(value);
  from.remove_prefix(has_braces ? length + 1 : length);
  return true;
}

// Appends `from` to `to`, up to a faulty reference. False when there is one.
bool expand_environment(std::string_view from, PathText& to) {
  while (!from.empty()) {
    const char c = from.front(), next = from.size() > 1 ? from[1] : '\0';
    if (c == kEscape && from.size() > 1) {
      to.add(next);
      from.remove_prefix(2);
    } else if (c == '$' && (next == '{' || is_name_character(next))) {
      if (!add_variable(from, to)) return false;
    } else {
      to.add(c);
      from.remove_prefix(1);
    }
  }
  return true;
}

// --- The rule list -------------------------------------------------------------------------------

// Takes what comes before the next delimiter, and the delimiter, off `from`. Escapes stay: they
// count again when variables are expanded. Empty without a delimiter.
std::optional<std::string_view> take_piece(std::string_view& from, char delimiter) {
  for (std::size_t i = 0; i < from.size(); ++i) {
    if (from[i] == delimiter) {
      const std::string_view piece = from.substr(0, std::min(i, kMaxPiece));
      from.remove_prefix(i + 1);
      return piece;
    }
    if (from[i] == kEscape) ++i;
  }
  return std::nullopt;
}

void parse_rules(std::string_view text, SubstRules& rules) {
  for (;;) {
    ka::skip_blanks(text, ka::kBlanks);
    if (text.empty()) return;
    const char delimiter = text.front();
    text.remove_prefix(1);
    if (text.empty() || text.front() == delimiter) {
      return ka_nerror(41, "path substitution: null search string");
    }
    const auto search = take_piece(text, delimiter);
    if (!search) return ka_nerror(42, "path substitution: unterminated search string");
    const auto replacement = take_piece(text, delimiter);
    if (!replacement) return ka_nerror(43, "path substitution: unterminated replace string");
    PathText expanded_search, expanded_replacement;
    (void)expand_environment(*search, expanded_search);
    (void)expand_environment(*replacement, expanded_replacement);
    ka::subst_add_rule(rules, expanded_search.view(), expanded_replacement.view());
  }
}

void build_rules(SubstRules& rules) {
  constexpr std::size_t usual_count = 8;  // the default rules fit without a second allocation
  rules.reserve(usual_count);
  ka::subst_read_linktab(rules);
  const char* const value = std::getenv("KA_LUM_SUBSTITUTE");
  const char* const text = value ? value : kDefaultRules;
  ka_debug("parsing $KA_LUM_SUBSTITUTE = \"%s\"", text);
  parse_rules(text, rules);
  ka_debug("finished parsing $KA_LUM_SUBSTITUTE");
}

std::span<const SubstRule> all_rules() {
  if (const SubstRules* const rules = rule_list.load(std::memory_order_acquire)) return *rules;
  const ka::MutexScope locked(build_lock);
  if (is_building) return {};
  if (!rule_list) {
    is_building = true;
    auto rules = ka::make_owned<SubstRules>();
    build_rules(*rules);
    rule_list.store(rules.release(), std::memory_order_release);
    is_building = false;
  }
  return *rule_list;
}

// --- Application ---------------------------------------------------------------------------------

// Whether c lies in the range that the pattern begins with. False after an error message.
bool matches_range(std::string_view pattern, char c) {
  if (pattern.size() < 5 || pattern[2] != '-' || pattern[4] != ']') {
    ka_nerror(44, "path substitution: incorrect [x-y] match syntax");
    return false;
  }
  const auto code = [](char character) { return static_cast<signed char>(character); };
  return code(pattern[1]) <= code(c) && code(c) <= code(pattern[3]);
}

// The number of characters at the start of `text` that the pattern matches; empty: no match.
std::optional<std::size_t> match(std::string_view pattern, std::string_view text) {
  std::size_t length = 0;
  for (; !pattern.empty(); ++length) {
    const char expected = pattern.front();
    if (length == text.size()) return expected == '$' ? std::optional(length) : std::nullopt;
    const char c = text[length];
    if (expected == '[') {
      if (!matches_range(pattern, c)) return std::nullopt;
    } else if (expected != '?' && expected != c) {
      return std::nullopt;
    }
    pattern.remove_prefix(expected == '[' ? 5 : 1);
  }
  return length;
}

struct Match {
  std::size_t at, length;
};

std::optional<Match> find_first(std::string_view pattern, std::string_view text) {
  const bool is_literal = pattern.front() != '?' && pattern.front() != '[';
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (is_literal) at = text.find(pattern.front(), at);
    if (at == std::string_view::npos) break;
    if (const auto length = match(pattern, text.substr(at))) return Match{at, *length};
  }
  return std::nullopt;
}

void replace_start(const SubstRule& rule, std::string_view from, PathText& to) {
  const auto length = match(std::string_view(rule.search).substr(1), from);
  if (length) to.add(rule.replacement);
  to.add(from.substr(length.value_or(0)));
}

void replace_all(const SubstRule& rule, std::string_view from, PathText& to) {
  while (const auto found = find_first(rule.search, from)) {
    to.add(from.substr(0, found->at));
    to.add(rule.replacement);
    from.remove_prefix(found->at + found->length);
  }
  to.add(from);
}

// Returns whether `to` is another text than `from`. A search text that an unset variable has
// emptied is found nowhere.
bool apply(const SubstRule& rule, const PathText& from, PathText& to) {
  if (rule.search.empty()) return false;
  to.clear();
  const bool is_anchored = rule.search.front() == '^' || rule.search.front() == '`';
  (is_anchored ? replace_start : replace_all)(rule, from.view(), to);
  return to.view() != from.view();
}

// False, after an error message, when a part of the path is lost.
bool store(char* buffer, std::size_t size, std::string_view path, bool is_cut, const char* name) {
  const bool is_whole = !is_cut && path.size() < size;
  if (!is_whole) ka_nerror(38, "path substitution: path too long: %s", name);
  if (size == 0) return is_whole;
  const std::size_t kept = std::min(path.size(), size - 1);
  std::memcpy(buffer, path.data(), kept);
  buffer[kept] = '\0';
  return is_whole;
}

// Returns the error number of a name that leads nowhere, 0 for any other.
int substitute(char* buffer, const char* name, std::size_t size) {
  const std::span<const SubstRule> rules = all_rules();
  ka_debug("substitute: apply to %s", name);
  PathText first, second;
  PathText *text = &first, *next = &second;
  int fault = expand_environment(name, *text) ? 0 : ENOENT;
  bool is_changed = false;
  for (const SubstRule& rule : rules) {
    if (!apply(rule, *text, *next)) continue;
    ka_debug("substitute: %s -> %s", text->c_str(), next->c_str());
    std::swap(text, next);
    is_changed = true;
  }
  if (is_changed && (ka_get_subverbosity(ka_module_current()) & KA_SUBVERB_FILES)) {
    ka_info("substitute: %s -> %s", name, text->c_str());
  }
  const bool is_cut = first.is_cut() || second.is_cut();
  if (!store(buffer, size, text->view(), is_cut, name) && fault == 0) fault = ENAMETOOLONG;
  return fault;
}

}  // namespace

void ka::subst_add_rule(SubstRules& rules, std::string_view search, std::string_view replacement) {
  rules.push_back({string(search), string(replacement)});
  ka_debug("substitute: add rule: %s -> %s", rules.back().search.c_str(),
           rules.back().replacement.c_str());
}

int ka::substitute_path(char* buffer, const char* name, std::size_t size) {
  const ModuleScope scope(KA_LIB);
  const int fault = substitute(buffer, name, size);
  if (size == 0 || !registry_is_started()) return fault;
  const Owned<char> value(ka_lib_registry_lookup(buffer, 0));
  const bool is_whole = !value || store(buffer, size, value.get(), false, name);
  return fault == 0 && !is_whole ? ENAMETOOLONG : fault;
}

char* ka_string_substitute(char* buffer, const char* name, std::size_t size) {
  if (!name) return nullptr;
  (void)ka::substitute_path(buffer, name, size);
  return buffer;
}

void ka_lib_subst_exit() {
  const ka::ModuleScope scope(KA_LIB);
  ka::Owned<SubstRules>(rule_list.exchange(nullptr)).reset();
}
