// SPDX-License-Identifier: MIT
// Scope guards for the driver's locks.
//
// Lock order: no two of the driver's spin locks are ever held together. They are, with the room they
// belong to: Pending_Lock, Active_Lock, Park_Lock and each worker's Ack_Lock (request), Server_Lock (net),
// Phys_Lock (state), Sync_Lock (image).
//
// The mutexes are synchronization events that are signalled while free. They are taken in this order: a
// disk's Local_Cache Lock, the cache set-up's lock, a memory object's Obj_Lock, a pool's Pool_Lock.
// Those of the local images: Img_Lock, an image block object's Map_Lock, an image's Hdr_Lock.
#pragma once

#include <nt.h>

// Holds a spin lock for a scope; raises to DISPATCH_LEVEL.
class Spin_Guard {
public:
    explicit Spin_Guard(KSPIN_LOCK& Lock) : Lock_(Lock) { KeAcquireSpinLock(&Lock_, &Irql_); }
    ~Spin_Guard() { KeReleaseSpinLock(&Lock_, Irql_); }
    Spin_Guard(const Spin_Guard&) = delete;
    Spin_Guard& operator=(const Spin_Guard&) = delete;

private:
    KSPIN_LOCK& Lock_;
    KIRQL Irql_;
};

inline void Mutex_Init(KEVENT& Mutex)
{
    KeInitializeEvent(&Mutex, SynchronizationEvent, TRUE);
}

inline bool Mutex_Try(KEVENT& Mutex)
{
    LARGE_INTEGER No_Time{};
    return KeWaitForSingleObject(&Mutex, Executive, KernelMode, FALSE, &No_Time) == STATUS_SUCCESS;
}

// Looks for a few microseconds whether the mutex becomes free: they are held for the copy of a block at most,
// or for very long.
inline bool Mutex_Spin(KEVENT& Mutex)
{
    constexpr ULONG Spins_Max = 100;
    for (ULONG Spin = 0; Spin < Spins_Max; ++Spin) {
        if (KeReadStateEvent(&Mutex) && Mutex_Try(Mutex))
            return true;
        YieldProcessor();
    }
    return false;
}

inline void Mutex_Take(KEVENT& Mutex)
{
    if (!Mutex_Spin(Mutex))
        KeWaitForSingleObject(&Mutex, Executive, KernelMode, FALSE, nullptr);
}

inline void Mutex_Give(KEVENT& Mutex)
{
    KeSetEvent(&Mutex, IO_NO_INCREMENT, FALSE);
}

// Where the sleepers of a mutex wait that all workers want again and again. An event that becomes free is
// handed to the first who sleeps on it, and all who run then wait until that one is awake. So nobody sleeps
// on the mutex itself: who comes through the gate tries again, and one at a time is being woken.
struct Mutex_Gate {
    KEVENT Open;
    volatile LONG Sleepers;
    volatile LONG Waking;
};

inline void Gate_Init(Mutex_Gate& Gate)
{
    KeInitializeEvent(&Gate.Open, SynchronizationEvent, FALSE);
    Gate.Sleepers = 0;
    Gate.Waking = 0;
}

inline void Mutex_Take(KEVENT& Mutex, Mutex_Gate& Gate)
{
    if (Mutex_Spin(Mutex))
        return;
    InterlockedIncrement(&Gate.Sleepers);
    while (!Mutex_Try(Mutex)) {
        KeWaitForSingleObject(&Gate.Open, Executive, KernelMode, FALSE, nullptr);
        InterlockedExchange(&Gate.Waking, 0);
        if (Mutex_Spin(Mutex))
            break;
    }
    InterlockedDecrement(&Gate.Sleepers);
}

// At DISPATCH_LEVEL at most. A sleeper counts itself before it tries the mutex for the last time: it got the
// mutex, or is seen here; and if another is on the way already, that one gives the mutex back in its turn.
inline void Mutex_Give(KEVENT& Mutex, Mutex_Gate& Gate)
{
    Mutex_Give(Mutex);
    if (Gate.Sleepers > 0 && InterlockedExchange(&Gate.Waking, 1) == 0)
        KeSetEvent(&Gate.Open, IO_NO_INCREMENT, FALSE);
}

// A mutex with its gate.
struct Busy_Mutex {
    KEVENT Free;
    Mutex_Gate Gate;
};

inline void Mutex_Init(Busy_Mutex& Mutex)
{
    Mutex_Init(Mutex.Free);
    Gate_Init(Mutex.Gate);
}

inline void Mutex_Take(Busy_Mutex& Mutex)
{
    Mutex_Take(Mutex.Free, Mutex.Gate);
}

inline void Mutex_Give(Busy_Mutex& Mutex)
{
    Mutex_Give(Mutex.Free, Mutex.Gate);
}

// Holds a mutex for a scope; PASSIVE_LEVEL.
template <typename Mutex>
class Mutex_Guard {
public:
    explicit Mutex_Guard(Mutex& Held) : Held_(Held) { Mutex_Take(Held_); }
    ~Mutex_Guard() { Mutex_Give(Held_); }
    Mutex_Guard(const Mutex_Guard&) = delete;
    Mutex_Guard& operator=(const Mutex_Guard&) = delete;

private:
    Mutex& Held_;
};
