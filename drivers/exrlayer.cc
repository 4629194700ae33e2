#include "exrlayer.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "drivers.h"

namespace drivers {

namespace {

struct Part {
  int index;
  std::string_view name;  // may be empty
  bool is_deep;
  std::span<const exr_attr_chlist_entry_t> channels;
};
using Parts = std::span<const Part>;
using Found = std::optional<ExrChoice>;

std::string_view text_of(const exr_attr_string_t& text) {
  return {text.str, std::size_t(text.length)};
}

// "layer.sublayer.R" is channel R of "layer.sublayer".
struct ChannelName {
  std::string_view layer, base;

  explicit ChannelName(const exr_attr_chlist_entry_t& channel) : base(text_of(channel.name)) {
    const std::size_t dot = base.rfind('.');
    if (dot == std::string_view::npos) return;
    layer = base.substr(0, dot);
    base.remove_prefix(dot + 1);
  }
};

ExrChoice one_channel(const Part& part, int channel, bool is_depth) {
  if (is_depth) return {part.index, IMG_TYPE_Z, {channel, -1, -1, -1}};
  return {part.index, IMG_TYPE_RGB_FP, {channel, channel, channel, -1}};
}

// The colors of a layer, else its luminance, else its depth.
Found find_layer(const Part& part, std::string_view layer) {
  constexpr std::string_view colors = "RGBA";
  std::array<int, IMG_SLOTS> found{-1, -1, -1, -1};
  int luminance = -1, depth = -1;
  for (std::size_t i = 0; i < part.channels.size(); ++i) {
    const ChannelName name(part.channels[i]);
    if (name.layer != layer || name.base.size() != 1) continue;
    const std::size_t slot = colors.find(name.base);
    if (slot != std::string_view::npos) found[slot] = int(i);
    if (name.base == "Y") luminance = int(i);
    if (name.base == "Z") depth = int(i);
  }
  const int alpha = found[3];
  const int type = alpha < 0 ? IMG_TYPE_RGB_FP : IMG_TYPE_RGBA_FP;
  const bool has_colors = std::any_of(found.begin(), found.end() - 1, [](int i) { return i >= 0; });
  if (has_colors) return ExrChoice{part.index, type, found};
  if (luminance >= 0) return ExrChoice{part.index, type, {luminance, luminance, luminance, alpha}};
  if (depth >= 0) return one_channel(part, depth, true);
  return std::nullopt;
}

Found find_channel(const Part& part, std::string_view name) {
  for (std::size_t i = 0; i < part.channels.size(); ++i) {
    if (text_of(part.channels[i].name) != name) continue;
    return one_channel(part, int(i), ChannelName(part.channels[i]).base == "Z");
  }
  return std::nullopt;
}

// The first layer with one of these channels.
Found find_any_layer(const Part& part, std::string_view bases) {
  for (const auto& channel : part.channels) {
    const ChannelName name(channel);
    if (name.base.size() == 1 && bases.find(name.base) != std::string_view::npos) {
      return find_layer(part, name.layer);
    }
  }
  return std::nullopt;
}

// The first part for which `find` finds something. Deep ones are not asked.
template <typename Find>
Found find_in(Parts parts, Find find) {
  for (const Part& part : parts) {
    if (part.is_deep) continue;
    if (const Found found = find(part)) return found;
  }
  return std::nullopt;
}

Found find_default(Parts parts) {
  for (const std::string_view bases : {"RGBY", "Z"}) {
    const bool is_depth = bases == "Z";
    const auto plain = [is_depth](const Part& part) {
      const Found found = find_layer(part, "");
      return found && (found->type == IMG_TYPE_Z) == is_depth ? found : std::nullopt;
    };
    if (const Found found = find_in(parts, plain)) return found;
    const auto any = [bases](const Part& part) { return find_any_layer(part, bases); };
    if (const Found found = find_in(parts, any)) return found;
  }
  return std::nullopt;
}

Found find_named(Parts parts, std::string_view name) {
  const auto layer = [name](const Part& part) { return find_layer(part, name); };
  if (const Found found = find_in(parts, layer)) return found;
  return find_in(parts, [name](const Part& part) { return find_channel(part, name); });
}

// The part of that name, else of that number; an empty span when there is none.
Parts find_part(Parts parts, std::string_view name) {
  for (const Part& part : parts) {
    if (part.name == name) return {&part, 1};
  }
  std::size_t number = 0;
  const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool is_number = failure == std::errc{} && end == name.data() + name.size();
  return is_number && number < parts.size() ? parts.subspan(number, 1) : Parts{};
}

Found find_text(Parts parts, std::string_view text) {
  if (text.empty()) return find_default(parts);
  if (const Found found = find_named(parts, text)) return found;
  if (const Found found = find_default(find_part(parts, text))) return found;
  for (std::size_t dot = text.find('.'); dot != std::string_view::npos;
       dot = text.find('.', dot + 1)) {
    const Parts part = find_part(parts, text.substr(0, dot));
    if (const Found found = find_named(part, text.substr(dot + 1))) return found;
  }
  return std::nullopt;
}

std::vector<Part> parts_of(const ExrCore& core, exr_const_context_t context) {
  int count = 0;
  core.get_count(context, &count);
  std::vector<Part> parts;
  for (int i = 0; i < count; ++i) {
    const char* name = nullptr;
    const exr_attr_chlist_t* channels = nullptr;
    exr_storage_t storage = EXR_STORAGE_LAST_TYPE;
    core.get_name(context, i, &name);
    core.get_storage(context, i, &storage);
    core.get_channels(context, i, &channels);
    Part part{
        i, name ? name : "", storage != EXR_STORAGE_SCANLINE && storage != EXR_STORAGE_TILED, {}};
    if (channels) part.channels = {channels->entries, std::size_t(channels->num_channels)};
    parts.push_back(part);
  }
  return parts;
}

// Things that are not read, by name: the first few of them.
class Rest {
 public:
  void add(std::string_view kind, std::string_view name) {
    constexpr std::size_t most = 150;  // characters
    if (text_.size() > most) {
      is_cut_ = true;
      return;
    }
    if (!text_.empty()) text_ += ", ";
    text_ += kind;
    for (const char c : name.substr(0, most)) text_ += c >= ' ' && c <= '~' ? c : '?';
  }
  [[nodiscard]] bool empty() const { return text_.empty(); }
  [[nodiscard]] std::string text() const { return is_cut_ ? text_ + " and more" : text_; }

 private:
  std::string text_;
  bool is_cut_ = false;
};

void note_rest(const img_file* handle, Parts parts, const ExrChoice& choice) {
  Rest rest;
  const auto& channels = parts[std::size_t(choice.part)].channels;
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const bool is_read = std::ranges::find(choice.channels, int(i)) != choice.channels.end();
    if (!is_read) rest.add("channel ", text_of(channels[i].name));
  }
  for (const Part& part : parts) {
    if (part.index == choice.part) continue;
    const std::string name =
        part.name.empty() ? std::to_string(part.index) : std::string(part.name);
    rest.add(part.is_deep ? "deep part " : "part ", name);
  }
  if (!rest.empty()) note(handle, "not read: %s", rest.text().c_str());
}

int refuse_layer(img_file* handle, Parts parts) {
  const bool is_deep = std::ranges::all_of(parts, &Part::is_deep);
  const Parts named = find_part(parts, handle->layer);
  if (is_deep || (!named.empty() && named[0].is_deep)) {
    return refuse(handle, IMG_ERR_SUBTYPE, "deep data is not read");
  }
  if (handle->layer[0] != '\0') {
    return refuse(handle, IMG_ERR_SUBTYPE, "no layer, channel or part is named \"%s\"",
                  handle->layer);
  }
  return refuse(handle, IMG_ERR_SUBTYPE, "no channel is named R, G, B, Y or Z");
}

// Whether a text opens that channel and no more.
bool opens(Parts parts, const std::string& text, const Part& part, std::size_t channel) {
  constexpr std::size_t most = IMG_LAYER_SIZE - 1;
  if (text.empty() || text.size() > most) return false;
  const Found found = find_text(parts, text);
  return found && found->part == part.index && found->channels[0] == int(channel) &&
         found->channels == one_channel(part, int(channel), found->type == IMG_TYPE_Z).channels;
}

std::string channel_name(Parts parts, const Part& part, std::size_t channel) {
  const std::string own(text_of(part.channels[channel].name));
  for (const std::string& text :
       {own, std::string(part.name) + "." + own, std::to_string(part.index) + "." + own}) {
    if (opens(parts, text, part, channel)) return text;
  }
  return own;
}

}  // namespace

int exr_choose(img_file* handle, const ExrCore& core, exr_const_context_t context,
               ExrChoice& choice) {
  const std::vector<Part> parts = parts_of(core, context);
  const Found found = find_text(parts, handle->layer);
  if (!found) return refuse_layer(handle, parts);
  choice = *found;
  for (const int channel : choice.channels) {
    if (channel < 0) continue;
    const auto& entry = parts[std::size_t(choice.part)].channels[std::size_t(channel)];
    if (entry.x_sampling == 1 && entry.y_sampling == 1) continue;
    return refuse(handle, IMG_ERR_SUBTYPE,
                  "channel %s has fewer samples than the picture has pixels", entry.name.str);
  }
  note_rest(handle, parts, choice);
  return 1;
}

std::vector<std::vector<std::string>> exr_channel_names(const ExrCore& core,
                                                        exr_const_context_t context) {
  constexpr std::size_t most_tried = 2048;  // channels: each name is looked up among all of them
  const std::vector<Part> parts = parts_of(core, context);
  std::size_t count = 0;
  for (const Part& part : parts) count += part.channels.size();
  std::vector<std::vector<std::string>> names(parts.size());
  for (const Part& part : parts) {
    const std::string number = parts.size() > 1 ? std::to_string(part.index) + "." : "";
    for (std::size_t i = 0; i < part.channels.size(); ++i) {
      names[std::size_t(part.index)].push_back(
          count <= most_tried ? channel_name(parts, part, i)
                              : number + std::string(text_of(part.channels[i].name)));
    }
  }
  return names;
}

}  // namespace drivers
