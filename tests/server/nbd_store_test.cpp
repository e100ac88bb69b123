// SPDX-License-Identifier: MIT
// A store behind an NBD server that others wrote, of which the connection does what it likes.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "server/nbd_store.h"
#include "tests/scratch_folder.h"

namespace {

using namespace std::chrono_literals;

// Serves each connection with an nbdkit of its own, on a disk of which every sector has its number in each
// byte.
class Exporter {
public:
    explicit Exporter(const ScratchFolder& folder) : path_(folder / "socket"), disk_(folder / "disk")
    {
        std::ofstream disk(disk_, std::ios::binary);
        for (int sector = 0; sector < 128; ++sector)
            disk << std::string(512, static_cast<char>(sector));
        disk.close();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        listening_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(listening_, 8) != 0)
            throw std::runtime_error("no socket");
        thread_ = std::thread([this] { serve(); });
    }
    ~Exporter()
    {
        shutdown(listening_, SHUT_RDWR);
        thread_.join();
        close(listening_);
        all(SIGKILL);
        for (const pid_t process : stopped_) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
    }
    std::string uri() const { return "nbd+unix:///?socket=" + path_; }
    // Returns when none of them runs any more.
    void all(int signal)
    {
        std::lock_guard guard(lock_);
        for (const pid_t process : running_) {
            kill(process, signal);
            waitpid(process, nullptr, WUNTRACED);
            if (signal == SIGSTOP)
                stopped_.push_back(process);
        }
        running_.clear();
    }
    unsigned connections()
    {
        std::lock_guard guard(lock_);
        return connections_;
    }

private:
    void serve()
    {
        for (int client; (client = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(client)) {
            std::lock_guard guard(lock_);
            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init(&actions);
            posix_spawn_file_actions_adddup2(&actions, client, 0);
            posix_spawn_file_actions_adddup2(&actions, client, 1);
            std::string words[] = {"nbdkit", "-s", "file", disk_};
            char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                                       nullptr};
            pid_t process = -1;
            if (posix_spawnp(&process, "nbdkit", &actions, nullptr, arguments, environ) != 0)
                ADD_FAILURE() << "nbdkit does not start";
            else
                running_.push_back(process);
            posix_spawn_file_actions_destroy(&actions);
            ++connections_;
        }
    }

    const std::string path_, disk_;
    int listening_ = -1;
    std::mutex lock_;
    std::vector<pid_t> running_, stopped_;
    unsigned connections_ = 0;
    std::thread thread_;
};

TEST(Nbd_store, Goes_on_over_another_connection_when_one_ends_or_falls_silent)
{
    const ScratchFolder folder;
    Exporter exporter(folder);
    const auto store = server::open_nbd_store(exporter.uri(), false, {2000ms, 150ms});
    ASSERT_EQ(store->size_bytes(), 128u * 512);
    std::vector<std::uint8_t> data(512, 0xA5), got(512);
    ASSERT_TRUE(store->write(512, data));
    ASSERT_TRUE(store->flush());
    for (const int signal : {SIGKILL, SIGSTOP}) {
        constexpr unsigned used = 4;
        for (unsigned i = 0; i < used; ++i)
            ASSERT_TRUE(store->read(512, got));
        const unsigned before = exporter.connections();
        exporter.all(signal);
        for (unsigned i = 0; i < used; ++i) {
            std::ranges::fill(got, 0);
            ASSERT_TRUE(store->read(512, got));
            EXPECT_EQ(got, data);
        }
        EXPECT_GE(exporter.connections(), before + used);
        std::vector<std::vector<std::uint8_t>> many(8, std::vector<std::uint8_t>(1024));
        std::vector<server::ReadAhead> reads;
        for (unsigned i = 0; i < many.size(); ++i)
            reads.push_back({(10 + 3 * i) * 512, many[i]});
        exporter.all(signal);
        store->read_ahead(reads);
        for (unsigned i = 0; i < many.size(); ++i) {
            EXPECT_TRUE(reads[i].done);
            EXPECT_EQ(many[i][0], 10 + 3 * i);
            EXPECT_EQ(many[i][1023], 11 + 3 * i);
        }
    }
}

TEST(Nbd_store, Is_refused_soon_when_nobody_answers)
{
    const ScratchFolder folder;
    EXPECT_THROW(server::open_nbd_store("nbd+unix:///?socket=" + (folder / "none"), true),
                 std::runtime_error);
    const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (folder / "silent").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(silent, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent, 8), 0);
    try {
        server::open_nbd_store("nbd+unix:///?socket=" + (folder / "silent"), true, {200ms, 200ms});
        FAIL() << "it is no NBD server";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("does not answer"), std::string::npos) << error.what();
    }
    close(silent);
}

}  // namespace
