// SPDX-License-Identifier: MIT
#include "machine/disk/local_disk.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <stdexcept>

#include "machine/executive/wide_text.h"
#include "tests/machine/kernel_test.h"
#include "tests/scratch_folder.h"
#include "tests/seeds.h"

namespace machine::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The file of a name, opened as the driver opens a disk; null with the status when that fails.
PFILE_OBJECT open_file(const std::string& name, NTSTATUS& status, ULONG length = 24, HANDLE root = nullptr)
{
    ANSI_STRING narrow;
    UNICODE_STRING wide;
    RtlInitString(&narrow, name.c_str());
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, TRUE), STATUS_SUCCESS);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &wide, OBJ_CASE_INSENSITIVE, root, nullptr);
    attributes.Length = length;
    HANDLE handle;
    IO_STATUS_BLOCK block;
    status = ZwCreateFile(&handle, SYNCHRONIZE, &attributes, &block, nullptr, 0,
                          FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                          FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    RtlFreeUnicodeString(&wide);
    if (!NT_SUCCESS(status))
        return nullptr;
    PVOID file;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &file, nullptr), STATUS_SUCCESS);
    ZwClose(handle);
    return static_cast<PFILE_OBJECT>(file);
}

PDEVICE_OBJECT open_disk()
{
    NTSTATUS status;
    return open_file("\\DosDevices\\PhysicalDrive0", status)->DeviceObject;
}

// A synchronous request, from its making to its end.
struct Transfer {
    ULONG major;
    std::uint64_t offset;
    ULONG bytes;
    UCHAR flags = SL_FORCE_DIRECT_WRITE;
    bool pended = false;
    std::size_t transferred = 0;

    NTSTATUS send(PDEVICE_OBJECT device, void* buffer)
    {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK block{};
        LARGE_INTEGER start;
        start.QuadPart = static_cast<LONGLONG>(offset);
        PIRP irp = IoBuildSynchronousFsdRequest(major, device, buffer, bytes, &start, &event, &block);
        if (!irp)
            return STATUS_INSUFFICIENT_RESOURCES;
        if (major == IRP_MJ_WRITE)
            IoGetNextIrpStackLocation(irp)->Flags = flags;
        const NTSTATUS status = IoCallDriver(device, irp);
        pended = status == STATUS_PENDING;
        if (pended)
            wait_ms(&event);
        transferred = block.Information;
        return pended ? block.Status : status;
    }
};

NTSTATUS write_sectors(PDEVICE_OBJECT device, std::uint64_t sector, std::uint8_t value, std::size_t count = 1)
{
    Bytes bytes(count * 512, value);
    return Transfer{IRP_MJ_WRITE, sector * 512, static_cast<ULONG>(bytes.size())}.send(device, bytes.data());
}

// The value that fills a sector; -1: it is not filled with one.
int value_of(const LocalDisk& disk, std::uint64_t sector)
{
    const Bytes bytes = disk.read(sector, 1);
    return std::ranges::all_of(bytes, [&](std::uint8_t byte) { return byte == bytes[0]; }) ? bytes[0] : -1;
}

void with_disk(LocalDisk& disk, const std::function<void(Machine&, PDEVICE_OBJECT)>& body,
               MachineConfig config = {})
{
    Machine machine(config);
    machine.add_local_disk(disk, 0);
    run_to_end(machine, [&] { body(machine, open_disk()); });
}

TEST(LocalDisk, Is_opened_by_name_with_a_filter_above_the_named_device)
{
    LocalDisk disk(64), second(64);
    in_machine([&](Machine& machine) {
        machine.add_local_disk(disk, 0);
        machine.add_local_disk(second, 2);
        NTSTATUS status;
        const PFILE_OBJECT file = open_file("\\DosDevices\\physicaldrive2", status);
        ASSERT_EQ(status, STATUS_SUCCESS);
        PDEVICE_OBJECT top = IoGetRelatedDeviceObject(file);
        EXPECT_NE(top, file->DeviceObject);
        EXPECT_EQ(write_sectors(top, 3, 0x33), STATUS_SUCCESS);
        EXPECT_EQ(value_of(second, 3), 0x33);
        EXPECT_EQ(machine.pool_bytes(), 0u);

        machine.faults().fail(Operation::device_open, "\\DosDevices\\PhysicalDrive0");
        const struct {
            NTSTATUS status;
            const char* name;
            ULONG length = 24;
            HANDLE root = nullptr;
        } refused[] = {
            {STATUS_INSUFFICIENT_RESOURCES, "\\DosDevices\\PhysicalDrive0"},
            {STATUS_OBJECT_NAME_NOT_FOUND, "\\DosDevices\\PhysicalDrive1"},
            {STATUS_OBJECT_NAME_NOT_FOUND, "\\DosDevices\\PhysicalDrive2\\"},
            {STATUS_OBJECT_PATH_SYNTAX_BAD, "PhysicalDrive0"},
            {STATUS_INVALID_PARAMETER, "\\DosDevices\\PhysicalDrive0", 23},
            {STATUS_INVALID_HANDLE, "\\DosDevices\\PhysicalDrive0", 24, NtCurrentProcess()},
        };
        for (const auto& open : refused) {
            open_file(open.name, status, open.length, open.root);
            EXPECT_EQ(status, open.status) << open.name;
        }
    });
}

TEST(LocalDisk, Requests_are_complete_at_once_or_after_their_latency)
{
    for (const Ticks latency : {Ticks{0}, 5 * ticks_per_ms}) {
        LocalDisk disk(std::uint64_t{1} << 34, {.latency_min = latency, .latency_max = latency});
        constexpr std::uint64_t far_sector = (std::uint64_t{1} << 33) + 7;
        with_disk(disk, [&](Machine& machine, PDEVICE_OBJECT device) {
            EXPECT_EQ(write_sectors(device, far_sector, 0x5A, 3), STATUS_SUCCESS);
            EXPECT_EQ(machine.now_ms(), latency / ticks_per_ms);
            Bytes bytes(1024);
            Transfer read{IRP_MJ_READ, (far_sector + 2) * 512, 1024};
            EXPECT_EQ(read.send(device, bytes.data()), STATUS_SUCCESS);
            EXPECT_EQ(read.pended, latency > 0);
            EXPECT_EQ(read.transferred, 1024u);
            EXPECT_TRUE(bytes[0] == 0x5A && bytes[511] == 0x5A && bytes[512] == 0);
            const LocalDiskCounters counters = disk.counters();
            EXPECT_EQ(counters.reads + counters.writes, 2u);
            EXPECT_EQ(counters.bytes_written, 3u * 512);
            EXPECT_EQ(counters.bytes_read, 1024u);
        });
    }
}

TEST(LocalDisk, Requests_that_no_disk_carries_out_are_refused)
{
    LocalDisk disk(8);
    disk.write(0, Bytes(8 * 512, 0x11));
    with_disk(disk, [&](Machine& machine, PDEVICE_OBJECT device) {
        struct {
            NTSTATUS status;
            Transfer transfer;
        } cases[] = {
            {STATUS_ACCESS_DENIED, {IRP_MJ_WRITE, 0, 512, 0}},
            {STATUS_INVALID_PARAMETER, {IRP_MJ_WRITE, 0, 511}},
            {STATUS_INVALID_PARAMETER, {IRP_MJ_READ, 1, 512}},
            {STATUS_INVALID_PARAMETER, {IRP_MJ_READ, 7 * 512, 1024}},
            {STATUS_INVALID_PARAMETER, {IRP_MJ_READ, 9 * 512, 0}},
            {STATUS_INVALID_PARAMETER, {IRP_MJ_READ, std::uint64_t{} - 512, 512}},
            {STATUS_INVALID_PARAMETER, {IRP_MJ_WRITE, 0, static_cast<ULONG>(-512)}},
            {STATUS_SUCCESS, {IRP_MJ_READ, 8 * 512, 0}},
        };
        Bytes bytes(4096, 0x22);
        for (auto& [status, transfer] : cases)
            EXPECT_EQ(transfer.send(device, bytes.data()), status)
                << transfer.offset << " + " << transfer.bytes;
        EXPECT_EQ(disk.counters().read_errors + disk.counters().write_errors, 7u);
        machine.faults().fail(Operation::irp_allocate, "IoBuildSynchronousFsdRequest");
        EXPECT_EQ(write_sectors(device, 0, 0x22), STATUS_INSUFFICIENT_RESOURCES);
    });
    EXPECT_EQ(disk.read(0, 8), Bytes(8 * 512, 0x11));
    EXPECT_THROW(disk.read(7, 2), std::out_of_range);
    EXPECT_THROW(disk.write(0, Bytes(100)), std::out_of_range);
}

TEST(LocalDisk, Faults_hit_the_sectors_they_name_and_bad_sectors_stay_with_the_disk)
{
    LocalDisk disk(64, {.latency_min = 0, .latency_max = 1});  // some at once, some pending
    const auto read = [](PDEVICE_OBJECT device, std::uint64_t sector, ULONG count) {
        Bytes bytes(count * 512);
        Transfer transfer{IRP_MJ_READ, sector * 512, count * 512};
        const NTSTATUS status = transfer.send(device, bytes.data());
        return std::pair(status, transfer.transferred);
    };
    with_disk(disk, [&](Machine& machine, PDEVICE_OBJECT device) {
        Faults& faults = machine.faults();
        faults.fail(Operation::disk_read, "1A", 1, 1);
        faults.fail(Operation::disk_write, "20-2F", 0, Faults::until_cleared);
        EXPECT_EQ(read(device, 0x10, 16).first, STATUS_SUCCESS);  // the one that the rule skips
        EXPECT_EQ(read(device, 0x10, 10).first, STATUS_SUCCESS);
        EXPECT_EQ(read(device, 0x1A, 1).first, STATUS_DEVICE_DATA_ERROR);
        EXPECT_EQ(write_sectors(device, 0x1E, 0x77, 2), STATUS_SUCCESS);
        EXPECT_EQ(write_sectors(device, 0x1F, 0x77, 2), STATUS_DEVICE_DATA_ERROR);
        EXPECT_EQ(write_sectors(device, 0x2F, 0x77), STATUS_DEVICE_DATA_ERROR);
        EXPECT_EQ(write_sectors(device, 0x30, 0x77), STATUS_SUCCESS);
        EXPECT_EQ(value_of(disk, 0x2F), 0);

        faults.fail(Operation::disk_read_short, "0", 0, Faults::until_cleared);
        std::set<std::size_t> lengths;
        for (int attempt = 0; attempt < 50; ++attempt) {
            const auto [status, transferred] = read(device, 0, 4);
            EXPECT_EQ(status, STATUS_SUCCESS);
            lengths.insert(transferred);
        }
        EXPECT_EQ(lengths, (std::set<std::size_t>{0, 512, 1024, 1536}));
    });
    disk.set_bad(0, 8);
    disk.set_bad(2, 3, false);
    with_disk(disk, [&](Machine&, PDEVICE_OBJECT device) {
        EXPECT_EQ(write_sectors(device, 2, 0x55, 3), STATUS_SUCCESS);
        EXPECT_EQ(read(device, 1, 4).first, STATUS_DEVICE_DATA_ERROR);
        EXPECT_EQ(read(device, 4, 2).first, STATUS_DEVICE_DATA_ERROR);
        EXPECT_EQ(read(device, 8, 1).first, STATUS_SUCCESS);
    });
}

// What a sector may hold after cuts at random: every value that some cut leaves there.
std::set<std::vector<int>> outcomes_of_cuts(const LocalDiskOptions& options,
                                            const std::function<void(Machine&, PDEVICE_OBJECT)>& body,
                                            std::size_t sectors)
{
    std::set<std::vector<int>> outcomes;
    for (std::uint64_t seed = 1; seed <= seeds_of(400); ++seed) {
        LocalDiskOptions seeded = options;
        seeded.seed = seed;
        LocalDisk disk(16, seeded);
        with_disk(disk, body, {{.seed = seed}});
        Random random(seed);
        disk.power_cut(random);
        std::vector<int> values;
        for (std::size_t sector = 0; sector < sectors; ++sector)
            values.push_back(value_of(disk, sector));
        outcomes.insert(values);
    }
    return outcomes;
}

constexpr LocalDiskOptions volatile_disk{.volatile_min = 10 * ticks_per_ms,
                                         .volatile_max = 50 * ticks_per_ms};

TEST(LocalDisk, A_power_cut_keeps_loses_or_tears_what_is_volatile)
{
    using Outcomes = std::set<std::vector<int>>;
    const auto two_writes = [](Machine&, PDEVICE_OBJECT device) {
        EXPECT_EQ(write_sectors(device, 0, 1, 2), STATUS_SUCCESS);
        EXPECT_EQ(write_sectors(device, 1, 2), STATUS_SUCCESS);
        Bytes bytes(1024);
        EXPECT_EQ((Transfer{IRP_MJ_READ, 0, 1024}).send(device, bytes.data()), STATUS_SUCCESS);
        EXPECT_TRUE(bytes[0] == 1 && bytes[512] == 2);  // a reader sees the newest
    };
    // The newer write without the older, the older without the newer, and a torn one in all its ways.
    EXPECT_EQ(outcomes_of_cuts(volatile_disk, two_writes, 2),
              (Outcomes{{0, 0}, {0, 1}, {1, 0}, {1, 1}, {0, 2}, {1, 2}}));
    // Complete means durable on a disk without a cache.
    EXPECT_EQ(outcomes_of_cuts({}, two_writes, 2), (Outcomes{{1, 2}}));
    // The older write becomes durable before or after the newer, and undoes it in neither case.
    const auto and_sleep = [&](Machine& machine, PDEVICE_OBJECT device) {
        two_writes(machine, device);
        machine.sleep_ms(51);
    };
    EXPECT_EQ(outcomes_of_cuts(volatile_disk, and_sleep, 2), (Outcomes{{1, 2}}));
    // What was complete before a flush is durable after it.
    const auto and_flush = [&](Machine& machine, PDEVICE_OBJECT device) {
        two_writes(machine, device);
        EXPECT_EQ(Transfer(IRP_MJ_FLUSH_BUFFERS, 0, 0).send(device, nullptr), STATUS_SUCCESS);
    };
    EXPECT_EQ(outcomes_of_cuts(volatile_disk, and_flush, 2), (Outcomes{{1, 2}}));
}

TEST(LocalDisk, A_write_under_way_at_the_cut_may_have_happened_in_part)
{
    const auto body = [](Machine& machine, PDEVICE_OBJECT device) {
        start_thread([=] { write_sectors(device, 0, 9, 2); });
        machine.sleep_ms(5);
    };
    const LocalDiskOptions slow{.latency_min = 10 * ticks_per_ms, .latency_max = 20 * ticks_per_ms};
    EXPECT_EQ(outcomes_of_cuts(slow, body, 2), (std::set<std::vector<int>>{{0, 0}, {0, 9}, {9, 0}, {9, 9}}));
}

TEST(LocalDisk, A_reset_loses_nothing_that_a_machine_wrote)
{
    LocalDisk disk(16, volatile_disk);
    with_disk(disk, [](Machine&, PDEVICE_OBJECT device) { write_sectors(device, 0, 4, 16); });
    with_disk(disk, [](Machine&, PDEVICE_OBJECT) {});
    Random random(1);
    disk.power_cut(random);
    EXPECT_EQ(disk.read(0, 16), Bytes(16 * 512, 4));
}

TEST(LocalDisk, Lies_on_an_image_file_and_serves_many_threads_on_the_real_scheduler)
{
    const ScratchFolder folder;
    const std::string path = folder / "disk.img";
    constexpr int threads = 4, sectors_each = 64;
    for (const unsigned workers : {0u, 2u}) {
        std::ofstream(path) << std::string(threads * sectors_each * 512 + 100, 'x');
        LocalDisk disk(path, {.workers = workers});
        EXPECT_EQ(disk.sectors(), std::uint64_t{threads * sectors_each});
        const auto fill = [](PDEVICE_OBJECT device, unsigned sector) {
            const auto value = static_cast<std::uint8_t>(sector);
            EXPECT_EQ(write_sectors(device, sector, value), STATUS_SUCCESS);
            Bytes bytes(512);
            EXPECT_EQ((Transfer{IRP_MJ_READ, sector * 512, 512}.send(device, bytes.data())), STATUS_SUCCESS);
            EXPECT_EQ(bytes, Bytes(512, value));
        };
        const auto body = [&](Machine&, PDEVICE_OBJECT device) {
            run_threads(threads, [&](int thread) {
                for (int index = 0; index < sectors_each; ++index)
                    fill(device, static_cast<unsigned>(thread * sectors_each + index));
            });
        };
        with_disk(disk, body, {{.scheduler = SchedulerKind::real}});
        for (unsigned sector = 0; sector < disk.sectors(); ++sector)
            ASSERT_EQ(value_of(LocalDisk(path), sector), sector & 0xFF);
    }
    EXPECT_THROW(LocalDisk(folder / "none.img"), std::system_error);
}

TEST(LocalDisk, Misuse_is_reported)
{
    LocalDisk disk(16), other(16), volatile_one(16, volatile_disk);
    // Makes a read of one sector, and does the rest.
    const auto read = [&](std::function<void(PDEVICE_OBJECT, PIRP)> rest, UCHAR event_type = 0) {
        return [=](Machine& machine) {
            LocalDisk own(16);
            machine.add_local_disk(own, 0);
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            event.Header.Type = event_type;
            IO_STATUS_BLOCK block;
            LARGE_INTEGER offset{};
            Bytes bytes(512);
            PDEVICE_OBJECT device = open_disk();
            rest(device, IoBuildSynchronousFsdRequest(IRP_MJ_READ, device, bytes.data(), 512, &offset, &event,
                                                      &block));
        };
    };
    const auto send = [](PDEVICE_OBJECT device, PIRP irp) { IoCallDriver(device, irp); };
    const auto send_high = [=](PDEVICE_OBJECT device, PIRP) {
        PIRP nobodys = IoAllocateIrp(device->StackSize, FALSE);
        IoGetNextIrpStackLocation(nobodys)->MajorFunction = IRP_MJ_READ;
        KeRaiseIrqlToDpcLevel();
        send(device, nobodys);
    };
    const auto lengthen = [=](PDEVICE_OBJECT device, PIRP irp) {
        IoGetNextIrpStackLocation(irp)->Parameters.Read.Length = 1024;
        send(device, irp);
    };
    const auto add_twice = [&](Machine& machine) {
        machine.add_local_disk(disk, 0);
        machine.add_local_disk(disk, 1);
    };
    const auto cut_while_on = [&](Machine& machine) {
        machine.add_local_disk(other, 0);
        Random random(1);
        other.power_cut(random);
    };
    const auto open_for_reading = [&](Machine& machine) {
        LocalDisk own(16);
        machine.add_local_disk(own, 0);
        UNICODE_STRING name = counted(L"\\DosDevices\\PhysicalDrive0");
        PFILE_OBJECT file;
        PDEVICE_OBJECT device;
        IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &device);
    };
    expect_breaks({{"opened for a file system", open_for_reading, "a file system would be mounted"},
                   {"added twice", add_twice, "second machine"},
                   {"cut while on", cut_while_on, "while a machine still has the disk"},
                   {"IRQL", read(send_high), "a read or write of the local disk at IRQL 2"},
                   {"longer than its buffer", read(lengthen), "without a buffer of its length"},
                   {"unmade event", read(send, 77), "never initialised"}});
    const auto add_volatile = [&](Machine& machine) { machine.add_local_disk(volatile_one, 0); };
    EXPECT_NE(broken_rule(add_volatile, {{.scheduler = SchedulerKind::real}}).find("simulated scheduler"),
              std::string::npos);
}

TEST(LocalDisk, Names_and_times_are_converted_for_its_users)
{
    const auto body = [](Machine& machine) {
        ANSI_STRING narrow;
        RtlInitAnsiString(&narrow, "Drive\xE9");
        WCHAR buffer[7];
        UNICODE_STRING wide{.Length = 0, .MaximumLength = sizeof buffer - 1, .Buffer = buffer};
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, FALSE), STATUS_BUFFER_OVERFLOW);
        wide.MaximumLength = sizeof buffer;
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(text_of(buffer), u"Drive\u00E9");
        machine.faults().fail(Operation::pool_allocate);
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, TRUE), STATUS_NO_MEMORY);
        const std::string endless(32767, 'x');
        RtlInitAnsiString(&narrow, endless.c_str());
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, TRUE), STATUS_INVALID_PARAMETER_2);

        LARGE_INTEGER system_time, local_time;
        KeQuerySystemTime(&system_time);
        ExSystemTimeToLocalTime(&system_time, &local_time);
        EXPECT_EQ(local_time.QuadPart - system_time.QuadPart, 120 * 60 * ticks_per_second);
    };
    in_machine(body, {{.time_zone_bias_minutes = -120}});
}

}  // namespace
}  // namespace machine::test
