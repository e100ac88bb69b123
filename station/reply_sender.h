// SPDX-License-Identifier: MIT
// Sends the replies of one connection, straight from the threads in which its transfers end, so that a
// reply costs no change of threads. One thread at a time sends what all have queued, many replies in
// one system call; it never waits: when the socket is full it leaves the rest to the connection's
// thread, which polls for room.
//
// push() may be called at up to DISPATCH_LEVEL, by any thread. One lock guards everything; no other
// lock is taken under it, and none is held while sending.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "station/nbd_reply.h"

namespace station {

// One reply: header, then data. The memory must stay until the reply is released.
struct Reply {
    ReplyHeader header;
    const std::uint8_t* data = nullptr;
    std::uint32_t data_bytes = 0;
    void* owner = nullptr;  // the caller's own
    Reply* next = nullptr;
};

// First in, first out, linked through Reply::next.
class ReplyList {
public:
    bool empty() const { return first_ == nullptr; }
    Reply* front() const { return first_; }
    void push_back(Reply& reply)
    {
        reply.next = nullptr;
        *(last_ ? &last_->next : &first_) = &reply;
        last_ = &reply;
    }
    Reply* pop_front()
    {
        Reply* reply = first_;
        first_ = reply->next;
        if (!first_)
            last_ = nullptr;
        return reply;
    }

private:
    Reply* first_ = nullptr;
    Reply* last_ = nullptr;
};

class ReplySender {
public:
    // wake_fd: an eventfd, written to when the connection's thread has to look again: a reply is
    // released while it awaits one, or the socket has become full or broken.
    ReplySender(int socket, int wake_fd) : socket_(socket), wake_fd_(wake_fd) {}

    void push(Reply& reply);
    // The socket has room again.
    void room();

    // The replies that are sent, or dropped, since the last call, linked by next. With `await` the
    // next one to come wakes the connection's thread.
    Reply* take_released(bool await);

    // Replies wait for room.
    bool blocked() const;
    // The client is gone; replies are dropped from now on.
    void abandon();
    bool broken() const;

private:
    static constexpr unsigned batch_max = 64;

    void send_queued(std::unique_lock<std::mutex>& lock);
    void release_sent(std::size_t bytes);
    void release_front();
    void wake();

    int socket_;
    int wake_fd_;
    mutable std::mutex lock_;
    ReplyList queued_;
    std::size_t front_sent_bytes_ = 0;  // of the first queued reply
    ReplyList released_;
    bool sending_ = false;  // a thread is in send_queued
    bool blocked_ = false;
    bool broken_ = false;
    bool awaited_ = false;
};

}  // namespace station
