// SPDX-License-Identifier: MIT
// qrn-image on areas, and on disks with partitions, that anybody may have written.
//
// Input: a byte that says what the file is and what the commands are told, the changes of an area
// (image_input.h), then the partition table of a disk around it.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "fuzz/image_input.h"
#include "tools/area_file.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/verifier.h"

using namespace fuzz;
using namespace image_tool;

namespace {

constexpr const char* partitions[] = {"", ":system", ":temporary", ":1", ":2", ":3", ":4", ":system"};
constexpr std::size_t partition_start_sector = 8;

// A file without a name, found by its number.
class ScratchFile {
public:
    ScratchFile() : fd_(memfd_create("fuzz", 0)) { require(fd_ >= 0, "memfd_create"); }

    void set(std::span<const std::uint8_t> bytes)
    {
        require(ftruncate(fd_, 0) == 0 && pwrite(fd_, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size()),
                "the file takes its content");
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

Bytes file_content(bool disk, Input& input)
{
    fuzz::ImageArea area;
    area.change(input);
    if (!disk)
        return area.bytes;
    Bytes bytes(partition_start_sector * formats::sector_bytes);
    auto& table = *reinterpret_cast<formats::PartitionSector*>(bytes.data());
    table.Partition[0].Type = formats::partition_system_image;
    table.Partition[0].Start.set(partition_start_sector);
    table.Partition[0].Count.set(area_sectors);
    input.fill(table.Partition);
    bytes.insert(bytes.end(), area.bytes.begin(), area.bytes.end());
    return bytes;
}

// Its exit status, 2 when it threw what the program tells its user.
template <typename Command>
int run(Command command)
{
    try {
        return command();
    } catch (const ToolError&) {
        return 2;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static ScratchFile file;
    static std::FILE* const out = std::fopen("/dev/null", "w");
    static const std::string folder = [] {
        char name[] = "/dev/shm/qrn-fuzz-XXXXXX";
        return std::string(mkdtemp(name));
    }();
    static const int at_exit = std::atexit([] { rmdir(folder.c_str()); });
    static_cast<void>(at_exit);

    Input input(data, size);
    const unsigned how = input.u8();
    file.set(file_content((how & 7) != 0, input));
    Options options;
    options.area = file.path() + partitions[how & 7];
    options.file = file.path();
    options.to = folder + "/disk";
    options.lun = how >> 3 & 3;
    options.ascii = how & 0x20;
    options.all = how & 0x40;
    options.allow_absent = true;
    options.is_json = how & 0x80;
    options.in_use = InUse::allow;

    bool clean = false;
    std::uint64_t disk_bytes = 0;
    run([&] {
        const AreaFile area(options.area);
        formats::ImageHeader header{};
        area.read(0, header);
        disk_bytes = std::uint64_t{header.Size.get()} * formats::sector_bytes;
        clean = verify(area).fault_count() == 0;
        return 0;
    });
    const auto report_of = [&](int (*command)(const Options&, Report&)) {
        return run([&] {
            Report report(options.is_json, out);
            const int status = command(options, report);
            report.finish();
            return status;
        });
    };
    report_of(show_info);
    const int checked = report_of(check_area);
    require((checked == 0) == clean, "check says what the verifier found");
    const int shown = report_of(show_map);
    const int differs = report_of(compare_disks);
    const int extracted = report_of(extract_disk);
    const bool held =
        run([&] { return AreaDisk(options.area, options.lun, options.in_use).size_sectors() == 0; }) == 0;
    require(!clean || (shown == 0 && (!held || (extracted == 0 && differs != 2))),
            "what is clean can be shown, compared and extracted");
    struct stat result;
    const bool exists = stat(options.to.c_str(), &result) == 0;
    require(exists == (extracted == 0), "a disk is there when it was extracted, and only then");
    require(!exists || static_cast<std::uint64_t>(result.st_size) == disk_bytes,
            "what was extracted is as large as the disk");
    if (exists)
        unlink(options.to.c_str());
    return 0;
}
