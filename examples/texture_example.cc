// Bakes a lightmap: several threads sample the texture of a tiled floor through the texture cache
// and paint into one image, which the last of them writes to a file. docs/library.md explains each
// step.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <string>

#include <ka/db.h>
#include <ka/img.h>
#include <ka/imgaccess.h>
#include <ka/imgcache.h>
#include <ka/imgelement.h>
#include <ka/job.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/subst.h>
#include <ka/trans.h>

namespace {

constexpr int kThreads = 4;
constexpr int kTextureSide = 512, kTileSide = 64, kLightmapSide = 512;  // pixels
constexpr float kWarm[] = {0.9F, 0.7F, 0.4F, 1}, kCool[] = {0.1F, 0.2F, 0.4F, 1};

// What the threads share.
struct Bake {
  std::uint32_t transaction = 0, texture = 0, lightmap = 0;  // tags
  std::latch all_edit{kThreads};
  std::atomic<int> next_line = 0, pixels = 0;
};

void start_library() {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_db_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}

// All memory goes back. No other thread uses the library any more.
void stop_library() {
  ka_context_pop(nullptr);
  ka_trans_wst_exit();
  ka_trans_exit();
  ka_context_exit();
  ka_img_exit();
  ka_db_exit();
  ka_lib_subst_exit();
  ka_mem_exit();
  ka_module_pop();
  ka_lumoralib_detach_process();
}

bool paint_tiles(img_file& file) {
  img_image* const image = ka_img_image_alloc(&file);
  for (int y = 0; image && y < kTextureSide; ++y) {
    for (int x = 0; x < kTextureSide; ++x) {
      const bool is_warm = (x / kTileSide + y / kTileSide) % 2 == 0;
      ka_img_put_color(image, is_warm ? kWarm : kCool, x, y);
    }
  }
  const bool is_written = image && ka_img_image_write(&file, image);
  ka_img_image_release(image);
  return is_written;
}

bool write_texture(const std::string& name) {
  constexpr int side = kTextureSide;
  img_file file{};
  file.pyramid = 1;  // the file gets reduced levels
  const bool is_written =
      ka_img_create(&file, name.c_str(), IMG_TYPE_RGBA, IMG_FORMAT_MAP, side, side) &&
      paint_tiles(file) && ka_img_close(&file);
  if (!is_written) ka_img_err_msg(&file);
  ka_img_close(&file);  // releases what a failure left
  return is_written;
}

// Declares an image element; nothing is read or made before a thread needs its pixels.
std::uint32_t declare(std::string name, bool is_lightmap) {
  img_file handle{};
  handle.name = name.data();
  handle.type = is_lightmap ? IMG_TYPE_RGBA : IMG_TYPE_FILE;
  handle.pyramid = is_lightmap ? 0 : 1;  // levels are needed
  handle.writing = is_lightmap;
  handle.width = handle.height = kLightmapSide;  // a texture has its file's
  std::uint32_t tag = 0;
  ka_img_placeholder_dbcreate(&handle, &tag, IMG_TEXTURE_LOCAL);
  return tag;
}

// The pixel at a place of a texture that repeats from 0 to 1; `side` is a power of two.
int pixel_at(float place, int side) { return int(std::floor(place * float(side))) & (side - 1); }

// Paints a line of the floor, the nearest one at the bottom. The texture repeats; at the bottom it
// is as wide as the picture. A lamp hangs over the middle.
void bake_line(img_image* lightmap, img_image* texture, int y) {
  constexpr float side = kLightmapSide;
  const float distance = side / (side - float(y) - 0.5F);
  // The pixel covers so many pixels of the texture from front to back; of the best level, about one.
  const float footprint = distance * distance * kTextureSide / side;
  const int best = int(std::lround(std::log2(footprint)));
  img_image* level = nullptr;
  ka_img_pyramid_set_level(&level, texture, std::clamp(best, 0, texture->levels - 1));
  for (int x = 0; x < kLightmapSide; ++x) {
    const float right = (float(x) + 0.5F) / side - 0.5F;
    float color[4];
    ka_img_get_color(level, color, pixel_at(right * distance, level->width),
                     pixel_at(distance, level->height));
    for (float& component : color) component *= 1 - std::abs(right);
    color[3] = 1;
    ka_img_put_color(lightmap, color, x, y);
  }
}

void bake_lines(void* argument) {
  ka_module_push(KA_MAIN);
  auto& bake = *static_cast<Bake*>(argument);
  ka_trans_attach(bake.transaction, KA_TRANS_TRANSACTION);
  ka_img_cache_request(3);  // this texture is small: without a request it would be mapped
  auto* const texture = static_cast<img_image*>(ka_job_access(bake.texture));
  ka_lightmap* edit = nullptr;
  img_image* const lightmap = ka_lightmap_edit(&edit, bake.lightmap);
  bake.all_edit.arrive_and_wait();  // so that only one of them is the last
  for (int y; texture && lightmap && (y = bake.next_line++) < kLightmapSide;) {
    bake_line(lightmap, texture, y);
    bake.pixels += kLightmapSide;
  }
  if (lightmap && !ka_lightmap_edit_end(edit)) bake.pixels = 0;
  if (texture) ka_db_unpin(bake.texture);
  ka_module_pop();
}

// Threads of the library are never joined: they are gone when they have left its table.
bool other_threads_run() {
  ka_context* const* const contexts = ka_msg_tls_info();
  if (!contexts) return true;  // one of them is using the table
  const bool result = contexts[1] != nullptr;
  ka_msg_tls_info_end();
  return result;
}

bool bake_lightmap(const std::string& folder, const std::string& name) {
  if (!write_texture(folder + "/texture.map")) return false;
  Bake bake;
  bake.texture = declare(folder + "/texture.map", false);  // stays until the store ends
  ka_trans_begin(KA_TRANS_TRANSACTION);
  bake.transaction = ka_transaction_get();
  bake.lightmap = declare(folder + "/" + name, true);  // goes with the transaction
  for (int i = 0; i < kThreads; ++i) {
    if (ka_msg_start_thread(bake_lines, &bake) < 0) ka_fatal("cannot start thread %d", i);
  }
  while (other_threads_run()) ka_msg_usleep(1000);
  ka_trans_end(KA_TRANS_TRANSACTION);
  ka_img_cache_counts counts;
  ka_img_cache_get_counts(&counts);
  std::printf("%d threads baked %d pixels: %d pages of %d in the cache, %d flushed\n", kThreads,
              bake.pixels.load(), counts.allocated, counts.budget, counts.flushes);
  return bake.pixels == kLightmapSide * kLightmapSide;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "%s folder lightmap.tif\n", argv[0]);
    return 1;
  }
  start_library();
  const bool is_baked = bake_lightmap(argv[1], argv[2]);
  stop_library();
  return is_baked ? 0 : 1;
}
