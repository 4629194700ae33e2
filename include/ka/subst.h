/* Path substitution: rewrites file names before a file is opened, so that names from other
 * platforms lead to files here.
 *
 * First environment variables, $NAME or ${NAME}, are replaced by their values. Then rules are
 * applied in order, each to what the one before has left: those of Softimage's linktab.ini, found
 * through SI_LINKTAB_LOCATION (its folder, or the file) or SI_LOCATION (its folder), then those of
 * KA_LUM_SUBSTITUTE. That holds rules like /search/replacement/, with blanks between them and any
 * character in place of the slashes. By default it is
 *   /.dll$/.so/ /.obj$/.o/ /.lib$/.a/ /^[a-z]:// /^[A-Z]:// %\%/%
 * In a search text ^ or ` in front ties it to the start of the name, $ matches the end of the name,
 * ? any character, [x-y] a character from x to y. Without the tie every occurrence is replaced. An
 * ESC character (0x1b) takes the meaning from a delimiter or a $ after it. At last the registry
 * (ka/registry.h) may replace the whole name. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

enum { KA_PATH_SIZE = 1024 }; /* bytes of a substituted path with its closing zero */

/* Writes the path that `name` represents into `buffer` and returns `buffer`; a null name gives
 * null.
 *   Shape    `size` bytes of room, the closing zero included; a longer path is cut after error 38.
 *            On the way names are cut at 4095 characters, with the same error.
 *   Errors   39 and 40, a $ reference without end or to a variable that is not set: the name ends
 *            there. 44, a faulty [x-y] in a rule: it matches nothing. The first call reads the
 *            rules and may report 41 to 43, which end the rules.
 *   Threads  any. */
char* ka_string_substitute(char* buffer, const char* name, size_t size);

/* Releases the rules; the next substitution reads them again. No other thread substitutes
 * meanwhile. */
void ka_lib_subst_exit(void);

KA_END_DECLS
