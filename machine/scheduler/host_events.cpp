// SPDX-License-Identifier: MIT
#include "machine/scheduler/host_events.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace machine {
namespace {

constexpr std::int64_t ns_per_second = 1'000'000'000;

int checked(int descriptor)
{
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "cannot wait for events of the host");
    return descriptor;
}

void watch(int epoll, int descriptor, std::uint32_t what)
{
    epoll_event event{};
    event.events = what;
    event.data.fd = descriptor;
    checked(epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event));
}

}  // namespace

HostEvents::HostEvents()
    : epoll_(checked(epoll_create1(EPOLL_CLOEXEC))), kick_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))
{
    watch(epoll_, kick_, EPOLLIN);
}

HostEvents::~HostEvents()
{
    close(kick_);
    close(epoll_);
}

HostEvents::Readable HostEvents::look()
{
    std::array<epoll_event, Readable::count_max> events;
    return taken(epoll_wait(epoll_, events.data(), Readable::count_max, 0), events.data());
}

HostEvents::Readable HostEvents::sleep(std::int64_t at_most_ns)
{
    std::array<epoll_event, Readable::count_max> events;
    timespec at_most{};
    at_most.tv_sec = static_cast<time_t>(at_most_ns / ns_per_second);
    at_most.tv_nsec = static_cast<long>(at_most_ns % ns_per_second);
    const Readable readable = taken(epoll_pwait2(epoll_, events.data(), Readable::count_max,
                                                 at_most_ns < 0 ? nullptr : &at_most, nullptr),
                                    events.data());
    if (readable.kicked) {
        std::uint64_t kicks;
        [[maybe_unused]] const ssize_t got = read(kick_, &kicks, sizeof kicks);
    }
    return readable;
}

HostEvents::Readable HostEvents::taken(int count, const epoll_event* events) const
{
    Readable readable;
    for (int index = 0; index < count; ++index) {
        if (events[index].data.fd == kick_)
            readable.kicked = true;
        else
            readable.descriptors[readable.count++] = events[index].data.fd;
    }
    return readable;
}

void HostEvents::kick()
{
    const std::uint64_t one = 1;
    // Can't fail before 2^64 of them are unread.
    [[maybe_unused]] const ssize_t written = write(kick_, &one, sizeof one);
}

bool HostEvents::note_waiter(int descriptor, RealThread& thread)
{
    auto [found, is_new] = watched_.try_emplace(descriptor);
    if (is_new)
        // Told once for each time that something comes: who waits has read all that there was.
        watch(epoll_, descriptor, EPOLLIN | EPOLLRDHUP | EPOLLET);
    if (std::exchange(found->second.readable, false))
        return false;
    found->second.waiter = &thread;
    return true;
}

RealThread* HostEvents::take_waiter(int descriptor)
{
    const auto found = watched_.find(descriptor);
    if (found == watched_.end())
        return nullptr;
    RealThread* const waiter = std::exchange(found->second.waiter, nullptr);
    found->second.readable = waiter == nullptr;
    return waiter;
}

}  // namespace machine
