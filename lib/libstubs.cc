// Stands for the modules that are not part of this library. The start-up calls of a program stay
// the same whether a module is there or not; a module that arrives takes its lines out of this
// file.
#include <ka/detail/versions.h>
#include <ka/stubs.h>

#define KA_STUB_VERSION(module)                                            \
  const char* ka_##module##_version() {                                    \
    static constexpr char text[] = "=@@= " #module ":\tdummy version 1.0"; \
    return ka::module_version(text);                                       \
  }

KA_STUB_VERSION(geoev)
KA_STUB_VERSION(gapka)
KA_STUB_VERSION(rc)
KA_STUB_VERSION(rcb)
KA_STUB_VERSION(rci)
KA_STUB_VERSION(rcc)
KA_STUB_VERSION(rcgi)
KA_STUB_VERSION(rcfg)
KA_STUB_VERSION(api)
KA_STUB_VERSION(ka)
KA_STUB_VERSION(echo)
KA_STUB_VERSION(par)
KA_STUB_VERSION(phen)
KA_STUB_VERSION(scene)
KA_STUB_VERSION(job)
KA_STUB_VERSION(spdl)
KA_STUB_VERSION(phcr)
KA_STUB_VERSION(disp)
KA_STUB_VERSION(rclm)
KA_STUB_VERSION(rch)
KA_STUB_VERSION(lprof)
KA_STUB_VERSION(rchw)

int ka_par_init(int /*flag*/) { return 1; }
int ka_scene_init() { return 1; }
