// SPDX-License-Identifier: MIT
// The RAM cache of LUN 0: its set-up, hits through SRBs, and where the time of a small hit goes. The server
// names the size.
//
//     qrn-bench-cache BOOT-BLOCK SECONDS CACHE-MB
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bench/srb_load.h"
#include "driver/cache/cache_layer.h"
#include "driver/state/disk_table.h"

namespace {

constexpr std::uint32_t span_sectors = 16384;  // 8 MB: what every cache measured here can hold
constexpr std::uint32_t chunk_sectors = 128;
constexpr unsigned spread_chunks = 512;

// What a hit cannot do without: the block's bytes to the worker, and from there to the caller.
double two_copies_us(double seconds)
{
    std::vector<std::uint8_t> store(span_sectors * 512), bounce(65536), caller(8 * 65536);
    std::memset(store.data(), 1, store.size());
    return bench::time_us(seconds, [&](unsigned n) {
        std::memcpy(bounce.data(), &store[n % 128 * 65536], 65536);
        std::memcpy(&caller[n % 8 * 65536], bounce.data(), 65536);
        asm volatile("" : : "r"(caller.data()), "r"(bounce.data()) : "memory");
    });
}

void write_chunks(machine::ScsiPort& port, std::uint32_t sectors, std::uint32_t step_sectors)
{
    std::vector<std::uint8_t> data(65536, 0xC5);
    for (std::uint32_t lba = 0; lba + chunk_sectors <= sectors; lba += step_sectors)
        if (!port.write(0, lba, data.data(), 65536))
            throw std::runtime_error("a write failed");
}

void measure_load(machine::ScsiPort& port, const bench::Workload& workload, double seconds,
                  std::uint32_t sectors = span_sectors, std::uint32_t step_sectors = 0)
{
    const auto requests = bench::Load(port, workload, sectors, step_sectors).run(seconds);
    bench::report(workload, requests, seconds);
}

// A command that the driver answers at once: the port driver's and the miniport's share of any request.
double command_us(machine::ScsiPort& port, double seconds)
{
    machine::ScsiRequest request(port);
    std::uint8_t capacity[8];
    request.cdb = {SCSIOP_READ_CAPACITY};
    request.data = capacity;
    request.data_bytes = sizeof capacity;
    request.srb_flags = SRB_FLAGS_DATA_IN;
    return bench::time_us(seconds, [&](unsigned) {
        port.execute(request);
        if (!request.ok())
            throw std::runtime_error("READ CAPACITY failed");
    });
}

double layer_us(double seconds)
{
    std::vector<std::uint8_t> data(4096);
    QRNH_OBJ_RW* cache = Local_Cache[0].pMC_Write;
    return bench::time_us(seconds, [&](unsigned n) {
        if (cache->Read(0, 1 + n * 40503u % (span_sectors / 8) * 8, data.data(), 4096) <= 0)
            throw std::runtime_error("not in the cache");
    });
}

void measure(machine::Machine& machine, double seconds)
{
    machine::ScsiPort& port = machine.scsi();
    std::vector<std::uint8_t> data(65536);
    const auto start = bench::Clock::now();
    if (!port.write(0, 0, data.data(), 65536) || !Local_Cache[0].pMC_Write)
        throw std::runtime_error("the disk got no cache: " + machine.log().text());
    bench::report_measure("set-up", "ms", bench::seconds_since(start) * 1e3);
    const QRNH_OBJ_MEM* memory = static_cast<QRNH_MEM_RW*>(Local_Cache[0].pMC_Write)->Memory();
    const double cached_gb = memory->LRU_Nums / 16384.0;
    bench::report_measure("bookkeeping", "kb_per_gb", memory->Toll_Bytes / 1024.0 / cached_gb);
    bench::report_measure("bookkeeping in non-paged pool", "kb_per_gb",
                          16.0 * memory->LRU_Nums / 1024 / cached_gb);

    write_chunks(port, span_sectors, chunk_sectors);
    bench::report_measure("two copies of 64K", "us", two_copies_us(seconds));
    measure_load(port, {"hit read 64K depth 8", false, 65536, 8, true}, seconds);
    measure_load(port, {"hit read 64K depth 1", false, 65536, 1, true}, seconds);
    measure_load(port, {"hit write 64K depth 8", true, 65536, 8, true}, seconds);
    measure_load(port, {"hit read 4K depth 1", false, 4096, 1, true}, seconds);
    bench::report_measure("4K: a command alone", "us", command_us(port, seconds));
    bench::report_measure("4K: the cache layer alone", "us", layer_us(seconds));
    // Chunks that lie all over the disk, and in the cache wherever they came to lie.
    const std::uint32_t step = port.luns()[0].sectors / spread_chunks / chunk_sectors * chunk_sectors;
    // A quarter of the blocks: what is already there keeps its half.
    const unsigned kept = std::min(spread_chunks, static_cast<unsigned>(memory->LRU_Nums) / 4);
    write_chunks(port, step * kept, step);
    measure_load(port, {"hit read 64K depth 8, all over the disk", false, 65536, 8, true}, seconds,
                 step * kept, step);
}

}  // namespace

int main(int argc, char** argv)
{
    const double seconds = argc == 4 ? std::atof(argv[2]) : 0;
    const auto cache_mb = static_cast<std::uint32_t>(argc == 4 ? std::atoi(argv[3]) : 0);
    if (seconds <= 0 || cache_mb == 0) {
        std::fprintf(stderr, "usage: qrn-bench-cache BOOT-BLOCK SECONDS CACHE-MB\n");
        return 2;
    }
    constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;
    machine::MachineConfig config = bench::machine_config();
    config.memory_ranges = {{mb, gb}, {4 * gb, (cache_mb + 1024) * mb}};
    try {
        bench::run_workstation(config, bench::read_boot_block(argv[1]), "builtin",
                               [&](machine::Machine& machine) { measure(machine, seconds); });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qrn-bench-cache: %s\n", error.what());
        return 1;
    }
}
