// Makes calls of the calling thread fail: malloc and pthread_create, wrapped at link time; or, for
// a program with FAIL_ALL, every allocation in the process, those inside the C library included.
#pragma once

/** The nth malloc of this thread from now fails (1: the next one), and those after it if asked. */
void fail_malloc(int nth, bool and_after = false);

/** The nth pthread_create of this thread from now fails with EAGAIN, and those after it if asked.
 */
void fail_thread(int nth, bool and_after = false);

/** Nothing fails any more. */
void fail_nothing();

/** 1 if a call failed since the last fail_malloc or fail_thread. */
bool failed();

/** Mallocs of this thread since the last fail_malloc. */
int malloc_calls();

/** With FAIL_ALL: blocks of the heap that are in use, in the whole process. */
long live_blocks();
