// Version banner: the library's release and the versions of all modules.
#include <array>
#include <string_view>

#include <ka/detail/versions.h>
#include <ka/message.h>
#include <ka/stubs.h>
#include <ka/version.h>

namespace {

constexpr char kArchitecture[] = "Linux 2.4.7-10 (RedHat 7.2, glibc-2.2.4-13), i686, gcc3";

#define NUMBER_TEXT(number) #number
#define VERSION_TEXT(major, minor, patch) \
  NUMBER_TEXT(major) "." NUMBER_TEXT(minor) "." NUMBER_TEXT(patch) "."
static_assert(std::string_view(ka::kRelease)
                  .substr(ka::kReleaseMarker.size())
                  .starts_with(VERSION_TEXT(KA_VERSION_MAJOR, KA_VERSION_MINOR, KA_VERSION_PATCH)));

}  // namespace

void ka_version() {
  ka_info("version %s, %s", ka_lumoralib_version(), ka_lumoralib_date());
  ka_info("compiled on: %s", ka_lumoralib_arch());
  // The order of the modules is fixed: people compare these lines between installations.
  const std::array texts = {ka::module_version(ka::kDbVersion),
                            ka_geoev_version(),
                            ka_gapka_version(),
                            ka_rc_version(),
                            ka_rcb_version(),
                            ka_rci_version(),
                            ka_rcc_version(),
                            ka_rcgi_version(),
                            ka_rcfg_version(),
                            ka::module_version(ka::kImgVersion),
                            ka_lib_version(),
                            ka::module_version(ka::kMemVersion),
                            ka_api_version(),
                            ka_ka_version(),
                            ka_echo_version(),
                            ka::module_version(ka::kMsgVersion),
                            ka_par_version(),
                            ka_phen_version(),
                            ka_scene_version(),
                            ka_job_version(),
                            ka::module_version(ka::kTransVersion),
                            ka_spdl_version(),
                            ka_phcr_version(),
                            ka_disp_version(),
                            ka_rclm_version(),
                            ka_rch_version(),
                            ka_lprof_version(),
                            ka_rchw_version()};
  for (const char* text : texts) ka_debug("%s", text);
}

const char* ka_lumoralib_version() { return ka::release_text(ka::kRelease); }
const char* ka_lumoralib_date() { return ka::release_text(ka::kReleaseDate); }
const char* ka_lumoralib_arch() { return kArchitecture; }
const char* ka_lib_version() { return ka::module_version(ka::kLibVersion); }
