// SPDX-License-Identifier: MIT
#include "station/nbd_handshake.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/seeds.h"
#include "tests/station/memory_device.h"
#include "tests/station/nbd_client_bytes.h"

using namespace station;
using namespace station_test;

namespace {

constexpr std::size_t disk_bytes = 1 << 20;

const std::vector<Export>& three_exports()
{
    static const std::vector<Export> exports = {
        {"lun0", "QRN.Disk one", std::make_shared<MemoryDevice>(disk_bytes)},
        {"lun1", "QRN.Disk two", std::make_shared<MemoryDevice>(2 * disk_bytes)},
        {"lun2", "QRN.Disk empty", std::make_shared<MemoryDevice>(0)}};
    return exports;
}

const Bytes greeting = Writer().text("NBDMAGICIHAVEOPT").u16(3);
const Bytes fixed_no_zeroes = Writer().u32(3);
const Bytes size_and_flags = Writer().u64(disk_bytes).u16(1 + 4 + 8 + 32 + 64 + 256);
const Bytes block_sizes = Writer().u16(3).u32(512).u32(4096).u32(32 << 20);

struct Answer {
    NbdHandshake::State state;
    std::string chosen;
    std::size_t taken;
    Bytes output;
    bool structured, block_status;
};

// What the server makes of these bytes, arriving in pieces of the given sizes.
Answer dialogue(const Bytes& input, std::size_t first_piece, std::size_t piece = SIZE_MAX)
{
    NbdHandshake handshake(three_exports());
    Answer answer{};
    auto left = std::span(input);
    std::size_t next = first_piece;
    while (!left.empty() && handshake.state() == NbdHandshake::State::negotiating) {
        const auto now = left.first(std::min(next, left.size()));
        const std::size_t taken = handshake.receive(now);
        answer.taken += taken;
        left = left.subspan(now.size());
        next = piece;
        const Bytes output = handshake.take_output();
        answer.output.insert(answer.output.end(), output.begin(), output.end());
        if (taken < now.size())
            break;
    }
    answer.state = handshake.state();
    if (answer.state == NbdHandshake::State::transmission)
        answer.chosen = handshake.chosen().name;
    answer.structured = handshake.structured_replies();
    answer.block_status = handshake.block_status();
    return answer;
}

using State = NbdHandshake::State;

struct Dialogue {
    const char* name;
    Bytes input;
    Bytes output;  // after the greeting
    State state;
    const char* chosen = "";
    std::size_t left_over = 0;  // bytes behind the handshake's end
    bool structured = false, block_status = false;
};

// The client's flags and then this.
Bytes after_flags(const Bytes& input, std::uint32_t flags = 3)
{
    return Writer().u32(flags).add(input);
}
Bytes by_name(const std::string& name)
{
    return option(1, Writer().text(name));
}
Bytes refusal(std::uint32_t option, std::uint32_t type, const std::string& text)
{
    return option_reply(option, type, Writer().text(text));
}
Bytes joined(std::initializer_list<Bytes> parts)
{
    Writer all;
    for (const Bytes& part : parts)
        all.add(part);
    return all;
}

std::vector<Dialogue> dialogues()
{
    const Bytes with_zeroes = Writer().add(size_and_flags).zeroes(124);
    const Bytes info = Writer().u16(0).add(size_and_flags);
    const Bytes info_of_lun1 = Writer().u16(0).u64(2 * disk_bytes).u16(365);
    const Bytes malformed = refusal(7, 0x80000003, "malformed option");
    const Bytes df_info = Writer().u16(0).u64(disk_bytes).u16(365 + 128);
    const Bytes df_info_of_lun1 = Writer().u16(0).u64(2 * disk_bytes).u16(365 + 128);
    const Bytes allocation = Writer().u32(1).text("base:allocation");
    const Bytes listed = Writer().u32(0).text("base:allocation");
    const Bytes want_chunks = option(8), chunks = option_reply(8, 1);
    const auto go = [](const Bytes& data) { return after_flags(option(7, data)); };
    const auto chose = [](std::uint32_t number, const Bytes& about) {
        return joined(
            {option_reply(number, 3, about), option_reply(number, 3, block_sizes), option_reply(number, 1)});
    };
    return {
        {"EXPORT_NAME", after_flags(by_name("lun0")), size_and_flags, State::transmission, "lun0"},
        {"with zeroes", after_flags(by_name("lun0"), 1), with_zeroes, State::transmission, "lun0"},
        {"old newstyle, default export", after_flags(option(1), 0), with_zeroes, State::transmission, "lun0"},
        {"EXPORT_NAME of nothing there", after_flags(by_name("lun7")), {}, State::closed},
        {"EXPORT_NAME without medium", after_flags(by_name("lun2")), {}, State::closed},
        {"requests right behind stay untouched",
         after_flags(joined({by_name("lun0"), request(0, 1, 0, 512)})), size_and_flags, State::transmission,
         "lun0", 28},
        {"GO of the default export with all wishes, one unknown", go(choice("", {1, 2, 3, 99})),
         joined({option_reply(7, 3, info), option_reply(7, 3, Writer().u16(1).text("lun0")),
                 option_reply(7, 3, Writer().u16(2).text("QRN.Disk one")), option_reply(7, 3, block_sizes),
                 option_reply(7, 1)}),
         State::transmission, "lun0"},
        {"INFO, then GO of another",
         after_flags(joined({option(6, choice("lun0")), option(7, choice("lun1"))})),
         joined({chose(6, info), chose(7, info_of_lun1)}), State::transmission, "lun1"},
        {"GO of nothing there", go(choice("disk")), refusal(7, 0x80000006, "no such export"),
         State::negotiating},
        {"GO without medium", go(choice("lun2")), refusal(7, 0x80000006, "no medium in lun2"),
         State::negotiating},
        {"name longer than data", go(Writer().u32(5).text("lun0")), malformed, State::negotiating},
        {"fewer wishes than announced", go(Writer().u32(4).text("lun0").u16(2).u16(3)), malformed,
         State::negotiating},
        {"GO with bytes behind", go(Writer().add(choice("lun0")).u16(0)), malformed, State::negotiating},
        {"GO without data", go({}), malformed, State::negotiating},
        {"name beyond the limit", go(choice(std::string(4097, 'x'))),
         refusal(7, 0x80000009, "export name too long"), State::negotiating},
        {"LIST, then ABORT", after_flags(joined({option(3), option(2)})),
         joined({option_reply(3, 2, Writer().u32(4).text("lun0")),
                 option_reply(3, 2, Writer().u32(4).text("lun1")),
                 option_reply(3, 2, Writer().u32(4).text("lun2")), option_reply(3, 1), option_reply(2, 1)}),
         State::closed},
        {"the largest option that is read", after_flags(option(99, Bytes(64 << 10))),
         option_reply(99, 0x80000001), State::negotiating},
        {"an option beyond the limit",
         after_flags(Writer().text("IHAVEOPT").u32(99).u32((64 << 10) + 1).zeroes(10)),
         {},
         State::closed,
         "",
         10},
        {"wrong magic", after_flags(Writer().text("IHAVEOPS").u32(7).u32(0)), {}, State::closed},
        {"unknown client flags", after_flags(option(3), 4), {}, State::closed, "", 16},
        {"old newstyle with other options", after_flags(option(3), 0), {}, State::closed},
        {"structured replies and block status of the default export",
         after_flags(joined({want_chunks, option(10, contexts("", {"other:thing", "base:allocation"})),
                             option(7, choice("lun0"))})),
         joined({chunks, option_reply(10, 4, allocation), option_reply(10, 1), chose(7, df_info)}),
         State::transmission, "lun0", 0, true, true},
        {"block status of another than the one chosen",
         after_flags(joined(
             {want_chunks, option(10, contexts("lun0", {"base:allocation"})), option(7, choice("lun1"))})),
         joined({chunks, option_reply(10, 4, allocation), option_reply(10, 1), chose(7, df_info_of_lun1)}),
         State::transmission, "lun1", 0, true, false},
        {"block status that is given up again",
         after_flags(joined({want_chunks, option(10, contexts("lun0", {"base:allocation"})),
                             option(10, contexts("lun0", {})), option(7, choice("lun0"))})),
         joined({chunks, option_reply(10, 4, allocation), option_reply(10, 1), option_reply(10, 1),
                 chose(7, df_info)}),
         State::transmission, "lun0", 0, true, false},
        {"what can be asked for",
         after_flags(
             joined({want_chunks, option(9, contexts("lun0", {})), option(9, contexts("lun0", {"base:"})),
                     option(9, contexts("lun0", {"other:"})), option(9, contexts("disk", {}))})),
         joined({chunks, option_reply(9, 4, listed), option_reply(9, 1), option_reply(9, 4, listed),
                 option_reply(9, 1), option_reply(9, 1), refusal(9, 0x80000006, "no such export")}),
         State::negotiating, "", 0, true},
        {"block status without structured replies",
         after_flags(option(10, contexts("lun0", {"base:allocation"}))),
         refusal(10, 0x80000003, "only with structured replies"), State::negotiating},
        {"structured replies with data, more queries than there are, and a query that is cut",
         after_flags(joined({option(8, Bytes(1)), want_chunks,
                             option(10, Writer().u32(4).text("lun0").u32(0xFFFFFFFF).u32(1).text("x")),
                             option(10, Writer().u32(4).text("lun0").u32(1).u32(9).text("base:"))})),
         joined({refusal(8, 0x80000003, "this option carries no data"), chunks,
                 refusal(10, 0x80000003, "malformed option"), refusal(10, 0x80000003, "malformed option")}),
         State::negotiating, "", 0, true},
    };
}

}  // namespace

TEST(NbdHandshake, Dialogues_are_the_same_in_whatever_pieces_bytes_arrive)
{
    for (const Dialogue& each : dialogues()) {
        SCOPED_TRACE(each.name);
        const Answer answer = dialogue(each.input, SIZE_MAX);
        const Bytes expected = Writer().add(greeting).add(each.output);
        EXPECT_EQ(answer.output, expected);
        EXPECT_EQ(answer.state, each.state);
        EXPECT_EQ(answer.chosen, each.chosen);
        EXPECT_EQ(answer.structured, each.structured);
        EXPECT_EQ(answer.block_status, each.block_status);
        EXPECT_EQ(answer.taken, each.input.size() - each.left_over);
        EXPECT_EQ(dialogue(each.input, 1, 1).output, expected);
        for (std::size_t split = 1; split < std::min<std::size_t>(each.input.size(), 200); ++split)
            ASSERT_EQ(dialogue(each.input, split).output, expected) << "split after byte " << split;
    }
}

TEST(NbdHandshake, Client_that_never_chooses_is_dropped_after_256_options)
{
    Writer input;
    input.add(fixed_no_zeroes);
    for (int i = 0; i < 256; ++i)
        input.add(option(99));
    EXPECT_EQ(dialogue(input, SIZE_MAX).state, NbdHandshake::State::negotiating);
    input.add(option(99));
    EXPECT_EQ(dialogue(input, SIZE_MAX).state, NbdHandshake::State::closed);
}

TEST(NbdHandshake, Random_changes_of_dialogues_end_within_the_bounds)
{
    const auto known = dialogues();
    for (unsigned seed = 1; seed <= seeds_of(3000); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        Bytes input = known[random() % known.size()].input;
        const Bytes& more = known[random() % known.size()].input;
        input.insert(input.end(), more.begin(), more.end());
        for (unsigned changes = random() % 8; changes--;)
            input[random() % std::min<std::size_t>(input.size(), 120)] = static_cast<std::uint8_t>(random());

        const Answer answer = dialogue(input, 1 + random() % 100, 1 + random() % 5000);
        ASSERT_LE(answer.taken, input.size());
        ASSERT_LE(answer.output.size(), 256 * 1024u);
        ASSERT_EQ(answer.state == NbdHandshake::State::transmission, !answer.chosen.empty());
    }
}
