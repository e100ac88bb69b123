// SPDX-License-Identifier: MIT
// What an overlay costs beside the raw file, for several sizes of its blocks. Prints a table: MB/s of writes
// of 4 KB at random places for the first time and again, of reads of both, and the room that the file takes
// then.
//
// usage: qrn-bench-overlay FOLDER
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>

#include <fmt/format.h>

#include "server/overlay_file.h"

using namespace server;

namespace {

constexpr std::uint64_t disk_bytes = 256 << 20;
constexpr std::size_t request_bytes = 4096;
constexpr unsigned requests = 16384;

// Partitions of old begin at sector 63, so that no cluster is at a multiple of 4 KB.
std::vector<std::uint64_t> places(bool aligned)
{
    std::mt19937 random(1);
    std::vector<std::uint64_t> all;
    for (unsigned i = 0; i < requests; ++i)
        all.push_back(random() % (disk_bytes / request_bytes - 1) * request_bytes +
                      (aligned ? 0 : 63 * 512 % 4096));
    return all;
}

template <typename Each>
double rate(const std::vector<std::uint64_t>& at, Each each)
{
    const auto begin = std::chrono::steady_clock::now();
    for (const std::uint64_t offset : at)
        if (!each(offset))
            throw std::runtime_error("the store failed");
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    return static_cast<double>(at.size()) * request_bytes / 1e6 / seconds.count();
}

void row(const std::string& name, BlockStore& store, const std::string& path, bool aligned)
{
    const auto at = places(aligned);
    std::vector<std::uint8_t> data(request_bytes, 0xA5), got(request_bytes);
    const auto write = [&](std::uint64_t offset) { return store.write(offset, data); };
    const auto read = [&](std::uint64_t offset) { return store.read(offset, got); };
    const double first = rate(at, write), again = rate(at, write), back = rate(at, read);
    struct stat status;
    stat(path.c_str(), &status);
    fmt::print("{:<22}{:<11}{:>10.0f}{:>10.0f}{:>10.0f}{:>10.1f}\n", name, aligned ? "aligned" : "sector 63",
               first, again, back, static_cast<double>(status.st_blocks) * 512 / 1e6);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return std::fputs("usage: qrn-bench-overlay FOLDER\n", stderr), 2;
    const std::string folder = argv[1], image = folder + "/image", file = folder + "/file";
    {
        std::ofstream stream(image, std::ios::binary);
        const std::vector<char> filler(1 << 20, 'x');
        for (std::uint64_t done = 0; done < disk_bytes; done += filler.size())
            stream.write(filler.data(), static_cast<std::streamsize>(filler.size()));
    }
    const std::shared_ptr<BlockStore> base = open_file_store(image, true);
    fmt::print("{:<22}{:<11}{:>10}{:>10}{:>10}{:>10}\n", "", "", "write", "rewrite", "read", "MB taken");
    for (const bool aligned : {true, false}) {
        unlink(file.c_str());
        std::ofstream(file).close();
        if (truncate(file.c_str(), disk_bytes) != 0)
            return std::perror(file.c_str()), 1;
        row("raw sparse file", *open_file_store(file, false), file, aligned);
        for (const std::uint32_t block_bytes : {512u, 4096u, 16384u, 65536u}) {
            create_overlay_file(file, {disk_bytes, block_bytes, "image@1"});
            row(fmt::format("overlay, {} B", block_bytes), *open_overlay_file(file, base, "image@1"), file,
                aligned);
        }
    }
    unlink(file.c_str());
    unlink(image.c_str());
}
