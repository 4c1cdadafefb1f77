#pragma once
// Interrupting one chosen thread between any two of its instructions: the play's worker thread
// registers itself, and a stop request from any thread makes it run a handler at once, even in
// the middle of a loop that calls nothing (a signal on POSIX systems).
//
// The handler runs in signal context on the registered thread: it may only store to lock-free
// atomics and call functions that are safe there. Blocking calls on that thread may return early
// with EINTR; the engine's own waits retry.
namespace tw::threadInterrupt {

using Handler = void (*)();

// The calling thread becomes the one that interrupt() reaches, running `handler`, until leave().
void enter(Handler handler);
// The calling thread is no longer reached; call it on the thread that entered, before it ends.
void leave();
// Interrupts the registered thread, if there is one. Any thread, including the registered one.
void interrupt();

}  // namespace tw::threadInterrupt
