// SPDX-License-Identifier: MIT
#include "server/flusher.h"

#include <cerrno>
#include <csignal>
#include <utility>

namespace server {

// Signals are for the server's thread: they end its waits.
Flusher::Flusher()
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Flusher::~Flusher()
{
    finish();
}

void Flusher::finish()
{
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void Flusher::start(const Job& job)
{
    {
        std::lock_guard guard(lock_);
        waiting_.push_back(job);
    }
    changed_.notify_all();
}

std::vector<Flusher::Job> Flusher::take_ended()
{
    std::lock_guard guard(lock_);
    return std::exchange(ended_, {});
}

void Flusher::run()
{
    std::unique_lock lock(lock_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
        if (waiting_.empty())
            return;
        Job job = waiting_.front();
        waiting_.pop_front();
        lock.unlock();
        job.error = job.store->flush() ? 0 : errno;
        lock.lock();
        ended_.push_back(job);
    }
}

}  // namespace server
