// SPDX-License-Identifier: MIT
#include "server/strand.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>

namespace server {

namespace {

thread_local PacketSink* thread_sink = nullptr;

template <typename Value>
void append(std::vector<std::uint8_t>& to, const Value& value)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
    to.insert(to.end(), bytes, bytes + sizeof value);
}

template <typename Value>
Value take(std::span<const std::uint8_t>& from)
{
    Value value;
    std::memcpy(&value, from.data(), sizeof value);
    from = from.subspan(sizeof value);
    return value;
}

}  // namespace

struct WorkPool::Shared {
    MakeSink make_sink;
    std::mutex lock;
    std::condition_variable changed;
    std::deque<std::shared_ptr<Strand>> ready;
    std::uint64_t taken = 0;
    unsigned threads = 0;
    unsigned idle = 0;
    bool stopping = false;

    void work();
};

WorkPool::WorkPool(unsigned threads, MakeSink make_sink) : shared_(std::make_shared<Shared>())
{
    shared_->make_sink = std::move(make_sink);
    std::lock_guard guard(shared_->lock);
    for (unsigned i = 0; i < threads; ++i)
        add_thread();
}

WorkPool::~WorkPool()
{
    finish(0);
}

// Signals are for the thread that waits for them.
void WorkPool::add_thread()
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([shared = shared_] { shared->work(); }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ++shared_->threads;
}

void WorkPool::finish(unsigned wait_ms)
{
    std::unique_lock lock(shared_->lock);
    shared_->stopping = true;
    shared_->changed.notify_all();
    shared_->changed.wait_for(lock, std::chrono::milliseconds(wait_ms),
                              [this] { return shared_->threads == 0; });
}

unsigned WorkPool::threads() const
{
    std::lock_guard guard(shared_->lock);
    return shared_->threads;
}

PacketSink& WorkPool::sink()
{
    return *thread_sink;
}

void WorkPool::enqueue(std::shared_ptr<Strand> strand)
{
    bool wakes;
    {
        std::lock_guard guard(shared_->lock);
        shared_->ready.push_back(std::move(strand));
        wakes = shared_->idle != 0;
    }
    if (wakes)
        shared_->changed.notify_one();
}

void WorkPool::grow_if_stuck()
{
    std::lock_guard guard(shared_->lock);
    if (!shared_->ready.empty() && shared_->idle == 0 && shared_->taken == taken_before_ &&
        shared_->threads < threads_max && !shared_->stopping)
        add_thread();
    taken_before_ = shared_->taken;
}

void WorkPool::Shared::work()
{
    const std::unique_ptr<PacketSink> sink = make_sink();
    thread_sink = sink.get();
    std::unique_lock guard(lock);
    for (;;) {
        ++idle;
        changed.wait(guard, [this] { return stopping || !ready.empty(); });
        --idle;
        if (ready.empty())
            break;
        std::shared_ptr<Strand> strand = std::move(ready.front());
        ready.pop_front();
        ++taken;
        guard.unlock();
        strand->run();
        sink->flush();
        strand.reset();
        guard.lock();
    }
    --threads;
    changed.notify_all();
}

void WorkPool::run_all()
{
    const std::unique_ptr<PacketSink> sink = shared_->make_sink();
    PacketSink* const before = std::exchange(thread_sink, sink.get());
    for (;;) {
        std::shared_ptr<Strand> strand;
        {
            std::lock_guard guard(shared_->lock);
            if (shared_->ready.empty())
                break;
            strand = std::move(shared_->ready.front());
            shared_->ready.pop_front();
        }
        strand->run();
        sink->flush();
    }
    thread_sink = before;
}

bool Strand::add_packet(const Peer& from, std::span<const std::uint8_t> packet)
{
    {
        std::lock_guard guard(lock_);
        if (closed_ || packets_.size() + packet.size() > waiting_bytes_max)
            return false;
        append(packets_, from);
        append(packets_, static_cast<std::uint32_t>(packet.size()));
        packets_.insert(packets_.end(), packet.begin(), packet.end());
        if (std::exchange(queued_, true))
            return true;
    }
    pool_.enqueue(shared_from_this());
    return true;
}

bool Strand::post(std::function<void()> task)
{
    {
        std::lock_guard guard(lock_);
        if (closed_)
            return false;
        tasks_.push_back(std::move(task));
        if (std::exchange(queued_, true))
            return true;
    }
    pool_.enqueue(shared_from_this());
    return true;
}

// One turn: what has gathered until now.
void Strand::run()
{
    std::vector<std::function<void()>> tasks;
    {
        std::lock_guard guard(lock_);
        packets_.swap(packets_in_turn_);
        tasks.swap(tasks_);
    }
    for (std::span<const std::uint8_t> rest = packets_in_turn_; !rest.empty();) {
        const Peer from = take<Peer>(rest);
        const auto bytes = take<std::uint32_t>(rest);
        handlers_.packet(from, rest.first(bytes));
        rest = rest.subspan(bytes);
    }
    packets_in_turn_.clear();
    for (const auto& task : tasks)
        task();
    tasks.clear();
    if (handlers_.end_of_turn)
        handlers_.end_of_turn();
    {
        std::lock_guard guard(lock_);
        if (packets_.empty() && tasks_.empty()) {
            queued_ = false;
            if (closed_)
                handlers_ = {};
            rests_.notify_all();
            return;
        }
    }
    pool_.enqueue(shared_from_this());
}

bool Strand::close(unsigned wait_ms)
{
    std::unique_lock lock(lock_);
    closed_ = true;
    if (!rests_.wait_for(lock, std::chrono::milliseconds(wait_ms), [this] { return !queued_; }))
        return false;
    Handlers gone = std::exchange(handlers_, {});
    lock.unlock();
    return true;
}

}  // namespace server
