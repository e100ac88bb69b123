// SPDX-License-Identifier: MIT
#include "server/nbd_store.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

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

struct Close {
    void operator()(nbd_handle* handle) const { nbd_close(handle); }
};

struct Connection {
    std::mutex lock;
    std::unique_ptr<nbd_handle, Close> handle;
};

class NbdStore : public BlockStore {
public:
    NbdStore(const std::string& uri, bool readonly) : uri_(uri), readonly_(readonly)
    {
        std::string reason = connect(connections_[0]);
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
        return with_connection(
            [&](nbd_handle* handle) { return nbd_pread(handle, out.data(), out.size(), offset, 0); });
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        const bool zeros = can_zero_ && data.size() >= zeros_bytes_min && data[0] == 0 &&
                           std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0;
        return with_connection([&](nbd_handle* handle) {
            return zeros ? nbd_zero(handle, data.size(), offset, 0)
                         : nbd_pwrite(handle, data.data(), data.size(), offset, 0);
        });
    }
    bool flush() override
    {
        return !can_flush_ || with_connection([](nbd_handle* handle) { return nbd_flush(handle, 0); });
    }
    bool hole(std::uint64_t, std::uint64_t) override { return false; }

private:
    std::string connect(Connection& connection) const;
    void connect_again(Connection& connection);
    Connection& choose(std::unique_lock<std::mutex>& held);

    template <typename Request>
    bool with_connection(Request request)
    {
        std::unique_lock<std::mutex> held;
        Connection& connection = choose(held);
        for (;;) {
            if (!connection.handle || nbd_aio_is_ready(connection.handle.get()) != 1)
                connect_again(connection);
            if (request(connection.handle.get()) == 0)
                return true;
            const int error = nbd_get_errno();
            // Asked again when the connection has gone: reads and writes of the same bytes may be repeated.
            if (nbd_aio_is_ready(connection.handle.get()) == 1) {
                errno = error != 0 ? error : EIO;
                return false;
            }
        }
    }

    const std::string uri_;
    const bool readonly_;
    std::uint64_t size_bytes_ = 0;
    bool can_zero_ = false, can_flush_ = false;
    std::array<Connection, 4> connections_;
    std::size_t used_ = 1;
    std::atomic<unsigned> next_{0};
    std::atomic<bool> away_{false};  // and told
};

// Empty: it is there. Otherwise why not.
std::string NbdStore::connect(Connection& connection) const
{
    connection.handle.reset(nbd_create());
    if (connection.handle && nbd_connect_uri(connection.handle.get(), uri_.c_str()) == 0)
        return "";
    const char* const reason = nbd_get_error();
    return reason ? reason : "no connection";
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

std::shared_ptr<BlockStore> open_nbd_store(const std::string& uri, bool readonly)
{
    return std::make_shared<NbdStore>(uri, readonly);
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
