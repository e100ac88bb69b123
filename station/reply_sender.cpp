// SPDX-License-Identifier: MIT
#include "station/reply_sender.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

namespace station {

void ReplySender::push(Reply& reply)
{
    std::unique_lock lock(lock_);
    queued_.push_back(reply);
    if (!sending_ && !blocked_)
        send_queued(lock);
}

void ReplySender::room()
{
    std::unique_lock lock(lock_);
    blocked_ = false;
    if (!sending_)
        send_queued(lock);
}

void ReplySender::abandon()
{
    std::unique_lock lock(lock_);
    broken_ = true;
    blocked_ = false;
    if (!sending_)
        send_queued(lock);
}

Reply* ReplySender::take_released(bool await)
{
    std::lock_guard guard(lock_);
    Reply* const first = released_.front();
    released_ = {};
    awaited_ = await && !first;
    return first;
}

bool ReplySender::blocked() const
{
    std::lock_guard guard(lock_);
    return blocked_;
}

bool ReplySender::broken() const
{
    std::lock_guard guard(lock_);
    return broken_;
}

// Replies that others queue meanwhile are sent here too; sending_ falls under the lock that found the
// queue empty, so none is left behind.
void ReplySender::send_queued(std::unique_lock<std::mutex>& lock)
{
    sending_ = true;
    while (!queued_.empty() && !blocked_) {
        if (broken_) {
            release_front();
            continue;
        }
        iovec pieces[2 * batch_max];
        unsigned count = 0;
        std::size_t skip = front_sent_bytes_;
        for (Reply* each = queued_.front(); each && count + 2 <= 2 * batch_max; each = each->next) {
            const std::size_t header_skip = std::min<std::size_t>(skip, each->header.size_bytes);
            pieces[count++] = {each->header.bytes.data() + header_skip,
                               each->header.size_bytes - header_skip};
            const std::size_t data_skip = skip - header_skip;
            if (each->data_bytes > data_skip)
                pieces[count++] = {const_cast<std::uint8_t*>(each->data) + data_skip,
                                   each->data_bytes - data_skip};
            skip = 0;
        }
        lock.unlock();
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(socket_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        const int error = errno;
        lock.lock();
        if (sent >= 0) {
            release_sent(static_cast<std::size_t>(sent));
        } else if (error == EAGAIN || error == ENOBUFS || error == ENOMEM) {
            blocked_ = !broken_;
            wake();
        } else if (error != EINTR) {
            broken_ = true;
            wake();
        }
    }
    sending_ = false;
}

void ReplySender::release_sent(std::size_t bytes)
{
    front_sent_bytes_ += bytes;
    while (!queued_.empty()) {
        const std::size_t whole = queued_.front()->header.size_bytes + queued_.front()->data_bytes;
        if (front_sent_bytes_ < whole)
            return;
        const std::size_t rest = front_sent_bytes_ - whole;
        release_front();
        front_sent_bytes_ = rest;
    }
}

void ReplySender::release_front()
{
    released_.push_back(*queued_.pop_front());
    front_sent_bytes_ = 0;
    if (awaited_) {
        awaited_ = false;
        wake();
    }
}

void ReplySender::wake()
{
    eventfd_write(wake_fd_, 1);  // fails only when the counter is full, and then the thread is awake
}

}  // namespace station
