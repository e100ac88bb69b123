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
    std::size_t buffer_bytes = nbd::request_bytes_max;
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
    struct Slot;

    bool handshake();
    bool send_all(const std::vector<std::uint8_t>& bytes, std::chrono::steady_clock::time_point deadline);
    bool wait_socket(short events, std::chrono::steady_clock::time_point deadline);

    void transmission();
    enum class Progress { need_bytes, need_slot, ended };
    Progress take_requests();
    bool start_request();
    void refuse(Slot& slot, std::uint32_t error);
    bool receive();
    Slot* free_slot();
    void recycle(bool await);
    void wait_for_work(bool reading);
    void drain();

    UniqueFd socket_;
    UniqueFd wake_;
    const Exports& exports_;
    ConnectionLimits limits_;
    std::atomic<bool> stopping_ = false;

    Export export_;
    std::uint64_t disk_bytes_ = 0;
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
