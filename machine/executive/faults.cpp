#include "machine/executive/faults.h"

#include "machine/scheduler/random.h"

namespace machine {
namespace {

constexpr std::size_t operations = static_cast<std::size_t>(Operation::ioctl) + 1;

}  // namespace

Faults::Faults(std::uint64_t seed)
    : hits_(operations), random_state_(Random(seed ^ 0x4641554C54530000u).next())
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

bool Faults::hit(Operation operation, const std::string& name)
{
    std::lock_guard guard(lock_);
    bool fails = false;
    for (Rule& rule : rules_) {
        if (rule.operation != operation || (!rule.name.empty() && rule.name != name))
            continue;
        if (rule.probability > 0) {
            Random random(random_state_);
            random_state_ = random.next();
            fails |= random.chance(rule.probability);
        } else if (rule.skip) {
            --rule.skip;
        } else if (rule.count) {
            --rule.count;
            fails = true;
        }
    }
    hits_[static_cast<std::size_t>(operation)] += fails;
    return fails;
}

unsigned Faults::hits(Operation operation) const
{
    std::lock_guard guard(lock_);
    return hits_[static_cast<std::size_t>(operation)];
}

}  // namespace machine
