// SPDX-License-Identifier: MIT
// Where a disk's blocks are kept: a raw image file, a block device, or memory.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace server {

// One of several reads that are about to be asked for.
struct ReadAhead {
    std::uint64_t offset;
    std::span<std::uint8_t> out;
    bool done = false;
};
constexpr std::size_t reads_ahead_max = 8;

class BlockStore {
public:
    virtual ~BlockStore() = default;

    virtual std::uint64_t size_bytes() const = 0;  // a multiple of 512
    // Ranges are checked by the caller to lie inside the store. False: the medium failed, errno says why.
    virtual bool read(std::uint64_t offset, std::span<std::uint8_t> out) = 0;
    virtual bool write(std::uint64_t offset, std::span<const std::uint8_t> data) = 0;
    // The one call that another thread may make while the rest is used.
    virtual bool flush() = 0;
    // True only when the range certainly reads as zeros without being read (a hole).
    virtual bool hole(std::uint64_t offset, std::uint64_t bytes) = 0;
    // At most reads_ahead_max of them: a store that would wait for one after the other lets them run at once.
    // Those that it has read by then are done; the others are still to be read.
    virtual void read_ahead(std::span<ReadAhead>) {}
    // True: it is read, and the medium was not waited for. Otherwise it is still to be read.
    virtual bool read_now(std::uint64_t, std::span<std::uint8_t>) { return false; }
};

// Throws std::system_error or std::runtime_error with a message that names the path.
std::unique_ptr<BlockStore> open_file_store(const std::string& path, bool readonly);

// The same for a file of the server's own that holds a disk and more: of any size, and zeros written to it
// always make holes. Opened for reading only it is not locked.
std::unique_ptr<BlockStore> open_sparse_file(const std::string& path, bool readonly);

// All zeros at first; for tests and simulations.
class MemoryStore : public BlockStore {
public:
    explicit MemoryStore(std::uint64_t size_bytes) : bytes_(static_cast<std::size_t>(size_bytes)) {}
    std::uint64_t size_bytes() const override { return bytes_.size(); }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override;
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
    bool flush() override { return true; }
    bool hole(std::uint64_t, std::uint64_t) override { return false; }
    std::vector<std::uint8_t>& bytes() { return bytes_; }
    // A medium that has gone bad, or is full. Reads and writes fail from here on, or work again.
    void set_failing(bool reads, bool writes)
    {
        reads_fail_ = reads;
        writes_fail_ = writes;
    }

private:
    bool reads_fail_ = false;
    bool writes_fail_ = false;
    std::vector<std::uint8_t> bytes_;
};

}  // namespace server
