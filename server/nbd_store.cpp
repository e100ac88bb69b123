// SPDX-License-Identifier: MIT
#include "server/nbd_store.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <libnbd.h>

#include <fmt/format.h>

#include "formats/boot_block.h"
#include "server/fleet_config.h"
#include "server/log.h"
#include "server/raw_check.h"

namespace server {

namespace {

constexpr auto first_wait = std::chrono::milliseconds(100);
constexpr auto longest_wait = std::chrono::milliseconds(2000);
constexpr std::size_t zeros_bytes_min = 4096;

using Time = std::chrono::steady_clock::time_point;

Time now()
{
    return std::chrono::steady_clock::now();
}

struct Close {
    void operator()(nbd_handle* handle) const { nbd_close(handle); }
};

struct Connection {
    std::mutex lock;
    std::unique_ptr<nbd_handle, Close> handle;
};

// Commands of one transfer are in flight together.
struct Command {
    std::function<std::int64_t(nbd_handle*)> start;
    std::int64_t cookie = -1;
    bool ended = false;
    int error = 0;
};

class NbdStore : public BlockStore {
public:
    NbdStore(const std::string& uri, bool readonly, const NbdPatience& patience)
        : uri_(uri), patience_(patience)
    {
        const std::string reason = connect(connections_[0]);
        if (!reason.empty())
            throw std::runtime_error(fmt::format("{}: {}", uri_, reason));
        nbd_handle* const handle = connections_[0].handle.get();
        const std::int64_t size = nbd_get_size(handle);
        if (size <= 0 || size % formats::sector_bytes != 0)
            throw std::runtime_error(fmt::format("{}: its size is no multiple of 512 bytes", uri_));
        if (!readonly && nbd_is_read_only(handle) == 1)
            throw std::runtime_error(fmt::format("{}: can only be read", uri_));
        size_bytes_ = static_cast<std::uint64_t>(size);
        // Others may not see what one connection wrote.
        used_ = readonly || nbd_can_multi_conn(handle) == 1 ? connections_.size() : 1;
        can_zero_ = nbd_can_zero(handle) == 1;
        can_flush_ = nbd_can_flush(handle) == 1;
    }

    std::uint64_t size_bytes() const override { return size_bytes_; }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        return transfer([&](nbd_handle* handle) {
            return nbd_aio_pread(handle, out.data(), out.size(), offset, NBD_NULL_COMPLETION, 0);
        });
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        const bool zeros = can_zero_ && data.size() >= zeros_bytes_min && data[0] == 0 &&
                           std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0;
        return transfer([&](nbd_handle* handle) {
            return zeros ? nbd_aio_zero(handle, data.size(), offset, NBD_NULL_COMPLETION, 0)
                         : nbd_aio_pwrite(handle, data.data(), data.size(), offset, NBD_NULL_COMPLETION, 0);
        });
    }
    bool flush() override
    {
        return !can_flush_ ||
               transfer([](nbd_handle* handle) { return nbd_aio_flush(handle, NBD_NULL_COMPLETION, 0); });
    }
    bool hole(std::uint64_t, std::uint64_t) override { return false; }
    void read_ahead(std::span<ReadAhead> reads) override
    {
        std::vector<Command> commands;
        for (const ReadAhead& read : reads)
            commands.push_back({[&read](nbd_handle* handle) {
                return nbd_aio_pread(handle, read.out.data(), read.out.size(), read.offset,
                                     NBD_NULL_COMPLETION, 0);
            }});
        transfer(commands);
        for (std::size_t i = 0; i < reads.size(); ++i)
            reads[i].done = commands[i].error == 0;
    }

private:
    std::string connect(Connection& connection) const;
    void connect_again(Connection& connection);
    Connection& choose(std::unique_lock<std::mutex>& held);
    // Returns when all have ended, however often the connection goes meanwhile: reads and writes of the same
    // bytes may be repeated.
    void transfer(std::span<Command> commands);
    bool transfer(std::function<std::int64_t(nbd_handle*)> start)
    {
        Command command{std::move(start)};
        transfer({&command, 1});
        errno = command.error;
        return command.error == 0;
    }
    bool await(nbd_handle* handle, std::span<Command> commands) const;

    const std::string uri_;
    const NbdPatience patience_;
    std::uint64_t size_bytes_ = 0;
    bool can_zero_ = false, can_flush_ = false;
    std::array<Connection, 4> connections_;
    std::size_t used_ = 1;
    std::atomic<unsigned> next_{0};
    std::atomic<bool> away_{false};  // and told
};

std::string last_error()
{
    const char* const reason = nbd_get_error();
    return reason ? reason : "no connection";
}

bool usable(nbd_handle* handle)
{
    return nbd_aio_is_ready(handle) == 1 || nbd_aio_is_processing(handle) == 1;
}

// Empty: it is there. Otherwise why not.
std::string NbdStore::connect(Connection& connection) const
{
    connection.handle.reset(nbd_create());
    nbd_handle* const handle = connection.handle.get();
    if (!handle || nbd_aio_connect_uri(handle, uri_.c_str()) != 0)
        return last_error();
    const Time until = now() + patience_.connect;
    while (nbd_aio_is_connecting(handle) == 1) {
        if (nbd_poll(handle, 100) < 0)
            return last_error();
        if (now() > until)
            return "does not answer";
    }
    return nbd_aio_is_ready(handle) == 1 ? "" : last_error();
}

void NbdStore::connect_again(Connection& connection)
{
    for (auto wait = first_wait;; wait = std::min(wait * 2, longest_wait)) {
        std::string reason = connect(connection);
        if (reason.empty() &&
            static_cast<std::uint64_t>(nbd_get_size(connection.handle.get())) != size_bytes_)
            reason = "it has another size now";
        if (reason.empty()) {
            if (away_.exchange(false))
                log(LogLevel::notice, fmt::format("{}: is back", uri_));
            return;
        }
        if (!away_.exchange(true))
            log(LogLevel::error, fmt::format("{}: is gone, requests wait: {}", uri_, reason));
        std::this_thread::sleep_for(wait);
    }
}

// False: the connection is of no use any more. A machine that vanished does not close it, so that silence
// counts.
bool NbdStore::await(nbd_handle* handle, std::span<Command> commands) const
{
    Time heard = now();
    for (;;) {
        bool waits = false;
        for (Command& command : commands) {
            if (command.ended)
                continue;
            const int state = nbd_aio_command_completed(handle, static_cast<std::uint64_t>(command.cookie));
            const int error = state < 0 ? nbd_get_errno() : 0;
            // A server that ends tells so before it closes.
            if (state < 0 && (!usable(handle) || error == ESHUTDOWN))
                return false;
            if (state != 0) {
                command.ended = true;
                command.error = state > 0 ? 0 : error != 0 ? error : EIO;
                heard = now();
            }
            waits = waits || !command.ended;
        }
        if (!waits)
            return true;
        if (!usable(handle) || nbd_poll(handle, static_cast<int>(patience_.answer.count() / 4)) < 0 ||
            now() - heard > patience_.answer)
            return false;
    }
}

void NbdStore::transfer(std::span<Command> commands)
{
    std::unique_lock<std::mutex> held;
    Connection& connection = choose(held);
    for (bool good = true;; good = false) {
        if (!good || !connection.handle || !usable(connection.handle.get()))
            connect_again(connection);
        nbd_handle* const handle = connection.handle.get();
        for (Command& command : commands) {
            if (command.ended)
                continue;
            command.cookie = command.start(handle);
            if (command.cookie >= 0)
                continue;
            const int error = nbd_get_errno();
            if (!usable(handle))
                break;
            command.ended = true;
            command.error = error != 0 ? error : EIO;
        }
        const bool started = std::ranges::all_of(
            commands, [](const Command& command) { return command.ended || command.cookie >= 0; });
        if (started && await(handle, commands))
            return;
        for (Command& command : commands)
            command.cookie = -1;
    }
}

Connection& NbdStore::choose(std::unique_lock<std::mutex>& held)
{
    const unsigned first = next_++;
    for (std::size_t i = 0; i < used_; ++i) {
        Connection& connection = connections_[(first + i) % used_];
        held = std::unique_lock(connection.lock, std::try_to_lock);
        if (held)
            return connection;
    }
    Connection& connection = connections_[first % used_];
    held = std::unique_lock(connection.lock);
    return connection;
}

}  // namespace

std::shared_ptr<BlockStore> open_nbd_store(const std::string& uri, bool readonly, const NbdPatience& patience)
{
    return std::make_shared<NbdStore>(uri, readonly, patience);
}

std::shared_ptr<BlockStore> open_disk_store(const std::string& path, bool readonly)
{
    if (is_nbd_uri(path))
        return open_nbd_store(path, readonly);
    std::shared_ptr<BlockStore> store = open_file_store(path, readonly);
    check_raw_disk(*store, path);
    return store;
}

}  // namespace server
