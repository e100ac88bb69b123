// SPDX-License-Identifier: MIT
// A LUN of the machine as a block device: transfers of any length become SRBs of at most the
// adapter's largest transfer, several of them in flight at once.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "machine/scsiport/scsi_port.h"
#include "station/block_device.h"
#include "station/lun_statistics.h"

namespace station {

class LunDevice : public BlockDevice {
public:
    // Port and statistics must outlive the device and its queues.
    LunDevice(machine::ScsiPort& port, const machine::LunInfo& info, LunStatistics& statistics)
        : port_(port), statistics_(statistics), lun_(info.lun), sectors_(info.sectors)
    {
    }

    std::uint64_t size_bytes() const override;
    std::unique_ptr<BlockQueue> open_queue() override;

private:
    machine::ScsiPort& port_;
    LunStatistics& statistics_;
    std::uint8_t lun_;
    std::uint32_t sectors_;
};

// submit() may be called by any thread; SRBs end at up to DISPATCH_LEVEL. One lock guards the lists
// and the transfers' progress; it is not held while an SRB is handed to the port driver or a transfer
// is reported done.
class LunQueue : public BlockQueue {
public:
    LunQueue(machine::ScsiPort& port, LunStatistics& statistics, std::uint8_t lun);
    ~LunQueue() override;

    void submit(Transfer& transfer) override;

private:
    static constexpr unsigned pieces_max = 32;

    // One SRB, and the transfer it works for.
    struct Piece {
        explicit Piece(machine::ScsiPort& port) : request(port) {}
        machine::ScsiRequest request;
        Transfer* transfer = nullptr;
    };

    void pump();
    Piece& next_piece();
    void piece_done(Piece& piece);
    void count(const Transfer& transfer);

    machine::ScsiPort& port_;
    LunStatistics& statistics_;
    const std::uint8_t lun_;
    const std::uint32_t piece_bytes_;

    std::mutex lock_;
    std::condition_variable idle_;
    std::vector<std::unique_ptr<Piece>> pieces_;
    std::vector<Piece*> free_pieces_;
    Transfer* first_ = nullptr;  // with bytes still to be issued, in the order of submission
    Transfer* last_ = nullptr;
    unsigned callers_ = 0;  // threads inside piece_done
    bool pumping_ = false;  // a thread is handing out pieces
};

}  // namespace station
