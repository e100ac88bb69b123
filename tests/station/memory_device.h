// SPDX-License-Identifier: MIT
// A disk in memory whose transfers end when the test says so, in the order it says.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "station/block_device.h"

namespace station_test {

class MemoryDevice : public station::BlockDevice {
public:
    explicit MemoryDevice(std::size_t bytes) : disk(bytes) {}

    std::uint64_t size_bytes() const override { return disk.size(); }
    std::unique_ptr<station::BlockQueue> open_queue() override { return std::make_unique<Queue>(*this); }

    // Transfers are kept from now on, until finish(); otherwise they end at once.
    void hold(bool on)
    {
        std::lock_guard guard(lock);
        holding = on;
    }
    void wait_until_held(std::size_t count)
    {
        std::unique_lock guard(lock);
        changed.wait(guard, [&] { return held.size() >= count; });
    }
    std::size_t held_count()
    {
        std::lock_guard guard(lock);
        return held.size();
    }
    // Ends one of the held transfers.
    void finish(std::size_t index)
    {
        station::Transfer* transfer;
        {
            std::lock_guard guard(lock);
            transfer = held.at(index);
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(index));
        }
        carry_out(*transfer);
    }

    std::vector<std::uint8_t> disk;
    std::atomic<bool> fails = false;  // every transfer ends with an error

private:
    class Queue : public station::BlockQueue {
    public:
        explicit Queue(MemoryDevice& device) : device_(device) {}
        void submit(station::Transfer& transfer) override { device_.take(transfer); }

    private:
        MemoryDevice& device_;
    };

    void take(station::Transfer& transfer)
    {
        {
            std::lock_guard guard(lock);
            if (holding) {
                held.push_back(&transfer);
                changed.notify_all();
                return;
            }
        }
        carry_out(transfer);
    }
    void carry_out(station::Transfer& transfer)
    {
        std::uint8_t* const at = disk.data() + static_cast<std::size_t>(transfer.offset);
        transfer.error = 0;
        if (transfer.operation == station::Transfer::Operation::read)
            std::memcpy(transfer.data, at, transfer.length);
        if (transfer.operation == station::Transfer::Operation::write)
            std::memcpy(at, transfer.data, transfer.length);
        if (transfer.operation == station::Transfer::Operation::zero)
            std::memset(at, 0, transfer.length);
        if (fails)
            transfer.error = 5;
        transfer.done(transfer);
    }

    std::mutex lock;
    std::condition_variable changed;
    bool holding = false;
    std::vector<station::Transfer*> held;
};

}  // namespace station_test
