// SPDX-License-Identifier: MIT
#include "campaign/seed_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "campaign/report.h"
#include "campaign/seed_run.h"

namespace campaign {
namespace {

[[noreturn]] void run_child(std::uint64_t seed, const Options& options, int output)
{
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    try {
        run_seed(seed, options);
    } catch (const std::exception& error) {
        fail(error.what());
    }
    _exit(0);
}

}  // namespace

SeedProcess::SeedProcess(std::uint64_t seed, const Options& options)
    : seed_(seed), limit_(std::chrono::steady_clock::now() + std::chrono::seconds(options.seed_timeout_s))
{
    int ends[2];
    if (pipe(ends) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    std::fflush(stdout);
    process_ = fork();
    if (process_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (process_ == 0) {
        close(ends[0]);
        run_child(seed, options, ends[1]);
    }
    close(ends[1]);
    output_ = ends[0];
}

SeedProcess::~SeedProcess()
{
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    close(output_);
}

bool SeedProcess::read()
{
    char buffer[65536];
    const ssize_t bytes = ::read(output_, buffer, sizeof buffer);
    if (bytes > 0) {
        log_.append(buffer, static_cast<std::size_t>(bytes));
        return true;
    }
    reap();
    return false;
}

void SeedProcess::check_time()
{
    if (!timed_out_ && std::chrono::steady_clock::now() > limit_) {
        timed_out_ = true;
        kill(process_, SIGKILL);
    }
}

void SeedProcess::reap()
{
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    if (timed_out_)
        verdict_ = "it hangs";
    else if (WIFSIGNALED(status))
        verdict_ = std::string("it ended by the signal ") + strsignal(WTERMSIG(status));
    else if (WEXITSTATUS(status) != 0)
        verdict_ = "failed";
}

}  // namespace campaign
