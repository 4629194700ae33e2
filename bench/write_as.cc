// write_as FORMAT FILE NEW: writes the picture of a file as another format, in type rgb where that
// can be written, else in the format's best type.
#include <cstdio>
#include <cstdlib>

#include <ka/drivers.h>
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "write_as: %s\n", what);
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) fail("FORMAT FILE NEW");
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_ERROR);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
#ifdef LUMORA_DRIVERS
  ka_drivers_register();
#endif
  const int format = ka_img_format_identify(argv[1]);
  if (format < 0) fail("no such format");
  img_file from{};
  if (!ka_img_open(&from, argv[2], IMG_TYPE_RGB)) fail("cannot open the picture");
  img_image* const image = ka_img_image_alloc(&from);
  if (!image || !ka_img_image_read(&from, image)) fail("cannot read the picture");
  img_file to{};
  to.file_type = IMG_TYPE_RGB;
  if (!ka_img_create(&to, argv[3], IMG_TYPE_RGB, format, from.width, from.height) ||
      !ka_img_image_write(&to, image) || !ka_img_close(&to)) {
    fail("cannot write the picture");
  }
  ka_img_close(&from);
  ka_img_image_release(image);
  return 0;
}
