// What the header of an OpenEXR file says: parts, their attributes, the channels by the names that open
// them.
#include "exrentries.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <ka/imgheader.h>

#include "drivers.h"
#include "exrstate.h"

namespace drivers {

namespace {

std::string_view text_of(const exr_attr_string_t& text) {
  return {text.str, std::size_t(text.length)};
}

// The library keeps any number that the file has, also such that the enumeration lacks.
std::uint32_t pixel_type(const exr_attr_chlist_entry_t& channel) {
  std::uint32_t type;
  static_assert(sizeof type == sizeof channel.pixel_type);
  std::memcpy(&type, &channel.pixel_type, sizeof type);
  return type;
}

void put_channels(ka::HeaderEntries& out, const exr_attr_chlist_t& list,
                  const std::vector<std::string>& names) {
  const std::size_t count = std::min(names.size(), std::size_t(list.num_channels));
  for (std::size_t i = 0; i < count; ++i) {
    const auto& channel = list.entries[i];
    out.text("channel", names[i]);
    out.choice("channel_type", pixel_type(channel), {"uint", "half", "float"});
    if (channel.x_sampling != 1 || channel.y_sampling != 1) {
      out.numbers("channel_sampling", channel.x_sampling, channel.y_sampling);
    }
  }
}

// Attributes that have one value, or two with a meaning of their own.
void put_value(ka::HeaderEntries& out, const exr_attribute_t& attribute) {
  const char* const name = attribute.name;
  switch (attribute.type) {
    case EXR_ATTR_STRING:
      out.text(name, text_of(*attribute.string));
      break;
    case EXR_ATTR_INT:
      out.numbers(name, attribute.i);
      break;
    case EXR_ATTR_FLOAT:
      out.numbers(name, attribute.f);
      break;
    case EXR_ATTR_DOUBLE:
      out.numbers(name, attribute.d);
      break;
    case EXR_ATTR_RATIONAL:
      out.numbers(name, attribute.rational->num, attribute.rational->denom);
      break;
    case EXR_ATTR_COMPRESSION:
      out.choice(name, attribute.uc, {"none", "RLE", "ZIPS", "ZIP", "PIZ", "PXR24", "B44", "B44A"});
      break;
    case EXR_ATTR_LINEORDER:
      out.choice(name, attribute.uc, {"increasing", "decreasing", "random"});
      break;
    case EXR_ATTR_ENVMAP:
      out.choice(name, attribute.uc, {"latitude and longitude", "cube"});
      break;
    default:
      break;
  }
}

// Attributes of several numbers or texts.
void put_values(ka::HeaderEntries& out, const exr_attribute_t& attribute) {
  const char* const name = attribute.name;
  switch (attribute.type) {
    case EXR_ATTR_BOX2I: {
      const auto& [least, most] = *attribute.box2i;
      out.numbers(name, least.x, least.y, most.x, most.y);
      break;
    }
    case EXR_ATTR_V2I:
      out.numbers(name, attribute.v2i->x, attribute.v2i->y);
      break;
    case EXR_ATTR_V2F:
      out.numbers(name, attribute.v2f->x, attribute.v2f->y);
      break;
    case EXR_ATTR_V3F:
      out.numbers(name, attribute.v3f->x, attribute.v3f->y, attribute.v3f->z);
      break;
    case EXR_ATTR_TILEDESC:
      out.numbers(name, attribute.tiledesc->x_size, attribute.tiledesc->y_size);
      break;
    case EXR_ATTR_CHROMATICITIES: {
      const auto& of = *attribute.chromaticities;
      out.numbers(name, of.red_x, of.red_y, of.green_x, of.green_y, of.blue_x, of.blue_y,
                  of.white_x, of.white_y);
      break;
    }
    case EXR_ATTR_STRING_VECTOR:
      for (std::int32_t i = 0; i < attribute.stringvector->n_strings; ++i) {
        out.text(name, text_of(attribute.stringvector->strings[i]));
      }
      break;
    default:
      break;
  }
}

}  // namespace

// The library has the header in memory since the file was opened.
void exr_header(img_file* handle, img_header* header) {
  const ExrState& state = state_of<ExrState>(handle);
  const ExrCore& core = *state.core;
  const auto names = exr_channel_names(core, state.context);
  ka::HeaderEntries out(header);
  for (int part = 0; part < int(names.size()); ++part) {
    const char* name = nullptr;
    std::int32_t attributes = 0;
    core.get_name(state.context, part, &name);
    core.get_attribute_count(state.context, part, &attributes);
    const bool has_name = name && name[0] != '\0';
    if (names.size() > 1 && !out.text("part", has_name ? name : std::to_string(part))) return;
    for (std::int32_t i = 0; i < attributes; ++i) {
      const exr_attribute_t* attribute = nullptr;
      core.get_attribute_by_index(state.context, part, EXR_ATTR_LIST_FILE_ORDER, i, &attribute);
      if (!attribute) continue;
      if (attribute->type == EXR_ATTR_CHLIST) {
        if (std::strcmp(attribute->name, "channels") != 0) continue;  // another program's list
        put_channels(out, *attribute->chlist, names[std::size_t(part)]);
      } else {
        put_value(out, *attribute);
        put_values(out, *attribute);
      }
    }
  }
}

}  // namespace drivers
