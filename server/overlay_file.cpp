// SPDX-License-Identifier: MIT
#include "server/overlay_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace server {

namespace {

constexpr std::size_t copy_bytes = 1 << 20;
constexpr std::size_t hole_unit_bytes = 65536;

[[noreturn]] void fail(const std::string& path)
{
    throw std::system_error(errno, std::generic_category(), path);
}

// A file under another name until it is whole; gone unless keep() was called.
class FreshFile {
public:
    FreshFile(const std::string& path, std::uint64_t size_bytes) : path_(path), fresh_(path + ".new")
    {
        unlink(fresh_.c_str());
        const int file = open(fresh_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (file < 0)
            fail(fresh_);
        const bool sized = ftruncate(file, static_cast<off_t>(size_bytes)) == 0;
        close(file);
        if (!sized) {
            const int error = errno;
            unlink(fresh_.c_str());
            errno = error;
            fail(fresh_);
        }
    }
    ~FreshFile()
    {
        if (!kept_)
            unlink(fresh_.c_str());
    }
    FreshFile(const FreshFile&) = delete;
    FreshFile& operator=(const FreshFile&) = delete;

    const std::string& name() const { return fresh_; }
    void keep()
    {
        if (rename(fresh_.c_str(), path_.c_str()) != 0)
            fail(path_);
        kept_ = true;
        const std::size_t slash = path_.rfind('/');
        const std::string folder = slash == path_.npos ? "." : path_.substr(0, slash + 1);
        const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (directory < 0)
            fail(folder);
        const bool synced = fsync(directory) == 0 || errno == EINVAL;
        close(directory);
        if (!synced)
            fail(folder);
    }

private:
    std::string path_, fresh_;
    bool kept_ = false;
};

bool all_zeros(std::span<const std::uint8_t> data)
{
    return data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0;
}

}  // namespace

Session this_session()
{
    Session session{};
    std::string text;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> text;
    std::erase(text, '-');
    if (text.size() != 2 * session.size())
        throw std::runtime_error("/proc/sys/kernel/random/boot_id: cannot be read");
    for (std::size_t i = 0; i < session.size(); ++i)
        session[i] = static_cast<std::uint8_t>(std::stoul(text.substr(2 * i, 2), nullptr, 16));
    return session;
}

void create_overlay_file(const std::string& path, const OverlayShape& shape)
{
    FreshFile fresh(path, shape.file_bytes());
    {
        const auto file = open_sparse_file(fresh.name(), false);
        if (!format_overlay(*file, shape))
            fail(fresh.name());
    }
    fresh.keep();
}

std::unique_ptr<OverlayStore> open_overlay_file(const std::string& path, std::shared_ptr<BlockStore> base,
                                                const std::string& base_name)
{
    auto file = open_sparse_file(path, false);
    try {
        return std::make_unique<OverlayStore>(std::move(base), std::move(file), this_session(), base_name);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

OverlayReport check_overlay_file(const std::string& path)
{
    return check_overlay(*open_sparse_file(path, true), this_session());
}

void save_file(const std::string& path, std::string_view text)
{
    FreshFile fresh(path, 0);
    const int file = open(fresh.name().c_str(), O_WRONLY | O_CLOEXEC);
    if (file < 0)
        fail(fresh.name());
    errno = ENOSPC;  // the reason for a part only
    const bool good =
        write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(file) == 0;
    const int error = errno;
    close(file);
    errno = error;
    if (!good)
        fail(path);
    fresh.keep();
}

void copy_disk(BlockStore& disk, const std::string& path)
{
    FreshFile fresh(path, disk.size_bytes());
    {
        const auto file = open_sparse_file(fresh.name(), false);
        std::vector<std::uint8_t> buffer(copy_bytes);
        for (std::uint64_t at = 0; at < disk.size_bytes(); at += copy_bytes) {
            const std::uint64_t bytes = std::min<std::uint64_t>(copy_bytes, disk.size_bytes() - at);
            if (disk.hole(at, bytes))
                continue;
            auto rest = std::span(buffer).first(static_cast<std::size_t>(bytes));
            if (!disk.read(at, rest))
                fail(path);
            for (std::uint64_t offset = at; !rest.empty(); offset += hole_unit_bytes) {
                const auto unit = rest.first(std::min(rest.size(), hole_unit_bytes));
                rest = rest.subspan(unit.size());
                if (!all_zeros(unit) && !file->write(offset, unit))
                    fail(path);
            }
        }
        if (!file->flush())
            fail(path);
    }
    fresh.keep();
}

}  // namespace server
