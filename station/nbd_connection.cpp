// SPDX-License-Identifier: MIT
#include "station/nbd_connection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <span>
#include <system_error>

#include "station/extent_search.h"
#include "station/nbd_handshake.h"

namespace station {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Memory that other connections give back comes without a wake-up.
constexpr auto memory_poll_time = 10ms;

// A request from its header to its reply. Given to the disk's queue while its transfer runs, then to
// the sender, and back.
struct NbdConnection::Slot {
    explicit Slot(NbdConnection& its_connection) : connection(its_connection)
    {
        reply.owner = transfer.owner = this;
        transfer.done = [](Transfer& done) { of(done).transfer_done(); };
    }

    static Slot& of(const Transfer& transfer) { return *static_cast<Slot*>(transfer.owner); }
    static Slot& of(const Reply& reply) { return *static_cast<Slot*>(reply.owner); }

    void start(const NbdRequest& request);
    void submit() { connection.queue_->submit(transfer); }
    void refuse(std::uint32_t error);

    NbdConnection& connection;
    Transfer transfer;
    Reply reply;
    nbd::Command command = nbd::Command::read;
    std::uint64_t cookie = 0;
    std::uint32_t refusal = 0;  // the error it will be answered with once its payload is skipped
    ExtentSearch extent;        // of a question for the block status
    BufferPool::Buffer buffer;

private:
    void transfer_done();
    void read_next_piece();
    bool wants_chunks() const;
    void answer(const ReplyHeader& header, std::uint32_t data_bytes = 0);
};

namespace {

Transfer::Operation operation_of(nbd::Command command)
{
    switch (command) {
    case nbd::Command::read:
    case nbd::Command::block_status:
        return Transfer::Operation::read;
    case nbd::Command::write:
        return Transfer::Operation::write;
    case nbd::Command::trim:  // the server makes a hole of zeros
    case nbd::Command::write_zeroes:
        return Transfer::Operation::zero;
    default:
        return Transfer::Operation::flush;
    }
}

}  // namespace

void NbdConnection::Slot::start(const NbdRequest& request)
{
    transfer.operation = operation_of(request.command);
    transfer.error = 0;
    transfer.offset = request.offset;
    transfer.length = request.length;
    transfer.data = buffer.memory.get();
    if (command == nbd::Command::block_status) {
        extent = ExtentSearch(request.offset, request.length);
        read_next_piece();
    }
}

void NbdConnection::Slot::read_next_piece()
{
    transfer.offset = extent.piece_offset();
    transfer.length = extent.piece_bytes();
}

// At up to DISPATCH_LEVEL.
void NbdConnection::Slot::transfer_done()
{
    if (transfer.error)
        return refuse(transfer.error);
    const std::span content(transfer.data, transfer.length);
    if (command == nbd::Command::block_status) {
        if (extent.take(content))
            return answer(status_reply(cookie, extent.bytes(), extent.zeros() ? nbd::extent_reads_zero : 0));
        read_next_piece();
        return submit();
    }
    if (command != nbd::Command::read)
        return answer(simple_reply(cookie, 0));
    if (!wants_chunks())
        return answer(simple_reply(cookie, 0), transfer.length);
    if (all_zeros(content))
        return answer(hole_reply(cookie, transfer.offset, transfer.length));
    answer(data_reply(cookie, transfer.offset, transfer.length), transfer.length);
}

// Where structured replies were agreed on, a read has no other; neither has what only they can answer.
bool NbdConnection::Slot::wants_chunks() const
{
    return connection.disk_.structured &&
           (command == nbd::Command::read || command == nbd::Command::block_status);
}

void NbdConnection::Slot::refuse(std::uint32_t error)
{
    answer(wants_chunks() ? error_reply(cookie, error) : simple_reply(cookie, error));
}

// From here on the slot is the sender's.
void NbdConnection::Slot::answer(const ReplyHeader& header, std::uint32_t data_bytes)
{
    reply.header = header;
    reply.data = buffer.memory.get();
    reply.data_bytes = data_bytes;
    connection.sender_.push(reply);
}

NbdConnection::NbdConnection(UniqueFd socket, const Exports& exports, ConnectionLimits limits)
    : socket_(std::move(socket)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), exports_(exports),
      limits_(limits), sender_(socket_.get(), wake_.get()), buffers_(limits.buffer_bytes, limits.budget)
{
    if (!wake_)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    free_slots_.reserve(limits.requests_in_flight);
}

NbdConnection::~NbdConnection() = default;

void NbdConnection::run()
{
    try {
        if (handshake()) {
            queue_ = export_.device->open_queue();
            transmission();
        }
    } catch (const std::bad_alloc&) {
        sender_.abandon();
    }
    drain();
    shutdown(socket_.get(), SHUT_RDWR);
}

void NbdConnection::stop()
{
    stopping_ = true;
    eventfd_write(wake_.get(), 1);
}

void NbdConnection::abandon()
{
    stop();
    shutdown(socket_.get(), SHUT_RDWR);
    sender_.abandon();
}

bool NbdConnection::handshake()
{
    const auto deadline = Clock::now() + limits_.handshake_time;
    NbdHandshake dialogue(exports_.list());
    for (;;) {
        if (!send_all(dialogue.take_output(), deadline))
            return false;
        if (dialogue.state() != NbdHandshake::State::negotiating)
            break;
        if (!wait_socket(POLLIN, deadline))
            return false;
        std::uint8_t bytes[4096];
        const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
            return false;
        if (got < 0)
            continue;
        const auto received = std::span(bytes).first(static_cast<std::size_t>(got));
        const auto rest = received.subspan(dialogue.receive(received));
        early_.assign(rest.begin(), rest.end());
    }
    if (dialogue.state() == NbdHandshake::State::closed)
        return false;
    export_ = dialogue.chosen();
    disk_ = {export_.device->size_bytes(), export_.read_only, export_.flushes, dialogue.structured_replies(),
             dialogue.block_status()};
    return true;
}

bool NbdConnection::send_all(const std::vector<std::uint8_t>& bytes, Clock::time_point deadline)
{
    std::size_t sent_bytes = 0;
    while (sent_bytes < bytes.size()) {
        const ssize_t sent = send(socket_.get(), bytes.data() + sent_bytes, bytes.size() - sent_bytes,
                                  MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0)
            sent_bytes += static_cast<std::size_t>(sent);
        else if (errno != EAGAIN && errno != EINTR)
            return false;
        else if (!wait_socket(POLLOUT, deadline))
            return false;
    }
    return true;
}

// False when the deadline or stop() came first.
bool NbdConnection::wait_socket(short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (stopping_ || left.count() <= 0)
            return false;
        pollfd polled[] = {{socket_.get(), events, 0}, {wake_.get(), POLLIN, 0}};
        const int ready = poll(polled, 2, static_cast<int>(left.count()));
        if (ready > 0 && polled[0].revents)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

void NbdConnection::transmission()
{
    while (!stopping_) {
        recycle(false);
        switch (take_requests()) {
        case Progress::ended:
            sender_.abandon();
            return;
        case Progress::need_slot:
            wait_for_work(false);
            break;
        case Progress::need_memory:
            wait_for_work(false, memory_poll_time);
            break;
        case Progress::need_bytes:
            if (!receive())
                return;
            break;
        }
    }
}

// Everything that has arrived is started.
NbdConnection::Progress NbdConnection::take_requests()
{
    for (;;) {
        switch (receiver_.next()) {
        case NbdReceiver::Event::need_bytes:
            return Progress::need_bytes;
        case NbdReceiver::Event::broken:
            return Progress::ended;
        case NbdReceiver::Event::request:
            if (receiver_.request().command == nbd::Command::disconnect)
                return Progress::ended;
            if (const Progress progress = start_request(); progress != Progress::need_bytes)
                return progress;
            break;
        case NbdReceiver::Event::payload:
            Slot& slot = *std::exchange(receiving_, nullptr);
            if (slot.refusal)
                slot.refuse(slot.refusal);
            else
                slot.submit();
            break;
        }
    }
}

NbdConnection::Progress NbdConnection::start_request()
{
    const NbdRequest& request = receiver_.request();
    Slot* const slot = free_slot();
    if (!slot)
        return Progress::need_slot;
    std::uint32_t error = check_request(request, disk_);
    if (!error && request.buffer_bytes()) {
        try {
            slot->buffer = buffers_.take(request.buffer_bytes());
            if (!slot->buffer)
                return buffers_.waits_for_others() ? Progress::need_memory : Progress::need_slot;
        } catch (const std::bad_alloc&) {
            error = nbd::error_no_memory;
        }
    }
    free_slots_.pop_back();
    slot->command = request.command;
    slot->cookie = request.cookie;
    slot->refusal = error;

    if (request.payload_bytes()) {
        receiving_ = slot;
        if (error)
            receiver_.skip_payload();
        else
            receiver_.payload_into(slot->buffer.memory.get());
    } else {
        receiver_.no_payload();
    }
    if (error) {
        if (!receiving_)
            slot->refuse(error);
        return Progress::need_bytes;
    }

    slot->start(request);
    if (!receiving_)
        slot->submit();
    return Progress::need_bytes;
}

// Takes what the socket has, waiting when it has nothing. False when the client is gone.
bool NbdConnection::receive()
{
    const auto spaces = receiver_.spaces();
    if (!early_.empty()) {
        // No more than the header area holds, and no payload is under way this early: both areas
        // begin where the handshake's last read ended.
        std::copy(early_.begin(), early_.end(), spaces.headers.begin());
        receiver_.filled(early_.size());
        early_.clear();
        return true;
    }
    iovec pieces[2];
    unsigned count = 0;
    if (!spaces.payload.empty())
        pieces[count++] = {spaces.payload.data(), spaces.payload.size()};
    pieces[count++] = {spaces.headers.data(), spaces.headers.size()};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    const ssize_t got = recvmsg(socket_.get(), &message, MSG_DONTWAIT);
    if (got > 0)
        receiver_.filled(static_cast<std::size_t>(got));
    else if (got == 0 || (errno != EAGAIN && errno != EINTR))
        return false;
    else {
        if (free_slots_.size() == slots_.size())
            buffers_.trim();
        wait_for_work(true);
    }
    return true;
}

NbdConnection::Slot* NbdConnection::free_slot()
{
    if (free_slots_.empty() && slots_.size() < limits_.requests_in_flight)
        free_slots_.push_back(slots_.emplace_back(std::make_unique<Slot>(*this)).get());
    return free_slots_.empty() ? nullptr : free_slots_.back();
}

// Takes back the slots whose replies are sent. With await, the next one wakes this thread.
void NbdConnection::recycle(bool await)
{
    for (Reply* reply = sender_.take_released(await); reply;) {
        Slot& slot = Slot::of(*reply);
        reply = reply->next;
        buffers_.give_back(std::move(slot.buffer));
        free_slots_.push_back(&slot);
    }
}

// Waits for the client (when reading), for room in the socket (when replies wait for it), for a slot
// to come back (when not reading), or for stop().
bool NbdConnection::wait_for_work(bool reading, std::chrono::milliseconds at_most)
{
    const std::size_t free_before = free_slots_.size();
    recycle(!reading);
    if (!reading && free_slots_.size() != free_before)
        return true;
    const bool blocked = sender_.blocked();
    pollfd polled[] = {
        {socket_.get(), static_cast<short>((reading ? POLLIN : 0) | (blocked ? POLLOUT : 0)), 0},
        {wake_.get(), POLLIN, 0}};
    if (!polled[0].events)
        polled[0].fd = -1;
    poll(polled, 2, static_cast<int>(at_most.count()));
    if (polled[1].revents) {
        eventfd_t count;
        eventfd_read(wake_.get(), &count);
    }
    const bool room = blocked && (polled[0].revents & (POLLOUT | POLLERR | POLLHUP));
    if (room)
        sender_.room();
    return room;
}

// The transfers in flight own their buffers: nothing may go before the last of them is back. A client that
// takes no replies while some wait for it is not waited for.
void NbdConnection::drain()
{
    if (receiving_)
        free_slots_.push_back(std::exchange(receiving_, nullptr));
    recycle(false);
    auto deadline = Clock::now() + limits_.farewell_time;
    while (free_slots_.size() != slots_.size()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 && sender_.blocked())
            sender_.abandon();
        if (wait_for_work(false, std::max(left, 0ms)) || !sender_.blocked())
            deadline = Clock::now() + limits_.farewell_time;
    }
    queue_.reset();
}

}  // namespace station
