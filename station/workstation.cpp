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

#include "programs/log.h"
#include "station/unique_fd.h"

namespace station {

using namespace std::chrono_literals;

namespace {

constexpr auto statistics_interval = 1000ms;
constexpr unsigned progress_steps = 5;  // in which the file shows a local image that is being filled
constexpr auto client_patience = 3000ms;
constexpr auto first_answer_time = 500ms;

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

NbdServer listening_server(const NbdAddress& address, const Exports& exports)
{
    try {
        return {address, exports};
    } catch (const std::exception& error) {
        throw OptionError("--nbd: " + std::string(error.what()));
    }
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
    : options_(options), stop_(stop), driver_(load_driver(options.driver)), machine_(machine_config(options)),
      boot_loader_(machine_, options), luns_(machine_, options, boot_loader_.block()),
      server_(listening_server(options.nbd, luns_.exports()))
{
    link_ = std::make_unique<machine::UdpLink>(
        machine_.scheduler(), all_servers_local(options.boot_block) ? "127.0.0.1" : "0.0.0.0");
    figures_.emplace(options, machine_, *driver_, *link_, luns_, server_);
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
        figures_->write();
    } catch (const std::system_error& error) {
        throw OptionError("--stats-json: " + std::string(error.what()));
    }
    machine_.log().set_sink(
        [this](const machine::DebugLog::Entry& entry) {
            messages_.follow(entry.text, entry.thread);
            if (log_)
                log_->write(entry.text);
        },
        false);
    if (local_disk_)
        boot_loader_.boot_from(*local_disk_file_, *local_disk_);
    boot_loader_.hand_over(machine_.add_transport(*link_));
    boot_loader_.fill_registry();
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
    write_files();
    figures_->print_table();
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
    if ((boot_loader_.block().Boot_Flags & formats::boot_flag_no_image_sync) ||
        !local_disk_file_->has_temporary_image() || luns.empty() || luns[0].lun != 0 ||
        luns[0].sectors < sectors)
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
    machine_.scsi().set_scan_listener([this] { luns_.find(); });
    luns_.find();
    while (luns_.exports().list().empty()) {
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
    const formats::Boot_Param& block = boot_loader_.block();
    const std::uint32_t mode = block.Boot_Mode.get();
    return mode != formats::boot_mode_network && mode != formats::boot_mode_local_image &&
           block.Disk_Nums > block.Local_Nums;
}

void Workstation::announce()
{
    server_.start();
    std::string line = "ready";
    for (const Export& each : luns_.exports().list())
        line += " " + server_.address().uri(each.name);
    print_lines({line});

    servers_.emplace(boot_loader_.block());
    for (const machine::LunInfo& each : luns_.found())
        servers_->add_disk(each.lun);
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
        if (interval_over || figures_->filling_local_image())
            write_files();
        if (interval_over && options_.status)
            figures_->show();
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
    write_files();
    figures_->print_table();
}

void Workstation::write_files()
{
    if (capture_ && !capture_->flush() && !std::exchange(capture_failed_, true))
        complain("--capture: not every packet could be written");
    figures_->write_or_tell();
}

}  // namespace station
