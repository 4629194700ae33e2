/* Registry: entries that texts refer to in braces. An entry is a list of items, each a key with a
 * value. The reference {name} represents the entry's value, which may hold references itself, and
 * {$NAME} for an environment variable. Looking a text up with side effects also does what the items
 * of its entries say:
 *   value       nothing: the first item of this key holds the entry's value
 *   echo        prints the item's value as an information message
 *   system      runs it with the system shell; warning 7 when that fails
 *   link, code  hand it to the link layer; without one there is only the debug message
 *   ka, spdl    hand it to the scene reader; without one there is only the debug message
 * The values of echo, system, ka and spdl are expanded first, without side effects. Other keys are
 * kept and listed.
 *   Threads  any, between ka_lib_registry_init and ka_lib_registry_exit, which run alone. Messages
 *            and actions come after the registry's lock has been released: they may use it. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Starts the registry; later calls do nothing. Without it the registry is empty and refuses
 * entries, and a text is looked up as it stands. */
void ka_lib_registry_init(void);
/* Releases all entries. */
void ka_lib_registry_exit(void);

/* Makes an empty entry, in place of any of that name. The name is the reference with its braces. An
 * underscore after the brace makes it optional: references to it may fail without an error
 * message.
 *   Returns  1, or 0 after error 18, or before ka_lib_registry_init. */
int ka_lib_registry_begin(const char* name);
/* Appends an item to an entry; key and value are copied. An item without one of them (null) has no
 * effect.
 *   Returns  1, or 0 after error 19 (no such entry), or before ka_lib_registry_init. */
int ka_lib_registry_add(const char* name, const char* key, const char* value);

/* Expands all references of a text.
 *   Returns  the result, of at most 10238 characters, or null after an error message: 20, 24, 26
 *            too long, 21 a brace inside a reference, 22 a reference that does not end, 23 no such
 *            variable, 25 no such entry (none for an optional one), 27 an entry without a value.
 *            With side effects an entry needs no value, and the numbers are 800 higher.
 *            A value that cannot be expanded itself stands as it is; one that leads back to itself
 *            is followed 128 times, then error 28 says where.
 *            A null text gives null; before ka_lib_registry_init every text gives a copy.
 *   Memory   the caller's, given back with ka_mem_release. */
char* ka_lib_registry_lookup(const char* text, int side_effects);

/* Writes all entries in the form in which scene files hold them. A null stream prints one
 * information message per item instead, with a star after the entry's value. */
void ka_lib_registry_print(FILE* stream);

KA_END_DECLS
