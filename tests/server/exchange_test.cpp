// SPDX-License-Identifier: MIT
// Eight workers of a workstation against the server over a bad network, in virtual time: every
// acknowledged write is in the store, no older one comes back, and every read is right.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "tests/seeds.h"
#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

constexpr unsigned sector_count = 256;
constexpr unsigned worker_count = 8;
constexpr std::uint64_t run_us = 20'000'000;

struct Weather {
    double loss, duplication, lateness;  // per packet; a late copy comes up to 4 seconds afterwards
    unsigned delay_us;
};

class Exchange {
public:
    Exchange(unsigned seed, const Weather& weather)
        : server_(sector_count * 512), weather_(weather), random_(seed), sectors_(sector_count)
    {
        server_.store.holes_known = true;
        workers_.resize(worker_count);
        seq_ = static_cast<std::uint16_t>(65000 + seed * 100);  // wraps in the course of the run
    }

    void run()
    {
        for (unsigned worker = 0; worker < worker_count; ++worker)
            begin(worker);
        while (!events_.empty() && !testing::Test::HasFatalFailure()) {
            const auto event = events_.extract(events_.begin());
            now_us_ = event.key();
            ASSERT_LT(now_us_, 3 * run_us) << "a packet never completes";
            server_.protocol.set_time_ms(now_us_ / 1000);
            event.mapped()();
        }
        EXPECT_GT(writes_done_, 100u);
        EXPECT_GT(reads_done_, 30u) << "undisturbed";
        EXPECT_EQ(server_.store.writes, writes_done_) << "each write exactly once";
    }

private:
    struct Sector {
        Bytes written = Bytes(512);  // what it has for certain
        Bytes pending;               // of the write under way, if any
    };
    struct Worker {
        std::unique_ptr<Packet> packet;
        std::size_t first = 0;        // sector
        bool disturbed = false;       // a write touched the range while it was read
        unsigned life = 0, news = 0;  // count packets, and answers to the present one
    };

    template <typename Action>
    void after(std::uint64_t us, Action action)
    {
        events_.emplace(now_us_ + us, action);
    }
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    bool chance(double probability) { return below(1000000) < probability * 1e6; }

    // Calls `deliver` once, twice or never.
    template <typename Deliver>
    void carry(Deliver deliver)
    {
        if (!chance(weather_.loss))
            after(50 + below(weather_.delay_us), deliver);
        if (chance(weather_.duplication))
            after(50 + below(weather_.delay_us), deliver);
        if (chance(weather_.lateness))
            after(below(4'000'000), deliver);
    }

    void begin(unsigned index)
    {
        Worker& worker = workers_[index];
        ++worker.life;
        worker.packet.reset();
        if (now_us_ > run_us)
            return;
        const bool writing = below(2) != 0;
        const unsigned length = 1 + below(32);
        worker.first = below(sector_count - length + 1);
        worker.disturbed = false;
        for (std::size_t at = worker.first; at < worker.first + length; ++at) {
            worker.disturbed |= !sectors_[at].pending.empty();
            if (writing && !sectors_[at].pending.empty())  // the workstation does not race with itself
                return after(1000, [=, this] { begin(index); });
        }
        worker.packet = std::make_unique<Packet>(writing ? formats::kind_write : formats::kind_read,
                                                 worker.first, length * 512, ++seq_, index);
        if (writing)
            begin_write(worker, length);
        send(index);
    }
    static Bytes sector_of(const Packet& packet, std::size_t index)
    {
        const auto at = packet.data.begin() + static_cast<std::ptrdiff_t>(index * 512);
        return Bytes(at, at + 512);
    }
    void begin_write(Worker& worker, unsigned length)
    {
        fill(worker.packet->data, ++last_write_);
        for (unsigned i = 0; i < length; ++i)
            sectors_[worker.first + i].pending = sector_of(*worker.packet, i);
        for (Worker& other : workers_)
            if (other.packet && other.first < worker.first + length &&
                worker.first < other.first + other.packet->data.size() / 512)
                other.disturbed = true;
    }

    void to_server(const Bytes& packet)
    {
        carry([=, this] {
            for (const Bytes& answer : server_.exchange(packet))
                carry([=, this] { to_workstation(answer); });
            check_store();
        });
    }
    void send(unsigned index)
    {
        for (const Bytes& packet : workers_[index].packet->send())
            to_server(packet);
        watch(index, 110'000);
    }
    // After a silence of wait_us: a query and 1000 ms more, then everything again.
    void watch(unsigned index, std::uint64_t wait_us)
    {
        const unsigned life = workers_[index].life, news = workers_[index].news;
        after(wait_us, [=, this] {
            Worker& worker = workers_[index];
            if (worker.life != life || worker.news != news)
                return;
            if (wait_us == 1'000'000) {
                if (worker.packet->header.Kind == formats::kind_write)
                    worker.packet->outstanding = 0xFFFFFFFF;
                return send(index);
            }
            to_server(worker.packet->request(true));
            watch(index, 1'000'000);
        });
    }
    void to_workstation(const Bytes& packet)
    {
        const unsigned index = packet[10] & 7;
        Worker& worker = workers_[index];
        if (!worker.packet)
            return;
        const Packet::Effect effect = worker.packet->receive(packet);
        if (effect == Packet::Effect::none)
            return;
        ++worker.news;
        if (worker.packet->complete())
            complete(index);
        else if (effect == Packet::Effect::resend_now)
            send(index);
        else
            watch(index, 55'000);
    }

    void complete(unsigned index)
    {
        Worker& worker = workers_[index];
        const Packet& packet = *worker.packet;
        const std::size_t length = packet.data.size() / 512;
        if (packet.header.Kind == formats::kind_write) {
            ++writes_done_;
            ASSERT_EQ(server_.stored(worker.first, packet.data.size()), packet.data) << "acknowledged";
            for (std::size_t i = 0; i < length; ++i)
                sectors_[worker.first + i] = {sector_of(packet, i), {}};
        } else if (!worker.disturbed) {
            ++reads_done_;
            for (std::size_t i = 0; i < length; ++i)
                ASSERT_EQ(sector_of(packet, i), sectors_[worker.first + i].written);
        }
        after(below(40000), [=, this] { begin(index); });
        worker.packet.reset();
        ++worker.life;
    }

    // Each sector has the content of its last acknowledged write, or of the one under way.
    void check_store()
    {
        if (server_.store.writes == checked_writes_)
            return;
        checked_writes_ = server_.store.writes;
        for (std::size_t at = 0; at < sector_count; ++at) {
            const std::uint8_t* stored = server_.store.bytes().data() + at * 512;
            const Sector& sector = sectors_[at];
            ASSERT_TRUE(std::memcmp(stored, sector.written.data(), 512) == 0 ||
                        (!sector.pending.empty() && std::memcmp(stored, sector.pending.data(), 512) == 0))
                << "sector " << at << " at " << now_us_ << " us";
        }
    }

    ServerFixture server_;
    Weather weather_;
    std::mt19937 random_;
    std::vector<Sector> sectors_;
    std::vector<Worker> workers_;
    std::multimap<std::uint64_t, std::function<void()>> events_;
    std::uint64_t now_us_ = 0, last_write_ = 0;
    std::uint16_t seq_;
    unsigned writes_done_ = 0, reads_done_ = 0, checked_writes_ = 0;
};

TEST(Exchange, Keeps_every_promise_over_a_bad_network)
{
    const Weather weathers[] = {{0.01, 0.01, 0.01, 300}, {0.10, 0.10, 0.10, 3000}, {0.25, 0.05, 0.2, 1000}};
    for (unsigned seed = 1; seed <= seeds_of(3); ++seed)
        for (const Weather& weather : weathers) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << ", loss " << weather.loss);
            Exchange(seed, weather).run();
            if (HasFailure())
                return;
        }
}

}  // namespace
