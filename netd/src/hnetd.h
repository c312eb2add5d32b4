// The daemon's service thread, and what the closed libraries are entered through.
//
// hnetdStart makes the one service context and starts the thread "callManager". It runs the layer's
// start-up frame, whose hooks user_sysinit and user_syskill (internal.h) are the daemon's: the
// first enters the net library on the root task, the second is the pump of the software timers. All
// callbacks of software timers run on the service thread; one that blocks holds up every timer.
//
// SIGTERM, which init sends, stops the daemon like hnetdStop, from the moment the service thread
// exists; without one it ends the process by itself. A second one ends the process at once, as when
// a callback blocks and the cycle in progress has no end.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes the context, starts the service thread and takes SIGTERM over. Called once, by main.
 *
 * @return 0, or -1 without memory or without a thread; the daemon then lives on without the layer,
 *         the net library and the pump
 */
int hnetdStart(void);

/**
 * Asks the daemon to stop: the pump ends after the cycle in progress, and the service thread ends
 * the process with exit_value. Any thread; returns at once. Does nothing before hnetdStart.
 */
void hnetdStop(void);

/**
 * Brings up the closed net library; provided by libhalden_net. Called once, on the root task.
 *
 * @return not looked at
 */
int hnetInit(void);

/**
 * Brings up the closed proxy service; provided by libhalden_netservice. Called once, on the main
 * thread, before anything of the layer runs.
 *
 * @return not looked at
 */
int nxaProxyServiceInit(void);

#ifdef __cplusplus
}
#endif
