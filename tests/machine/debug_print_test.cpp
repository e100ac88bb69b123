// SPDX-License-Identifier: MIT
#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

template <class... Arguments>
std::string printed(const char* format, Arguments... arguments)
{
    Machine& machine = Machine::current();
    machine.log().clear();
    DbgPrint(format, arguments...);
    return machine.log().text();
}

TEST(Debug_print, Forms_that_drivers_use)
{
    in_machine([](Machine&) {
        UNICODE_STRING wide = counted(L"\\Device\\X (rest)");
        wide.Length = 18;
        ANSI_STRING bytes{.Length = 3, .MaximumLength = 3, .Buffer = const_cast<char*>("abcdef")};
        const struct {
            std::string text, expected;
        } cases[] = {
            {printed("\nQRN SCSI: %02X %02X Disk:%d %d", 7, 0x104, -1, 4), "\nQRN SCSI: 07 104 Disk:-1 4"},
            {printed("%X%08X-%x", 0x1u, 0x2Au, 0xABCu), "10000002A-abc"},
            {printed("%5d|%-5d|%05d|%+d|% d|%u", 42, 42, -42, 42, 42, 4000000000u),
             "   42|42   |-0042|+42| 42|4000000000"},
            {printed("%016I64X %I64d %hd %ld %lld %p", 0x1122334455ull, -5ll, 0x12345, -7l, -9000000000ll,
                     nullptr),
             "0000001122334455 -5 9029 -7 -9000000000 00000000"},
            {printed("%s|%10s|%-6s|%.2s|%.*s", "text", "right", "left", "cut", 3, "longer"),
             "text|     right|left  |cu|lon"},
            {printed("%ws %S %ls %hs %wZ %Z", L"wide", L"Wide", L"long", "short", &wide, &bytes),
             "wide Wide long short \\Device\\X abc"},
            {printed("%ws", L"\x00E4\x20AC\xD83D\xDE00"), "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
            {printed("100%% %d%", 5), "100% 5%"},
            {printed("%f %q %d", 5), "%f %q 5"},
        };
        for (const auto& form : cases)
            EXPECT_EQ(form.text, form.expected);
    });
}

TEST(Debug_print, Nothing_is_read_behind_a_precision_or_printed_behind_512_bytes)
{
    in_machine([](Machine&) {
        const char unterminated[] = {'Q', 'R', 'N', 'H'};
        EXPECT_EQ(printed("%.4s", unterminated), "QRNH");
        EXPECT_EQ(printed("%s", std::string(4000, 'x').c_str()), std::string(512, 'x'));
        EXPECT_EQ(printed("%999999999d", 1).size(), 512u);
    });
}

TEST(Debug_print, Wide_characters_are_translated_at_passive_level_only)
{
    in_machine([](Machine&) {
        KeRaiseIrqlToDpcLevel();
        EXPECT_EQ(printed("%s %hS %c %d", "text", "bytes", 'x', 5), "text bytes x 5");
        KeLowerIrql(PASSIVE_LEVEL);
    });
    static UNICODE_STRING counted_text = counted(L"text");
    const auto at = [](KIRQL irql, const char* format, auto value) {
        return [=](Machine&) {
            KfRaiseIrql(irql);
            DbgPrint(format, value);
        };
    };
    expect_breaks({
        {"string", at(DISPATCH_LEVEL, "%ws", L"text"), "DbgPrint with wide characters at IRQL 2"},
        {"capital", at(APC_LEVEL, "%S", L"text"), "DbgPrint with wide characters at IRQL 1"},
        {"counted", at(DISPATCH_LEVEL, "%wZ", &counted_text), "DbgPrint with wide characters"},
        {"character", at(DISPATCH_LEVEL, "%wc", 'x'), "DbgPrint with wide characters"},
    });
}

}  // namespace
}  // namespace machine::test
