// SPDX-License-Identifier: ISC
#include <limits.h>
#include <time.h>

#include "uloop_internal.h"

// Sorted by time. The pass that runs moves what is due over to `due`, so that a timer
// that is set meanwhile, however early, cannot keep the pass from ending.
static LIST_HEAD(waiting);
static LIST_HEAD(due);

static struct timeval monotonic_now(void)
{
	struct timespec now;

	clock_gettime(CLOCK_MONOTONIC, &now);
	return (struct timeval){.tv_sec = now.tv_sec, .tv_usec = (suseconds_t)(now.tv_nsec / 1000)};
}

static int64_t microseconds(const struct timeval *time)
{
	return (int64_t)time->tv_sec * 1000000 + time->tv_usec;
}

int uloop_timeout_add(struct uloop_timeout *timeout)
{
	struct list_head *before = &waiting;
	struct uloop_timeout *other;

	if (timeout->pending)
		return -1;
	list_for_each_entry(other, &waiting, list)
	{
		if (microseconds(&other->time) > microseconds(&timeout->time)) {
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
	struct timeval now = monotonic_now();
	const int64_t when = microseconds(&now) + (int64_t)msecs * 1000;

	if (timeout->pending)
		uloop_timeout_cancel(timeout);
	// A clock that started a moment ago leaves no room for a delay below zero.
	timeout->time.tv_sec = when < 0 ? 0 : (time_t)(when / 1000000);
	timeout->time.tv_usec = when < 0 ? 0 : (suseconds_t)(when % 1000000);
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
	struct timeval now;

	if (!timeout->pending)
		return -1;
	now = monotonic_now();
	return (microseconds(&timeout->time) - microseconds(&now)) / 1000;
}

int uloop_get_next_timeout(void)
{
	const struct uloop_timeout *first;
	struct timeval now;
	int64_t left;

	if (!list_empty(&due))
		return 0;
	if (list_empty(&waiting))
		return -1;
	first = list_first_entry(&waiting, struct uloop_timeout, list);
	now = monotonic_now();
	left = microseconds(&first->time) - microseconds(&now);
	if (left <= 0)
		return 0;
	// Rounded up: a wait that ends too early would make the loop spin until it is time.
	left = (left + 999) / 1000;
	return left > INT_MAX ? INT_MAX : (int)left;
}

static void collect_due(void)
{
	struct timeval now = monotonic_now();
	struct uloop_timeout *timeout;
	struct uloop_timeout *following;

	list_for_each_entry_safe(timeout, following, &waiting, list)
	{
		if (microseconds(&timeout->time) > microseconds(&now))
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
