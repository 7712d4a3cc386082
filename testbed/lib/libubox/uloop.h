// SPDX-License-Identifier: ISC
// The event loop: descriptors, timers, children, and the signals that end it.
// One loop per process, one thread. The caller owns every record it registers and
// keeps it in place until it is deleted, cancelled, or, for timers and children,
// until its callback begins.
#pragma once

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "list.h"

struct uloop_fd;
struct uloop_timeout;

// `events` holds ULOOP_READ and ULOOP_WRITE as far as they are possible now; it is
// 0 when the call only reports `eof` or `error`. The callback may delete any
// watch, its own included, and may free the record after that.
typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);

// The timer is out of the loop already: it may be set again or freed.
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

// `ret` is the child's status as waitpid() reports it. The record is out of the
// loop already.

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_BLOCKING (1 << 3) // leave the descriptor's mode as it is
#define ULOOP_ERROR_CB (1 << 6) // keep the watch registered on EPOLLERR and EPOLLHUP

struct uloop_fd {
	uloop_fd_handler cb;
	int fd;
	bool eof;	 // the loop's: the peer of a socket sends no more
	bool error;	 // the loop's: EPOLLERR or EPOLLHUP was seen
	bool registered; // the loop's
	uint8_t flags;	 // the loop's: what uloop_fd_add was given
};

struct uloop_timeout {
	struct list_head list;
	bool pending; // the loop's; must start as false
	uloop_timeout_handler cb;
	struct timeval time; // the loop's: when it fires, on the monotonic clock
};

// Set by uloop_end() and by SIGINT and SIGTERM: the loop ends after the callback that
// is running and the timers that are due along with it.
extern bool uloop_cancelled;

// Watches sock->fd, or changes what a registered watch waits for. The descriptor is
// made non-blocking unless ULOOP_BLOCKING is given; `eof` and `error` are cleared.
// Without ULOOP_READ and ULOOP_WRITE it is uloop_fd_delete. Returns 0, or -1 with
// errno, and then the watch is as it was.
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);

// Takes the watch out, also an event of it that is fetched and not yet handed over.
// Does not close. Returns 0 also when it was not registered, -1 when the descriptor
// was closed before (the watch is out of the loop all the same).
int uloop_fd_delete(struct uloop_fd *sock);

// Registers a timer whose `time` the caller has filled in. Returns -1 when it is
// pending already.
int uloop_timeout_add(struct uloop_timeout *timeout);

// (Re)starts a timer. Zero and negative delays fire on the next pass. Returns 0.
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);

// Returns -1 when the timer is not pending.
int uloop_timeout_cancel(struct uloop_timeout *timeout);

// Milliseconds until the timer fires, negative when it is overdue; -1 when it is
// not pending.
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

// Milliseconds until the first timer, 0 when it is due, -1 when there is none.
int uloop_get_next_timeout(void);

static inline void uloop_end(void)
{
	uloop_cancelled = true;
}

// Opens the loop and installs the handlers of SIGINT, SIGTERM and SIGCHLD, without
// SA_RESTART, except where the program handles or ignores the signal already. Returns
// 0, or -1 with errno. Opening an open loop changes nothing.
int uloop_init(void);

// Runs until uloop_end() or a signal when `timeout` is negative; otherwise runs one
// pass that waits for events at most `timeout` milliseconds. An end that was asked for
// before the run is forgotten; one that is asked for in a run inside a callback ends
// the outer run too. Returns the number of the signal that ended the loop, or 0.
int uloop_run_timeout(int timeout);

static inline int uloop_run(void)
{
	return uloop_run_timeout(-1);
}

// Closes the loop, drops all timers and children, and puts the signal handlers back
// that uloop_init found. Watched descriptors stay open.
void uloop_done(void);
