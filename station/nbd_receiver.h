// SPDX-License-Identifier: MIT
// The client's byte stream after the handshake, cut into requests and payloads, without I/O. Used by
// one connection's thread: it fills the spaces with what the socket has, then takes event after event.
// Payloads go straight to where the request's owner wants them; at most a few headers' worth of bytes
// is ever held here.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "station/extent_search.h"
#include "station/nbd_format.h"

namespace station {

struct NbdRequest {
    std::uint16_t flags = 0;
    nbd::Command command = nbd::Command::read;
    std::uint64_t cookie = 0;
    std::uint64_t offset = 0;
    std::uint32_t length = 0;

    // Bytes that follow the request's header, whatever becomes of the request.
    std::uint32_t payload_bytes() const { return command == nbd::Command::write ? length : 0; }
    // Memory for what is read or written.
    std::uint32_t buffer_bytes() const
    {
        if (command == nbd::Command::block_status)
            return std::min(length, ExtentSearch::piece_bytes_max);
        return command == nbd::Command::read ? length : payload_bytes();
    }
};

// What the client was told of its disk.
struct DiskTraits {
    std::uint64_t bytes = 0;
    bool read_only = false;
    bool flushes = true;
    bool structured = false;    // the client wants structured replies
    bool block_status = false;  // and to be told of zeros
};

// 0, or the error that answers the request of a client of this disk.
std::uint32_t check_request(const NbdRequest& request, const DiskTraits& disk);

class NbdReceiver {
public:
    enum class Event {
        need_bytes,
        request,  // request() wants to be settled: payload_into(), skip_payload() or no_payload()
        payload,  // the payload of the last settled request has arrived, or has been skipped
        broken,   // this is no request; nothing further can be understood
    };

    // Where the next bytes of the stream belong: first what is left of a payload, then the header
    // area. Asked for only after next() said need_bytes; filled() says how many came, in this order.
    struct Spaces {
        std::span<std::uint8_t> payload;
        std::span<std::uint8_t> headers;
    };
    Spaces spaces();
    void filled(std::size_t bytes);

    // The next event. A request is reported again until it is settled.
    Event next();
    const NbdRequest& request() const { return request_; }

    // Settles the request. The buffer (of payload_bytes()) must stay until the payload event.
    void payload_into(std::uint8_t* buffer);
    void skip_payload();
    void no_payload() { state_ = State::header; }

private:
    enum class State { header, unsettled, payload, broken };

    std::size_t held() const { return end_ - begin_; }
    void take_payload();

    State state_ = State::header;
    NbdRequest request_;
    std::uint8_t* payload_ = nullptr;  // null: skipped
    std::uint32_t payload_left_ = 0;
    std::array<std::uint8_t, 4096> area_;
    std::size_t begin_ = 0, end_ = 0;  // of what area_ holds
};

}  // namespace station
