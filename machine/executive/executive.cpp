// SPDX-License-Identifier: MIT
#include "machine/executive/executive.h"

#include <chrono>

#include "machine/executive/checks.h"
#include "machine/executive/lock_order.h"
#include "machine/executive/paged_pool.h"
#include "machine/executive/threads.h"
#include "machine/scheduler/random.h"

namespace machine {
namespace {

constexpr std::uint64_t mb = 1024 * 1024;
constexpr std::int64_t from_1601_to_1970 = 116'444'736'000'000'000;
constexpr std::int64_t simulated_boot_time = 133'485'408'000'000'000;  // 1 January 2024
constexpr std::uint32_t scattered_pages_max = 512;
constexpr std::uint64_t base_memory_word = 0x413;  // in the BIOS data area

std::atomic<ExecutiveState*> the_executive = nullptr;

// Between an eighth of the entries and all of them.
std::uint32_t draw_largest_run(const ExecutiveConfig& config)
{
    const std::uint32_t least = config.system_ptes / 8;
    return least + Random(config.seed ^ 0x4C41524745535400u).below(config.system_ptes - least + 1);
}

// In simulated time the pages of a list lie about in pieces, so that only a mapping that follows the
// list is right; on the wall clock a mapping is as cheap as it can be.
PhysicalMemoryLayout memory_layout(const ExecutiveConfig& config)
{
    PhysicalMemoryLayout layout;
    layout.managed = config.memory_ranges;
    if (layout.managed.empty())
        layout.managed = {{mb, 512 * mb}};
    layout.above_4g_bytes = config.unmanaged_above_4g_bytes;
    layout.unanswered = config.unanswered_ranges;
    layout.garbage_above_4g = config.garbage_above_4g;
    layout.system_ptes = config.system_ptes;
    layout.largest_pte_run = config.largest_pte_run;
    if (layout.largest_pte_run == 0 && config.scheduler == SchedulerKind::simulated)
        layout.largest_pte_run = draw_largest_run(config);
    layout.piece_pages_max = config.scheduler == SchedulerKind::simulated ? scattered_pages_max : 0;
    layout.seed = config.seed;
    return layout;
}

std::int64_t boot_time_of(const ExecutiveConfig& config)
{
    if (config.scheduler == SchedulerKind::simulated)
        return simulated_boot_time;
    using namespace std::chrono;
    const auto now = duration_cast<nanoseconds>(system_clock::now().time_since_epoch());
    return from_1601_to_1970 + now.count() / 100;
}

}  // namespace

ExecutiveState::ExecutiveState(const ExecutiveConfig& executive_config)
    : config(executive_config),
      scheduler(config.scheduler == SchedulerKind::real
                    ? make_real_scheduler(config.host_processors, kernel_entry())
                    : make_simulated_scheduler(config.seed, config.processors, kernel_entry())),
      boot_time(boot_time_of(config)), memory(memory_layout(config)), page_lists(memory, config.strict),
      faults(config.seed), ports(config.reset_ports_work),
      pool(config.strict, config.nonpaged_pool_bytes_max), system(config.strict, UINT64_MAX)
{
    strict_checks = config.strict;
    nt_switches_at_atomics = config.switch_at_atomics && scheduler->simulated();
    Mm64BitPhysicalAddress = config.mm64bit;
    forget_lock_order();
    registry.create_key(Registry::service_key);
    const std::uint8_t base_memory[] = {static_cast<std::uint8_t>(config.base_memory_kb),
                                        static_cast<std::uint8_t>(config.base_memory_kb >> 8)};
    memory.write(base_memory_word, base_memory);
    the_executive = this;
}

ExecutiveState::~ExecutiveState()
{
    free_all_paged();
    the_executive = nullptr;
}

ExecutiveState& executive()
{
    ExecutiveState* current = the_executive.load(std::memory_order_relaxed);
    if (!current)
        violation("a kernel routine was called while no machine exists");
    return *current;
}

void stop_machine(Outcome outcome, std::uint32_t bug_check_code)
{
    ExecutiveState& kernel = executive();
    if (!kernel.stopped.exchange(true)) {
        kernel.outcome = outcome;
        kernel.bug_check_code = bug_check_code;
    }
    kernel.scheduler->switch_off();
    // Nobody waits on anything any more, the caller included.
    kernel.scheduler->lock_dispatcher();
    kernel.scheduler->block(never);
    __builtin_unreachable();
}

void run_reinitializations()
{
    std::vector<Reinitialization> due;
    {
        ExecutiveState& kernel = executive();
        std::lock_guard guard(kernel.reinitializations_lock);
        due.swap(kernel.reinitializations);
    }
    for (const Reinitialization& reinitialization : due)
        reinitialization.routine(reinitialization.driver, reinitialization.context, 1);
}

}  // namespace machine
