// A real-time signal sent to the registered thread with pthread_kill. The handler is installed
// once, with SA_RESTART so that reads and writes resume by themselves; poll() and friends, which
// never restart, are retried by their callers.
#include "platform/ThreadInterrupt.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <mutex>

namespace tw::threadInterrupt {
namespace {

std::atomic<Handler> handler{nullptr};
static_assert(std::atomic<Handler>::is_always_lock_free);

std::mutex targetMutex;
bool hasTarget = false;
pthread_t target;

int interruptSignal() { return SIGRTMIN + 3; }

void onSignal(int) {
    if (Handler h = handler.load(std::memory_order_relaxed)) h();
}

void installOnce() {
    static const bool installed = [] {
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(interruptSignal(), &action, nullptr);
        return true;
    }();
    (void)installed;
}

}  // namespace

void enter(Handler h) {
    installOnce();
    handler.store(h, std::memory_order_relaxed);
    // A thread that inherited a mask blocking everything must still be reachable.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, interruptSignal());
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::lock_guard lock(targetMutex);
    target = pthread_self();
    hasTarget = true;
}

void leave() {
    std::lock_guard lock(targetMutex);
    if (hasTarget && pthread_equal(target, pthread_self())) hasTarget = false;
}

void interrupt() {
    // Under the lock, so the target cannot leave and end between the check and the signal.
    std::lock_guard lock(targetMutex);
    if (hasTarget) pthread_kill(target, interruptSignal());
}

}  // namespace tw::threadInterrupt
