// SPDX-License-Identifier: MIT
// What the benchmark programs measure, and how they report it: one line of JSON each.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "formats/boot_block.h"

namespace bench {

struct Workload {
    std::string name;
    bool write;
    std::uint32_t request_bytes;
    unsigned depth;  // requests in flight
    bool random;
};

inline const std::vector<Workload>& workloads()
{
    static const std::vector<Workload> all{
        {"read 64K seq depth 8", false, 65536, 8, false}, {"write 64K seq depth 8", true, 65536, 8, false},
        {"read 4K random depth 1", false, 4096, 1, true}, {"read 4K random depth 8", false, 4096, 8, true},
        {"write 4K random depth 1", true, 4096, 1, true}, {"write 4K random depth 8", true, 4096, 8, true},
        {"read 64K seq depth 1", false, 65536, 1, false}, {"read 64K seq depth 32", false, 65536, 32, false},
        {"read 4K random depth 4", false, 4096, 4, true}, {"read 4K random depth 32", false, 4096, 32, true},
    };
    return all;
}

// Where on the disk the n-th request of a workload goes, in requests, before it is reduced to the disk.
inline std::uint32_t position(const Workload& workload, std::uint32_t n)
{
    return workload.random ? n * 2654435761u : n;
}

inline formats::Boot_Param read_boot_block(const char* path)
{
    formats::Boot_Param block;
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(&block), sizeof block))
        throw std::runtime_error(std::string("cannot read the boot block ") + path);
    return block;
}

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// What the process has cost its host so far, or in between.
struct HostCost {
    double cpu_us;
    double switches;  // of its threads, by waiting or by being preempted

    static HostCost now()
    {
        rusage use;
        getrusage(RUSAGE_SELF, &use);
        const auto us = [](const timeval& time) {
            return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
        };
        return {us(use.ru_utime) + us(use.ru_stime), static_cast<double>(use.ru_nvcsw + use.ru_nivcsw)};
    }
    HostCost since(const HostCost& start) const { return {cpu_us - start.cpu_us, switches - start.switches}; }
};

inline void report(const Workload& workload, std::uint64_t requests, double seconds,
                   const HostCost& cost = {0, 0})
{
    auto count = static_cast<double>(requests);
    std::printf(
        "{\"workload\": \"%s\", \"mb_per_s\": %.1f, \"requests_per_s\": %.0f, \"us_per_request\": %.2f, "
        "\"cpu_us_per_request\": %.2f, \"switches_per_request\": %.2f}\n",
        workload.name.c_str(), count * workload.request_bytes / 1e6 / seconds, count / seconds,
        seconds * 1e6 * workload.depth / count, cost.cpu_us / count, cost.switches / count);
    std::fflush(stdout);
}

// A figure that is no rate of requests.
inline void report_measure(const char* what, const char* unit, double value)
{
    std::printf("{\"measure\": \"%s\", \"%s\": %.3f}\n", what, unit, value);
    std::fflush(stdout);
}

// Microseconds of each call of body, over so many seconds.
template <typename Body>
double time_us(double seconds, const Body& body)
{
    const auto start = Clock::now();
    double elapsed = 0;
    unsigned calls = 0;
    while (elapsed < seconds) {
        for (unsigned i = 0; i < 64; ++i)
            body(calls++);
        elapsed = seconds_since(start);
    }
    return elapsed * 1e6 / calls;
}

}  // namespace bench
