// The block servers of a seed. They outlive the workstation: after it was off, the next start finds them as
// they are. A server that crashes loses what it knows, and at times its last writes too.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "campaign/canary.h"
#include "campaign/plan.h"
#include "machine/scheduler/scheduler.h"
#include "server/protocol.h"

namespace campaign {

// A disk's blocks, with what its last writes replaced.
class JournaledStore : public server::MemoryStore {
public:
    explicit JournaledStore(std::uint64_t size_bytes, Canary& canary);

    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
    bool flush() override { return journal_.clear(), true; }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override;
    // Undoes the last writes, newest first. Calls with each place that changed.
    void lose_writes(unsigned count,
                     const std::function<void(std::uint64_t offset, std::uint64_t bytes)>& changed);
    unsigned unflushed() const { return static_cast<unsigned>(journal_.size()); }
    std::uint64_t writes() const { return writes_; }

private:
    struct Replaced {
        std::uint64_t offset;
        std::vector<std::uint8_t> bytes;
    };
    static constexpr std::size_t journal_max = 200;

    Canary& canary_;
    std::deque<Replaced> journal_;
    std::uint64_t writes_ = 0;
};

class BlockServer : public server::PacketSink {
public:
    BlockServer(const Plan& plan, unsigned index, Canary& canary);

    // The workstation's network, for as long as it is on. skipped_ms: how long it was off.
    void join(machine::Scheduler& scheduler, machine::SimulatedNetwork& network, std::int64_t skipped_ms);
    void leave();

    void start();  // also after stop()
    void stop();
    bool running() const { return protocol_ != nullptr; }
    const formats::ServerRecord& address() const { return address_; }
    JournaledStore& store(unsigned lun) { return *disks_[lun].store; }
    server::MemoryStore& image(unsigned lun) { return disks_[lun].image; }
    server::Protocol& protocol() { return *protocol_; }
    // Zeros when it is not running.
    server::DiskCounters counters(unsigned lun) const;

    void send(const server::Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override;

private:
    struct Disk {
        server::DiskOptions options;
        std::unique_ptr<JournaledStore> store;
        server::MemoryStore image;
    };
    void attach();

    formats::ServerRecord address_;
    Canary& canary_;
    std::vector<Disk> disks_;
    std::unique_ptr<server::Protocol> protocol_;
    machine::Scheduler* scheduler_ = nullptr;
    machine::SimulatedNetwork* network_ = nullptr;
    std::int64_t earlier_ms_ = 0;  // before the present start
};

std::array<std::uint8_t, 4> disk_id(unsigned lun, bool mirrored);
formats::ServerRecord server_address(unsigned index);

}  // namespace campaign
