/* Path substitution: rewrites file names before a file is opened. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

enum { KA_PATH_SIZE = 1024 }; /* bytes of a substituted path with its closing zero */

/* Writes the path that `name` stands for into `buffer` and returns `buffer`.
 *   Shape    `size` bytes of room, the closing zero included; a longer path is cut after an error
 * message. */
char* ka_string_substitute(char* buffer, const char* name, size_t size);

KA_END_DECLS
