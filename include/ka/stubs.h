/* Entry points of modules that are not part of this library: the scene parser, the geometry
 * approximation, the renderers, the display and others. A program starts them as it would start the
 * real ones. Each reports a dummy version; the calls do nothing. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Starts the scene parser's parameters; the flag is not looked at. Returns 1. */
int ka_par_init(int flag);
/* Starts the scene module. Returns 1. */
int ka_scene_init(void);

const char* ka_geoev_version(void);
const char* ka_gapka_version(void);
const char* ka_rc_version(void);
const char* ka_rcb_version(void);
const char* ka_rci_version(void);
const char* ka_rcc_version(void);
const char* ka_rcgi_version(void);
const char* ka_rcfg_version(void);
const char* ka_api_version(void);
const char* ka_ka_version(void);
const char* ka_echo_version(void);
const char* ka_par_version(void);
const char* ka_phen_version(void);
const char* ka_scene_version(void);
const char* ka_job_version(void);
const char* ka_spdl_version(void);
const char* ka_phcr_version(void);
const char* ka_disp_version(void);
const char* ka_rclm_version(void);
const char* ka_rch_version(void);
const char* ka_lprof_version(void);
const char* ka_rchw_version(void);

KA_END_DECLS
