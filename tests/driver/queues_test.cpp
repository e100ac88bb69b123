// SPDX-License-Identifier: MIT
// The wake-ups of workers: as many as are of use, and no record is forgotten for the lack of one.
#include "driver/request/queues.h"
#include "driver/request/request.h"
#include "tests/driver/driver_test.h"

namespace {

TEST(Queues, Wake_ups_are_bounded_and_forget_no_record)
{
    constexpr LONG workers = 3;
    constexpr unsigned rounds = 40, burst = 25;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        machine::MachineConfig config;
        config.seed = seed;
        DriverPiece driver(config);
        driver.run([&] {
            Queues_Init();
            RW_Count = workers;
            std::vector<RW_Req> records(rounds * burst);
            unsigned taken = 0;
            auto& scheduler = machine::Machine::current().scheduler();
            for (LONG worker = 0; worker < workers; ++worker)
                scheduler.spawn("worker", [&] {
                    for (;;) {
                        while (Take_Pending())
                            ++taken;
                        KeWaitForSingleObject(&RW_Sem, Executive, KernelMode, FALSE, nullptr);
                    }
                });
            for (unsigned queued = 0; queued < records.size(); ++queued) {
                Req_Queue(&records[queued]);
                ASSERT_LE(KeReadStateSemaphore(&RW_Sem), workers);
                if (queued % burst == 0)
                    machine::Machine::current().sleep_ms(1);
            }
            machine::Machine::current().sleep_ms(10);
            EXPECT_EQ(taken, records.size()) << "seed " << seed;
        });
    }
}

}  // namespace
