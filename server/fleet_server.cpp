// SPDX-License-Identifier: MIT
#include "server/fleet_server.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "programs/replace_file.h"
#include "server/control_socket.h"
#include "server/fleet.h"
#include "server/fleet_config.h"
#include "server/log.h"
#include "server/nbd_store.h"
#include "server/service_manager.h"
#include "server/udp_socket.h"
#include "server/web_page.h"

namespace server {

namespace {

constexpr long beat_ms = 50;
constexpr unsigned last_flush_ms = 60'000;

std::uint64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

std::string text_of(const nlohmann::json& json)
{
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

class FleetServer {
public:
    explicit FleetServer(const std::string& config_path);
    ~FleetServer() { stop_receiving(); }
    int run();

private:
    void receive_from(UdpSocket& socket);
    void stop_receiving();
    void every_second();
    std::string answer(const std::string& line);
    // Nothing: the beat is over.
    static std::optional<int> wait_for_signal();

    const std::string config_path_;
    const FleetConfig config_;
    std::vector<std::unique_ptr<UdpSocket>> sockets_;
    std::optional<WorkPool> pool_;
    std::optional<Fleet> fleet_;
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned> receiving_{0};  // threads that came by since the last beat of the watchdog
    std::vector<std::thread> receivers_;
    std::optional<ControlSocket> control_;
    std::optional<WebPage> web_;
    bool statistics_failed_ = false;  // and told
};

FleetServer::FleetServer(const std::string& config_path)
    : config_path_(config_path), config_(read_fleet_config(config_path))
{
    check_fleet_images(config_, config_path_);
    Peer address = config_.listen;
    for (unsigned i = 0; i < config_.threads; ++i) {
        sockets_.push_back(std::make_unique<UdpSocket>(address, config_.threads > 1));
        address = sockets_.back()->address();
    }
    Peer self = address;
    if (config_.advertise)
        std::ranges::copy(config_.advertise->Ip, self.Ip);
    pool_.emplace(std::max(2u, std::thread::hardware_concurrency()),
                  [this] { return std::make_unique<UdpSocket>(*sockets_[0], UdpSocket::SendOnly{}); });
    fleet_.emplace(config_, config_path_, self, *pool_, open_disk_store, now_ms);
    if (!config_.control.empty())
        control_.emplace(config_.control, [this](const std::string& line) { return answer(line); });
    if (config_.http) {
        web_.emplace(*config_.http, [this] { return fleet_->status(); });
        log(LogLevel::notice, fmt::format("the page is at http://{}/", to_text(web_->address())));
    }
}

std::string FleetServer::answer(const std::string& line)
{
    const auto command = nlohmann::json::parse(line, nullptr, false);
    if (command.is_discarded())
        return text_of({{"error", "a command is one line of JSON"}});
    return text_of(fleet_->command(command));
}

void FleetServer::receive_from(UdpSocket& socket)
{
    const UdpSocket::Handler handler = [this](const Peer& from, std::span<const std::uint8_t> packet) {
        fleet_->receive(from, packet);
    };
    WorkPool::set_sink(&socket);
    while (!stopping_) {
        socket.receive(handler);
        ++receiving_;
    }
}

void FleetServer::stop_receiving()
{
    stopping_ = true;
    for (std::thread& receiver : receivers_)
        receiver.join();
    receivers_.clear();
}

std::optional<int> FleetServer::wait_for_signal()
{
    sigset_t all;
    sigfillset(&all);
    const timespec beat{0, beat_ms * 1'000'000};
    const int signal = sigtimedwait(&all, nullptr, &beat);
    return signal > 0 ? std::optional(signal) : std::nullopt;
}

int FleetServer::run()
{
    for (const auto& socket : sockets_)
        receivers_.emplace_back([this, &socket] { receive_from(*socket); });
    fmt::print("ready {}\n", to_text(sockets_[0]->address()));
    std::fflush(stdout);
    tell_service_manager("READY=1");
    const std::uint64_t alive_ms = watchdog_ms() / 3;
    std::uint64_t next_second_ms = now_ms() + 1000, next_alive_ms = now_ms() + alive_ms;
    for (;;) {
        const auto signal = wait_for_signal();
        if (signal == SIGINT || signal == SIGTERM)
            break;
        if (signal == SIGHUP)
            log(LogLevel::notice, "reload: " + text_of(fleet_->command({{"command", "reload"}})));
        else if (signal == SIGUSR1)
            fleet_->limit_retries();
        else if (signal == SIGUSR2)
            fleet_->flush_all(0);
        pool_->grow_if_stuck();
        const std::uint64_t now = now_ms();
        if (now >= next_second_ms) {
            next_second_ms = now + 1000;
            every_second();
        }
        // Alive is who still takes packets in, too.
        if (alive_ms != 0 && now >= next_alive_ms && receiving_.exchange(0) != 0) {
            next_alive_ms = now + alive_ms;
            tell_service_manager("WATCHDOG=1");
        }
    }
    tell_service_manager("STOPPING=1");
    control_.reset();
    web_.reset();
    stop_receiving();
    const std::string failed = fleet_->flush_all(last_flush_ms);
    every_second();
    fleet_.reset();
    pool_->finish(1000);
    if (!failed.empty())
        log(LogLevel::error, "could not be written back, the last writes may be lost: " + failed);
    return failed.empty() ? 0 : 1;
}

void FleetServer::every_second()
{
    fleet_->tick();
    if (config_.stats_json.empty())
        return;
    try {
        programs::replace_file(config_.stats_json, text_of(fleet_->status()) + "\n");
    } catch (const std::system_error& error) {
        if (!std::exchange(statistics_failed_, true))
            log(LogLevel::error, fmt::format("stats_json: {}", error.what()));
    }
}

}  // namespace

int run_fleet_server(const std::string& config_path)
{
    // This thread alone takes signals, and all others begin with none.
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    return FleetServer(config_path).run();
}

}  // namespace server
