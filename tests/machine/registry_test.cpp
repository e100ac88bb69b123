// SPDX-License-Identifier: MIT
#include <cstring>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

HANDLE open_key(const wchar_t* path)
{
    UNICODE_STRING name = counted(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    HANDLE handle = nullptr;
    EXPECT_EQ(ZwOpenKey(&handle, KEY_ALL_ACCESS, &attributes), STATUS_SUCCESS);
    return handle;
}

struct Query {
    NTSTATUS status;
    ULONG result_bytes = 0;
    alignas(8) UCHAR buffer[128];

    Query(HANDLE key, const wchar_t* value, KEY_VALUE_INFORMATION_CLASS information_class, ULONG bytes)
    {
        std::memset(buffer, 0xEE, sizeof buffer);
        UNICODE_STRING name = counted(value);
        status =
            ZwQueryValueKey(key, &name, information_class, bytes ? buffer : nullptr, bytes, &result_bytes);
    }
};

TEST(Registry, Full_queries_tell_the_length_that_they_need_and_fill_what_they_get)
{
    Machine machine;
    machine.registry().set_setting("RW_THREADS", 8);
    run_to_end(machine, [] {
        HANDLE key = open_key(L"\\registry\\MACHINE\\System\\CurrentControlSet\\Services\\QRNDISK");
        constexpr ULONG fixed = 20, name_bytes = 20, needed = fixed + name_bytes + 4;
        const struct {
            ULONG bytes;
            NTSTATUS status;
            ULONG filled;
        } cases[] = {{0, STATUS_BUFFER_TOO_SMALL, 0},        {fixed - 1, STATUS_BUFFER_TOO_SMALL, 0},
                     {fixed, STATUS_BUFFER_OVERFLOW, fixed}, {needed - 1, STATUS_BUFFER_OVERFLOW, needed - 1},
                     {needed, STATUS_SUCCESS, needed},       {needed + 40, STATUS_SUCCESS, needed}};
        for (const auto& expected : cases) {
            const Query query(key, L"rw_threads", KeyValueFullInformation, expected.bytes);
            EXPECT_EQ(query.status, expected.status) << expected.bytes;
            EXPECT_EQ(query.result_bytes, needed) << expected.bytes;
            EXPECT_EQ(query.buffer[expected.filled], 0xEE) << expected.bytes;
            if (expected.status != STATUS_SUCCESS)
                continue;
            KEY_VALUE_FULL_INFORMATION information;
            std::memcpy(&information, query.buffer, fixed);
            EXPECT_EQ(information.Type, static_cast<ULONG>(REG_DWORD));
            EXPECT_EQ(information.DataLength, 4u);
            EXPECT_EQ(information.NameLength, name_bytes);
            ULONG value;
            std::memcpy(&value, query.buffer + information.DataOffset, sizeof value);
            EXPECT_EQ(value, 8u);
        }
        ZwClose(key);
    });
}

TEST(Registry, Partial_queries_strings_and_names_of_odd_length)
{
    Machine machine;
    machine.registry().set_setting("ABC", 1);
    machine.registry().set_string(Registry::service_key, u"Name", u"ab");
    run_to_end(machine, [] {
        HANDLE key = open_key(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\qrndisk");
        const Query query(key, L"Name", KeyValuePartialInformation, 128);
        EXPECT_EQ(query.status, STATUS_SUCCESS);
        EXPECT_EQ(query.result_bytes, 12u + 6u);
        EXPECT_EQ(std::memcmp(query.buffer + 12, L"ab", 6), 0);
        EXPECT_EQ(Query(key, L"Name", KeyValuePartialInformation, 11).status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(Query(key, L"Name", KeyValuePartialInformation, 17).status, STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(Query(key, L"Nam", KeyValueFullInformation, 0).status, STATUS_OBJECT_NAME_NOT_FOUND);
        const Query odd(key, L"ABC", KeyValueFullInformation, 128);
        EXPECT_EQ(odd.result_bytes, 32u);
        EXPECT_EQ(odd.buffer[8], 28) << "the data is aligned behind the name";
        ZwClose(key);
    });
}

}  // namespace
}  // namespace machine::test
