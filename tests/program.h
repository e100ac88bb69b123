// SPDX-License-Identifier: MIT
// A program as others run it, for tests: its arguments, what it prints, its files and how it ends. It runs
// in a directory of its own, one at a time.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

#include "tests/scratch_folder.h"

class ProgramTest : public testing::Test {
protected:
    explicit ProgramTest(std::string program) : program_(std::move(program)) {}
    ~ProgramTest() override
    {
        if (process > 0)
            stop(SIGKILL);
    }

    // With its output and errors in the files "out" and "err". Arguments are for a shell.
    void start(const std::string& arguments)
    {
        std::filesystem::remove(folder / "out");
        const std::string line =
            "cd '" + folder / "" + "' && exec " + program_ + " " + arguments + " >out 2>err";
        process = fork();
        ASSERT_GE(process, 0);
        if (process == 0)
            _exit(execl("/bin/sh", "sh", "-c", line.c_str(), nullptr));
    }
    // The exit status, or a signal's number, negative.
    int wait_for_end()
    {
        int status = 0;
        waitpid(std::exchange(process, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int stop(int signal)
    {
        kill(process, signal);
        return wait_for_end();
    }
    int run(const std::string& arguments)
    {
        start(arguments);
        return wait_for_end();
    }
    // The first line of the output, once it is there.
    std::string ready_line() const
    {
        using namespace std::chrono_literals;
        for (int tries = 0; tries < 6000; ++tries, std::this_thread::sleep_for(5ms)) {
            const std::string text = content_of("out");
            if (const auto at = text.find('\n'); at != std::string::npos)
                return text.substr(0, at);
        }
        ADD_FAILURE() << "not ready: " << content_of("err");
        return {};
    }
    // It ends at once, says why in one line that names the reason, and prints nothing else.
    void expect_failure(const std::string& arguments, int status, const std::string& reason)
    {
        SCOPED_TRACE(arguments);
        EXPECT_EQ(run(arguments), status);
        const std::string errors = content_of("err");
        EXPECT_NE(errors.find(reason), std::string::npos) << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_EQ(content_of("out"), "");
    }
    std::string content_of(const std::string& name) const
    {
        std::ostringstream text;
        text << std::ifstream(folder / name, std::ios::binary).rdbuf();
        return text.str();
    }

    const ScratchFolder folder;
    pid_t process = 0;

private:
    const std::string program_;
};
