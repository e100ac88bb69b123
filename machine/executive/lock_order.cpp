// SPDX-License-Identifier: MIT
#include "machine/executive/lock_order.h"

#include <array>
#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

using Address = std::uintptr_t;
using Edge = std::pair<Address, Address>;  // held, taken

std::mutex edges_lock;
std::set<Edge> edges;

// Recently seen pairs, each a held address in the upper and a taken one in the lower half; a hit needs
// no lock.
std::array<std::atomic<std::uint64_t>, 256> seen;

std::uint64_t key_of(Edge edge)
{
    return std::uint64_t{edge.first} << 32 | edge.second;
}

std::atomic<std::uint64_t>& slot_of(Edge edge)
{
    return seen[((edge.first >> 3) * 31 ^ (edge.second >> 3)) % seen.size()];
}

bool leads_to(Address from, Address to)
{
    std::vector<Address> pending{from};
    std::set<Address> visited;
    while (!pending.empty()) {
        const Address lock = pending.back();
        pending.pop_back();
        if (lock == to)
            return true;
        if (!visited.insert(lock).second)
            continue;
        for (auto edge = edges.lower_bound({lock, 0}); edge != edges.end() && edge->first == lock; ++edge)
            pending.push_back(edge->second);
    }
    return false;
}

std::string hexadecimal(Address address)
{
    char text[16];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(address));
    return text;
}

}  // namespace

void note_lock_order(const volatile void* held, const volatile void* lock)
{
    const Edge edge{reinterpret_cast<Address>(held), reinterpret_cast<Address>(lock)};
    auto& slot = slot_of(edge);
    if (slot.load(std::memory_order_relaxed) == key_of(edge))
        return;
    {
        std::lock_guard guard(edges_lock);
        if (edges.contains(edge) || !leads_to(edge.second, edge.first)) {
            edges.insert(edge);
            slot.store(key_of(edge), std::memory_order_relaxed);
            return;
        }
    }
    violation("lock order seen both ways round: spin lock " + hexadecimal(edge.second) + " is taken under " +
              hexadecimal(edge.first) + ", and the other way round before");
}

void forget_lock_order(const void* memory, std::size_t bytes)
{
    const auto first = reinterpret_cast<Address>(memory);
    const auto inside = [&](Address lock) { return lock - first < bytes; };
    std::lock_guard guard(edges_lock);
    if (std::erase_if(edges, [&](const Edge& edge) { return inside(edge.first) || inside(edge.second); }))
        for (auto& slot : seen)
            slot = 0;
}

void forget_lock_order()
{
    std::lock_guard guard(edges_lock);
    edges.clear();
    for (auto& slot : seen)
        slot = 0;
}

}  // namespace machine
