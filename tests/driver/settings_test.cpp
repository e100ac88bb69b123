// SPDX-License-Identifier: MIT
// Tuning values of the service key.
#include "driver/state/settings.h"

#include "driver/state/boot_param.h"
#include "machine/executive/executive.h"
#include "tests/driver/driver_test.h"

namespace {

using machine::Operation;
using machine::Registry;
using machine::RegistryValue;

struct Values {
    ULONG trans_size = 65536, rw_threads = 6;
    LONG hot_retrys = 21;
    ULONG pae_size = 3327;
    unsigned rack_level = 0x0102;
    bool operator==(const Values&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Values& values)
{
    return out << values.trans_size << " " << values.rw_threads << " " << values.hot_retrys << " "
               << values.pae_size << " " << values.rack_level;
}

Values read_settings()
{
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, reinterpret_cast<PCWSTR>(Registry::service_key.c_str()));
    Boot_Param.Rack_Level.set(0x0102);
    const std::size_t handles = machine::executive().objects.open_handles();
    Settings_Read(&path);
    EXPECT_EQ(machine::executive().objects.open_handles(), handles);
    EXPECT_EQ(machine::Machine::current().pool_bytes(), 0u);
    return {TRANS_SIZE, RW_THREADS, HOT_RETRYS, PAE_SIZE, Boot_Param.Rack_Level.get()};
}

RegistryValue dword(std::uint32_t value)
{
    auto byte = [value](unsigned shift) { return static_cast<std::uint8_t>(value >> shift); };
    return {REG_DWORD, {byte(0), byte(8), byte(16), byte(24)}};
}

TEST(Settings, Values_are_taken_within_their_bounds_and_of_their_type_only)
{
    struct Row {
        const char16_t* name;
        RegistryValue value;
        Values expected;
    };
    const Row rows[] = {{u"TRANS_SIZE", dword(63), {.trans_size = 64512}},
                        {u"TRANS_SIZE", dword(0x80000001), {}},
                        {u"TRANS_SIZE", {REG_SZ, {1, 0, 0, 0}}, {}},
                        {u"TRANS_SIZE", {REG_BINARY, {1, 0, 0, 0}}, {}},
                        {u"TRANS_SIZE", {REG_DWORD, {1, 0}}, {}},
                        {u"TRANS_SIZE", {REG_DWORD, {}}, {}},
                        {u"TRANS_SIZE", {REG_DWORD, {1, 0, 0, 0, 0, 0, 0, 0}}, {}},
                        {u"trans_Size", dword(2), {.trans_size = 2048}},
                        {u"TRANS_SIZES", dword(2), {}},
                        {u"RW_THREADS", dword(0x101), {}},
                        {u"HOT_RETRYS", dword(0xFFFFFFFF), {.hot_retrys = -1}},
                        {u"PAE_SIZE", dword(0), {.pae_size = 0}},
                        {u"PAE_SIZE", dword(0xFFFFFFFF), {.pae_size = 0xFFFFFFFF}},
                        {u"RW_RACK", dword(0x00010705), {.rack_level = 0x0705}},
                        {u"RW_RACK", {REG_DWORD, {5, 7}}, {}}};
    for (const Row& row : rows) {
        DriverPiece driver;
        driver.machine.registry().set(Registry::service_key, row.name, row.value);
        driver.run([&] { EXPECT_EQ(read_settings(), row.expected) << &row - rows; });
    }
}

TEST(Settings, What_cannot_be_read_leaves_its_default_and_only_its_own)
{
    struct Row {
        void (*spoil)(machine::Machine&);
        Values expected;
    };
    const Row rows[] = {
        {[](machine::Machine& machine) { machine.registry().remove_key(Registry::service_key); }, {}},
        {[](machine::Machine& machine) { machine.faults().fail(Operation::registry_open); }, {}},
        {[](machine::Machine& machine) { machine.faults().fail(Operation::registry_query, "RW_THREADS"); },
         {.trans_size = 4096, .rack_level = 0x0705}},
        // The second query of a value, with the buffer for it.
        {[](machine::Machine& machine) { machine.faults().fail(Operation::registry_query, "RW_THREADS", 1); },
         {.trans_size = 4096, .rack_level = 0x0705}},
        {[](machine::Machine& machine) { machine.faults().fail(Operation::pool_allocate, "QRNR"); },
         {.rw_threads = 3, .rack_level = 0x0705}}};
    for (const Row& row : rows) {
        DriverPiece driver;
        driver.machine.registry().set_setting("TRANS_SIZE", 4);
        driver.machine.registry().set_setting("RW_THREADS", 3);
        driver.machine.registry().set_setting("RW_RACK", 0x0705);
        row.spoil(driver.machine);
        driver.run([&] { EXPECT_EQ(read_settings(), row.expected) << &row - rows; });
    }
}

}  // namespace
