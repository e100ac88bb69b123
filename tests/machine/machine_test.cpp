#include "machine/executive/wide_text.h"
#include "machine/loader/driver_image.h"
#include "machine/scsiport/scsi_port.h"
#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

UCHAR* port(ULONG_PTR number)
{
    return reinterpret_cast<UCHAR*>(number);
}

TEST(Machine_stop, A_bug_check_ends_the_run_with_its_code_and_nothing_runs_any_more)
{
    Machine machine;
    bool behind = false, other = false;
    EXPECT_EQ(machine.run([&] {
        start_thread([&] {
            machine.sleep_ms(20);
            other = true;
        });
        start_thread([&] {
            machine.sleep_ms(10);
            KeBugCheck(0xE5);
        });
        machine.sleep_ms(30);
        behind = true;
    }),
              Outcome::bug_check);
    EXPECT_EQ(machine.bug_check_code(), 0xE5u);
    EXPECT_EQ(machine.now_ms(), 10);
    EXPECT_EQ(machine.run([&] { behind = true; }), Outcome::bug_check);
    EXPECT_FALSE(behind || other);
}

TEST(Machine_stop, A_bug_check_in_a_timer_callback_ends_the_run)
{
    Machine machine;
    EXPECT_EQ(machine.run([&] {
        machine.scheduler().call_at(5, [] { KeBugCheckEx(0x7F, 0, 0, 0, 0); });
        machine.sleep_ms(1);
    }),
              Outcome::bug_check);
    EXPECT_EQ(machine.bug_check_code(), 0x7Fu);
}

TEST(Machine_stop, The_reset_port_ends_the_run_where_it_works)
{
    for (const bool works : {true, false}) {
        Machine machine({.reset_ports_work = works});
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

TEST(Machine_ports, Clock_and_sequencer_registers_keep_what_is_written_and_every_access_is_recorded)
{
    Machine machine;
    machine.ports().set_clock_register(0x0B, 0x42);
    run_to_end(machine, [] {
        WRITE_PORT_UCHAR(port(0x70), 0x8B);
        EXPECT_EQ(READ_PORT_UCHAR(port(0x71)), 0x42);
        WRITE_PORT_UCHAR(port(0x71), 0x02);
        WRITE_PORT_UCHAR(port(0x3C4), 1);
        WRITE_PORT_UCHAR(port(0x3C5), 0x21);
        EXPECT_EQ(READ_PORT_UCHAR(port(0x3C5)), 0x21);
        EXPECT_EQ(READ_PORT_UCHAR(port(0x1F0)), 0xFF);
    });
    EXPECT_EQ(machine.ports().clock_register(0x0B), 0x02);
    const std::vector<Ports::Access> expected{{true, 0x70, 0x8B},  {false, 0x71, 0x42}, {true, 0x71, 0x02},
                                              {true, 0x3C4, 1},    {true, 0x3C5, 0x21}, {false, 0x3C5, 0x21},
                                              {false, 0x1F0, 0xFF}};
    EXPECT_EQ(machine.ports().accesses(), expected);
}

// A driver that only notes how it was called.
struct BootNotes {
    std::string order;
    std::string registry_path;
    NTSTATUS status = STATUS_SUCCESS;
} notes;

VOID NTAPI reinitialize(PDRIVER_OBJECT, PVOID context, ULONG count)
{
    notes.order += context == &notes && count == 1 ? " reinitialize" : " wrong";
}

NTSTATUS NTAPI driver_entry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path)
{
    notes.order += "entry";
    notes.registry_path = narrow(text_of(*registry_path));
    for (const auto& routine : driver->MajorFunction)
        if (!routine)
            notes.order += " no default dispatch";
    IoRegisterBootDriverReinitialization(driver, reinitialize, &notes);
    Machine::current().sleep_ms(1);
    return notes.status;
}

struct NotingImage : DriverImage {
    Entry load() override { return driver_entry; }
    std::string name() const override { return "noting"; }
};

TEST(Machine_boot, The_entry_runs_before_the_scan_and_the_reinitialisation_and_a_refusal_ends_there)
{
    for (const NTSTATUS status : {STATUS_SUCCESS, STATUS_UNSUCCESSFUL}) {
        notes = {.order = {}, .registry_path = {}, .status = status};
        Machine machine;
        NotingImage image;
        run_to_end(machine, [&] {
            machine.scsi().set_scan_listener([] { notes.order += " scan"; });
            EXPECT_EQ(machine.boot(image), status);
        });
        EXPECT_EQ(notes.order, status == STATUS_SUCCESS ? "entry scan reinitialize" : "entry");
        EXPECT_EQ(notes.registry_path, "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\qrndisk");
    }
}

TEST(Machine_boot, One_machine_at_a_time)
{
    CaughtViolations caught;
    Machine machine;
    EXPECT_THROW(Machine second, CaughtViolations::Violation);
    EXPECT_EQ(&Machine::current(), &machine);
}

}  // namespace
}  // namespace machine::test
