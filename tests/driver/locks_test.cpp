// SPDX-License-Identifier: MIT
// The mutexes of the driver, in the simulated scheduler: who holds one is alone, and who waits gets it.
#include "driver/kernel/locks.h"
#include "tests/machine/kernel_test.h"

using namespace machine::test;

namespace {

template <typename Mutex>
void take_turns(std::uint64_t seed)
{
    machine::MachineConfig config;
    config.seed = seed;
    in_machine(
        [](machine::Machine& machine) {
            Mutex mutex;
            Mutex_Init(mutex);
            int inside = 0, turns = 0;
            run_threads(5, [&](int index) {
                for (int turn = 0; turn < 8; ++turn) {
                    Mutex_Guard held(mutex);
                    ASSERT_EQ(++inside, 1);
                    if ((index + turn) % 3 == 0)
                        machine.sleep_ms(1);  // long enough for all others to sleep
                    --inside;
                    ++turns;
                }
            });
            EXPECT_EQ(turns, 40);
        },
        config);
}

}  // namespace

TEST(Mutexes, Exclude_each_other_and_forget_no_sleeper)
{
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        take_turns<KEVENT>(seed);
        take_turns<Busy_Mutex>(seed);
    }
}
