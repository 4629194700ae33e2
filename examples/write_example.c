/* How a program writes a picture: an image is made, painted and written in the format that the name
 * ends with. Each step is explained in docs/library.md. */
#include <string.h>

#include <ka/img.h>
#include <ka/imgload.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

enum { kWidth = 256, kHeight = 128, kBlue = 64 };

static void start_library(void) {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}

/* Red from left to right, green from bottom to top. Planes of an rgb image hold bytes. */
static void paint(img_image* image) {
  int x, y;
  for (y = 0; y < image->height; ++y) {
    uint8_t* const red = ka_img_plane(image, y, 0);
    uint8_t* const green = ka_img_plane(image, y, 1);
    uint8_t* const blue = ka_img_plane(image, y, 2);
    for (x = 0; x < image->width; ++x) {
      red[x] = (uint8_t)x;
      green[x] = (uint8_t)(2 * y);
      blue[x] = kBlue;
    }
  }
}

/* A file that could not be written whole never gets its name; one that had it stays. */
static int write_picture(const char* name, int format) {
  img_file file;
  int written = 0;
  memset(&file, 0, sizeof file);
  file.file_type = IMG_TYPE_RGB; /* as the file shall have it, where its format can */
  if (ka_img_create(&file, name, IMG_TYPE_RGB, format, kWidth, kHeight)) {
    img_image* const image = ka_img_image_alloc(&file);
    if (image) {
      paint(image);
      written = ka_img_image_write(&file, image);
      ka_img_image_release(image);
    }
  }
  if (!ka_img_close(&file)) written = 0;
  if (!written) ka_img_err_msg(&file);
  return written;
}

int main(int argc, char** argv) {
  const char* extension;
  int format;
  start_library();
  if (argc != 2) ka_fatal("usage: write_example PICTURE");
  extension = strrchr(argv[1], '.');
  format = ka_img_format_identify(extension ? extension + 1 : "");
  if (format < 0) ka_fatal("%s: the name does not end with a format", argv[1]);
  return write_picture(argv[1], format) ? 0 : 1;
}
