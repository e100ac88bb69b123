#include "station/workstation.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "machine/transport/transport.h"
#include "station/lun_device.h"

namespace station {

using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t megabyte = 1 << 20;
constexpr auto statistics_interval = 1000ms;
constexpr auto client_patience = 3000ms;

machine::MachineConfig machine_config(const Options& options)
{
    machine::MachineConfig config;
    config.scheduler = machine::SchedulerKind::real;
    config.memory_ranges = {{megabyte, options.memory_mb * megabyte}};
    config.unmanaged_above_4g_bytes = options.above_4g_mb * megabyte;
    config.strict = false;
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
    std::fprintf(stderr, "qrn-station: %s\n", message.c_str());
}

}  // namespace

Workstation::Workstation(const Options& options, StopSignal& stop)
    : options_(options), stop_(stop), driver_(load_driver(options.driver)), machine_(machine_config(options)),
      server_(listening_server(options.nbd, exports_))
{
    link_ = std::make_unique<machine::UdpLink>(machine_.scheduler(),
                                               all_servers_local(options.boot_block) ? "127.0.0.1" : "0.0.0.0");
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
    hand_over_boot_block();
    fill_registry();
}

void Workstation::hand_over_boot_block()
{
    machine::Transport& transport = machine_.add_transport(*link_);
    if (options_.handover == Handover::transport) {
        transport.block() = options_.boot_block;
        return;
    }
    transport.block() = {};
    transport.block().Boot_Flags = options_.boot_block.Boot_Flags;

    formats::BootRecord record{};
    std::memcpy(record.Signature, formats::boot_record_signature, sizeof record.Signature);
    record.Bound.set(formats::boot_record_bound_max);
    record.Kind.set(formats::boot_record_kind);
    record.Rack_Level.set(options_.boot_block.Rack_Level.get());
    record.Param = options_.boot_block;
    const std::uint64_t base_memory_bytes = std::uint64_t{machine_.config().base_memory_kb} * 1024;
    machine_.memory().write(base_memory_bytes,
                            {reinterpret_cast<const std::uint8_t*>(&record), sizeof record});
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
    announce();
    watch();
    shut_down();
    return 0;
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
    const std::uint32_t mode = options_.boot_block.Boot_Mode.get();
    return mode != formats::boot_mode_network && mode != formats::boot_mode_local_image &&
           options_.boot_block.Disk_Nums > options_.boot_block.Local_Nums;
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
                           std::make_shared<LunDevice>(machine_.scsi(), each, luns_[each.lun])});
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
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void Workstation::watch()
{
    while (!stop_.wait_for(statistics_interval)) {
        write_statistics();
        if (options_.status)
            view_.show(status());
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

StationStatus Workstation::status()
{
    StationStatus status;
    status.uptime_ms = machine_.now_ms();
    status.driver = driver_->name();
    {
        std::lock_guard guard(found_lock_);
        for (const machine::LunInfo& each : found_)
            status.luns.push_back({each.lun, each.sectors, &luns_[each.lun]});
    }
    status.link = link_->counters();
    status.connections = server_.counters();
    return status;
}

// A full disk must not stop the disks: told once.
void Workstation::write_statistics()
{
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
