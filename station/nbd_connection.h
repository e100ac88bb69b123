// SPDX-License-Identifier: MIT
// One client. run() serves it in the calling thread: handshake, then requests until the client leaves,
// breaks the protocol, or stop() is called. Requests are read and started there; replies leave from
// the threads in which the transfers end. What a client can hold is bounded (memory, requests in
// flight, time for the handshake), and nothing it does reaches beyond its own connection.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "station/buffer_pool.h"
#include "station/exports.h"
#include "station/nbd_receiver.h"
#include "station/reply_sender.h"
#include "station/unique_fd.h"

namespace station {

struct ConnectionLimits {
    std::chrono::milliseconds handshake_time{20'000};
    // After the last reply that a client took, once it has nothing more to ask or sends what is no request.
    std::chrono::milliseconds farewell_time{20'000};
    std::size_t buffer_bytes = nbd::request_bytes_max;
    BufferBudget* budget = nullptr;  // shared by all connections of a server; null: none
    unsigned requests_in_flight = 256;
};

class NbdConnection {
public:
    // Throws std::system_error when no wake-up descriptor can be had.
    NbdConnection(UniqueFd socket, const Exports& exports, ConnectionLimits limits = {});
    ~NbdConnection();

    void run();

    // From any thread: no further request is read; run() returns when those in flight are answered.
    void stop();
    // From any thread: the client is cut off; replies still to come are dropped.
    void abandon();

private:
    static constexpr std::chrono::milliseconds forever{-1};
    struct Slot;

    bool handshake();
    bool send_all(const std::vector<std::uint8_t>& bytes, std::chrono::steady_clock::time_point deadline);
    bool wait_socket(short events, std::chrono::steady_clock::time_point deadline);

    void transmission();
    enum class Progress { need_bytes, need_slot, need_memory, ended };
    Progress take_requests();
    Progress start_request();  // need_bytes: it is started
    bool receive();
    Slot* free_slot();
    void recycle(bool await);
    // True when the client has taken something that it was slow to take.
    bool wait_for_work(bool reading, std::chrono::milliseconds at_most = forever);
    void drain();

    UniqueFd socket_;
    UniqueFd wake_;
    const Exports& exports_;
    ConnectionLimits limits_;
    std::atomic<bool> stopping_ = false;

    Export export_;
    DiskTraits disk_;
    std::vector<std::uint8_t> early_;  // bytes of the first requests that came with the handshake
    NbdReceiver receiver_;
    ReplySender sender_;
    BufferPool buffers_;
    std::vector<std::unique_ptr<Slot>> slots_;
    std::vector<Slot*> free_slots_;  // room for all of them
    Slot* receiving_ = nullptr;      // whose payload is under way
    std::unique_ptr<BlockQueue> queue_;
};

}  // namespace station
