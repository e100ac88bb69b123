// SPDX-License-Identifier: MIT
// What an export stands on: a disk that takes transfers through queues. The station's disks are LUNs
// of the machine; tests put a memory disk here.
#pragma once

#include <cstdint>
#include <memory>

namespace station {

// One read, write, flush, or write of zeros without data. Belongs to the queue from submit() until done is
// called.
struct Transfer {
    enum class Operation { read, write, flush, zero };

    Operation operation = Operation::read;
    std::uint64_t offset = 0;      // bytes; a multiple of 512
    std::uint32_t length = 0;      // bytes; a multiple of 512; 0 for a flush
    std::uint8_t* data = nullptr;  // of a read or write
    std::uint32_t error = 0;       // 0, or an error of the block protocol; valid when done

    // Called once, in any thread, at up to DISPATCH_LEVEL; must not wait. The transfer is the
    // caller's again from here on.
    void (*done)(Transfer&) = nullptr;

    void* owner = nullptr;  // the caller's own

    // The queue's own: how far the transfer is, and since when.
    std::int64_t started_us = 0;
    std::uint32_t issued = 0;  // bytes handed to the disk
    std::uint32_t pieces_in_flight = 0;
    Transfer* next = nullptr;
};

// One connection's road to one disk. Any length is taken; transfers run concurrently and end in any
// order.
class BlockQueue {
public:
    virtual ~BlockQueue() = default;  // only when every transfer is done
    virtual void submit(Transfer& transfer) = 0;
};

class BlockDevice {
public:
    virtual ~BlockDevice() = default;
    virtual std::uint64_t size_bytes() const = 0;  // 0: no medium
    virtual std::unique_ptr<BlockQueue> open_queue() = 0;
};

}  // namespace station
