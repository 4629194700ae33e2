#include "imgcontext.h"

#include <algorithm>
#include <memory>
#include <new>

#include <ka/detail/assertion.h>
#include <ka/detail/scope.h>
#include <ka/imgelement.h>
#include <ka/message.h>

#include "texturecache.h"

namespace {

ka_mutex cache_lock;  // also held while a gamma block is filled
constinit ka::GammaCache gamma_cache KA_GUARDED_BY(cache_lock);

// Of a zeroed context.
void set_defaults(ka::ImageContext& context) {
  context.color_clip = IMG_CLIP_EACH;
  context.weights = {0.299F, 0.587F, 0.114F, 0.0F};
}

// The area is zeroed, and may be seen by another thread's purge: memory_low is left alone.
void context_init(void* area) {
  auto& context = *static_cast<ka::ImageContext*>(area);
  set_defaults(context);
  ka::img_context_cache_init(context);
}

void context_exit(void* area) { ka::img_context_cache_exit(*static_cast<ka::ImageContext*>(area)); }

void transaction_init(void* area) {
  auto* const block = new (area) ka::GammaBlock{};
  block->subverbosity = ka_get_subverbosity(KA_IMG);
  ka_init_lock(&block->lock);
}

void transaction_exit(void* area) {
  auto* const block = static_cast<ka::GammaBlock*>(area);
  ka_delete_lock(&block->lock);
  std::destroy_at(block);
}

bool has_gamma_block() {
  void** const areas = ka::context().transaction_areas;
  return areas && areas[KA_IMG];
}

bool is_color_clip(int mode) { return mode >= IMG_CLIP_RAISE_ALPHA && mode <= IMG_CLIP_EACH; }

}  // namespace

void ka::img_context_register() {
  ka_context_register_module(KA_IMG, context_init, context_exit, sizeof(ka::ImageContext));
  ka_transaction_register_module(KA_IMG, transaction_init, transaction_exit,
                                 sizeof(ka::GammaBlock));
}

ka::ImageContext& ka::img_new_context() {
  if (void* const area = ka_context_mem(KA_IMG)) return *static_cast<ka::ImageContext*>(area);
  thread_local ka::ImageContext context{};
  set_defaults(context);
  return context;
}

void ka::img_context_init_gamma_init() { ka_init_lock(&cache_lock); }
void ka::img_context_init_gamma_exit() { ka_delete_lock(&cache_lock); }

void ka::img_context_init_gamma(const ka::ImageContext& context) {
  if (!context.gamma_active) return;
  KA_ASSERT(has_gamma_block());
  ka::GammaBlock& block = ka::img_gamma_block();
  if (block.gamma.load(std::memory_order_acquire) == context.gamma) return;
  const ka::LockScope lock(cache_lock);
  if (block.gamma.load(std::memory_order_relaxed) == context.gamma) return;
  block.gamma.store(0.0F, std::memory_order_relaxed);
  block.tables = gamma_cache.tables(context.gamma);
  block.gamma.store(context.gamma, std::memory_order_release);
}

void* ka::img_mapping_hint() {
  return has_gamma_block() ? ka::img_gamma_block().mapping_hint.load() : nullptr;
}

void ka::img_keep_mapping_hint(void* mapping) {
  if (!has_gamma_block()) return;
  ka::GammaBlock& block = ka::img_gamma_block();
  if (block.mapping_hint.load()) return;
  const ka::LockScope lock(block.lock);
  if (!block.mapping_hint.load()) block.mapping_hint = mapping;
}

bool ka::img_reports_progress() {
  const std::uint32_t mask =
      has_gamma_block() ? ka::img_gamma_block().subverbosity : ka_get_subverbosity(KA_IMG);
  return (mask & KA_SUBVERB_PROGRESS) != 0;
}

void ka_img_mode(std::uint32_t options) {
  const ka::ModuleScope scope(KA_IMG);
  ka_img_mode_options(static_cast<const img_options*>(ka_db_access(options)));
  ka_db_unpin(options);
}

void ka_img_mode_options(const img_options* options) {
  const ka::ModuleScope scope(KA_IMG);
  ka::ImageContext& context = ka::img_context();
  context.desaturate = options->desaturate != 0;
  context.dither = options->dither != 0;
  context.color_clip = is_color_clip(options->color_clip) ? options->color_clip : IMG_CLIP_EACH;
  context.not_premultiplied = options->premultiply == 0;
  context.unpremultiply = options->premultiply != 0 && context.color_clip != IMG_CLIP_EACH;
  context.gamma = options->gamma > 0.0F ? options->gamma : 1.0F;
  context.gamma_active = options->gamma != 1.0F;  // also what is not a number
  std::copy_n(options->luminance, context.weights.size(), context.weights.begin());
  ka::img_context_init_gamma(context);
}
