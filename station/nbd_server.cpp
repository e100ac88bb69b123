// SPDX-License-Identifier: MIT
#include "station/nbd_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace station {

using namespace std::chrono_literals;

namespace {

// A connection's thread goes down into the driver, whose own threads have 12 KB.
constexpr std::size_t stack_bytes = 256 << 10;

// For connections that were only waiting for their client.
constexpr auto cut_off_time = 200ms;

}  // namespace

NbdServer::NbdServer(NbdAddress address, const Exports& exports, ConnectionLimits limits)
    : address_(std::move(address)), exports_(exports), limits_(limits), listener_(address_.listen()),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    limits_.budget = &budget_;
    if (!wake_)
        throw std::system_error(errno, std::generic_category(), "eventfd");
}

void NbdServer::start()
{
    accepting_ = std::thread([this] { accept_loop(); });
}

NbdServer::~NbdServer()
{
    while (!stop(1000ms)) {
    }
}

ServerCounters NbdServer::counters() const
{
    std::lock_guard guard(lock_);
    const auto open =
        std::count_if(clients_.begin(), clients_.end(), [](const Client& client) { return !client.ended; });
    return {static_cast<unsigned>(open), accepted_, refused_};
}

bool NbdServer::stop(std::chrono::milliseconds patience)
{
    stopping_ = true;
    eventfd_write(wake_.get(), 1);
    if (accepting_.joinable())
        accepting_.join();
    listener_ = UniqueFd();
    address_.remove();

    for (Client& client : clients_)
        client.connection.stop();
    if (wait_all_ended(patience))
        return true;
    for (Client& client : clients_)
        client.connection.abandon();
    return wait_all_ended(cut_off_time);
}

bool NbdServer::wait_all_ended(std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        reap();
        if (clients_.empty())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
}

void NbdServer::accept_loop()
{
    while (!stopping_) {
        pollfd polled[] = {{listener_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        poll(polled, 2, -1);
        eventfd_t count;
        eventfd_read(wake_.get(), &count);
        reap();
        if (polled[0].revents)
            accept_one();
    }
}

void NbdServer::accept_one()
{
    UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) {
        // Out of descriptors or memory: the client stays in the queue; try again when some may have
        // been given back.
        if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR)
            std::this_thread::sleep_for(100ms);
        return;
    }
    if (!address_.is_unix()) {
        const int on = 1;
        setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    }
    try {
        serve(std::move(socket));
    } catch (const std::exception&) {  // no thread, descriptor or memory for this client
        ++refused_;
    }
}

void NbdServer::serve(UniqueFd socket)
{
    std::lock_guard guard(lock_);
    if (clients_.size() >= connections_max) {
        ++refused_;
        return;
    }
    Client& client = clients_.emplace_back(std::move(socket), *this);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stack_bytes);
    const int error = pthread_create(&client.thread, &attributes, serve_client, &client);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        clients_.pop_back();
        throw std::system_error(error, std::generic_category(), "thread");
    }
    ++accepted_;
}

void* NbdServer::serve_client(void* argument)
{
    Client& client = *static_cast<Client*>(argument);
    const int wake = client.server->wake_.get();
    client.connection.run();
    client.ended = true;
    eventfd_write(wake, 1);
    return nullptr;
}

// Takes the ended clients off the list, closing their sockets.
void NbdServer::reap()
{
    std::list<Client> ended;
    {
        std::lock_guard guard(lock_);
        for (auto each = clients_.begin(); each != clients_.end();) {
            const auto next = std::next(each);
            if (each->ended)
                ended.splice(ended.end(), clients_, each);
            each = next;
        }
    }
    for (Client& client : ended)
        pthread_join(client.thread, nullptr);
}

}  // namespace station
