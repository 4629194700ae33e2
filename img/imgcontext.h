// What the image library keeps for each thread, the settings of color access, and for each
// transaction, the gamma tables of its options.
#pragma once

#include <ka/detail/context.h>
#include <ka/imgaccess.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <array>
#include <atomic>

#include "imggamma.h"

namespace ka {

struct CacheThread;

struct ImageContext {
  bool desaturate;               // colors out of range are desaturated instead of clamped
  bool dither;                   // samples of 8 and 16 bits get a random offset
  bool not_premultiplied;        // the options say so: files of images tell it
  bool unpremultiply;            // colors are divided by alpha in the image
  bool gamma_active;             // the options' gamma is not exactly 1
  float gamma;                   // above 0 while gamma is active
  int color_clip;                // img_color_clip
  std::array<float, 4> weights;  // luminance of R, G, B, A
  CacheThread* cache;            // the thread's part of the texture cache
  int request;                   // of ka_img_cache_request
  std::atomic<bool> memory_low;  // set by a purge, in any thread: the next access drops pages
};

// Threads that work in one transaction share its options and with them the tables. The tables are
// filled under the gamma cache's lock.
struct GammaBlock {
  std::atomic<float> gamma;  // that the tables were built for, 0: none yet
  GammaTables tables;
  std::uint32_t subverbosity;       // of the module when the transaction began
  ka_mutex lock;                    // held while the hint is set
  std::atomic<void*> mapping_hint;  // where the transaction's first mapping is, null: none yet
};

// Registers both areas; before threads and transactions are there.
void img_context_register();

// Make and delete the lock of the gamma cache.
void img_context_init_gamma_init();
void img_context_init_gamma_exit();

// Fills the tables of the thread's transaction for the context's gamma, unless they are there or
// gamma is not active.
void img_context_init_gamma(const ImageContext& context);

// Where the system may put another mapping of the thread's transaction: near the first one, which
// img_keep_mapping_hint records.
void* img_mapping_hint();
void img_keep_mapping_hint(void* mapping);

// Whether the module's progress is shown in the thread's transaction.
bool img_reports_progress();

// The same for a thread that has no area yet; before ka_img_init, settings that were never made.
ImageContext& img_new_context();

// The calling thread's settings.
inline ImageContext& img_context() {
  void** const areas = context().context_areas;
  void* const area = areas ? areas[KA_IMG] : nullptr;
  return area ? *static_cast<ImageContext*>(area) : img_new_context();
}

inline GammaBlock& img_gamma_block() {
  return *static_cast<GammaBlock*>(context().transaction_areas[KA_IMG]);
}

// The tables of an active gamma. The thread may have come to another transaction since its options
// were set: its block gets them then.
inline const GammaTables& img_gamma_tables(const ImageContext& context) {
  const GammaBlock& block = img_gamma_block();
  if (block.gamma.load(std::memory_order_acquire) != context.gamma) img_context_init_gamma(context);
  return block.tables;
}

// The calling thread's luminance weights.
inline const float* img_luminance_weights() { return img_context().weights.data(); }

}  // namespace ka
