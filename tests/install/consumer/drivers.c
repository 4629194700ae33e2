/* A program that registers the further formats. */
#include <ka/drivers.h>
#include <ka/mem.h>
#include <ka/msg.h>

int main(void) {
  ka_lumoralib_attach_process();
  ka_mem_init();
  ka_img_init();
  if (!ka_drivers_register() || ka_img_format_identify("png") != KA_DRIVERS_PNG) return 1;
  ka_lumoralib_detach_process();
  return 0;
}
