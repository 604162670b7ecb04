// Two event-base operations that libevent 2.1 lacks, built only on its public interface
// (event_base_foreach_event, event_pending, event_add). Fast-forward uses them to find the
// earliest timer of a base and to make every timer due sooner.
//
// Expiry times are absolute times in the representation event_pending() reports for timer
// events: the base's monotonic clock mapped onto the wall clock. Both operations belong to
// the thread that runs the base and may be called from inside its callbacks.
//
// What they cannot do:
// - A persistent event (EV_PERSIST) with a timeout is left untouched by the subtraction:
//   re-adding it with the shortened delay would make that delay its period from then on.
//   The library never arms such events; a client that does sees them fire on real time.
// - Common-timeout queues (event_base_init_common_timeout) are not kept: a one-shot event
//   armed with a common timeout is re-armed as an ordinary timer (correct expiry, but the
//   queue's constant-time insertion is lost for it).
// - The subtraction visits every event of the base, so it costs linear time in their number
//   plus one timer-heap update per pending timer.
#pragma once

#include <sys/time.h>

struct event_base;

#ifdef __cplusplus
extern "C" {
#endif

// Stores in `out` the absolute expiry of the earliest pending timer of `base` and returns 0;
// returns -1, leaving `out` as it was, when no timer is pending.
int event_base_get_first_timeout(struct event_base* base, struct timeval* out);

// Makes every pending timer of `base` (except persistent ones) expire `offset` sooner,
// keeping their order, even when that moves the expiry into the past: such timers are due at
// once and still run in expiry order. `offset` must be normalised (0 <= tv_usec < 1000000)
// and not negative. Returns 0, or -1 when libevent refuses to re-arm a timer.
int event_base_timeout_subtract_offset(struct event_base* base, const struct timeval* offset);

// The base's present time in the same representation, measured by arming and removing a
// zero-delay timer. Returns 0, or -1 when libevent refuses.
int tarvo_event_base_now(struct event_base* base, struct timeval* out);

#ifdef __cplusplus
}
#endif
