// Failures on demand: by count, by name, or by seed. The kernel routines ask hit() where the real one
// could fail, and then fail the way the real one does.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace machine {

enum class Operation {
    pool_allocate,   // name: the four-character tag
    map_io_space,    // name: the physical address in hexadecimal, upper case, without prefix
    irp_allocate,    // name: "IoAllocateIrp" or "IoBuildDeviceIoControlRequest"
    thread_create,   // name: empty
    registry_open,   // name: the path
    registry_query,  // name: the value's name
    device_open,     // name: the device's name
    memory_ranges,   // name: empty
    symbolic_link,   // name: the link's name
    ioctl,           // name: the device's name; the request fails with STATUS_UNSUCCESSFUL
};

class Faults {
public:
    explicit Faults(std::uint64_t seed);

    // Fails `count` matching operations after `skip` successful ones. An empty name matches all.
    void fail(Operation operation, std::string name = {}, unsigned skip = 0, unsigned count = 1);
    // Fails each matching operation with this probability (0 to 1), drawn from the machine's seed.
    void fail_randomly(Operation operation, double probability, std::string name = {});
    void clear();

    // Asked by the executive. True: this call is to fail.
    bool hit(Operation operation, const std::string& name);
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
    mutable std::mutex lock_;
    std::vector<Rule> rules_;
    std::vector<unsigned> hits_;
    std::uint64_t random_state_;
};

}  // namespace machine
