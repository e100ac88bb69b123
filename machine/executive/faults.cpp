// SPDX-License-Identifier: MIT
#include "machine/executive/faults.h"

#include <charconv>
#include <cstdio>

#include "machine/scheduler/random.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

// Whether one of these sectors is among those of a rule: "1F" or "1F-2A".
bool names_sectors(const std::string& rule, std::uint64_t first, std::uint64_t count)
{
    const char* const end = rule.data() + rule.size();
    std::uint64_t rule_first = 0;
    auto parsed = std::from_chars(rule.data(), end, rule_first, 16);
    std::uint64_t rule_last = rule_first;
    if (parsed.ec == std::errc() && parsed.ptr != end && *parsed.ptr == '-')
        parsed = std::from_chars(parsed.ptr + 1, end, rule_last, 16);
    if (parsed.ec != std::errc() || parsed.ptr != end)
        violation("a fault names the sectors \"" + rule + "\", which are none");
    return count && first <= rule_last && first + (count - 1) >= rule_first;
}

}  // namespace

std::string address_name(std::uint64_t address)
{
    char text[24];
    std::snprintf(text, sizeof text, "%llX", static_cast<unsigned long long>(address));
    return text;
}

Faults::Faults(std::uint64_t seed)
    : hits_(static_cast<std::size_t>(Operation::count)),
      random_state_(Random(seed ^ 0x4641554C54530000u).next())
{
}

void Faults::fail(Operation operation, std::string name, unsigned skip, unsigned count)
{
    std::lock_guard guard(lock_);
    rules_.push_back({operation, std::move(name), skip, count, 0});
}

void Faults::fail_randomly(Operation operation, double probability, std::string name)
{
    std::lock_guard guard(lock_);
    rules_.push_back({operation, std::move(name), 0, 0, probability});
}

void Faults::clear()
{
    std::lock_guard guard(lock_);
    rules_.clear();
}

void Faults::clear(Operation operation)
{
    std::lock_guard guard(lock_);
    std::erase_if(rules_, [=](const Rule& rule) { return rule.operation == operation; });
}

template <class Matches>
bool Faults::hit_matching(Operation operation, Matches matches)
{
    std::lock_guard guard(lock_);
    bool fails = false;
    for (Rule& rule : rules_) {
        if (rule.operation != operation || (!rule.name.empty() && !matches(rule.name)))
            continue;
        if (rule.probability > 0) {
            Random random(random_state_);
            random_state_ = random.next();
            fails |= random.chance(rule.probability);
        } else if (rule.skip) {
            --rule.skip;
        } else if (rule.count) {
            rule.count -= rule.count != until_cleared;
            fails = true;
        }
    }
    hits_[static_cast<std::size_t>(operation)] += fails;
    return fails;
}

bool Faults::hit(Operation operation, const std::string& name)
{
    return hit_matching(operation, [&](const std::string& rule) { return rule == name; });
}

bool Faults::hit_sectors(Operation operation, std::uint64_t first, std::uint64_t count)
{
    return hit_matching(operation,
                        [=](const std::string& rule) { return names_sectors(rule, first, count); });
}

unsigned Faults::hits(Operation operation) const
{
    std::lock_guard guard(lock_);
    return hits_[static_cast<std::size_t>(operation)];
}

}  // namespace machine
