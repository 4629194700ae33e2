/* Versions of the library and of its modules. In a built program each module's text follows the
 * marker "=@@= ", the release and its date follow "==@@== ", so that a search of the file finds
 * them. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Prints release and date and the build platform as information, then every module's version as
 * debug messages. */
void ka_version(void);

const char* ka_lumoralib_version(void); /* the release */
const char* ka_lumoralib_date(void);    /* its date */
const char* ka_lumoralib_arch(void);    /* the build platform */

/* Version texts of the modules: name, colon, tab, version. */
const char* ka_lib_version(void);
const char* ka_mem_version(void);
const char* ka_msg_version(void);
const char* ka_trans_version(void);
const char* ka_db_version(void);
const char* ka_img_version(void);

/* Version of the JPEG codec's interface, 62. 0 when the program runs with a codec that the library
 * was not built for: JPEG files are neither recognised nor written then. */
int ka_jpg_mod_version(void);

KA_END_DECLS
