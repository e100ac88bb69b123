// SPDX-License-Identifier: MIT
#include "programs/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <system_error>

namespace programs {

namespace {

[[noreturn]] void fail(int error, const std::string& path)
{
    throw std::system_error(error, std::generic_category(), path);
}

void write_file(const std::string& path, int flags, std::span<const char> content)
{
    const int file = open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | flags, 0644);
    if (file < 0)
        fail(errno, path);
    errno = ENOSPC;  // the reason for a part only
    int error =
        write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()) ? 0 : errno;
    if (close(file) != 0 && error == 0)
        error = errno;
    if (error != 0)
        fail(error, path);
}

// Where the links lead; the path itself while nothing is there.
std::string target_of(const std::string& path)
{
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
    return real ? real.get() : path;
}

}  // namespace

void replace_file(const std::string& path, std::span<const char> content)
{
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        return write_file(path, 0, content);
    const std::string target = target_of(path);
    const std::string fresh = target + ".new";
    write_file(fresh, O_CREAT | O_TRUNC, content);
    if (std::rename(fresh.c_str(), target.c_str()) != 0)
        fail(errno, path);
}

}  // namespace programs
