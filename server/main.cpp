// SPDX-License-Identifier: MIT
// qrn-server: the disks of a command line, served over UDP until a signal ends it.
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "programs/replace_file.h"
#include "server/block_store.h"
#include "server/boot_parameters.h"
#include "server/boot_service.h"
#include "server/fleet_config.h"
#include "server/fleet_server.h"
#include "server/flusher.h"
#include "server/image_check.h"
#include "server/log.h"
#include "server/options.h"
#include "server/protocol.h"
#include "server/raw_check.h"
#include "server/statistics.h"
#include "server/udp_socket.h"

namespace {

using namespace server;

volatile sig_atomic_t stop_requested = 0;
volatile sig_atomic_t retry_limit_requested = 0;
volatile sig_atomic_t flush_requested = 0;

extern "C" void note_signal(int signal)
{
    if (signal == SIGUSR1)
        retry_limit_requested = 1;
    else if (signal == SIGUSR2)
        flush_requested = 1;
    else
        stop_requested = 1;
}

// Signals end the socket's wait; one that comes just before the wait is noticed at its end.
void take_signals()
{
    struct sigaction action {};
    action.sa_handler = note_signal;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2})
        sigaction(signal, &action, nullptr);
    // A reader that left, or a file that may grow no more, is an error of the write and not the end.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

std::uint64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

class Server {
public:
    explicit Server(const Options& options);
    void run();

private:
    void open_disks();
    formats::Boot_Param boot_block() const;
    BootDecision decide_boot(const formats::BootRequest& request) const;
    BlockStore* open_image(const ServedDisk& served);
    void receive(const Peer& from, std::span<const std::uint8_t> packet);
    void drop_stranger(const Peer& from);
    void note_workstation(const Peer& address);
    void take_poll_reply(const Peer& from, std::span<const std::uint8_t> packet);
    void poll_next();
    void obey_signals();
    void every_second();
    Statistics statistics() const;
    void write_statistics();
    void tell_failure(const StoreFailure& failure);
    void take_ended_flushes();

    static constexpr std::size_t workstations_max = 64;

    const Options& options_;
    UdpSocket socket_;
    Protocol protocol_;
    BootService boot_service_{socket_,
                              [this](const formats::BootRequest& request) { return decide_boot(request); }};
    Peer self_;
    std::vector<std::unique_ptr<BlockStore>> stores_, images_;
    std::vector<std::uint64_t> disk_bytes_;
    std::vector<Peer> workstations_;  // heard of lately; only kept for polls
    std::vector<PolledWorkstation> polled_;
    std::size_t next_poll_ = 0;
    std::uint64_t start_ms_ = now_ms();
    std::uint64_t next_second_ms_ = start_ms_ + 1000;
    std::uint64_t next_poll_ms_ = start_ms_;
    std::set<std::tuple<unsigned, StoreFailure::Operation, int>> failures_told_;
    bool statistics_failed_ = false;  // and told
    std::uint64_t strangers_ = 0;     // packets of theirs
    std::optional<Flusher> flusher_;  // its thread uses the stores
};

Server::Server(const Options& options)
    : options_(options), socket_(options.listen), protocol_(socket_), self_(socket_.address())
{
    if (options_.advertise)
        std::memcpy(self_.Ip, options_.advertise->Ip, sizeof self_.Ip);
    open_disks();
    if (!options_.boot_block_path.empty()) {
        const formats::Boot_Param block = boot_block();
        programs::replace_file(options_.boot_block_path,
                               {reinterpret_cast<const char*>(&block), sizeof block});
    }
    if (!options_.stats_json_path.empty())
        programs::replace_file(options_.stats_json_path, statistics().json());
    protocol_.set_failure_listener([this](const StoreFailure& failure) { tell_failure(failure); });
    flusher_.emplace();
    protocol_.set_flusher([this](unsigned disk, const Peer& workstation) {
        flusher_->start({disk, stores_[disk].get(), workstation});
    });
}

formats::Boot_Param Server::boot_block() const
{
    std::vector<std::uint32_t> sectors;
    for (const std::uint64_t bytes : disk_bytes_)
        sectors.push_back(static_cast<std::uint32_t>(bytes / formats::sector_bytes));
    return make_boot_parameters(options_.disks, sectors, self_);
}

// Which PC gets what: every PC all disks.
BootDecision Server::decide_boot(const formats::BootRequest&) const
{
    if (options_.disks.empty())
        return {{}, "this server has no disks"};
    return {boot_block(),
            fmt::format("{} of {}", options_.disks.size() == 1 ? "the disk" : "the disks", to_text(self_))};
}

void Server::open_disks()
{
    for (unsigned lun = 0; lun < options_.disks.size(); ++lun) {
        const ServedDisk& served = options_.disks[lun];
        if (served.mirror && to_text(*served.mirror) == to_text(self_))
            throw UsageError(served.path + ": the mirror is this server itself");
        stores_.push_back(open_file_store(served.path, served.readonly));
        check_raw_disk(*stores_.back(), served.path);
        disk_bytes_.push_back(stores_.back()->size_bytes());
        DiskOptions disk;
        std::memcpy(disk.disk_id, served.id, sizeof disk.disk_id);
        set_disk_parm(disk.disk_parm, lun);
        disk.readonly = served.readonly;
        disk.cache_mb = served.cache_mb;
        protocol_.add_disk(disk, *stores_.back(), open_image(served));
    }
}

// Of the disk that was opened last.
BlockStore* Server::open_image(const ServedDisk& served)
{
    if (served.image_path.empty())
        return nullptr;
    images_.push_back(open_file_store(served.image_path, true));
    check_image_area(*images_.back(), served.image_path, disk_bytes_.back() / formats::sector_bytes);
    return images_.back().get();
}

void Server::run()
{
    fmt::print("ready {}\n", to_text(self_));
    std::fflush(stdout);
    const UdpSocket::Handler handler = [this](const Peer& from, std::span<const std::uint8_t> packet) {
        receive(from, packet);
    };
    protocol_.set_time_ms(now_ms());
    while (stop_requested == 0) {
        socket_.receive(handler);
        const std::uint64_t now = now_ms();
        protocol_.set_time_ms(now);
        take_ended_flushes();
        obey_signals();
        if (now >= next_second_ms_) {
            next_second_ms_ = now + 1000;
            every_second();
        }
    }
    protocol_.set_flusher(nullptr);
    flusher_->finish();
    take_ended_flushes();
    const bool flushed = protocol_.flush();
    write_statistics();
    fmt::print("{}", statistics().summary());
    if (!flushed)
        throw std::runtime_error("a disk could not be written back; its last writes may be lost");
}

void Server::receive(const Peer& from, std::span<const std::uint8_t> packet)
{
    if (std::ranges::none_of(options_.allow,
                             [&](const Network& network) { return network.contains(from.Ip); }))
        return drop_stranger(from);
    if (boot_service_.receive(from, packet))
        return;
    protocol_.receive(from, packet);
    if (options_.poll_interval_s != 0) {
        note_workstation(from);
        take_poll_reply(from, packet);
    }
}

void Server::drop_stranger(const Peer& from)
{
    if (strangers_++ == 0)
        fmt::print(
            stderr,
            "qrn-server: {}: is from none of the networks that are heard, see --allow; told once, counted\n",
            to_text(from));
}

void Server::note_workstation(const Peer& address)
{
    const auto is_it = [&](const Peer& other) { return std::memcmp(&other, &address, sizeof other) == 0; };
    if (std::ranges::any_of(workstations_, is_it))
        return;
    if (workstations_.size() == workstations_max)
        workstations_.erase(workstations_.begin());
    workstations_.push_back(address);
}

// The protocol has judged the packet: it is the last reply exactly when it was the one asked for.
void Server::take_poll_reply(const Peer& from, std::span<const std::uint8_t> packet)
{
    if (packet.size() != sizeof(formats::PollReply) ||
        !std::ranges::equal(packet, protocol_.last_poll_reply()))
        return;
    const auto is_it = [&](const PolledWorkstation& other) {
        return std::memcmp(&other.address, &from, sizeof from) == 0;
    };
    auto found = std::ranges::find_if(polled_, is_it);
    if (found == polled_.end()) {
        if (polled_.size() == workstations_max)
            polled_.erase(polled_.begin());
        found = polled_.insert(polled_.end(), PolledWorkstation{from, {}});
    }
    std::memcpy(&found->reply, packet.data(), sizeof found->reply);
}

void Server::poll_next()
{
    if (workstations_.empty())
        return;
    next_poll_ = (next_poll_ + 1) % workstations_.size();
    protocol_.send_poll(workstations_[next_poll_], self_);
    socket_.flush();
}

void Server::obey_signals()
{
    if (retry_limit_requested != 0) {
        retry_limit_requested = 0;
        for (unsigned lun = 0; lun < options_.disks.size(); ++lun)
            protocol_.send_retry_limit(lun);
        socket_.flush();
    }
    if (flush_requested != 0) {
        flush_requested = 0;
        protocol_.flush();
    }
}

void Server::every_second()
{
    if (options_.poll_interval_s != 0 && now_ms() >= next_poll_ms_) {
        next_poll_ms_ = now_ms() + options_.poll_interval_s * 1000;
        poll_next();
    }
    write_statistics();
}

Statistics Server::statistics() const
{
    return {.options = options_,
            .protocol = protocol_,
            .socket = socket_.counters(),
            .disk_bytes = disk_bytes_,
            .address = to_text(self_),
            .uptime_s = static_cast<double>(now_ms() - start_ms_) / 1000,
            .strangers = strangers_,
            .workstations = polled_};
}

void Server::write_statistics()
{
    if (options_.stats_json_path.empty())
        return;
    try {
        programs::replace_file(options_.stats_json_path, statistics().json());
    } catch (const std::system_error& error) {
        if (!std::exchange(statistics_failed_, true))
            log(LogLevel::warning, fmt::format("--stats-json: {}", error.what()));
    }
}

// Once for each reason: a full disk fails every write.
void Server::tell_failure(const StoreFailure& failure)
{
    using Operation = StoreFailure::Operation;
    if (!failures_told_.insert({failure.disk, failure.operation, failure.error}).second)
        return;
    const ServedDisk& served = options_.disks[failure.disk];
    const bool of_image = failure.operation == Operation::read_image;
    const char* const what = failure.operation == Operation::write   ? "write"
                             : failure.operation == Operation::flush ? "flush"
                                                                     : "read";
    log(LogLevel::error, fmt::format("{}: cannot {}{}: {} (errno {}); told once, counted as store_errors",
                                     of_image ? served.image_path : served.path, what,
                                     failure.workstation ? " for " + to_text(*failure.workstation) : "",
                                     std::generic_category().message(failure.error), failure.error));
}

void Server::take_ended_flushes()
{
    for (const Flusher::Job& job : flusher_->take_ended())
        protocol_.flush_ended(job.disk, job.workstation, job.error);
}

void check_configuration(const std::string& path)
{
    const FleetConfig config = read_fleet_config(path);
    check_fleet_images(config, path);
    fmt::print("{}: good: {} images, {} groups, {} workstations\n", path, config.images.size(),
               config.groups.size(), config.workstations.size());
}

int report(const std::exception& error, int status)
{
    log(LogLevel::error, error.what());
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    programs::name_log("qrn-server");
    std::optional<Options> options;
    std::unique_ptr<Server> server;
    try {
        options = parse_options(argc, argv);
        if (!options)
            return 0;
        if (options->check_only) {
            check_configuration(options->config_path);
            return 0;
        }
        if (!options->config_path.empty())
            return run_fleet_server(options->config_path);
        take_signals();
        server = std::make_unique<Server>(*options);
    } catch (const std::exception& error) {
        return report(error, 2);
    }
    try {
        server->run();
    } catch (const std::exception& error) {
        return report(error, 1);
    }
    return 0;
}
