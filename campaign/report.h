// SPDX-License-Identifier: MIT
// How a seed ends when something is wrong: whoever finds it says so, and the process of the seed ends.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace machine {
class Machine;
}

namespace campaign {

// The machine whose last messages belong to a report; null: none.
void report_on(machine::Machine* machine);

// Prints the text and the last messages of the driver, and ends the process.
[[noreturn]] void fail(const std::string& text);

constexpr int exit_failed = 3;
constexpr const char* failure_mark = "FAILED: ";  // begins the line of the text

// Everything that a seed does, in one number: packets and ends of requests, with their times.
class EventHash {
public:
    void add(std::span<const std::uint8_t> bytes);
    void add(std::uint64_t number);
    std::uint64_t value() const { return value_; }

private:
    std::uint64_t value_ = 0xCBF29CE484222325u;
};

}  // namespace campaign
