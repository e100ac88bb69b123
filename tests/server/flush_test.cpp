// SPDX-License-Identifier: MIT
// Flushes at a workstation's shutdown: beside everything else, and none forgotten.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "server/flusher.h"
#include "tests/server/workstation_model.h"

using namespace server_test;
using server::Flusher;

namespace {

// Its flush does not end before it is allowed to.
class SlowStore : public SparseStore {
public:
    using SparseStore::SparseStore;
    bool flush() override
    {
        std::unique_lock lock(lock_);
        ++begun;
        changed_.notify_all();
        changed_.wait(lock, [this] { return allowed_; });
        errno = EIO;
        return !fails;
    }
    void wait_until_begun()
    {
        std::unique_lock lock(lock_);
        changed_.wait(lock, [this] { return begun != 0; });
    }
    void allow()
    {
        std::lock_guard guard(lock_);
        allowed_ = true;
        changed_.notify_all();
    }
    unsigned begun = 0;

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool allowed_ = false;
};

struct Flushes : testing::Test {
    Flushes()
    {
        server::DiskOptions options;
        std::memcpy(options.disk_id, disk_id, 4);
        protocol.add_disk(options, store);
        protocol.set_flusher([this](unsigned disk, const server::Peer& workstation) {
            flusher.start({disk, &store, workstation});
        });
        protocol.set_failure_listener([this](const server::StoreFailure& failure) {
            told += std::to_string(static_cast<int>(failure.operation)) + " " +
                    std::to_string(failure.error) + " " + std::to_string(failure.workstation->Port.get()) +
                    "\n";
        });
    }
    std::size_t answers(const Bytes& packet)
    {
        protocol.receive(workstation, packet);
        return sink.take().size();
    }
    void shut_down() { answers(Packet(formats::kind_shutdown, 0, 512, 0).request()); }
    void collect()
    {
        for (const Flusher::Job& job : flusher.take_ended())
            protocol.flush_ended(job.disk, job.workstation, job.error);
    }

    RecordingSink sink;
    SlowStore store{1 << 20};
    server::Protocol protocol{sink};
    Flusher flusher;
    server::Peer workstation = peer(7, 4001);
    std::string told;
};

TEST_F(Flushes, Others_are_served_while_a_workstation_shuts_down)
{
    shut_down();
    EXPECT_EQ(protocol.counters(0).flushes, 0u) << "nothing was written";
    answers(make_write(0, 512, 1, 1).fragment(1));
    shut_down();
    store.wait_until_begun();
    EXPECT_EQ(answers(make_write(8, 512, 2, 2).fragment(1)), 1u);
    shut_down();
    store.allow();
    flusher.finish();
    EXPECT_EQ(store.begun, 2u) << "what was written during the first flush needs one too";
    collect();
    EXPECT_TRUE(protocol.flush());
    EXPECT_EQ(store.begun, 2u) << "all of it is on the medium";
}

TEST_F(Flushes, One_that_fails_is_told_and_done_again)
{
    store.fails = false;
    answers(make_write(0, 512, 1, 1).fragment(1));
    store.fails = true;
    store.allow();
    shut_down();
    flusher.finish();
    collect();
    EXPECT_EQ(told, "2 5 4001\n");
    EXPECT_EQ(protocol.counters(0).store_errors, 1u);
    store.fails = false;
    EXPECT_TRUE(protocol.flush());
    EXPECT_EQ(store.begun, 2u);
}

}  // namespace
