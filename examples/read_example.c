/* How a program reads a picture: start, open, size, lines and their planes, errors, close. Prints the
 * size of a picture and the mean of its colours, as samples of 8 bits: once line by line, once from
 * the whole image. Each step is explained in docs/library.md. */
#include <string.h>

#include <ka/img.h>
#include <ka/imgload.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

enum { kColours = 3 };

typedef struct colour_sums {
  double of[kColours];
} colour_sums;

static void start_library(void) {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_FATAL | KA_ERROR | KA_WARNING | KA_INFO);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}

static void add(colour_sums* sums, int colour, const uint8_t* plane, int width) {
  int x;
  for (x = 0; x < width; ++x) sums->of[colour] += plane[x];
}

static void tell(const char* how, const colour_sums* sums, int width, int height) {
  const double pixels = (double)width * height;
  ka_info("%s: %d x %d, mean colour %.1f %.1f %.1f", how, width, height, sums->of[0] / pixels,
          sums->of[1] / pixels, sums->of[2] / pixels);
}

/* One line in memory, however large the picture is. Whatever the file holds arrives as rgb. */
static int read_lines(const char* name) {
  colour_sums sums = {{0}};
  img_file file;
  int whole = 0, i, colour;
  memset(&file, 0, sizeof file);
  if (ka_img_open(&file, name, IMG_TYPE_RGB)) {
    img_line* const line = ka_img_line_alloc(&file);
    whole = 1;
    for (i = 0; whole && i < file.height; ++i) { /* this is line file.height - 1 - i of the picture
                                                    when file.topdown is set, else line i */
      whole = ka_img_line_read(&file, line);
      for (colour = 0; whole && colour < kColours; ++colour)
        add(&sums, colour, (const uint8_t*)line + line->offset[colour], file.width);
    }
    ka_mem_release(line);
  }
  if (whole) {
    tell("lines", &sums, file.width, file.height);
  } else {
    ka_img_err_msg(&file);
  }
  ka_img_close(&file); /* also after a failure */
  return whole;
}

/* The whole picture in memory, in one call. */
static int read_image(const char* name) {
  colour_sums sums = {{0}};
  int y, colour;
  img_image* const image = ka_img_load(name, IMG_TYPE_RGB);
  if (!image) return 0; /* the message has been printed */
  for (y = 0; y < image->height; ++y) {
    for (colour = 0; colour < kColours; ++colour)
      add(&sums, colour, ka_img_plane(image, y, colour), image->width);
  }
  tell("image", &sums, image->width, image->height);
  ka_img_image_release(image);
  return 1;
}

int main(int argc, char** argv) {
  start_library();
  if (argc != 2) ka_fatal("usage: read_example PICTURE");
  return read_lines(argv[1]) && read_image(argv[1]) ? 0 : 1;
}
