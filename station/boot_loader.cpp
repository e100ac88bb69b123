// SPDX-License-Identifier: MIT
#include "station/boot_loader.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "formats/boot_record.h"
#include "machine/transport/transport.h"
#include "programs/log.h"
#include "station/local_datagrams.h"

namespace station {

namespace {

constexpr std::uint64_t megabyte = 1 << 20;

}  // namespace

machine::MachineConfig machine_config(const Options& options)
{
    machine::MachineConfig config;
    config.scheduler = machine::SchedulerKind::real;
    config.host_processors = std::max(2u, std::thread::hardware_concurrency());
    config.memory_ranges = {{megabyte, options.memory_mb * megabyte}};
    config.unmanaged_above_4g_bytes = options.above_4g_mb * megabyte;
    config.feeding = options.feed_eagerly ? machine::Feeding::eager : machine::Feeding::held_back;
    config.strict = false;
    config.takes_buffers_away = false;
    if (!options.low_memory.empty())
        config.base_memory_kb = reinterpret_cast<const formats::Le16*>(options.low_memory.data() +
                                                                       formats::base_memory_kb_address)
                                    ->get();
    return config;
}

std::unique_ptr<machine::DriverImage> load_driver(const std::string& name)
{
    try {
        return machine::driver_named(name);
    } catch (const std::exception& error) {
        throw OptionError("--driver: " + std::string(error.what()));
    }
}

BootLoader::BootLoader(machine::Machine& machine, const Options& options)
    : machine_(machine), options_(options), block_(options.boot_block),
      low_memory_next_(std::uint64_t{machine.config().base_memory_kb} * 1024)
{
}

// As the code in the boot sector of a local disk would: what it leaves in memory is how the driver knows.
void BootLoader::boot_from(const LocalDiskFile& file, machine::LocalDisk& disk)
{
    const auto from_server = first_sector_of_server(block_);
    const auto first_sector = from_server ? from_server : file.first_sector();
    if (!first_sector)
        throw std::runtime_error("no server answers, and " + *options_.local_disk +
                                 " has no image that could be booted");
    if (!from_server)
        programs::log(programs::LogLevel::warning,
                      "no server answers; the image on the local disk is used as it is");
    machine_.add_local_disk(disk, local_disk_number(block_));
    block_ = local_boot_block(block_, from_server.has_value());
    write_low_memory(image_descriptor(*first_sector));
}

void BootLoader::hand_over(machine::Transport& transport)
{
    if (options_.handover == Handover::transport) {
        transport.block() = block_;
        return;
    }
    transport.block() = {};
    transport.block().Boot_Flags = block_.Boot_Flags;

    if (!options_.low_memory.empty())
        return write_low_memory(
            std::span(options_.low_memory).subspan(static_cast<std::size_t>(low_memory_next_)));
    const formats::BootRecord record = formats::boot_record(block_);
    write_low_memory({reinterpret_cast<const std::uint8_t*>(&record), sizeof record});
}

// On the next 16-byte boundary.
void BootLoader::write_low_memory(std::span<const std::uint8_t> bytes)
{
    machine_.memory().write(low_memory_next_, bytes);
    low_memory_next_ +=
        (bytes.size() + formats::paragraph_bytes - 1) / formats::paragraph_bytes * formats::paragraph_bytes;
}

void BootLoader::fill_registry()
{
    for (const auto& [name, value] : options_.settings)
        machine_.registry().set_setting(name, value);
    if (options_.above_4g_mb)
        machine_.registry().set_dword(machine::Registry::memory_management_key, u"PhysicalAddressExtension",
                                      1);
}

}  // namespace station
