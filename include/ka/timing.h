/* Elapsed time and resources of the process, reported as messages. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

typedef struct ka_timer ka_timer;

/* With no timer: starts one and returns it, accounted memory that is the caller's. With a timer and
 * no label: releases it and returns null. With both: prints what has been used since the start, as
 * information, where the calling module's mask has KA_SUBVERB_TIME, and returns the timer: wall
 * clock and user CPU time, memory now and at most, and counts of the whole process as a debug
 * message. The label "total" names the whole run. */
ka_timer* ka_timing(ka_timer* timer, const char* label);
/* Starts a timer, which must not be null, anew. */
void ka_reset_time(ka_timer* timer);

/* User and system time of the process and of the children it has waited for: the system's clock
 * ticks, divided by a million. */
double ka_clock(void);

KA_END_DECLS
