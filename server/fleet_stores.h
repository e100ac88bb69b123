// SPDX-License-Identifier: MIT
// Block stores around others: one that flushes every write, and one that only its owner may write to.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "formats/wire.h"
#include "server/block_store.h"

namespace server {

class StoreAround : public BlockStore {
public:
    explicit StoreAround(std::shared_ptr<BlockStore> inner) : inner_(std::move(inner)) {}
    std::uint64_t size_bytes() const override { return inner_->size_bytes(); }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        return inner_->read(offset, out);
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        return inner_->write(offset, data);
    }
    bool flush() override { return inner_->flush(); }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override { return inner_->hole(offset, bytes); }
    void read_ahead(std::span<ReadAhead> reads) override { inner_->read_ahead(reads); }
    bool read_now(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        return inner_->read_now(offset, out);
    }

private:
    std::shared_ptr<BlockStore> inner_;
};

// What is answered is on the medium.
class SyncedStore : public StoreAround {
public:
    using StoreAround::StoreAround;
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        return StoreAround::write(offset, data) && StoreAround::flush();
    }
};

// Reads that wait for their turn together are in flight together.
class AheadStore : public StoreAround {
public:
    using StoreAround::StoreAround;

    // Forgets what it had.
    void begin() { count_ = 0; }
    void add(std::uint64_t offset, std::size_t bytes)
    {
        if (count_ == reads_ahead_max || bytes > formats::packet_bytes_max)
            return;
        if (buffer_.empty())
            buffer_.resize(reads_ahead_max * formats::packet_bytes_max);
        reads_[count_] = {offset, std::span(buffer_).subspan(count_ * formats::packet_bytes_max, bytes)};
        ++count_;
    }
    void fetch()
    {
        if (count_ > 1)
            read_ahead(std::span(reads_).first(count_));
    }
    // True: the one read that was added needs no waiting.
    bool fetch_now()
    {
        return count_ == 1 && (reads_[0].done = StoreAround::read_now(reads_[0].offset, reads_[0].out));
    }

    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        for (const ReadAhead& read : std::span(reads_).first(count_))
            if (read.done && read.offset == offset && read.out.size() == out.size()) {
                std::ranges::copy(read.out, out.begin());
                return true;
            }
        return StoreAround::read(offset, out);
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        begin();
        return StoreAround::write(offset, data);
    }

private:
    std::vector<std::uint8_t> buffer_;
    std::array<ReadAhead, reads_ahead_max> reads_{};
    std::size_t count_ = 0;
};

// Which workstation writes to an exclusive disk: the first that does, until it lets go. Any thread.
class DiskOwner {
public:
    bool take(const std::string& workstation)
    {
        std::lock_guard guard(lock_);
        if (name_.empty())
            name_ = workstation;
        return name_ == workstation;
    }
    void release(const std::string& workstation)
    {
        std::lock_guard guard(lock_);
        if (name_ == workstation)
            name_.clear();
    }
    std::string name() const
    {
        std::lock_guard guard(lock_);
        return name_;
    }

private:
    mutable std::mutex lock_;
    std::string name_;
};

class ExclusiveStore : public StoreAround {
public:
    ExclusiveStore(std::shared_ptr<BlockStore> inner, std::shared_ptr<DiskOwner> owner,
                   std::string workstation)
        : StoreAround(std::move(inner)), owner_(std::move(owner)), workstation_(std::move(workstation))
    {
    }
    // Another workstation's disk: EBUSY.
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        if (owner_->take(workstation_))
            return StoreAround::write(offset, data);
        errno = EBUSY;
        return false;
    }

private:
    std::shared_ptr<DiskOwner> owner_;
    std::string workstation_;
};

}  // namespace server
