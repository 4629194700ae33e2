// Runs the tests of one program with the library started as every program of the system starts it.
#include <gtest/gtest.h>

#include <ka/db.h>
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/trans.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_db_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
  return RUN_ALL_TESTS();
}
