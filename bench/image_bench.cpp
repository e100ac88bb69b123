// SPDX-License-Identifier: MIT
// Local images: the synchronisation of LUN 0's image, transfers that the local disk serves, and look-ups in
// the map of small and large disks. LUN 0 has an image area at its server, and LUN 1 none.
//
//     qrn-bench-image BOOT-BLOCK SECONDS LOCAL-DISK
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unordered_map>

#include "bench/srb_load.h"
#include "driver/block/chunk_key.h"
#include "driver/image/image_block.h"
#include "machine/disk/local_disk.h"
#include "station/local_boot.h"

namespace {

using bench::report_measure;

constexpr std::uint32_t request_bytes = 65536, request_sectors = 128;
constexpr std::uint32_t span_sectors = 64 * 2048;  // 64 MB of a disk

double mb_per_s(double us)
{
    return request_bytes / us;
}

// Microseconds of a network read of LUN 1, one at a time.
double network_read_us(machine::ScsiPort& port, double seconds)
{
    std::vector<std::uint8_t> data(request_bytes);
    return bench::time_us(seconds, [&](unsigned n) {
        if (!port.read(1, n * request_sectors % span_sectors, data.data(), request_bytes))
            throw std::runtime_error("a read failed");
    });
}

// Microseconds per request of LUN 0 with so many in flight.
double local_us(machine::ScsiPort& port, bool write, unsigned depth, double seconds)
{
    const bench::Workload workload{"", write, request_bytes, depth, false};
    return seconds * 1e6 / static_cast<double>(bench::Load(port, workload, span_sectors).run(seconds));
}

// The same transfers on the local disk's file, with nothing in between.
double file_us(int file, off_t start, bool write, double seconds)
{
    std::vector<std::uint8_t> data(request_bytes, 0x5A);
    return bench::time_us(seconds, [&](unsigned n) {
        const off_t place = start + off_t{n % (span_sectors / request_sectors)} * request_bytes;
        if ((write ? pwrite(file, data.data(), request_bytes, place)
                   : pread(file, data.data(), request_bytes, place)) != request_bytes)
            throw std::runtime_error("the local disk's file cannot be used");
    });
}

std::atomic<char> sync_end = 0;  // the driver's figure, when the synchronisation has ended

void watch_messages(const machine::DebugLog::Entry& entry)
{
    constexpr std::string_view end = "\nQRNH_IMG_SYNC: End=";
    if (entry.text.starts_with(end))
        sync_end = entry.text[end.size()];
}

// The driver begins when the system disk has seen its first large write.
double synchronise(machine::Machine& machine)
{
    machine::ScsiPort& port = machine.scsi();
    std::vector<std::uint8_t> data(request_bytes);
    const std::uint32_t last = port.luns()[0].sectors - request_sectors;
    if (!port.read(0, last, data.data(), request_bytes) || !port.write(0, last, data.data(), request_bytes) ||
        !port.read(0, last, data.data(), request_bytes))
        throw std::runtime_error("the system disk cannot be used");
    const auto start = bench::Clock::now();
    while (sync_end == 0) {
        machine.sleep_ms(1);
        if (bench::seconds_since(start) > 60)
            throw std::runtime_error("the synchronisation does not end");
    }
    const double seconds = bench::seconds_since(start);
    if (sync_end != '0')
        throw std::runtime_error("the synchronisation failed");
    return port.luns()[0].sectors * 512.0 / 1e6 / seconds;
}

// An area in memory that keeps what is written to it, to look at the map alone.
class SparseArea final : public QRNH_OBJ_IMG {
public:
    LONG Read(ULONG Sector, PVOID pBuffer, LONG Bytes) override
    {
        auto& block = blocks_[Sector];
        block.resize(static_cast<std::size_t>(Bytes));
        std::memcpy(pBuffer, block.data(), block.size());
        return Bytes;
    }
    LONG Write(ULONG Sector, PVOID pBuffer, LONG Bytes) override
    {
        const auto* bytes = static_cast<const std::uint8_t*>(pBuffer);
        blocks_[Sector].assign(bytes, bytes + Bytes);
        return Bytes;
    }
    bool Flush() override { return true; }

private:
    std::unordered_map<ULONG, std::vector<std::uint8_t>> blocks_;
};

// Nanoseconds of a look-up on a disk of so many 64 KB chunks, 32768 of which have an entry.
double lookup_ns(std::uint32_t chunks, bool random, double seconds)
{
    constexpr std::uint32_t entries = 32768;
    const std::uint32_t step = chunks / entries;
    SparseArea area;
    area.Create(nullptr, 0, 0x7FFFFFFF, Img_Always_New);
    QRNH_IMG_RW image(&area, 0);
    for (std::uint32_t i = 0; i < entries; ++i)
        if (!image.Map_Find(true, i * step))
            throw std::runtime_error("a chunk gets no entry");
    return 1e3 * bench::time_us(seconds, [&](unsigned n) {
               const std::uint32_t entry = (random ? n * 2654435761u >> 7 : n) % entries;
               if (!image.Map_Find(false, entry * step))
                   throw std::runtime_error("a chunk has no entry");
           });
}

void measure(machine::Machine& machine, const char* local_disk, double seconds)
{
    machine::ScsiPort& port = machine.scsi();
    machine.log().set_sink(watch_messages, false);
    report_measure("network reads, one after another", "mb_per_s", mb_per_s(network_read_us(port, seconds)));
    report_measure("synchronisation", "mb_per_s", synchronise(machine));
    const int file = open(local_disk, O_RDWR | O_CLOEXEC);
    constexpr off_t system_data = 2 << 20;  // where the file has data, wherever exactly
    report_measure("local reads of 64K, the file alone", "us", file_us(file, system_data, false, seconds));
    report_measure("local reads of 64K, depth 1", "us", local_us(port, false, 1, seconds));
    report_measure("local reads of 64K, depth 8", "us", local_us(port, false, 8, seconds));
    report_measure("local writes of 64K, the file alone", "us",
                   file_us(file, lseek(file, 0, SEEK_END) - span_sectors * 512, true, seconds));
    local_us(port, true, 8, seconds / 4);  // gives the sectors their places
    report_measure("local writes of 64K, depth 1", "us", local_us(port, true, 1, seconds));
    report_measure("local writes of 64K, depth 8", "us", local_us(port, true, 8, seconds));
    constexpr std::uint32_t chunks_of_2_gb = 32768, chunks_of_2_tb = chunks_of_2_gb * 1024;
    for (const bool random : {false, true}) {
        report_measure(random ? "look-up, 2 GB, at random" : "look-up, 2 GB, in order", "ns",
                       lookup_ns(chunks_of_2_gb, random, seconds));
        report_measure(random ? "look-up, 2 TB, at random" : "look-up, 2 TB, in order", "ns",
                       lookup_ns(chunks_of_2_tb - 1, random, seconds));
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const double seconds = argc == 4 ? std::atof(argv[2]) : 0;
    if (seconds <= 0) {
        std::fprintf(stderr, "usage: qrn-bench-image BOOT-BLOCK SECONDS LOCAL-DISK\n");
        return 2;
    }
    try {
        const auto block = station::local_boot_block(bench::read_boot_block(argv[1]), true);
        machine::LocalDisk disk{std::string(argv[3])};
        bench::run_workstation(
            bench::machine_config(), block, "builtin",
            [&](machine::Machine& machine) { measure(machine, argv[3], seconds); },
            [&](machine::Machine& machine) {
                machine.add_local_disk(disk, station::local_disk_number(block));
                const auto descriptor = station::image_descriptor(station::Sector{});
                machine.memory().write(machine.config().base_memory_kb * 1024u, descriptor);
            });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qrn-bench-image: %s\n", error.what());
        return 1;
    }
}
