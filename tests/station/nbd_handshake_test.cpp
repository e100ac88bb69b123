#include "station/nbd_handshake.h"

#include <gtest/gtest.h>

#include <random>

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
const Bytes size_and_flags = Writer().u64(disk_bytes).u16(1 + 4 + 256);
const Bytes block_sizes = Writer().u16(3).u32(512).u32(4096).u32(32 << 20);

struct Answer {
    NbdHandshake::State state;
    std::string chosen;
    std::size_t taken;
    Bytes output;
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
    return answer;
}

struct Dialogue {
    const char* name;
    Bytes input;
    Bytes output;  // after the greeting
    NbdHandshake::State state;
    const char* chosen = "";
    std::size_t left_over = 0;  // bytes behind the handshake's end
};

std::vector<Dialogue> dialogues()
{
    using State = NbdHandshake::State;
    const auto text_reply = [](std::uint32_t option, std::uint32_t type, const std::string& text) {
        return option_reply(option, type, Writer().text(text));
    };
    const Bytes info = Writer().u16(0).add(size_and_flags);
    return {
        {"EXPORT_NAME", Writer().add(fixed_no_zeroes).add(option(1, Writer().text("lun0"))), size_and_flags,
         State::transmission, "lun0"},
        {"EXPORT_NAME with zeroes", Writer().u32(1).add(option(1, Writer().text("lun0"))),
         Writer().add(size_and_flags).zeroes(124), State::transmission, "lun0"},
        {"EXPORT_NAME of a client of the old newstyle, default export", Writer().u32(0).add(option(1)),
         Writer().add(size_and_flags).zeroes(124), State::transmission, "lun0"},
        {"EXPORT_NAME of nothing there",
         Writer().add(fixed_no_zeroes).add(option(1, Writer().text("lun7"))),
         {},
         State::closed},
        {"EXPORT_NAME of a disk without medium",
         Writer().add(fixed_no_zeroes).add(option(1, Writer().text("lun2"))),
         {},
         State::closed},
        {"requests right behind the handshake stay untouched",
         Writer().add(fixed_no_zeroes).add(option(1, Writer().text("lun0"))).add(request(0, 1, 0, 512)),
         size_and_flags, State::transmission, "lun0", 28},
        {"GO", Writer().add(fixed_no_zeroes).add(option(7, choice("lun0"))),
         Writer().add(option_reply(7, 3, info)).add(option_reply(7, 3, block_sizes)).add(option_reply(7, 1)),
         State::transmission, "lun0"},
        {"GO of the default export with all wishes, one unknown",
         Writer().add(fixed_no_zeroes).add(option(7, choice("", {1, 2, 3, 99}))),
         Writer()
             .add(option_reply(7, 3, info))
             .add(option_reply(7, 3, Writer().u16(1).text("lun0")))
             .add(option_reply(7, 3, Writer().u16(2).text("QRN.Disk one")))
             .add(option_reply(7, 3, block_sizes))
             .add(option_reply(7, 1)),
         State::transmission, "lun0"},
        {"INFO, then GO of another",
         Writer().add(fixed_no_zeroes).add(option(6, choice("lun0"))).add(option(7, choice("lun1"))),
         Writer()
             .add(option_reply(6, 3, info))
             .add(option_reply(6, 3, block_sizes))
             .add(option_reply(6, 1))
             .add(option_reply(7, 3, Writer().u16(0).u64(2 * disk_bytes).u16(261)))
             .add(option_reply(7, 3, block_sizes))
             .add(option_reply(7, 1)),
         State::transmission, "lun1"},
        {"GO of nothing there leaves the dialogue open",
         Writer().add(fixed_no_zeroes).add(option(7, choice("disk"))),
         text_reply(7, 0x80000006, "no such export"), State::negotiating},
        {"GO of a disk without medium", Writer().add(fixed_no_zeroes).add(option(7, choice("lun2"))),
         text_reply(7, 0x80000006, "no medium in lun2"), State::negotiating},
        {"GO whose name is longer than its data",
         Writer().add(fixed_no_zeroes).add(option(7, Writer().u32(5).text("lun0"))),
         text_reply(7, 0x80000003, "malformed option"), State::negotiating},
        {"GO with fewer wishes than announced",
         Writer().add(fixed_no_zeroes).add(option(7, Writer().u32(4).text("lun0").u16(2).u16(3))),
         text_reply(7, 0x80000003, "malformed option"), State::negotiating},
        {"GO with bytes behind",
         Writer().add(fixed_no_zeroes).add(option(7, Writer().add(choice("lun0")).u16(0))),
         text_reply(7, 0x80000003, "malformed option"), State::negotiating},
        {"GO without data", Writer().add(fixed_no_zeroes).add(option(7)),
         text_reply(7, 0x80000003, "malformed option"), State::negotiating},
        {"GO with a name beyond the protocol's limit",
         Writer().add(fixed_no_zeroes).add(option(7, choice(std::string(4097, 'x')))),
         text_reply(7, 0x80000009, "export name too long"), State::negotiating},
        {"LIST, then ABORT", Writer().add(fixed_no_zeroes).add(option(3)).add(option(2)),
         Writer()
             .add(option_reply(3, 2, Writer().u32(4).text("lun0")))
             .add(option_reply(3, 2, Writer().u32(4).text("lun1")))
             .add(option_reply(3, 2, Writer().u32(4).text("lun2")))
             .add(option_reply(3, 1))
             .add(option_reply(2, 1)),
         State::closed},
        {"LIST with data", Writer().add(fixed_no_zeroes).add(option(3, Writer().u32(0))),
         text_reply(3, 0x80000003, "this option carries no data"), State::negotiating},
        {"STARTTLS and an option nobody knows",
         Writer().add(fixed_no_zeroes).add(option(5)).add(option(4711, Writer().text("data"))),
         Writer().add(option_reply(5, 0x80000001)).add(option_reply(4711, 0x80000001)), State::negotiating},
        {"the largest option that is read", Writer().add(fixed_no_zeroes).add(option(99, Bytes(64 << 10))),
         option_reply(99, 0x80000001), State::negotiating},
        {"an option beyond the limit",
         Writer().add(fixed_no_zeroes).text("IHAVEOPT").u32(99).u32((64 << 10) + 1).zeroes(10),
         {},
         State::closed,
         "",
         10},
        {"wrong option magic",
         Writer().add(fixed_no_zeroes).text("IHAVEOPS").u32(7).u32(0),
         {},
         State::closed},
        {"unknown client flags", Writer().u32(4).add(option(3)), {}, State::closed, "", 16},
        {"a client of the old newstyle that sends other options",
         Writer().u32(0).add(option(3)),
         {},
         State::closed},
    };
}

}  // namespace

TEST(NbdHandshake, Dialogues_byte_by_byte)
{
    for (const Dialogue& each : dialogues()) {
        SCOPED_TRACE(each.name);
        const Answer answer = dialogue(each.input, SIZE_MAX);
        EXPECT_EQ(answer.output, Bytes(Writer().add(greeting).add(each.output)));
        EXPECT_EQ(answer.state, each.state);
        EXPECT_EQ(answer.chosen, each.chosen);
        EXPECT_EQ(answer.taken, each.input.size() - each.left_over);
    }
}

TEST(NbdHandshake, Pieces_in_which_bytes_arrive_make_no_difference)
{
    for (const Dialogue& each : dialogues()) {
        SCOPED_TRACE(each.name);
        const Bytes expected = Writer().add(greeting).add(each.output);
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
    for (unsigned seed = 1; seed <= 3000; ++seed) {
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
