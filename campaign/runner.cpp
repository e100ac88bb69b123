// SPDX-License-Identifier: MIT
#include "campaign/runner.h"

#include <poll.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <list>
#include <sstream>
#include <vector>

#include <fmt/format.h>

#include "campaign/coverage.h"
#include "campaign/report.h"
#include "campaign/seed_process.h"

namespace campaign {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int poll_ms = 200;
constexpr double seconds_per_hour = 3600;
constexpr auto progress_period = std::chrono::seconds(5);

class Campaign {
public:
    Campaign(const Options& options, const char* program) : options_(options), program_(program) {}

    int run();

private:
    bool more() const;
    void start_processes();
    void wait_for_output();
    void ended(const SeedProcess& process);
    void take_lines(const std::string& log);
    void tell_failure(const SeedProcess& process);
    void tell_progress(bool last);
    int verdict() const;
    double elapsed_s() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

    const Options& options_;
    const char* program_;
    const Clock::time_point begin_ = Clock::now();
    Clock::time_point told_ = begin_;
    std::uint64_t started_ = 0, done_ = 0, failed_ = 0;
    std::uint64_t other_ = 0;  // failed in another way than expected
    double simulated_s_ = 0;
    Coverage coverage_;
    std::list<SeedProcess> running_;
};

bool expects_failure(const Options& options)
{
    return !options.expected_finding.empty();
}

// Whether the log of a failed seed tells of the fault that was planted.
bool as_expected(const std::string& log, std::string_view findings)
{
    const std::size_t told = log.find(failure_mark);
    if (told == std::string::npos)
        return false;
    const std::string_view line = std::string_view(log).substr(told, log.find('\n', told) - told);
    for (;;) {
        const std::size_t end = findings.find('|');
        if (line.find(findings.substr(0, end)) != std::string_view::npos)
            return true;
        if (end == std::string_view::npos)
            return false;
        findings.remove_prefix(end + 1);
    }
}

bool Campaign::more() const
{
    if (expects_failure(options_) && failed_ != 0)
        return false;
    return (!options_.seeds || started_ < *options_.seeds) &&
           (options_.minutes == 0 || elapsed_s() < options_.minutes * 60);
}

void Campaign::start_processes()
{
    while (running_.size() < options_.jobs && more())
        running_.emplace_back(options_.first_seed + started_++, options_);
}

void Campaign::wait_for_output()
{
    std::vector<pollfd> outputs;
    for (const SeedProcess& process : running_)
        outputs.push_back({process.output(), POLLIN, 0});
    poll(outputs.data(), outputs.size(), poll_ms);
    std::size_t index = 0;
    for (auto process = running_.begin(); process != running_.end();) {
        process->check_time();
        if (outputs[index++].revents == 0 || process->read()) {
            ++process;
            continue;
        }
        ended(*process);
        process = running_.erase(process);
    }
}

void Campaign::take_lines(const std::string& log)
{
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        constexpr std::string_view simulated = "simulated: ";
        if (!coverage_.parse(line) && line.starts_with(simulated)) {
            double seconds = 0;
            std::from_chars(line.data() + simulated.size(), line.data() + line.size(), seconds);
            simulated_s_ += seconds;
        }
    }
}

void Campaign::tell_failure(const SeedProcess& process)
{
    ++failed_;
    other_ += expects_failure(options_) && !as_expected(process.log(), options_.expected_finding);
    std::printf("%s%sseed %llu %s; again: %s --seeds 1 --first-seed %llu --seed-log%s\n",
                process.log().c_str(), process.log().ends_with('\n') ? "" : "\n",
                static_cast<unsigned long long>(process.seed()), process.verdict().c_str(), program_,
                static_cast<unsigned long long>(process.seed()), replay_arguments(options_).c_str());
}

void Campaign::ended(const SeedProcess& process)
{
    ++done_;
    take_lines(process.log());
    if (!process.passed())
        tell_failure(process);
    else if (options_.seed_log)
        std::printf("%s", process.log().c_str());
}

void Campaign::tell_progress(bool last)
{
    if (!last && Clock::now() - told_ < progress_period)
        return;
    told_ = Clock::now();
    std::printf("%llu seeds, %llu failed, %.1f seeds/s, %.2f simulated hours\n",
                static_cast<unsigned long long>(done_), static_cast<unsigned long long>(failed_),
                static_cast<double>(done_) / elapsed_s(), simulated_s_ / seconds_per_hour);
    std::fflush(stdout);
}

int Campaign::verdict() const
{
    if (other_ != 0)
        std::printf("%llu seeds failed in another way than \"%s\"\n", static_cast<unsigned long long>(other_),
                    options_.expected_finding.c_str());
    if (done_ < options_.seeds_least)
        std::printf("there was no time for %llu seeds\n",
                    static_cast<unsigned long long>(options_.seeds_least));
    if (coverage_.met() < options_.kinds_least)
        std::printf("only %u things of the list were met, not %u\n", coverage_.met(), options_.kinds_least);
    const bool enough = done_ >= options_.seeds_least && coverage_.met() >= options_.kinds_least;
    return enough && other_ == 0 && (failed_ != 0) == expects_failure(options_) ? 0 : 1;
}

int Campaign::run()
{
    for (start_processes(); !running_.empty(); start_processes()) {
        wait_for_output();
        tell_progress(false);
    }
    std::printf("%s", coverage_.report().c_str());
    tell_progress(true);
    return verdict();
}

}  // namespace

int run_campaign(const Options& options, const char* program)
{
    return Campaign(options, program).run();
}

}  // namespace campaign
