// SPDX-License-Identifier: MIT
// A kernel spin lock held, or let go, for a scope.
#pragma once

#include <nt.h>

namespace machine {

class SpinLockHold {
public:
    explicit SpinLockHold(KSPIN_LOCK& lock) : lock_(lock), irql_(KfAcquireSpinLock(&lock)) {}
    ~SpinLockHold() noexcept(false) { KfReleaseSpinLock(&lock_, irql_); }
    SpinLockHold(const SpinLockHold&) = delete;
    SpinLockHold& operator=(const SpinLockHold&) = delete;

private:
    KSPIN_LOCK& lock_;
    KIRQL irql_;
};

// The same, and the scope stays at DISPATCH_LEVEL while a SpinLockPause lets go of the lock.
class SpinLockHoldAtDispatch {
public:
    explicit SpinLockHoldAtDispatch(KSPIN_LOCK& lock) : hold_(lock) {}

private:
    struct DispatchLevel {
        DispatchLevel() : old(KfRaiseIrql(DISPATCH_LEVEL)) {}
        ~DispatchLevel() noexcept(false) { KfLowerIrql(old); }
        DispatchLevel(const DispatchLevel&) = delete;
        DispatchLevel& operator=(const DispatchLevel&) = delete;
        KIRQL old;
    };

    DispatchLevel level_;
    SpinLockHold hold_;
};

// Lets a lock go for a scope.
class SpinLockPause {
public:
    explicit SpinLockPause(KSPIN_LOCK& lock) : lock_(lock) { KfReleaseSpinLock(&lock, DISPATCH_LEVEL); }
    ~SpinLockPause() noexcept(false) { KfAcquireSpinLock(&lock_); }
    SpinLockPause(const SpinLockPause&) = delete;
    SpinLockPause& operator=(const SpinLockPause&) = delete;

private:
    KSPIN_LOCK& lock_;
};

}  // namespace machine
