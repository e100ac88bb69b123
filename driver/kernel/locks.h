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

// A mutex that all workers want again and again. A plain one that becomes free is handed to the first who
// sleeps on it, and all who run then wait until that one is awake. So nobody sleeps on this one itself, but
// at Open: who comes through tries again, and one at a time is being woken.
//
// Waking is 1 exactly while a wake-up is on its way: from the moment that a giver has decided to set Open
// until a sleeper is through. Who waits at Open has counted itself in Sleepers before it tried the mutex for
// the last time. So a sleeper whom a giver does not see gets the mutex by that try; and where a giver sees
// sleepers and Waking, the one who is on its way takes the mutex or tries it in vain, and then its holder
// gives it in turn.
struct Busy_Mutex {
    KEVENT Free;  // synchronization: signalled while nobody holds the mutex
    KEVENT Open;  // synchronization
    volatile LONG Sleepers;
    volatile LONG Waking;
};

// Free or held from the beginning.
inline void Mutex_Init(Busy_Mutex& Mutex, bool Free = true)
{
    KeInitializeEvent(&Mutex.Free, SynchronizationEvent, Free);
    KeInitializeEvent(&Mutex.Open, SynchronizationEvent, FALSE);
    Mutex.Sleepers = 0;
    Mutex.Waking = 0;
}

// Not when others sleep for it, who go first.
inline bool Mutex_Try(Busy_Mutex& Mutex)
{
    return Mutex.Sleepers == 0 && Mutex_Try(Mutex.Free);
}

inline void Mutex_Take(Busy_Mutex& Mutex)
{
    if (Mutex_Spin(Mutex.Free))
        return;
    InterlockedIncrement(&Mutex.Sleepers);
    while (!Mutex_Try(Mutex.Free)) {
        KeWaitForSingleObject(&Mutex.Open, Executive, KernelMode, FALSE, nullptr);
        InterlockedExchange(&Mutex.Waking, 0);
        if (Mutex_Spin(Mutex.Free))
            break;
    }
    InterlockedDecrement(&Mutex.Sleepers);
}

// At DISPATCH_LEVEL at most.
inline void Mutex_Give(Busy_Mutex& Mutex)
{
    Mutex_Give(Mutex.Free);
    if (Mutex.Sleepers > 0 && InterlockedExchange(&Mutex.Waking, 1) == 0)
        KeSetEvent(&Mutex.Open, IO_NO_INCREMENT, FALSE);
}

// Holds a mutex for a scope; PASSIVE_LEVEL.
template <typename Mutex>
class Mutex_Guard {
public:
    explicit Mutex_Guard(Mutex& Held) : Held_(Held) { Mutex_Take(Held_); }
    ~Mutex_Guard() { Mutex_Give(Held_); }
    Mutex_Guard(const Mutex_Guard&) = delete;
    Mutex_Guard& operator=(const Mutex_Guard&) = delete;

    // For a part of the scope that others may run in.
    void Let_Go() { Mutex_Give(Held_); }
    void Take_Again() { Mutex_Take(Held_); }

private:
    Mutex& Held_;
};
