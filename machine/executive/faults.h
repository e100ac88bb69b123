// SPDX-License-Identifier: MIT
// Failures on demand: by count, by name, or by seed. The kernel routines ask hit() where the real one
// could fail, and then fail the way the real one does.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace machine {

enum class Operation {
    pool_allocate,         // name: the four-character tag
    map_io_space,          // name: address_name() of the physical address
    pages_allocate,        // name: address_name() of the lowest address asked for
    pages_allocate_short,  // the same; half of the pages come
    pages_map,             // name: address_name() of the first page
    irp_allocate,          // name: the routine, such as "IoAllocateIrp"
    thread_create,         // name: empty
    registry_open,         // name: the path
    registry_query,        // name: the value's name
    device_open,           // name: the device's name
    memory_ranges,         // name: empty
    symbolic_link,         // name: the link's name
    ioctl,                 // name: the device's name; the request fails with STATUS_UNSUCCESSFUL
    // Local disk; name: address_name() of a sector, or of the first and the last with a '-' between: the
    // requests that touch one of these.
    disk_read,
    disk_write,       // some of its sectors may be written all the same
    disk_read_short,  // ends well with fewer bytes than asked for
    disk_write_short,
    disk_flush,  // name: empty; what is volatile stays so
    count        // no operation: how many there are
};

// In hexadecimal, upper case, without prefix.
std::string address_name(std::uint64_t address);

class Faults {
public:
    static constexpr unsigned until_cleared = ~0u;  // a count

    explicit Faults(std::uint64_t seed);

    // Fails `count` matching operations after `skip` successful ones. An empty name matches all.
    void fail(Operation operation, std::string name = {}, unsigned skip = 0, unsigned count = 1);
    // Fails each matching operation with this probability (0 to 1), drawn from the machine's seed.
    void fail_randomly(Operation operation, double probability, std::string name = {});
    void clear();
    void clear(Operation operation);

    // Asked by the executive. True: this call is to fail.
    bool hit(Operation operation, const std::string& name);
    bool hit_sectors(Operation operation, std::uint64_t first, std::uint64_t count);
    // How many operations have been failed so far.
    unsigned hits(Operation operation) const;

private:
    struct Rule {
        Operation operation;
        std::string name;
        unsigned skip;
        unsigned count;
        double probability;  // 0: by count
    };
    // Asks the rules whose name the predicate accepts; the empty name is not shown to it.
    template <class Matches>
    bool hit_matching(Operation operation, Matches matches);

    mutable std::mutex lock_;
    std::vector<Rule> rules_;
    std::vector<unsigned> hits_;
    std::uint64_t random_state_;
};

}  // namespace machine
