// Scope guards for the driver's locks.
//
// Lock order: no two of the driver's spin locks are ever held together. They are, with the room they
// belong to: Pending_Lock and Active_Lock (engine), each worker's Ack_Lock (net), Server_Lock (net),
// Phys_Lock (startup).
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
