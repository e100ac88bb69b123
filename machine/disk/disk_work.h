// SPDX-License-Identifier: MIT
// How a local disk's device carries requests out in time: one way for each scheduler. Destroyed when the
// machine is off, perhaps while a thread of it is still inside a call to the host: such a call ends without
// another look here.
#pragma once

#include <memory>

#include "machine/disk/disk_request.h"

namespace machine {

class DiskWork {
public:
    virtual ~DiskWork() = default;

    // Of one sector at least. Completes the request, at once or later, and returns what its dispatch routine
    // does. PASSIVE_LEVEL.
    virtual NTSTATUS start(const DiskRequest& request) = 0;
    // What is complete becomes durable; false when the host cannot promise it.
    virtual bool flush() = 0;
};

// Latencies and a volatile cache, drawn from the disk's seed. What is under way at the end stays with the
// disk as if it stood in the cache.
std::unique_ptr<DiskWork> make_simulated_disk(std::shared_ptr<DiskState> state);
// The host's own speed, in the requester's thread or in those of the disk.
std::unique_ptr<DiskWork> make_hosted_disk(std::shared_ptr<DiskState> state);

}  // namespace machine
