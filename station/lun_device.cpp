// SPDX-License-Identifier: MIT
#include "station/lun_device.h"

#include <algorithm>

#include "formats/boot_block.h"
#include "station/nbd_format.h"

namespace station {

namespace {

// The block count of READ(10) and WRITE(10) has 16 bits.
constexpr std::uint32_t cdb_bytes_max = 0xFFFF * formats::sector_bytes;

// Whole sectors, whatever the adapter says.
std::uint32_t largest_piece_bytes(const machine::ScsiPort& port)
{
    const std::uint32_t bytes = std::min(port.maximum_transfer_bytes(), cdb_bytes_max);
    return std::max(bytes - bytes % formats::sector_bytes, std::uint32_t{formats::sector_bytes});
}

// What every write of zeros sends.
constexpr std::uint8_t zeroes[64 << 10] = {};

// A command without data; the driver answers it at once.
void set_synchronize_cache(machine::ScsiRequest& request, std::uint8_t lun)
{
    request.lun = lun;
    request.cdb.fill(0);
    request.cdb[0] = SCSIOP_SYNCHRONIZE_CACHE;
    request.cdb_bytes = 10;
    request.data = nullptr;
    request.data_bytes = 0;
    request.srb_flags = 0;
}

}  // namespace

std::uint64_t LunDevice::size_bytes() const
{
    return std::uint64_t{sectors_} * formats::sector_bytes;
}

std::unique_ptr<BlockQueue> LunDevice::open_queue()
{
    return std::make_unique<LunQueue>(port_, statistics_, lun_);
}

LunQueue::LunQueue(machine::ScsiPort& port, LunStatistics& statistics, std::uint8_t lun)
    : port_(port), statistics_(statistics), lun_(lun), piece_bytes_(largest_piece_bytes(port))
{
    free_pieces_.reserve(pieces_max);
    for (unsigned i = 0; i < pieces_max; ++i) {
        Piece* piece = pieces_.emplace_back(std::make_unique<Piece>(port)).get();
        piece->request.done = [this, piece](machine::ScsiRequest&) { piece_done(*piece); };
        free_pieces_.push_back(piece);
    }
}

LunQueue::~LunQueue()
{
    std::unique_lock lock(lock_);
    idle_.wait(lock, [this] { return callers_ == 0 && !pumping_; });
}

void LunQueue::submit(Transfer& transfer)
{
    transfer.started_us = monotonic_us();
    if (statistics_.queue++ == 0)
        statistics_.news_us = transfer.started_us;
    transfer.issued = 0;
    transfer.pieces_in_flight = 0;
    transfer.error = 0;
    transfer.next = nullptr;
    {
        std::lock_guard guard(lock_);
        (last_ ? last_->next : first_) = &transfer;
        last_ = &transfer;
    }
    pump();
}

// Hands out pieces while there are transfers and SRBs for them. An SRB may end before its submission
// returns; the thread that pumps already then serves whatever became possible, so this never nests.
void LunQueue::pump()
{
    std::unique_lock lock(lock_);
    if (pumping_)
        return;
    pumping_ = true;
    while (first_ && !free_pieces_.empty()) {
        Piece& piece = next_piece();
        lock.unlock();
        port_.submit(piece.request);
        lock.lock();
    }
    pumping_ = false;
    idle_.notify_all();
}

// The next piece of the first transfer, made ready for submission.
LunQueue::Piece& LunQueue::next_piece()
{
    Transfer& transfer = *first_;
    Piece& piece = *free_pieces_.back();
    free_pieces_.pop_back();
    piece.transfer = &transfer;

    const bool zero = transfer.operation == Transfer::Operation::zero;
    const std::uint32_t piece_bytes =
        zero ? std::min<std::uint32_t>(piece_bytes_, sizeof zeroes) : piece_bytes_;
    const std::uint32_t bytes = std::min(piece_bytes, transfer.length - transfer.issued);
    const auto lba = static_cast<std::uint32_t>((transfer.offset + transfer.issued) / formats::sector_bytes);
    switch (transfer.operation) {
    case Transfer::Operation::read:
        piece.request.set_read(lun_, lba, transfer.data + transfer.issued, bytes);
        break;
    case Transfer::Operation::write:
        piece.request.set_write(lun_, lba, transfer.data + transfer.issued, bytes);
        break;
    case Transfer::Operation::zero:
        piece.request.set_write(lun_, lba, zeroes, bytes);
        break;
    case Transfer::Operation::flush:
        set_synchronize_cache(piece.request, lun_);
        break;
    }
    transfer.issued += bytes;
    ++transfer.pieces_in_flight;
    if (transfer.issued == transfer.length) {
        first_ = transfer.next;
        if (!first_)
            last_ = nullptr;
    }
    return piece;
}

// No medium, a sector the driver refuses though it was within the announced size (the disk has lost
// its medium, or is held back until the system disk is written), or any other failure: clients
// understand all of these as an input/output error, and nothing more is issued for the transfer.
void LunQueue::piece_done(Piece& piece)
{
    std::unique_lock lock(lock_);
    ++callers_;
    Transfer& transfer = *piece.transfer;
    if (!piece.request.ok())
        transfer.error = nbd::error_io;
    free_pieces_.push_back(&piece);
    if (transfer.error && transfer.issued != transfer.length) {
        transfer.issued = transfer.length;
        first_ = transfer.next;  // only the first one is issued in part
        if (!first_)
            last_ = nullptr;
    }
    const bool finished = --transfer.pieces_in_flight == 0 && transfer.issued == transfer.length;
    lock.unlock();

    pump();
    if (finished) {
        count(transfer);
        transfer.done(transfer);
    }

    lock.lock();
    if (--callers_ == 0)
        idle_.notify_all();
}

void LunQueue::count(const Transfer& transfer)
{
    const std::int64_t now_us = monotonic_us();
    statistics_.news_us = now_us;
    --statistics_.queue;
    if (!transfer.error)
        statistics_.answer_times.add(now_us - transfer.started_us);
    if (transfer.error) {
        ++statistics_.errors;
        return;
    }
    switch (transfer.operation) {
    case Transfer::Operation::read:
        ++statistics_.reads;
        statistics_.sectors_read += transfer.length / formats::sector_bytes;
        break;
    case Transfer::Operation::write:
    case Transfer::Operation::zero:
        ++statistics_.writes;
        statistics_.sectors_written += transfer.length / formats::sector_bytes;
        break;
    case Transfer::Operation::flush:
        ++statistics_.flushes;
        break;
    }
}

}  // namespace station
