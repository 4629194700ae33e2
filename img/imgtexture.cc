// Textures of a scene: elements whose job loads a file when a thread first needs its pixels.
#include <cstdio>
#include <cstring>

#include <ka/detail/scope.h>
#include <ka/message.h>

#include "imageelements.h"
#include "imageplanes.h"
#include "imgcall.h"
#include "imgcontext.h"
#include "imgmap.h"
#include "imgpath.h"
#include "texturecache.h"

namespace {

// Numbers of messages.
constexpr int kNotOpened = 1, kNotRead = 2;

constexpr float kNoFilter = 1.0F;  // where no pyramid is asked for

// What a texture job knows. Other hosts get it as these 36 bytes.
struct TextureJob {
  std::int32_t width, height, bits;
  std::uint32_t flags;
  std::int32_t pyramid, writing;
  std::int32_t type;
  std::uint32_t name;  // tag of a string element, 0: none
  float filter;
};
constexpr char kFormat[] = "iiiiiiiif";
static_assert(sizeof(TextureJob) == 36);

bool is_local(const TextureJob& job) { return (job.flags & IMG_TEXTURE_LOCAL) != 0; }

const char* name_of(const TextureJob& job) {
  const char* const name = ka::img_string(job.name);
  return name ? name : "";
}

// The string element with the name of a texture belongs to its job, whatever transaction it was
// declared in.
std::uint32_t make_name(const char* name) {
  std::uint32_t tag = 0;
  if (!name) return tag;
  const std::size_t size = std::strlen(name) + 1;
  std::memcpy(ka_db_create_private(&tag, KA_DB_STRING, size), name, size);
  return tag;
}

void delete_name(const TextureJob& job) {
  if (job.name != 0) ka_db_delete_private(job.name);
}

// Bytes of the budget that a cached file brings along: 5 percent of its own, whole ones, so that the
// budget comes back to what it was.
std::int64_t share_of(std::int64_t file_size) { return file_size / 20; }

void report_loaded(const char* name, std::int64_t bytes) {
  ka_debug("texture %s was loaded (%d Kb)", name, int(bytes / 1024));
}

// Registers the file with the texture cache, which closes the handle.
bool cache(img_file& file, ka_job_call& call) {
  const std::int64_t file_size = file.file_size;
  std::uint32_t tag = call.tag;
  if (!ka::img_cache_map(&file, &tag)) return false;
  const std::size_t element = ka_db_accessinfo(call.tag)->size;
  call.job_size = element + std::size_t(file_size / 16384 * 8) + std::size_t(share_of(file_size));
  call.fixed = 1;
  ka::img_cache_size_adjust(double(share_of(file_size)));
  return true;
}

int read_whole(img_file& file, const TextureJob& job, ka_job_call& call) {
  img_image* const image =
      ka::img_fails_at_once(&file) ? nullptr : ka::img_make_element(&file, &call.tag, job.name);
  file.pyramid = 0;  // there is nothing to filter in a picture that cannot be read
  if (!image || !ka_img_image_read(&file, image)) {
    ka_img_err_msg(&file);
    ka_nerror(kNotRead, "cannot read texture %s", name_of(job));
    return 0;
  }
  if (job.pyramid) ka_img_pyramid_filter_levels(image);
  ka_img_image_set_writable(image, 0);
  return 1;
}

// Maps, caches or reads an open file.
int load_open(img_file& file, const TextureJob& job, ka_job_call& call) {
  const std::int64_t file_size = file.file_size;
  const bool prefers_cache = ka::img_cache_prefer(ka::img_context(), &file);
  img_image* const mapped = prefers_cache ? nullptr : ka::img_address_map(&file);
  if (mapped) {
    call.data = mapped;
    call.size = std::size_t(file_size) - ka::kMapImageOffset;
  } else if (cache(file, call)) {
    return 1;
  } else if (!read_whole(file, job, call)) {
    return 0;
  }
  call.job_size = std::size_t(file_size);
  report_loaded(name_of(job), file_size);
  return 1;
}

int load(const TextureJob& job, const ka::ImagePath& path, ka_job_call& call) {
  img_file file{};
  if (!ka::img_open(&file, path, job.type)) {
    ka_img_err_msg(&file);
    ka_nerror(kNotOpened, "cannot open texture %s", name_of(job));
    ka_img_close(&file);
    return 0;
  }
  file.pyramid = job.pyramid;
  const int result = load_open(file, job, call);
  ka_img_close(&file);
  return result;
}

// An image that is computed instead of loaded.
int make(const TextureJob& job, ka_job_call& call) {
  img_file shape{};
  shape.width = job.width;
  shape.height = job.height;
  shape.pyramid = job.pyramid;
  shape.writing = 1;
  shape.type = job.type >= 0 && job.type < IMG_TYPE_COUNT ? job.type : ka::img_color_type(job.bits);
  img_image* const image = ka::img_make_element(&shape, &call.tag, job.name);
  if (!image) {
    ka_error("cannot make texture %s, %d x %d", name_of(job), job.width, job.height);
    return 0;
  }
  call.fixed = 1;  // nothing else has the pixels, and who edits them may hold their address
  return 1;
}

int execute(const TextureJob& job, ka_job_call& call) {
  const ka::ImagePath path(name_of(job));
  ka_progress("opening %stexture %s, for %s", is_local(job) ? "local " : "", path.path,
              job.writing ? "writing" : "reading");
  return job.writing ? make(job, call) : load(job, path, call);
}

void schedule(const TextureJob& job, ka_job_schedule& hints) {
  hints.cost = 0.1F;
  hints.importance = 1.0F;
  hints.mode = is_local(job) || job.writing ? 1 : 2;
}

// Returns 1 when the pixels were not in memory of the element, or are still read there. In a purge,
// in which no wait is allowed, the data are of a file that was read whole.
int unload(const TextureJob& job, ka_job_call& call) {
  if (!call.fixed) return 0;
  auto* const image = static_cast<img_image*>(call.data);
  if (ka::img_munmap_map(image)) {
    ka_progress("texture %s was memory-unmapped", name_of(job));
    return 1;
  }
  if (!ka::is_cached(image)) return 0;
  const std::int64_t file_size = ka::img_cache_filesize_get(image);
  if (!ka::img_cache_image_remove(image)) return 0;
  ka::img_cache_size_adjust(-double(share_of(file_size)));
  return 1;
}

}  // namespace

int ka_img_placeholder_dbcreate(const img_file* handle, std::uint32_t* tag, std::uint32_t flags) {
  const ka::ModuleScope scope(KA_IMG);
  const TextureJob job = {.width = handle->width,
                          .height = handle->height,
                          .bits = handle->bits,
                          .flags = flags,
                          .pyramid = handle->pyramid,
                          .writing = handle->writing,
                          .type = handle->type,
                          .name = make_name(handle->name),
                          .filter = handle->pyramid != 0 ? float(handle->pyramid) : kNoFilter};
  if (ka_job_create(tag, KA_DB_IMAGE, KA_IMG, &job, sizeof job, kFormat)) return 1;
  delete_name(job);
  return 0;
}

int ka_img_job_callback(int operation, ka_job_call* call) {
  const ka::ModuleScope scope(KA_IMG);
  const TextureJob& job = *static_cast<const TextureJob*>(call->parameters);
  switch (operation) {
    case KA_JOB_EXECUTE:
      return execute(job, *call);
    case KA_JOB_SCHEDULE:
      schedule(job, call->schedule);
      return 1;
    case KA_JOB_DESCRIBE:
      std::snprintf(call->text, sizeof call->text, "read texture file %.60s", name_of(job));
      return 1;
    case KA_JOB_DELETE:
      return unload(job, *call);
    case KA_JOB_END:
      delete_name(job);
      return 1;
    default:
      return 0;
  }
}
