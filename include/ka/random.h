/* Random numbers: the 48-bit generator of the POSIX rand48 family, x = 0x5deece66d * x + 11 modulo
 * 2^48, in several states. Each call advances a state and returns x / 2^48, rounded to single
 * precision: the largest results are 1.0. Not for secrets. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* The process's own state. Threads that call at the same time may receive equal numbers. */
float ka_random(void);
/* Starts the sequence of a seed, the one that srand48 starts with it. */
void ka_srandom(uint32_t seed);
/* Starts the sequence that every process begins with. */
void ka_random_init(void);

/* A state of the caller's, three words, the lowest first. */
float ka_erandom(uint16_t state[3]);

/* One of the calling thread's nine states; they begin with zeros. An index beyond 8, such as a
 * thread's number, starts over: 9 is 0 again. */
float ka_taskrandom(int index);
/* Starts states 0 to 7 of the calling thread for the piece of work at x, y of an area of width by
 * height, so that its numbers do not depend on the thread that does it. The third argument is not
 * looked at. */
void ka_taskrandom_seed(int width, int height, int unused, double x, double y);
/* ka_taskrandom with state 7. */
float ka_par_random(void);

KA_END_DECLS
