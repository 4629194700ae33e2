// Starts the library as a program does that uses textures.
#pragma once

#include <ka/db.h>
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <cstdlib>

inline void start_library() {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_db_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}
