// SPDX-License-Identifier: MIT
#include "station/workstation.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "formats/boot_record.h"
#include "machine/transport/transport.h"
#include "programs/log.h"
#include "station/lun_device.h"
#include "station/unique_fd.h"

namespace station {

using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t megabyte = 1 << 20;
constexpr auto statistics_interval = 1000ms;
constexpr unsigned progress_steps = 5;  // in which the file shows a local image that is being filled
constexpr auto client_patience = 3000ms;
constexpr auto first_answer_time = 500ms;

machine::MachineConfig machine_config(const Options& options)
{
    machine::MachineConfig config;
    config.scheduler = machine::SchedulerKind::real;
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

bool all_servers_local(const formats::Boot_Param& block)
{
    const auto local = [](const formats::ServerRecord& server) {
        return !server.names_a_server() || server.Ip[0] == 127;
    };
    return std::all_of(std::begin(block.Main_Server), std::end(block.Main_Server), local) &&
           std::all_of(std::begin(block.Slave_Server), std::end(block.Slave_Server), local) &&
           local(block.Boot_Server);
}

// The address from which packets to this server leave; zero: there is no way to it.
formats::ServerRecord own_address_towards(const formats::ServerRecord& server)
{
    formats::ServerRecord own{};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.Port.get());
    std::memcpy(&address.sin_addr, server.Ip, sizeof server.Ip);
    const UniqueFd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    socklen_t size = sizeof address;
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0)
        std::memcpy(own.Ip, &address.sin_addr, sizeof own.Ip);
    return own;
}

std::unique_ptr<machine::DriverImage> load_driver(const std::string& name)
{
    try {
        return machine::driver_named(name);
    } catch (const std::exception& error) {
        throw OptionError("--driver: " + std::string(error.what()));
    }
}

NbdServer listening_server(const NbdAddress& address, const Exports& exports)
{
    try {
        return {address, exports};
    } catch (const std::exception& error) {
        throw OptionError("--nbd: " + std::string(error.what()));
    }
}

std::string text_of(const std::array<std::uint8_t, 36>& inquiry, std::size_t first, std::size_t count)
{
    std::string text(inquiry.begin() + static_cast<std::ptrdiff_t>(first),
                     inquiry.begin() + static_cast<std::ptrdiff_t>(first + count));
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

void complain(const std::string& message)
{
    programs::log(programs::LogLevel::error, message);
}

void print_lines(const std::vector<std::string>& lines)
{
    for (const std::string& line : lines)
        std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

Workstation::Workstation(const Options& options, StopSignal& stop)
    : options_(options), stop_(stop), block_(options.boot_block), driver_(load_driver(options.driver)),
      machine_(machine_config(options)),
      low_memory_next_(std::uint64_t{machine_.config().base_memory_kb} * 1024),
      server_(listening_server(options.nbd, exports_))
{
    link_ = std::make_unique<machine::UdpLink>(
        machine_.scheduler(), all_servers_local(options.boot_block) ? "127.0.0.1" : "0.0.0.0");
    if (options.capture)
        start_capture();
    if (options.local_disk)
        open_local_disk();
    try {
        if (options.log)
            log_.emplace(*options.log);
    } catch (const std::system_error& error) {
        throw OptionError("--log: " + std::string(error.what()));
    }
    try {
        if (options.stats_json)
            write_statistics_file(*options.stats_json, status());
    } catch (const std::system_error& error) {
        throw OptionError("--stats-json: " + std::string(error.what()));
    }
    machine_.log().set_sink(
        [this](const machine::DebugLog::Entry& entry) {
            follow_driver_message(entry.text, luns_);
            if (log_)
                log_->write(entry.text);
        },
        false);
    if (local_disk_)
        boot_locally();
    hand_over_boot_block();
    fill_registry();
}

void Workstation::start_capture()
{
    try {
        capture_ = std::make_shared<machine::PacketCapture>(*options_.capture);
    } catch (const std::system_error& error) {
        throw OptionError("--capture: " + std::string(error.what()));
    }
    formats::ServerRecord own = own_address_towards(options_.boot_block.Main_Server[0]);
    own.Port.set(link_->port());
    link_->capture(capture_, own);
}

void Workstation::open_local_disk()
{
    try {
        local_disk_file_.emplace(*options_.local_disk);
        local_disk_.emplace(*options_.local_disk);
    } catch (const std::exception& error) {
        throw OptionError("--local-disk: " + std::string(error.what()));
    }
}

// As the code in the boot sector of a local disk would: what it leaves in memory is how the driver knows.
void Workstation::boot_locally()
{
    const auto from_server = first_sector_of_server(block_);
    const auto first_sector = from_server ? from_server : local_disk_file_->first_sector();
    if (!first_sector)
        throw std::runtime_error("no server answers, and " + *options_.local_disk +
                                 " has no image that could be booted");
    if (!from_server)
        complain("no server answers; the image on the local disk is used as it is");
    machine_.add_local_disk(*local_disk_, local_disk_number(block_));
    block_ = local_boot_block(block_, from_server.has_value());
    write_low_memory(image_descriptor(*first_sector));
}

void Workstation::hand_over_boot_block()
{
    machine::Transport& transport = machine_.add_transport(*link_);
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
void Workstation::write_low_memory(std::span<const std::uint8_t> bytes)
{
    machine_.memory().write(low_memory_next_, bytes);
    low_memory_next_ +=
        (bytes.size() + formats::paragraph_bytes - 1) / formats::paragraph_bytes * formats::paragraph_bytes;
}

void Workstation::fill_registry()
{
    for (const auto& [name, value] : options_.settings)
        machine_.registry().set_setting(name, value);
    if (options_.above_4g_mb)
        machine_.registry().set_dword(machine::Registry::memory_management_key, u"PhysicalAddressExtension",
                                      1);
}

int Workstation::run()
{
    int status = 1;
    switch (machine_.run([&] { status = live(); })) {
    case machine::Outcome::finished:
        return status;
    case machine::Outcome::reset:
        complain(shutting_down_ ? "the driver reset the machine while shutting down"
                                : "the driver reset the machine");
        break;
    case machine::Outcome::bug_check: {
        char code[16];
        std::snprintf(code, sizeof code, "%X", machine_.bug_check_code());
        complain(std::string("the driver stopped the machine, code ") + code);
        break;
    }
    case machine::Outcome::stalled:
        complain("the machine stopped");
        break;
    }
    server_.stop(0ms);
    write_statistics();
    std::fputs(status_table(this->status()).c_str(), stdout);
    return shutting_down_ ? 0 : 1;
}

int Workstation::live()
{
    if (!start_driver())
        return 1;
    if (!wait_for_luns())
        return 1;
    if (local_disk_)
        begin_synchronisation();
    announce();
    watch();
    shut_down();
    return 0;
}

// The driver waits for the first write of 64 KB, as a sign that the system has come up. Here nobody may ever
// write, so the end of LUN 0 is written back as it is, before a client can change it; and only to the
// temporary image.
void Workstation::begin_synchronisation()
{
    std::vector<std::uint8_t> data(formats::chunk_bytes);
    constexpr std::uint32_t sectors = formats::chunk_sectors;
    const auto luns = machine_.scsi().luns();
    if ((block_.Boot_Flags & formats::boot_flag_no_image_sync) || !local_disk_file_->has_temporary_image() ||
        luns.empty() || luns[0].lun != 0 || luns[0].sectors < sectors)
        return;
    const std::uint32_t lba = luns[0].sectors - sectors;
    if (machine_.scsi().read(0, lba, data.data(), formats::chunk_bytes))
        machine_.scsi().write(0, lba, data.data(), formats::chunk_bytes);
}

bool Workstation::start_driver()
{
    const std::int32_t result = machine_.boot(*driver_);
    if (result < 0) {
        char text[16];
        std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(result));
        complain("the driver refuses to load, status " + std::string(text));
        return false;
    }
    if (!machine_.scsi().adapter_started()) {
        complain("the driver's adapter does not start");
        return false;
    }
    return true;
}

// True when there are exports; false, with the reason told, when there will be none.
bool Workstation::wait_for_luns()
{
    machine_.scsi().set_scan_listener([this] { find_luns(); });
    find_luns();
    while (exports_.list().empty()) {
        if (!luns_may_come_later()) {
            complain("the driver found no disk");
            return false;
        }
        if (stop_.wait_for(100ms)) {
            complain("stopped before a disk was there");
            shut_down();
            return false;
        }
    }
    return true;
}

// In the other boot modes the driver shows its disks at a later bus scan.
bool Workstation::luns_may_come_later() const
{
    const std::uint32_t mode = block_.Boot_Mode.get();
    return mode != formats::boot_mode_network && mode != formats::boot_mode_local_image &&
           block_.Disk_Nums > block_.Local_Nums;
}

// There a flush ends at once and brings nothing to the server.
bool Workstation::in_ram_cache(unsigned lun) const
{
    return (block_.Disks[lun].Disk_Flags & formats::disk_flag_ram_cache) != 0;
}

// After every bus scan. A client keeps the disk it chose.
void Workstation::find_luns()
{
    std::vector<machine::LunInfo> found = machine_.scsi().luns();
    std::erase_if(found, [](const machine::LunInfo& each) { return each.lun >= formats::disk_count_max; });
    std::vector<Export> exports;
    for (const machine::LunInfo& each : found)
        exports.push_back({"lun" + std::to_string(each.lun),
                           text_of(each.inquiry, 8, 8) + " " + text_of(each.inquiry, 16, 16),
                           std::make_shared<LunDevice>(machine_.scsi(), each, luns_[each.lun]),
                           options_.read_only[each.lun], !in_ram_cache(each.lun)});
    {
        std::lock_guard guard(found_lock_);
        found_ = std::move(found);
    }
    exports_.set(std::move(exports));
}

void Workstation::announce()
{
    server_.start();
    std::string line = "ready";
    for (const Export& each : exports_.list())
        line += " " + server_.address().uri(each.name);
    print_lines({line});

    servers_.emplace(block_);
    {
        std::lock_guard guard(found_lock_);
        for (const machine::LunInfo& each : found_)
            servers_->add_disk(each.lun);
    }
    print_lines(servers_->ask(first_answer_time));
    print_lines(servers_->silent());
}

// Those that were silent at the start, as they answer. The table shows silence by itself.
void Workstation::tell_of_servers()
{
    if (!options_.status)
        print_lines(servers_->ask(0ms));
}

void Workstation::watch()
{
    for (unsigned step = 1; !stop_.wait_for(statistics_interval / progress_steps); ++step) {
        const bool interval_over = step % progress_steps == 0;
        if (interval_over || filling_local_image())
            write_statistics();
        if (interval_over && options_.status)
            view_.show(status());
        if (interval_over)
            tell_of_servers();
    }
}

// A request that hangs on a silent server ends only once the driver knows of the shutdown, so clients
// that are still waiting then are waited for again.
void Workstation::shut_down()
{
    shutting_down_ = true;
    server_.stop(client_patience);
    machine_.scsi().shutdown();
    server_.stop(client_patience);
    write_statistics();
    std::fputs(status_table(status()).c_str(), stdout);
}

SyncStatus Workstation::synchronisation()
{
    return synchronisation_.status(driver_->exported("QRN_Sync_Stats"), machine_.now_ms());
}

bool Workstation::filling_local_image()
{
    return local_disk_ && synchronisation().state == SyncStatus::State::running;
}

StationStatus Workstation::status()
{
    StationStatus status;
    status.uptime_ms = machine_.now_ms();
    status.driver = driver_->name();
    const void* const caches = driver_->exported("QRN_Cache_Stats");
    {
        std::lock_guard guard(found_lock_);
        for (const machine::LunInfo& each : found_)
            status.luns.push_back(
                {each.lun, each.sectors, &luns_[each.lun], cache_statistics(caches, each.lun)});
    }
    if (local_disk_)
        status.synchronisation = synchronisation();
    status.link = link_->counters();
    status.connections = server_.counters();
    return status;
}

// A full disk must not stop the disks: told once.
void Workstation::write_statistics()
{
    if (capture_ && !capture_->flush() && !std::exchange(capture_failed_, true))
        complain("--capture: not every packet could be written");
    if (!options_.stats_json)
        return;
    try {
        write_statistics_file(*options_.stats_json, status());
    } catch (const std::system_error& error) {
        if (!std::exchange(statistics_failed_, true))
            complain("--stats-json: " + std::string(error.what()));
    }
}

}  // namespace station
