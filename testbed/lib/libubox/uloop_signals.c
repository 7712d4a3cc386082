// SPDX-License-Identifier: ISC
#include <errno.h>
#include <string.h>
#include <sys/wait.h>

#include "uloop_internal.h"

// Only a signal that nobody handled or ignored when the loop was opened becomes the
// loop's.
struct loop_signal {
	int number;
	void (*handler)(int number);
	bool installed;
	struct sigaction found;
};

static void on_ending_signal(int number);
static void on_child_signal(int number);

static struct loop_signal signals[] = {
	{.number = SIGINT, .handler = on_ending_signal},
	{.number = SIGTERM, .handler = on_ending_signal},
	{.number = SIGCHLD, .handler = on_child_signal},
};

static volatile sig_atomic_t ending_signal;
static volatile sig_atomic_t child_exited;

static void on_ending_signal(int number)
{
	ending_signal = number;
	uloop_cancelled = true;
	uloop_wake();
}

static void on_child_signal(int number)
{
	(void)number;
	child_exited = 1;
	uloop_wake();
}

int uloop_ending_signal(void)
{
	return ending_signal;
}

void uloop_forget_ending_signal(void)
{
	ending_signal = 0;
}

void uloop_install_signals(void)
{
	for (size_t i = 0; i < sizeof(signals) / sizeof(signals[0]); i++) {
		struct loop_signal *sig = &signals[i];
		struct sigaction action;

		sigaction(sig->number, NULL, &sig->found);
		if (sig->found.sa_handler != SIG_DFL)
			continue;
		memset(&action, 0, sizeof(action));
		sigemptyset(&action.sa_mask);
		action.sa_handler = sig->handler;
		sig->installed = sigaction(sig->number, &action, NULL) == 0;
	}
}

void uloop_restore_signals(void)
{
	for (size_t i = 0; i < sizeof(signals) / sizeof(signals[0]); i++) {
		if (signals[i].installed)
			sigaction(signals[i].number, &signals[i].found, NULL);
		signals[i].installed = false;
	}
}

void uloop_forget_children(void)
{
	child_exited = 0;
}

void uloop_collect_children(void)
{
	pid_t pid;

	if (!child_exited)
		return;
	child_exited = 0;
	do {
		pid = waitpid(-1, NULL, WNOHANG);
	} while (pid > 0 || (pid < 0 && errno == EINTR));
}
