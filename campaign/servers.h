// SPDX-License-Identifier: MIT
// The block servers of a seed. They outlive the workstation: after it was off, the next start finds them as
// they are. A server that crashes loses what it knows, and at times its last writes too.
#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "campaign/canary.h"
#include "campaign/plan.h"
#include "simulation/block_server.h"

namespace campaign {

// A disk's blocks, with what its last writes replaced.
class JournaledStore : public server::MemoryStore {
public:
    // first_byte: where on the disk the bytes begin; what lies before reads as zeros.
    JournaledStore(std::uint64_t size_bytes, std::uint64_t first_byte, Canary& canary);

    std::uint64_t size_bytes() const override { return first_byte_ + server::MemoryStore::size_bytes(); }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override;
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
    bool flush() override { return journal_.clear(), true; }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override;
    // Undoes the last writes, newest first. Calls with each place among the bytes that changed.
    void lose_writes(unsigned count,
                     const std::function<void(std::uint64_t offset, std::uint64_t bytes)>& changed);
    unsigned unflushed() const { return static_cast<unsigned>(journal_.size()); }
    std::uint64_t writes() const { return writes_; }
    std::uint64_t errors() const { return errors_; }

private:
    struct Replaced {
        std::uint64_t offset;
        std::vector<std::uint8_t> bytes;
    };
    static constexpr std::size_t journal_max = 200;

    const std::uint64_t first_byte_;
    Canary& canary_;
    std::deque<Replaced> journal_;
    std::uint64_t writes_ = 0, errors_ = 0;
};

// A server whose disks are journaled, and whose answers the canary may touch.
class BlockServer : public simulation::BlockServer {
public:
    BlockServer(const Plan& plan, unsigned index, Canary& canary);

    JournaledStore& store(unsigned lun) { return *stores_[lun]; }

private:
    void transmit(std::vector<std::uint8_t>& packet) override;

    Canary& canary_;
    std::vector<JournaledStore*> stores_;
};

}  // namespace campaign
