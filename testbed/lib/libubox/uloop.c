// SPDX-License-Identifier: ISC
#include "uloop.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "uloop_internal.h"

#define MAX_FETCHED 10

bool uloop_cancelled;

static int epoll_fd = -1;
static int wake_fd = -1;
static int run_depth;

// Events are fetched in batches and handed over one per pass, so that due timers run
// between any two. A watch that is deleted loses its place in here too.
static struct epoll_event fetched[MAX_FETCHED];
static int fetched_count;
static int fetched_next;

static void close_descriptors(void)
{
	if (wake_fd >= 0)
		close(wake_fd);
	if (epoll_fd >= 0)
		close(epoll_fd);
	wake_fd = -1;
	epoll_fd = -1;
}

int uloop_init(void)
{
	struct epoll_event wake_event = {.events = EPOLLIN, .data = {.ptr = NULL}};

	if (epoll_fd >= 0)
		return 0;
	epoll_fd = epoll_create1(EPOLL_CLOEXEC);
	wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
	if (epoll_fd < 0 || wake_fd < 0 ||
	    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, wake_fd, &wake_event) != 0) {
		close_descriptors();
		return -1;
	}
	fetched_count = 0;
	fetched_next = 0;
	uloop_install_signals();
	return 0;
}

void uloop_done(void)
{
	if (epoll_fd < 0)
		return;
	uloop_restore_signals();
	close_descriptors();
	uloop_drop_timers();
	uloop_forget_children();
	fetched_count = 0;
	fetched_next = 0;
}

void uloop_wake(void)
{
	const int saved_errno = errno;

	eventfd_write(wake_fd, 1); // fails only when it is full of wake-ups
	errno = saved_errno;
}

static int make_non_blocking(int fd)
{
	const int mode = fcntl(fd, F_GETFL);

	return mode < 0 ? -1 : fcntl(fd, F_SETFL, mode | O_NONBLOCK);
}

static uint32_t wanted_events(unsigned int flags)
{
	uint32_t events = EPOLLRDHUP;

	if (flags & ULOOP_READ)
		events |= EPOLLIN;
	if (flags & ULOOP_WRITE)
		events |= EPOLLOUT;
	return events;
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
	struct epoll_event event = {.events = wanted_events(flags), .data = {.ptr = sock}};
	const int operation = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;

	if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
		return uloop_fd_delete(sock);
	if (!sock->registered && !(flags & ULOOP_BLOCKING) && make_non_blocking(sock->fd) != 0)
		return -1;
	if (epoll_ctl(epoll_fd, operation, sock->fd, &event) != 0)
		return -1;
	sock->registered = true;
	sock->flags = (uint8_t)flags;
	sock->eof = false;
	sock->error = false;
	return 0;
}

int uloop_fd_delete(struct uloop_fd *sock)
{
	for (int i = fetched_next; i < fetched_count; i++) {
		if (fetched[i].data.ptr == sock)
			fetched[i].data.ptr = NULL;
	}
	if (!sock->registered)
		return 0;
	sock->registered = false;
	sock->flags = 0;
	return epoll_ctl(epoll_fd, EPOLL_CTL_DEL, sock->fd, NULL);
}

// Hands one event to its watch.
static void dispatch(struct uloop_fd *sock, uint32_t happened)
{
	unsigned int events = 0;

	if (happened & EPOLLRDHUP)
		sock->eof = true;
	if (happened & EPOLLIN)
		events |= ULOOP_READ;
	if (happened & EPOLLOUT)
		events |= ULOOP_WRITE;
	// The watch may have been changed since the event was fetched.
	events &= sock->flags;
	if (happened & (EPOLLERR | EPOLLHUP)) {
		sock->error = true;
		if (!(sock->flags & ULOOP_ERROR_CB))
			uloop_fd_delete(sock);
	}
	if (sock->cb && (events || sock->eof || sock->error))
		sock->cb(sock, events);
}

static void fetch_events(int timeout)
{
	const int count = epoll_wait(epoll_fd, fetched, MAX_FETCHED, timeout);
	eventfd_t wake_ups;

	fetched_count = count < 0 ? 0 : count;
	fetched_next = 0;
	for (int i = 0; i < fetched_count; i++) {
		if (!fetched[i].data.ptr)
			eventfd_read(wake_fd, &wake_ups);
	}
}

// Waits only when nothing of the last batch is left.
static void run_one_event(int timeout)
{
	if (fetched_next >= fetched_count)
		fetch_events(timeout);
	while (fetched_next < fetched_count) {
		const struct epoll_event event = fetched[fetched_next++];

		if (event.data.ptr) {
			dispatch(event.data.ptr, event.events);
			return;
		}
	}
}

// The shorter of two waits, of which a negative one is endless.
static int shorter_wait(int one, int other)
{
	if (one < 0 || other < 0)
		return one < 0 ? other : one;
	return one < other ? one : other;
}

static void run_pass(int timeout)
{
	uloop_run_due_timers();
	uloop_collect_children();
	if (!uloop_cancelled)
		run_one_event(shorter_wait(timeout, uloop_get_next_timeout()));
}

int uloop_run_timeout(int timeout)
{
	if (run_depth++ == 0) {
		uloop_cancelled = false;
		uloop_forget_ending_signal();
	}
	do {
		run_pass(timeout);
	} while (!uloop_cancelled && timeout < 0 && epoll_fd >= 0);
	run_depth--;
	return uloop_ending_signal();
}
