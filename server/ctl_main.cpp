// SPDX-License-Identifier: MIT
// qrn-ctl: an administrator's commands to a running server, and the check of an overlay's file.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

#include "programs/replace_file.h"
#include "programs/version.h"
#include "server/overlay_file.h"

namespace {

using Json = nlohmann::ordered_json;

struct Request {
    Json command = Json::object();
    std::string name, hardware, group, file, address, socket = "/run/qrndisk/control";
    unsigned lun = 0;
    bool force = false, off = false, json = false;
};

std::string ask(const std::string& path, const std::string& line)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": is too long for a socket's path");
    std::memcpy(address.sun_path, path.data(), path.size());
    const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (server < 0 || connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    const std::string sent = line + "\n";
    if (send(server, sent.data(), sent.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(sent.size()))
        throw std::system_error(errno, std::generic_category(), path);
    std::string answer;
    char buffer[65536];
    while (answer.empty() || answer.back() != '\n') {
        const ssize_t count = recv(server, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            throw std::runtime_error(path + ": the server hung up");
        answer.append(buffer, static_cast<std::size_t>(count));
    }
    close(server);
    return answer;
}

std::string size_text(const Json& bytes)
{
    return bytes.is_number() ? fmt::format("{:.1f} MB", bytes.get<double>() / 1e6) : std::string("-");
}

void print_workstation(const Json& one, bool whole)
{
    const Json& seen = one["last_seen_s"];
    fmt::print("{:<20} {:<17} {:<15} {:<18} {}\n", one["name"].get<std::string>(),
               one["hardware"].get<std::string>(), one["address"].get<std::string>(),
               one["state"].get<std::string>(),
               seen.is_number() ? fmt::format("{:.0f} s ago", seen.get<double>()) : "");
    if (const auto trouble = one["trouble"].get<std::string>(); !trouble.empty())
        fmt::print("    {}\n", trouble);
    for (const Json& disk : one["disks"]) {
        if (!whole)
            break;
        fmt::print("    LUN {} {} {}, {}: read {}, written {}, {} errors{}{}\n", disk["lun"].get<unsigned>(),
                   disk["image"].get<std::string>(), disk["mode"].get<std::string>(),
                   size_text(disk["size_bytes"]), size_text(disk["read_bytes"]),
                   size_text(disk["written_bytes"]), disk["store_errors"].get<std::uint64_t>(),
                   disk.contains("room_bytes") ? ", overlay " + size_text(disk["room_bytes"]) : "",
                   disk["last_error"].get<std::string>().empty()
                       ? ""
                       : "; " + disk["last_error"].get<std::string>());
    }
}

void print_list(const Json& all)
{
    const Json& server = all["server"];
    fmt::print("{}: {} boots, {} refused{}\n\n", server["address"].get<std::string>(),
               server["boots"].get<std::uint64_t>(), server["boots_refused"].get<std::uint64_t>(),
               server["draining"].get<bool>() ? ", draining" : "");
    for (const Json& one : all["workstations"])
        print_workstation(one, false);
    fmt::print("\n");
    for (const Json& image : all["images"])
        for (const Json& version : image["versions"])
            fmt::print("{:<20} {} {}, used by {}\n",
                       fmt::format("{}@{}{}", image["name"].get<std::string>(),
                                   version["version"].get<unsigned>(),
                                   version["version"] == image["current"] ? " current" : ""),
                       version["path"].get<std::string>(), size_text(version["size_bytes"]),
                       version["users"].size());
}

int check_overlay(const Request& request)
{
    const server::OverlayReport report = server::check_overlay_file(request.file);
    const Json all = {{"base", report.shape.base},
                      {"disk_bytes", report.shape.disk_bytes},
                      {"block_bytes", report.shape.block_bytes},
                      {"blocks_flushed", report.blocks_flushed},
                      {"blocks_live", report.live_counts ? Json(report.blocks_live) : Json()},
                      {"faults", report.faults}};
    if (request.json) {
        fmt::print("{}\n", all.dump(1, ' ', false, Json::error_handler_t::replace));
    } else {
        for (const std::string& fault : report.faults)
            fmt::print("{}: {}\n", request.file, fault);
        if (report.faults.empty())
            fmt::print("{}: good, of {}: {} blocks of {} bytes, {} of them flushed\n", request.file,
                       report.shape.base, report.live_counts ? report.blocks_live : report.blocks_flushed,
                       report.shape.block_bytes, report.blocks_flushed);
    }
    return report.faults.empty() ? 0 : 1;
}

int run(const std::string& command, Request& request)
{
    if (command == "check-overlay")
        return check_overlay(request);
    Json line = {{"command", command}};
    for (const auto& [key, value] : {std::pair("name", request.name),
                                     {"hardware", request.hardware},
                                     {"group", request.group},
                                     {"address", request.address}})
        if (!value.empty())
            line[key] = value;
    line["lun"] = request.lun;
    line["force"] = request.force;
    line["off"] = request.off;
    const Json answer = Json::parse(ask(request.socket, line.dump()));
    if (answer.contains("error"))
        throw std::runtime_error(answer["error"].get<std::string>());
    if (command == "boot-block") {
        const auto hex = answer["block"].get<std::string>();
        std::string block;
        for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
            block += static_cast<char>(std::stoul(hex.substr(i, 2), nullptr, 16));
        programs::replace_file(request.file, block);
    }
    if (request.json) {
        fmt::print("{}\n", answer.dump(1));
    } else if (command == "list") {
        print_list(answer);
    } else if (command == "show") {
        print_workstation(answer, true);
    } else {
        fmt::print("{}\n", answer["done"].get<std::string>());
        for (const char* more : {"unchanged", "later"})
            if (answer.contains(more))
                for (const Json& one : answer[more])
                    fmt::print("  {}\n", one.get<std::string>());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app("Asks and commands a running qrn-server.", "qrn-ctl");
    app.set_version_flag("--version", programs::version_line("qrn-ctl"), "Print the version");
    app.require_subcommand(1);
    app.fallthrough();
    Request request;
    app.add_option("--socket", request.socket, "the server's control socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_flag("--json", request.json, "answer in JSON");
    const auto command = [&](const char* name, const char* what) { return app.add_subcommand(name, what); };
    const auto with_name = [&](CLI::App* sub, const char* what) {
        sub->add_option("NAME", request.name, what)->required();
        return sub;
    };
    const auto with_force = [&](CLI::App* sub) {
        sub->add_flag("--force", request.force, "although it is running");
        return sub;
    };
    command("list", "all workstations and images");
    with_name(command("show", "one workstation and its disks"), "the workstation, or its hardware address");
    CLI::App* const add = command("add", "let a workstation in: a new one, or one that waits");
    add->add_option("HARDWARE", request.hardware, "like 52:54:00:12:34:56")->required();
    with_name(add, "the name that it gets");
    add->add_option("GROUP", request.group, "whose disks it gets")->required();
    with_force(with_name(command("remove", "forget a workstation, or a version of an image"),
                         "PC, or IMAGE@VERSION"));
    with_force(with_name(command("reset", "throw away what a workstation wrote"), "the workstation"));
    for (const auto& [name, what] :
         {std::pair("commit", "make what a workstation sees the image of later boots"),
          {"snapshot", "make what a workstation sees a version of the image"}}) {
        CLI::App* const sub = with_force(with_name(command(name, what), "the workstation"));
        sub->add_option("--lun", request.lun, "which of its disks")->check(CLI::Range(0u, 3u));
    }
    with_name(command("rollback", "make another version the image of later boots"),
              "IMAGE, or IMAGE@VERSION");
    command("reload", "read the configuration file again");
    command("flush", "write everything back");
    command("drain", "let no workstation boot any more")
        ->add_flag("--off", request.off, "let them boot again");
    CLI::App* const block =
        with_name(command("boot-block", "boot a workstation from a file"), "the workstation");
    block->add_option("FILE", request.file, "where its boot parameter block goes")->required();
    block->add_option("--address", request.address, "where it will speak from (127.0.0.1)");
    command("check-overlay", "check an overlay's file; no server is asked")
        ->add_option("FILE", request.file, "the overlay")
        ->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << '\n';
        return 0;
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help("", CLI::AppFormatMode::All) << '\n';
        return 0;
    } catch (const CLI::ParseError& error) {
        fmt::print(stderr, "qrn-ctl: {}\n", error.what());
        return 2;
    }
    try {
        return run(app.get_subcommands().front()->get_name(), request);
    } catch (const std::exception& error) {
        fmt::print(stderr, "qrn-ctl: {}\n", error.what());
        return 1;
    }
}
