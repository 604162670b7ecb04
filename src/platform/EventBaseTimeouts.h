// Two event-base operations that libevent 2.1 lacks. Fast-forward uses them to find the
// earliest timer of a base and to make every timer due sooner.
//
// Expiry times are absolute times in the representation event_pending() reports for timer
// events: the base's monotonic clock mapped onto the wall clock. Both operations belong to
// the thread that runs the base and may be called from inside its callbacks.
//
// Two implementations, chosen once per process:
// - On libevent 2.1 (checked against both the headers built with and the library loaded),
//   they work on the expiries libevent keeps in the public `struct event`: the earliest timer
//   is the top of the base's timer heap, and the subtraction moves every expiry (heap entries,
//   common-timeout queue entries, persistent timers alike) by the same amount in place. Both
//   walk the base's events with event_base_foreach_event; the lookup stops at the heap's top,
//   after the descriptor events, which are visited first. The subtraction touches each
//   pending event once, without reading the clock or re-linking anything, so it costs linear
//   time with a small constant and keeps ties and order exactly. A persistent timer fires
//   `offset` sooner once and keeps its period.
// - On any other version, only libevent's public calls are used: the lookup compares every
//   pending expiry, and the subtraction re-adds every timer with a shortened delay (one heap
//   update each, and a second pass when the clock moved meanwhile). A persistent event with a
//   timeout is left untouched there, since re-adding it would make the shortened delay its
//   period; a one-shot event armed with a common timeout is re-armed as an ordinary timer
//   (correct expiry, without the queue's constant-time insertion).
#pragma once

#include <sys/time.h>

struct event_base;

#ifdef __cplusplus
extern "C" {
#endif

// Stores in `out` the absolute expiry of the earliest pending timer of `base` and returns 0;
// returns -1, leaving `out` as it was, when no timer is pending.
int event_base_get_first_timeout(struct event_base* base, struct timeval* out);

// Makes every pending timer of `base` expire `offset` sooner, keeping their order, even when
// that moves the expiry into the past: such timers are due at once and still run in expiry
// order. `offset` must be normalised (0 <= tv_usec < 1000000) and not negative. Returns 0, or
// -1 when libevent refuses to re-arm a timer (only possible off libevent 2.1).
int event_base_timeout_subtract_offset(struct event_base* base, const struct timeval* offset);

// The base's present time in the same representation, measured by arming and removing a
// zero-delay timer. Returns 0, or -1 when libevent refuses.
int tarvo_event_base_now(struct event_base* base, struct timeval* out);

// The two implementations of each operation, callable directly so that both can be tested on
// this machine. The in-place ones require libevent 2.1.
int tarvo_event_base_first_timeout_in_place(struct event_base* base, struct timeval* out);
int tarvo_event_base_subtract_in_place(struct event_base* base, const struct timeval* offset);
int tarvo_event_base_first_timeout_by_walk(struct event_base* base, struct timeval* out);
int tarvo_event_base_subtract_by_rearm(struct event_base* base, const struct timeval* offset);

#ifdef __cplusplus
}
#endif
