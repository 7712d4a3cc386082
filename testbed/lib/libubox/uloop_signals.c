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

static LIST_HEAD(processes);

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

int uloop_process_add(struct uloop_process *p)
{
	if (p->pending)
		return -1;
	list_add_tail(&p->list, &processes);
	p->pending = true;
	return 0;
}

int uloop_process_delete(struct uloop_process *p)
{
	if (!p->pending)
		return -1;
	list_del(&p->list);
	p->pending = false;
	return 0;
}

// The callbacks may delete, and announce, any other record.
static void report_exit(pid_t pid, int status)
{
	LIST_HEAD(ended);
	struct uloop_process *p;
	struct uloop_process *following;

	list_for_each_entry_safe(p, following, &processes, list)
	{
		if (p->pid != pid)
			continue;
		list_del(&p->list);
		list_add_tail(&p->list, &ended);
	}
	while (!list_empty(&ended)) {
		p = list_first_entry(&ended, struct uloop_process, list);
		uloop_process_delete(p);
		p->cb(p, status);
	}
}

void uloop_collect_children(void)
{
	int status;
	pid_t pid;

	if (!child_exited)
		return;
	child_exited = 0;
	do {
		pid = waitpid(-1, &status, WNOHANG);
		if (pid > 0)
			report_exit(pid, status);
	} while (pid > 0 || (pid < 0 && errno == EINTR));
}

void uloop_drop_processes(void)
{
	while (!list_empty(&processes))
		uloop_process_delete(list_first_entry(&processes, struct uloop_process, list));
	child_exited = 0;
}
