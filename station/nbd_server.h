// SPDX-License-Identifier: MIT
// Listens for clients and runs each in a thread of its own. Used by the station's main thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "station/nbd_address.h"
#include "station/nbd_connection.h"

namespace station {

struct ServerCounters {
    unsigned open = 0;
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;  // too many at once, or no resources
};

class NbdServer {
public:
    static constexpr unsigned connections_max = 64;
    // For requests of all connections together, beyond each one's own: the process has 32 bits.
    static constexpr std::size_t buffer_bytes_shared = 256 << 20;

    // Listens: clients may connect, and wait to be served. Throws what NbdAddress::listen throws.
    // Exports must outlive this.
    NbdServer(NbdAddress address, const Exports& exports, ConnectionLimits limits = {});
    ~NbdServer();  // waits for transfers under way; stop() before bounds that

    // From here on clients are served.
    void start();

    const NbdAddress& address() const { return address_; }
    ServerCounters counters() const;

    // No more clients and requests; those in flight are answered. After the patience, clients are
    // cut off. False when transfers are still under way then: their connections remain, and stop()
    // may be called again.
    bool stop(std::chrono::milliseconds patience);

private:
    struct Client {
        Client(UniqueFd socket, NbdServer& owner)
            : connection(std::move(socket), owner.exports_, owner.limits_), server(&owner)
        {
        }
        NbdConnection connection;
        pthread_t thread;
        NbdServer* server;
        std::atomic<bool> ended = false;
    };

    void accept_loop();
    void accept_one();
    void serve(UniqueFd socket);
    static void* serve_client(void* client);
    void reap();
    bool wait_all_ended(std::chrono::milliseconds patience);

    NbdAddress address_;
    const Exports& exports_;
    BufferBudget budget_{buffer_bytes_shared};
    ConnectionLimits limits_;
    UniqueFd listener_;
    UniqueFd wake_;
    std::atomic<bool> stopping_ = false;
    std::atomic<std::uint64_t> accepted_ = 0;
    std::atomic<std::uint64_t> refused_ = 0;

    mutable std::mutex lock_;  // guards clients_
    std::list<Client> clients_;
    std::thread accepting_;
};

}  // namespace station
