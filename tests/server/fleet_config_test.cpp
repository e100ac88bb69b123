// SPDX-License-Identifier: MIT
// Configuration files, good and bad: a bad one gets its line and what is expected there.
#include <gtest/gtest.h>

#include <fstream>

#include "server/fleet_config.h"
#include "tests/scratch_folder.h"

using namespace server;

namespace {

const std::string good = R"([server]
listen = "0.0.0.0:8520"
advertise = "10.0.0.2"
state = "/var/lib/qrndisk"
allow = ["10.0.0.0/24", "10.1.2.3"]
[images.windows]
path = "windows.img"
[images.data]
path = "nbd+unix:///data?socket=/run/data.sock"
[groups.room]
disks = [
  { image = "windows", at_boot = "keep", sync = "interval", slots = 8 },
  { image = "data", mode = "exclusive", mirror = "10.0.0.3:8520", id = "51521002" },
]
[workstations.pc-1]
hardware = "52:54:00:12:34:56"
group = "room"
[workstations.pc-2]
hardware = "52-54-00-12-34-57"
disks = [{ image = "data", mode = "readonly" }]
[unknown]
policy = "group"
group = "room"
)";

std::string fault_of(const std::string& text)
{
    try {
        parse_fleet_config(text, "s.toml");
    } catch (const ConfigError& error) {
        return error.what();
    }
    return "";
}

std::string with(const std::string& from, const std::string& to)
{
    std::string text = good;
    const auto at = text.find(from);
    EXPECT_NE(at, text.npos) << from;
    return text.replace(at, from.size(), to);
}

TEST(Fleet_config, Says_what_every_workstation_gets)
{
    const FleetConfig config = parse_fleet_config(good, "s.toml");
    EXPECT_EQ(to_text(config.listen), "0.0.0.0:8520");
    ASSERT_EQ(config.allow.size(), 2u);
    const std::uint8_t inside[4] = {10, 0, 0, 77}, outside[4] = {10, 0, 1, 1}, single[4] = {10, 1, 2, 3};
    EXPECT_TRUE(config.allow[0].contains(inside));
    EXPECT_FALSE(config.allow[0].contains(outside));
    EXPECT_TRUE(config.allow[1].contains(single));
    ASSERT_EQ(config.workstations.size(), 2u);
    EXPECT_EQ(to_text(config.workstations[1].hardware), "52:54:00:12:34:57");
    EXPECT_EQ(config.workstations[1].disks[0].mode, DiskMode::readonly);
    const auto& disks = config.group("room")->disks;
    ASSERT_EQ(disks.size(), 2u);
    EXPECT_TRUE(disks[0].keep);
    EXPECT_EQ(disks[0].sync, SyncMode::interval);
    EXPECT_EQ(disks[0].slots, 8u);
    EXPECT_EQ(disks[0].retry_mins, 0u);
    EXPECT_EQ(disks[1].retry_mins, 1u);
    EXPECT_EQ(disks[1].id, 0x51521002u);
    EXPECT_EQ(config.unknown, UnknownPolicy::serve);
}

TEST(Fleet_config, Faults_are_told_with_line_and_expectation)
{
    const struct {
        std::string text, told;
    } cases[] = {
        {"", "s.toml:1: [server] is missing"},
        {"[server]\nlisten = \"x\n", "s.toml:2: "},
        {with("listen = \"0.0.0.0:8520\"", "listen = \"0.0.0.0\""),
         "s.toml:2: 'listen' must be \"ADDR:PORT\""},
        {with("listen = \"0.0.0.0:8520\"", "listen = 8520"), "s.toml:2: 'listen' must be a text"},
        {with("advertise = \"10.0.0.2\"", ""), "s.toml:1: 'advertise' is missing"},
        {with("state = \"/var/lib/qrndisk\"", ""), "s.toml:1: 'state' is missing"},
        {with("\"10.1.2.3\"", "\"10.1.2.3/33\""), "s.toml:5: a network is expected"},
        {with("allow = [\"10.0.0.0/24\", \"10.1.2.3\"]", "allow = []"), "s.toml:5: 'allow' must be a list"},
        {with("path = \"windows.img\"", "pfad = \"windows.img\""),
         "s.toml:7: 'pfad' is unknown in [images.windows]; expected: path, area"},
        {with("slots = 8", "slots = 9"), "s.toml:12: 'slots' must be a number from 1 to 8"},
        {with("policy = \"group\"",
              "policy = \"group\"\n[groups.last]\nlimit_mb_s = 2\ndisks = [{ image = \"data\", slots = 8 "
              "}, { image = \"data\", slots = 8 }]"),
         "'limit_mb_s' must be at least 3 for these disks"},
        {with("slots = 8", "slots = \"8\""), "s.toml:12: 'slots' must be a number"},
        {with("\"keep\"", "\"kept\""), "s.toml:12: 'at_boot' is \"kept\"; expected: \"discard\", \"keep\""},
        {with("\"exclusive\"", "\"readonly\""), "s.toml:13: 'mirror' is for mode"},
        {with("\"51521002\"", "\"5152100\""), "s.toml:13: 'id' must be eight"},
        {with("image = \"windows\"", "image = \"linux\""), "s.toml:12: there is no [images.linux]"},
        {with("{ image = \"data\", mode = \"readonly\" }", "{ image = \"data\", delay_load = true }"),
         "s.toml:20: 'delay_load' is for"},
        {with("hardware = \"52:54:00:12:34:56\"", "hardware = \"52:54:00:12:34\""),
         "s.toml:16: 'hardware' must be"},
        {with("52-54-00-12-34-57", "52-54-00-12-34-56"), "has the hardware address of 'pc-1'"},
        {with("group = \"room\"\n[workstations.pc-2]", "group = \"hall\"\n[workstations.pc-2]"),
         "s.toml:17: there is no [groups.hall]"},
        {with("group = \"room\"\n[workstations.pc-2]", "[workstations.pc-2]"),
         "s.toml:15: either 'group' or 'disks'"},
        {with("[workstations.pc-2]", "[workstations.\"../pc\"]"), "s.toml:18: '../pc' is no name"},
        {with("policy = \"group\"\ngroup = \"room\"", "policy = \"group\""), "s.toml:21: 'group' is missing"},
    };
    for (const auto& [text, told] : cases) {
        const std::string fault = fault_of(text);
        EXPECT_NE(fault.find(told), fault.npos) << "expected: " << told << "\ntold: " << fault;
    }
}

TEST(Fleet_config, Images_that_are_no_raw_disks_are_refused_with_the_command_that_serves_them)
{
    const ScratchFolder folder;
    const std::string path = folder / "windows.img";
    std::string text = with("windows.img", path);
    const FleetConfig config = parse_fleet_config(text, "s.toml");
    const auto told = [&](std::size_t offset, const std::string& mark) -> std::string {
        std::ofstream(path).close();
        std::filesystem::resize_file(path, 1 << 16);
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file << mark;
        file.close();
        try {
            check_fleet_images(config, "s.toml");
        } catch (const ConfigError& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(told(510, "\x55\xAA"), "");
    const struct {
        std::size_t offset;
        std::string mark, driver;
    } formats[] = {{0, "QFI\xfb", "qcow2"}, {0, "KDMV", "vmdk"},
                   {0, "conectix", "vpc"},  {65536 - 512, "conectix", "vpc"},
                   {0, "vhdxfile", "vhdx"}, {64, "\x7f\x10\xda\xbe", "vdi"}};
    for (const auto& [offset, mark, driver] : formats) {
        const std::string fault = told(offset, mark);
        EXPECT_EQ(fault.find("s.toml:6: " + path), 0u) << fault;
        EXPECT_NE(fault.find("qemu-storage-daemon --blockdev driver=" + driver + ","), fault.npos) << fault;
    }
    std::filesystem::remove(path);
    EXPECT_THROW(check_fleet_images(config, "s.toml"), ConfigError);
}

}  // namespace
