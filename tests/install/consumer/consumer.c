/* A program outside the library, compiled as C and as C++: writes a pixel and reads it back. */
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <string.h>

int network = 41; /* a name that the library has inside */

enum { kRed = 200 };

static int write_pixel(const char* name) {
  img_file file;
  memset(&file, 0, sizeof file);
  file.file_type = IMG_TYPE_RGB;
  if (!ka_img_create(&file, name, IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 1)) return 0;
  img_line* line = ka_img_line_alloc(&file);
  ((unsigned char*)line)[line->offset[0]] = kRed;
  const int written = ka_img_line_write(&file, line);
  ka_mem_release(line);
  return ka_img_close(&file) && written;
}

static int red_pixel(const char* name) {
  img_file file;
  int red = -1;
  memset(&file, 0, sizeof file);
  if (!ka_img_open(&file, name, IMG_TYPE_RGB)) return red;
  img_line* line = ka_img_line_alloc(&file);
  if (ka_img_line_read(&file, line)) red = ((unsigned char*)line)[line->offset[0]];
  ka_mem_release(line);
  return ka_img_close(&file) ? red : -1;
}

int main(int argc, char** argv) {
  if (argc != 2 || !ka_lumoralib_attach_process()) return 2;
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
  return write_pixel(argv[1]) && red_pixel(argv[1]) == kRed && network == 41 ? 0 : 1;
}
