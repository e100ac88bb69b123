// Scope guards for the driver's locks.
//
// Lock order: no two of the driver's spin locks are ever held together. They are, with the room they
// belong to: Pending_Lock and Active_Lock (engine), each worker's Ack_Lock (net), Server_Lock (net),
// Phys_Lock (startup), Sync_Lock (image).
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

// Looks again for a few microseconds before it sleeps: mutexes are held for the copy of a block at most, or
// for very long, and a thread that sleeps has the mutex handed over to it, at the price of a thread switch
// that all who come after have to wait for.
inline void Mutex_Take(KEVENT& Mutex)
{
    constexpr ULONG Spins_Max = 100;
    for (ULONG Spin = 0; Spin < Spins_Max; ++Spin) {
        if (KeReadStateEvent(&Mutex) && Mutex_Try(Mutex))
            return;
        YieldProcessor();
    }
    KeWaitForSingleObject(&Mutex, Executive, KernelMode, FALSE, nullptr);
}

inline void Mutex_Give(KEVENT& Mutex)
{
    KeSetEvent(&Mutex, IO_NO_INCREMENT, FALSE);
}

// Holds such a mutex for a scope; PASSIVE_LEVEL.
class Mutex_Guard {
public:
    explicit Mutex_Guard(KEVENT& Mutex) : Mutex_(Mutex) { Mutex_Take(Mutex_); }
    ~Mutex_Guard() { Mutex_Give(Mutex_); }
    Mutex_Guard(const Mutex_Guard&) = delete;
    Mutex_Guard& operator=(const Mutex_Guard&) = delete;

private:
    KEVENT& Mutex_;
};
