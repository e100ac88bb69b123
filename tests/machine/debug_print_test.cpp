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
    Machine machine;
    run_to_end(machine, [] {
        void* pointer = reinterpret_cast<void*>(0x1A2B3C);
        UNICODE_STRING wide = counted(L"\\Device\\X (rest)");
        wide.Length = 18;
        ANSI_STRING bytes{.Length = 3, .MaximumLength = 3, .Buffer = const_cast<char*>("abcdef")};
        const struct {
            std::string text, expected;
        } cases[] = {
            {printed("\nQRN SCSI: %02X %02X Disk:%d %d", 7, 0x104, -1, 4), "\nQRN SCSI: 07 104 Disk:-1 4"},
            {printed("i=%X %p", 0x2580, pointer), "i=2580 001A2B3C"},
            {printed("%p", nullptr), "00000000"},
            {printed("%X%08X-%x", 0x1u, 0x2Au, 0xABCu), "10000002A-abc"},
            {printed("%5d|%-5d|%05d|%+d|% d|%u", 42, 42, -42, 42, 42, 4000000000u),
             "   42|42   |-0042|+42| 42|4000000000"},
            {printed("%5d-%02X %04X", 123, 5, 0xFFFFFFFFu), "  123-05 FFFFFFFF"},
            {printed("%I64x %I64d %I64u %I64X|%ld %lu|%lld|%I32x", 0x123456789ABCDEFull, -5ll,
                     18446744073709551615ull, 0xABCDEFull, -7l, 9ul, -9000000000ll, 0xFu),
             "123456789abcdef -5 18446744073709551615 ABCDEF|-7 9|-9000000000|f"},
            {printed("%016I64X %hd %hu", 0x1122334455ull, 0x12345, 0x12345), "0000001122334455 9029 9029"},
            {printed("%s|%10s|%-6s|%.2s|%.*s", "text", "right", "left", "cut", 3, "longer"),
             "text|     right|left  |cu|lon"},
            {printed("%s %ws %wZ %S", static_cast<char*>(nullptr), static_cast<wchar_t*>(nullptr),
                     static_cast<UNICODE_STRING*>(nullptr), static_cast<wchar_t*>(nullptr)),
             "(null) (null) (null) (null)"},
            {printed("%ws %S %ls %hs %wZ %Z", L"wide", L"Wide", L"long", "short", &wide, &bytes),
             "wide Wide long short \\Device\\X abc"},
            {printed("%ws", L"\x00E4\x20AC\xD83D\xDE00"), "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
            {printed("%c%c%C %3c|", 'a', 'b', L'c', 'd'), "abc   d|"},
            {printed("%#x %#o %o", 255u, 8u, 8u), "0xff 010 10"},
            {printed("100%% %d%", 5), "100% 5%"},
            {printed("%f %q %d", 5), "%f %q 5"},
            {printed("%s%08X ", "Size", 0x1000u), "Size00001000 "},
        };
        for (const auto& form : cases)
            EXPECT_EQ(form.text, form.expected);
    });
}

TEST(Debug_print, Nothing_is_read_behind_a_precision_or_printed_behind_512_bytes)
{
    Machine machine;
    run_to_end(machine, [] {
        const char unterminated[] = {'Q', 'R', 'N', 'H'};
        EXPECT_EQ(printed("%.4s", unterminated), "QRNH");
        EXPECT_EQ(printed("%s", std::string(4000, 'x').c_str()), std::string(512, 'x'));
        EXPECT_EQ(printed("%999999999d", 1).size(), 512u);
    });
}

TEST(Debug_print, The_log_knows_the_time_counts_pieces_and_feeds_a_sink)
{
    Machine machine;
    std::string seen;
    run_to_end(machine, [&] {
        DbgPrint("\nfirst");
        machine.sleep_ms(3);
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        DbgPrint("\nsecond");
        KeLowerIrql(irql);
        machine.log().set_sink([&](const DebugLog::Entry& entry) { seen += entry.text; }, false);
        DbgPrint("\nthird");
    });
    ASSERT_EQ(machine.log().entries().size(), 2u);
    EXPECT_EQ(machine.log().entries()[1].time, 3 * ticks_per_ms);
    EXPECT_EQ(machine.log().count("s"), 2u);
    EXPECT_FALSE(machine.log().contains("third"));
    EXPECT_EQ(seen, "\nthird");
}

}  // namespace
}  // namespace machine::test
