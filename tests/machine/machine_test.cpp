// SPDX-License-Identifier: MIT
#include <atomic>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

UCHAR* port(ULONG_PTR number)
{
    return reinterpret_cast<UCHAR*>(number);
}

class MachineStop : public testing::TestWithParam<SchedulerKind> {};

TEST_P(MachineStop, Comes_with_the_code_of_a_bug_check_and_nothing_runs_any_more)
{
    Machine machine({{.scheduler = GetParam()}});
    std::atomic<bool> behind = false;
    const auto body = [&] {
        start_thread([&] {
            machine.sleep_ms(20'000);
            behind = true;
        });
        start_thread([&] {
            machine.sleep_ms(10);
            KeBugCheck(0xE5);
            behind = true;
        });
        machine.sleep_ms(60'000);
        behind = true;
    };
    EXPECT_EQ(machine.run(body), Outcome::bug_check);
    EXPECT_EQ(machine.bug_check_code(), 0xE5u);
    EXPECT_FALSE(behind);
}
INSTANTIATE_TEST_SUITE_P(Schedulers, MachineStop,
                         testing::Values(SchedulerKind::simulated, SchedulerKind::real));

TEST(Machine_stop, The_reset_port_ends_the_run_where_it_works)
{
    for (const bool works : {true, false}) {
        Machine machine({{.reset_ports_work = works}});
        bool behind = false;
        const Outcome outcome = machine.run([&] {
            WRITE_PORT_UCHAR(port(0x92), 1);
            WRITE_PORT_UCHAR(port(0x64), 0xD1);
            WRITE_PORT_UCHAR(port(0x64), 0xFE);
            behind = true;
        });
        EXPECT_EQ(outcome, works ? Outcome::reset : Outcome::finished);
        EXPECT_EQ(behind, !works);
        EXPECT_EQ(machine.ports().reset_requested(), works);
        EXPECT_EQ(machine.ports().accesses().size(), 3u);
    }
}

bool stacks_are_measured()
{
    Machine machine;
    run_to_end(machine, [] {});
    return machine.scheduler().deepest_stack().bytes != 0;
}

// The thread touches a buffer of this size on its stack.
template <std::size_t bytes>
void use_stack(Machine&)
{
    run_threads(1, [](int) {
        volatile UCHAR buffer[bytes];
        buffer[0] = 1;
        buffer[bytes - 1] = buffer[0];
    });
}

TEST(Machine_stack, What_a_thread_uses_of_its_stack_is_measured_and_has_an_end)
{
    if (!stacks_are_measured())
        GTEST_SKIP() << "frames are larger in this build";
    MachineConfig config;
    config.stack_bytes_max = 6000;
    EXPECT_EQ(broken_rule(use_stack<3000>, config), "");
    const std::string broken = broken_rule(use_stack<6000>, config);
    EXPECT_NE(broken.find("bytes of its stack, allowed are 6000"), std::string::npos) << broken;
    EXPECT_NE(broken.find("thread \"system thread 1\" used 6"), std::string::npos) << broken;
    EXPECT_EQ(broken_rule(use_stack<60000>, {}), "") << "no limit unless asked for";
}

}  // namespace
}  // namespace machine::test
