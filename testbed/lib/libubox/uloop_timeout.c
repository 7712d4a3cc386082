// SPDX-License-Identifier: ISC
#include <limits.h>
#include <time.h>

#include "uloop_internal.h"

// Sorted by time. The pass that runs moves what is due over to `due`, so that a timer
// that is set meanwhile, however early, cannot keep the pass from ending.
static LIST_HEAD(waiting);
static LIST_HEAD(due);

// Times are compared and added part by part: dividing 64 bits, 32-bit ARM needs the
// compiler's library, which the router then has to have.
#define MICROSECONDS 1000000
#define MILLISECONDS 1000

static struct timeval monotonic_now(void)
{
	struct timespec now;

	clock_gettime(CLOCK_MONOTONIC, &now);
	return (struct timeval){.tv_sec = now.tv_sec, .tv_usec = (suseconds_t)(now.tv_nsec / 1000)};
}

static bool is_later(const struct timeval *time, const struct timeval *other)
{
	if (time->tv_sec != other->tv_sec)
		return time->tv_sec > other->tv_sec;
	return time->tv_usec > other->tv_usec;
}

// Any delay, a negative one too.
static struct timeval time_after(struct timeval time, int msecs)
{
	time.tv_sec += msecs / MILLISECONDS;
	time.tv_usec += msecs % MILLISECONDS * MILLISECONDS;
	if (time.tv_usec < 0) {
		time.tv_usec += MICROSECONDS;
		time.tv_sec--;
	} else if (time.tv_usec >= MICROSECONDS) {
		time.tv_usec -= MICROSECONDS;
		time.tv_sec++;
	}
	return time;
}

// From now to then; both parts are negative when it is past.
static struct timeval time_until(const struct timeval *then)
{
	const struct timeval now = monotonic_now();
	struct timeval left = {
		.tv_sec = then->tv_sec - now.tv_sec,
		.tv_usec = then->tv_usec - now.tv_usec,
	};

	if (left.tv_sec > 0 && left.tv_usec < 0) {
		left.tv_sec--;
		left.tv_usec += MICROSECONDS;
	} else if (left.tv_sec < 0 && left.tv_usec > 0) {
		left.tv_sec++;
		left.tv_usec -= MICROSECONDS;
	}
	return left;
}

// Less than a second has room in a long, which any machine divides.
static int64_t milliseconds(struct timeval time)
{
	return (int64_t)time.tv_sec * MILLISECONDS + (long)time.tv_usec / MILLISECONDS;
}

int uloop_timeout_add(struct uloop_timeout *timeout)
{
	struct list_head *before = &waiting;
	struct uloop_timeout *other;

	if (timeout->pending)
		return -1;
	list_for_each_entry(other, &waiting, list)
	{
		if (is_later(&other->time, &timeout->time)) {
			before = &other->list;
			break;
		}
	}
	list_add_tail(&timeout->list, before);
	timeout->pending = true;
	return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs)
{
	struct timeval when = time_after(monotonic_now(), msecs);

	if (timeout->pending)
		uloop_timeout_cancel(timeout);
	// A clock that started a moment ago leaves no room for a delay below zero.
	if (when.tv_sec < 0)
		when = (struct timeval){0};
	timeout->time = when;
	return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;
	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout)
{
	return timeout->pending ? milliseconds(time_until(&timeout->time)) : -1;
}

int uloop_get_next_timeout(void)
{
	const struct uloop_timeout *first;
	struct timeval wait;
	int64_t left;

	if (!list_empty(&due))
		return 0;
	if (list_empty(&waiting))
		return -1;
	first = list_first_entry(&waiting, struct uloop_timeout, list);
	wait = time_until(&first->time);
	if (wait.tv_sec < 0 || wait.tv_usec < 0)
		return 0;
	// Rounded up: a wait that ends too early would make the loop spin until it is time.
	wait.tv_usec += MILLISECONDS - 1;
	left = milliseconds(wait);
	return left > INT_MAX ? INT_MAX : (int)left;
}

static void collect_due(void)
{
	struct timeval now = monotonic_now();
	struct uloop_timeout *timeout;
	struct uloop_timeout *following;

	list_for_each_entry_safe(timeout, following, &waiting, list)
	{
		if (is_later(&timeout->time, &now))
			return;
		list_del(&timeout->list);
		list_add_tail(&timeout->list, &due);
	}
}

void uloop_run_due_timers(void)
{
	collect_due();
	while (!list_empty(&due)) {
		struct uloop_timeout *timeout = list_first_entry(&due, struct uloop_timeout, list);

		uloop_timeout_cancel(timeout);
		if (timeout->cb)
			timeout->cb(timeout);
	}
}

static void drop_all(struct list_head *timers)
{
	while (!list_empty(timers))
		uloop_timeout_cancel(list_first_entry(timers, struct uloop_timeout, list));
}

void uloop_drop_timers(void)
{
	drop_all(&due);
	drop_all(&waiting);
}
