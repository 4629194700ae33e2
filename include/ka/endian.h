/* Byte order of records and arrays that come from another host or from a file of
 * the other order. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Reverses the bytes of a record's fields in place. `format` names the fields in memory order:
 *   c     1 byte, left as it is
 *   s     2 bytes
 *   i, f  4 bytes
 *   d     8 bytes
 *   p     8 bytes set to zero: a pointer has no meaning on another host
 * A decimal number n before a code represents n fields more: "5i" are six. Other characters
 * are ignored. Fields follow each other without gaps and need no alignment.
 *   Returns  0. */
int ka_swap(void* record, const char* format);

/* Reverse the bytes of n elements of 4, 2 or 8 bytes in place, whatever their alignment. Nothing
 * happens for n of 0 or less. */
void ka_swap_ints(void* array, ptrdiff_t n);
void ka_swap_shorts(void* array, ptrdiff_t n);
void ka_swap_doubles(void* array, ptrdiff_t n);

KA_END_DECLS
