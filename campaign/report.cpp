// SPDX-License-Identifier: MIT
#include "campaign/report.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include <fmt/format.h>

#include "machine/machine.h"

namespace campaign {
namespace {

machine::Machine* current = nullptr;

std::string last_messages()
{
    constexpr std::size_t messages_max = 60;
    const auto entries = current->log().entries();
    std::string text;
    for (std::size_t i = entries.size() > messages_max ? entries.size() - messages_max : 0;
         i < entries.size(); ++i)
        text +=
            fmt::format("  [{:.4f}] {}\n", static_cast<double>(entries[i].time) / machine::ticks_per_second,
                        entries[i].text.substr(entries[i].text.starts_with("\n")));
    return text;
}

}  // namespace

void report_on(machine::Machine* machine)
{
    current = machine;
}

void fail(const std::string& text)
{
    std::string report;
    if (current)
        report = fmt::format("messages before {:.4f} s:\n{}",
                             static_cast<double>(current->scheduler().now()) / machine::ticks_per_second,
                             last_messages());
    std::printf("%s%s%s\n", report.c_str(), failure_mark, text.c_str());
    std::fflush(nullptr);  // the capture as well
    _exit(exit_failed);
}

void EventHash::add(std::span<const std::uint8_t> bytes)
{
    while (bytes.size() >= sizeof(std::uint64_t)) {
        std::uint64_t word;
        std::memcpy(&word, bytes.data(), sizeof word);
        add(word);
        bytes = bytes.subspan(sizeof word);
    }
    // The length tells "no bytes left" from zeros.
    std::uint64_t rest = std::uint64_t{bytes.size()} << 56;
    if (!bytes.empty())
        std::memcpy(&rest, bytes.data(), bytes.size());
    add(rest);
}

void EventHash::add(std::uint64_t number)
{
    value_ = (value_ ^ number) * 0x9E3779B97F4A7C15u;
    value_ ^= value_ >> 32;
}

}  // namespace campaign
