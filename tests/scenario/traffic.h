// SPDX-License-Identifier: MIT
// Requests under way beside the test's own thread, and clients that keep the disks of a rig busy.
// Made inside Rig::run, after the boot; everything must have ended when the body does.
#pragma once

#include <memory>
#include <vector>

#include "machine/scheduler/random.h"
#include "tests/scenario/rig.h"

namespace scenario {

// One request that the test does not wait for at once.
class Pending {
public:
    explicit Pending(Rig& rig);
    Pending& read(unsigned lun, std::uint32_t lba, std::size_t bytes);
    Pending& write(unsigned lun, std::uint32_t lba, Bytes content);
    void wait();

    bool done() const { return done_ms_ >= 0; }
    bool ok() const { return done() && request_.ok(); }
    double took_ms() const { return done_ms_ - start_ms_; }
    const Bytes& data() const { return data_; }
    const machine::ScsiRequest& request() const { return request_; }

private:
    void submit();

    Rig& rig_;
    machine::ScsiRequest request_;
    Bytes data_;
    double start_ms_ = -1, done_ms_ = -1;
};

// Three clients for each disk that read and write at random, each in a part of the disk of its own, one
// request at a time. What they read is checked against what they last wrote.
class Traffic {
public:
    struct Load {
        unsigned operations_each = 40;
        std::uint32_t sectors_each = 400;
        std::uint32_t request_sectors_max = 128;
        double writes = 0.5;  // share of all operations
    };
    Traffic(Rig& rig, std::uint64_t seed, Load load);
    ~Traffic();

    void start();
    void wait();
    unsigned reads() const { return reads_; }
    unsigned failed() const { return failed_; }

private:
    struct Client;

    Rig& rig_;
    Load load_;
    std::vector<std::unique_ptr<Client>> clients_;
    unsigned active_ = 0, reads_ = 0, failed_ = 0;
};

// Packets sent to the servers as one line: "read@0 query@110 write:1,2*@115.2", times in ms since the
// first of them; a star marks the slave server. lun: of this disk only.
std::string story(const Rig& rig, int lun = -1);

// The times of the machine are exact; the sums of a test are not.
constexpr double exactly_ms = 0.01;

}  // namespace scenario
