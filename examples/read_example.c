/* How a program reads a picture: start, open, size, lines and their planes, errors, close. Prints the
 * size of a picture and the mean of its colors, as samples of 8 bits: once line by line, once from
 * the whole image. Before that what the header says. Each step is explained in docs/library.md. */
#include <string.h>

#include <ka/img.h>
#include <ka/imgload.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

enum { kColors = 3 };

typedef struct color_sums {
  double of[kColors];
} color_sums;

static void start_library(void) {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_FATAL | KA_ERROR | KA_WARNING | KA_INFO);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}

static void add(color_sums* sums, int color, const uint8_t* plane, int width) {
  int x;
  for (x = 0; x < width; ++x) sums->of[color] += plane[x];
}

static void tell(const char* how, const color_sums* sums, int width, int height) {
  const double pixels = (double)width * height;
  ka_info("%s: %d x %d, mean colour %.1f %.1f %.1f", how, width, height, sums->of[0] / pixels,
          sums->of[1] / pixels, sums->of[2] / pixels);
}

/* An entry of the file's header, such as a comment. */
static void print_entry(void* context, const char* name, const char* value) {
  (void)context;
  ka_info("%s: %s", name, value); /* control characters become blanks there */
}

/* One line in memory, however large the picture is. Whatever the file holds arrives as rgb. */
static int read_lines(const char* name) {
  color_sums sums = {{0}};
  img_file file;
  int whole = 0, i, color;
  memset(&file, 0, sizeof file);
  if (ka_img_open(&file, name, IMG_TYPE_RGB)) {
    img_line* const line = ka_img_line_alloc(&file);
    whole = 1;
    ka_img_header(&file, print_entry, NULL);
    for (i = 0; whole && i < file.height; ++i) { /* this is line file.height - 1 - i of the picture
                                                    when file.topdown is set, else line i */
      whole = ka_img_line_read(&file, line);
      for (color = 0; whole && color < kColors; ++color)
        add(&sums, color, (const uint8_t*)line + line->offset[color], file.width);
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
  color_sums sums = {{0}};
  int y, color;
  img_image* const image = ka_img_load(name, IMG_TYPE_RGB);
  if (!image) return 0; /* the message has been printed */
  for (y = 0; y < image->height; ++y) {
    for (color = 0; color < kColors; ++color)
      add(&sums, color, ka_img_plane(image, y, color), image->width);
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
