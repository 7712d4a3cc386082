// SPDX-License-Identifier: ISC
// What the three sources of the event loop call of each other. A pass of the loop in
// uloop.c runs the timers, collects the children and then waits.
#pragma once

#include "uloop.h"

// Wakes the loop out of its wait; the only function here that a signal handler may call.
void uloop_wake(void);

// Runs every timer that is due. What its callbacks set waits for the next pass.
void uloop_run_due_timers(void);
void uloop_drop_timers(void);

void uloop_install_signals(void);
void uloop_restore_signals(void);

// The signal that asked for the end since the last uloop_forget_ending_signal, or 0.
int uloop_ending_signal(void);
void uloop_forget_ending_signal(void);

// After a SIGCHLD, collects every child that has exited.
void uloop_collect_children(void);
void uloop_forget_children(void);
