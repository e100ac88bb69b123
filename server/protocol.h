// SPDX-License-Identifier: MIT
// The block server's protocol without I/O: a packet in, packets out, block stores beneath. It never
// trusts a packet. Single-threaded; the UDP program and the simulated network drive it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "formats/boot_block.h"
#include "formats/wire.h"
#include "server/block_store.h"

namespace server {

// Address a packet came from, and to which its answers go (Hardware and Zero bytes are 0 from UDP).
using Peer = formats::ServerRecord;

// Takes packets for a peer. Packets of one answer arrive in order, so a program can send those of
// equal size in one system call.
class PacketSink {
public:
    virtual ~PacketSink() = default;
    // The header is the caller's again on return. The data lies in the last data_buffer().
    virtual void send(const Peer& to, std::span<const std::uint8_t> header,
                      std::span<const std::uint8_t> data) = 0;
    // Room for the data of one answer, formats::packet_bytes_max. A sink that keeps packets after
    // send() hands out memory that stays untouched until they are gone.
    virtual std::span<std::uint8_t> data_buffer() { return buffer_; }
    // Lets go what send() gathered.
    virtual void flush() {}

private:
    std::array<std::uint8_t, formats::packet_bytes_max> buffer_;
};

struct DiskOptions {
    std::uint8_t disk_id[4] = {};  // formats::disk_id_mirror in byte 2 marks a mirrored disk
    std::uint8_t disk_parm[4] = {};
    bool readonly = false;       // writes are dropped and counted
    std::uint32_t cache_mb = 0;  // cache word of the negotiation answer, up to 65535; 0: none
};

struct DiskCounters {
    std::uint64_t read_requests = 0, read_bytes = 0, write_fragments = 0, writes_completed = 0,
                  written_bytes = 0, repeated_writes = 0, status_queries = 0, acknowledgements = 0,
                  zero_answers = 0, negotiations = 0, shutdowns = 0, flushes = 0, store_errors = 0,
                  sync_reads = 0, sync_bytes = 0;  // of the image area
};

struct DroppedCounters {
    std::uint64_t short_packet = 0, unknown_disk = 0, unknown_kind = 0, bad_length = 0, bad_offset = 0,
                  bad_fragment = 0, readonly = 0, no_image = 0;
};

// A store failed. `error` is an errno; a flush of the server's own has no workstation.
struct StoreFailure {
    enum class Operation { read, write, flush, read_image };

    unsigned disk;
    Operation operation;
    int error;
    std::optional<Peer> workstation;
};

class Protocol {
public:
    using FailureListener = std::function<void(const StoreFailure&)>;
    using Flusher = std::function<void(unsigned disk, const Peer& workstation)>;

    explicit Protocol(PacketSink& sink);
    ~Protocol();

    // Disks are told apart by Disk_Id. Image is the disk's image area, of which workstations make their
    // local copies, or null. The stores must outlive the protocol. Returns the disk's index. Throws
    // std::invalid_argument for an id that is zero, taken, or begins like a status poll.
    unsigned add_disk(const DiskOptions& options, BlockStore& store, BlockStore* image = nullptr);

    // Called for every failure, whose data are then neither delivered nor acknowledged.
    void set_failure_listener(FailureListener listener);

    // Where the flush at a workstation's shutdown goes instead of being waited for: it starts one elsewhere
    // and reports its end with flush_ended(), on the protocol's thread.
    void set_flusher(Flusher flusher);
    void flush_ended(unsigned disk, const Peer& workstation, int error);  // error: 0 or an errno

    // The time from any fixed start, as of the packets that follow. It only ages what the server
    // remembers of completed and unfinished writes; without it nothing ages.
    void set_time_ms(std::uint64_t now_ms);

    // One packet as it arrived.
    void receive(const Peer& from, std::span<const std::uint8_t> packet);

    // The server's own notices. A poll asks a workstation for its status; its answer comes back
    // through receive() and is kept as last_poll_reply(). A retry limit goes to every packet in
    // flight that the server knows of, for one disk: writes of which fragments are missing, and
    // requests that it could not serve.
    void send_poll(const Peer& workstation, const Peer& self);
    void send_retry_limit(unsigned disk);

    // Writes back what the stores still hold. False: a store failed, its data may be lost.
    bool flush();

    const DiskCounters& counters(unsigned disk) const;
    const DroppedCounters& dropped() const;
    // Empty when no reply has come yet.
    std::span<const std::uint8_t> last_poll_reply() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace server
