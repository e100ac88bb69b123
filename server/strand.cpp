// SPDX-License-Identifier: MIT
#include "server/strand.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>

namespace server {

namespace {

thread_local PacketSink* thread_sink = nullptr;

std::uint64_t steady_ms()
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

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
    Clock clock;
    std::deque<std::shared_ptr<Strand>> ready;
    std::multimap<std::uint64_t, std::shared_ptr<Strand>> resting;  // by the time when they go on
    std::uint64_t taken = 0;
    unsigned threads = 0;
    unsigned idle = 0;
    bool stopping = false;

    void work();
    void wait(std::unique_lock<std::mutex>& held);
    void wake_rested();
};

WorkPool::WorkPool(unsigned threads, MakeSink make_sink, Clock clock) : shared_(std::make_shared<Shared>())
{
    shared_->make_sink = std::move(make_sink);
    shared_->clock = clock ? std::move(clock) : steady_ms;
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

void WorkPool::set_sink(PacketSink* sink)
{
    thread_sink = sink;
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

void WorkPool::enqueue_later(std::shared_ptr<Strand> strand, std::uint64_t rest_ms)
{
    {
        std::lock_guard guard(shared_->lock);
        shared_->resting.emplace(shared_->clock() + rest_ms, std::move(strand));
    }
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

// All under the lock.
void WorkPool::Shared::wake_rested()
{
    if (resting.empty())
        return;
    const std::uint64_t now = clock();
    while (!resting.empty() && (resting.begin()->first <= now || stopping)) {
        ready.push_back(std::move(resting.begin()->second));
        resting.erase(resting.begin());
    }
}

void WorkPool::Shared::wait(std::unique_lock<std::mutex>& held)
{
    for (;;) {
        wake_rested();
        if (stopping || !ready.empty())
            return;
        if (resting.empty()) {
            changed.wait(held);
            continue;
        }
        const std::uint64_t now = clock(), due = resting.begin()->first;
        if (due > now)
            changed.wait_for(held, std::chrono::milliseconds(due - now));
    }
}

void WorkPool::Shared::work()
{
    const std::unique_ptr<PacketSink> sink = make_sink();
    thread_sink = sink.get();
    std::unique_lock guard(lock);
    for (;;) {
        ++idle;
        wait(guard);
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
            shared_->wake_rested();
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
        if (queued_ || !thread_sink || !handlers_.now) {
            append_packet(from, packet);
            if (std::exchange(queued_, true))
                return true;
            return pool_.enqueue(shared_from_this()), true;
        }
        queued_ = true;
    }
    if (const auto rest_ms = handlers_.now(from, packet)) {
        end_turn(*rest_ms, true);
        return true;
    }
    {
        std::lock_guard guard(lock_);
        append_packet(from, packet);
    }
    pool_.enqueue(shared_from_this());
    return true;
}

// Under the lock.
void Strand::append_packet(const Peer& from, std::span<const std::uint8_t> packet)
{
    append(packets_, from);
    append(packets_, static_cast<std::uint32_t>(packet.size()));
    packets_.insert(packets_.end(), packet.begin(), packet.end());
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

// One turn: some of what has gathered, and the tasks that came with the last of it.
void Strand::run()
{
    if (turn_at_ == packets_in_turn_.size()) {
        packets_in_turn_.clear();
        turn_at_ = 0;
        std::lock_guard guard(lock_);
        packets_.swap(packets_in_turn_);
        tasks_.swap(tasks_in_turn_);
    }
    items_.clear();
    std::span<const std::uint8_t> rest = std::span(packets_in_turn_).subspan(turn_at_);
    while (!rest.empty() && items_.size() < turn_packets_max) {
        const Peer from = take<Peer>(rest);
        const auto bytes = take<std::uint32_t>(rest);
        items_.push_back({from, rest.first(bytes)});
        rest = rest.subspan(bytes);
    }
    turn_at_ = packets_in_turn_.size() - rest.size();
    if (handlers_.begin_of_turn)
        handlers_.begin_of_turn(items_);
    for (const Item& item : items_)
        handlers_.packet(item.from, item.packet);
    if (rest.empty()) {
        for (const auto& task : std::exchange(tasks_in_turn_, {}))
            task();
    }
    end_turn(handlers_.end_of_turn ? handlers_.end_of_turn() : 0, rest.empty());
}

void Strand::end_turn(std::uint64_t rest_ms, bool done)
{
    if (rest_ms != 0)
        return pool_.enqueue_later(shared_from_this(), rest_ms);
    {
        std::lock_guard guard(lock_);
        if (done && packets_.empty() && tasks_.empty()) {
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
