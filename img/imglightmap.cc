// Lightmaps: images that threads compute together and the last of them writes to a file.
#include <cstring>

#include <ka/detail/owned.h>
#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/rbtree.h>

#include "imageelements.h"
#include "imgcall.h"
#include "imgpath.h"

// One that is being edited.
struct ka_lightmap {
  img_file file;  // not open: the image names none
  img_image* image;
  std::uint32_t tag;
  int users;
};

namespace {

// Numbers of messages.
constexpr int kNotWritable = 21, kNotCreated = 22, kNotWritten = 23, kNotClosed = 24;

ka_mutex lightmap_lock;  // also held while a file is created or written
// By the tag of their image.
ka_rbtree* active_lightmaps KA_GUARDED_BY(lightmap_lock) = nullptr;

ka_lightmap* find_active(std::uint32_t tag) KA_REQUIRES(lightmap_lock) {
  std::uintptr_t found = 0;
  ka_rbtree_search(active_lightmaps, tag, &found);
  return reinterpret_cast<ka_lightmap*>(found);
}

bool is_writable(std::uint32_t tag, const img_image* image) {
  return ka_db_type(tag) == KA_DB_IMAGE && ka_img_image_is_writable(image);
}

int format_for(const ka::ImagePath& path) {
  const char* const dot = std::strrchr(path.path, '.');
  const int format = dot ? ka_img_format_identify(dot + 1) : -1;
  return format >= 0 ? format : IMG_FORMAT_MAP;
}

bool create_file(ka_lightmap& lightmap, const char* name) {
  const img_image& image = *lightmap.image;
  lightmap.file.file_type = std::uint8_t(ka::img_color_type(image.bits));
  lightmap.file.pyramid = image.levels > 1;
  const ka::ImagePath path(name);
  if (ka::img_create(&lightmap.file, path, image.type, format_for(path), image.width,
                     image.height)) {
    return true;
  }
  ka_img_err_msg(&lightmap.file);
  ka_nerror(kNotCreated, "cannot create file %s", name);
  ka_img_close(&lightmap.file);
  return false;
}

// The first editor of an image whose element it has pinned. Null after an error message.
ka_lightmap* begin(img_image* image, std::uint32_t tag) KA_REQUIRES(lightmap_lock) {
  if (!is_writable(tag, image)) {
    ka_nerror(kNotWritable, "attempting to edit a non-writable image");
    return nullptr;
  }
  auto lightmap = ka::make_owned<ka_lightmap>();
  *lightmap = {.file = {}, .image = image, .tag = tag, .users = 1};
  const char* const name = ka::img_string(ka_img_image_name(image));
  if (name && !create_file(*lightmap, name)) return nullptr;
  ka_rbtree_insert(active_lightmaps, tag, reinterpret_cast<std::uintptr_t>(lightmap.get()));
  return lightmap.release();
}

int write_file(ka_lightmap& lightmap) {
  img_file& file = lightmap.file;
  if (!ka::img_is_open(&file)) return 1;
  const ka::string name = file.name;
  ka_progress("writing lightmap file %s", name.c_str());
  int result = 1;
  if (!ka_img_image_write(&file, lightmap.image)) {
    ka_img_err_msg(&file);
    ka_nerror(kNotWritten, "cannot write to file %s", name.c_str());
    result = 0;
  }
  if (!ka_img_close(&file)) {
    ka_img_err_msg(&file);
    ka_nerror(kNotClosed, "cannot close file %s", name.c_str());
    result = 0;
  }
  return result;
}

}  // namespace

void ka::img_lightmap_init() {
  ka_init_lock(&lightmap_lock);
  active_lightmaps = ka_rbtree_create(nullptr, KA_RB_UNIQUE);
}

void ka::img_lightmap_exit() {
  ka_rbtree_delete(active_lightmaps, 0);
  active_lightmaps = nullptr;
  ka_delete_lock(&lightmap_lock);
}

img_image* ka_lightmap_edit(ka_lightmap** entry, std::uint32_t tag) {
  const ka::ModuleScope scope(KA_IMG);
  *entry = nullptr;
  auto* const image = static_cast<img_image*>(ka_job_access(tag));
  if (!image) return nullptr;
  const ka::LockScope locked(lightmap_lock);
  ka_lightmap* const active = find_active(tag);
  if (active) ++active->users;
  *entry = active ? active : begin(image, tag);
  if (active || !*entry) ka_db_unpin(tag);  // the first editor's pin holds the image for all
  return *entry ? image : nullptr;
}

int ka_lightmap_edit_end(ka_lightmap* entry) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::LockScope locked(lightmap_lock);
  if (--entry->users > 0) return 1;
  const ka::Owned<ka_lightmap> lightmap(entry);
  ka_rbtree_remove(active_lightmaps, lightmap->tag);
  if (lightmap->image->levels > 1) ka_img_pyramid_filter_levels(lightmap->image);
  const int result = write_file(*lightmap);
  ka_db_unpin(lightmap->tag);
  return result;
}
