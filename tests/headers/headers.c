/* The library as a C program sees it. */
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/trans.h>
#include <string.h>

int main(void) {
  img_file file;
  memset(&file, 0, sizeof file);
  if (!ka_lumoralib_attach_process()) return 1;
  ka_mem_init();
  ka_img_init();
  if (ka_img_format_identify("ppm") != IMG_FORMAT_PPM) return 2;
  if (ka_img_open(&file, "", IMG_TYPE_RGBA) || file.error != IMG_ERR_OPEN) return 3;
  if (!ka_img_close(&file)) return 4;
  ka_lumoralib_detach_process();
  return 0;
}
