// SPDX-License-Identifier: MIT
// What a server of many workstations reads beside packets: its configuration file, the files of overlays, and
// requests of browsers.
//
// Input: a byte that says which, then the text or the file.
#include <nlohmann/json.hpp>

#include "fuzz/input.h"
#include "server/fleet_config.h"
#include "server/overlay_store.h"
#include "server/web_page.h"

using namespace fuzz;

namespace {

void configuration(const std::string& text)
{
    try {
        const server::FleetConfig config = server::parse_fleet_config(text, "f");
        require(!config.allow.empty(), "a good configuration says who is heard");
        for (const server::FleetWorkstation& one : config.workstations) {
            require(server::fleet_name_valid(one.name), "names become names of files");
            require(!one.disks.empty() || config.group(one.group), "every workstation has disks");
        }
        for (const server::FleetGroup& group : config.groups)
            for (const server::FleetDisk& disk : group.disks)
                require(config.image(disk.image) != nullptr, "every disk has an image");
    } catch (const server::ConfigError& error) {
        require(std::string(error.what()).starts_with("f:"), "a fault is told with its place");
    }
}

class File : public server::MemoryStore {
public:
    explicit File(const Bytes& content) : MemoryStore(content.size()) { bytes() = content; }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        require(offset <= size_bytes() && out.size() <= size_bytes() - offset,
                "a file is not read past its end");
        return MemoryStore::read(offset, out);
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        require(offset <= size_bytes() && data.size() <= size_bytes() - offset,
                "a file is not written past its end");
        return MemoryStore::write(offset, data);
    }
};

// With a good checksum, for nobody guesses one.
void overlay(Bytes content)
{
    content.resize(std::max<std::size_t>(content.size(), 64 << 10));
    formats::OverlayHeader header;
    std::memcpy(&header, content.data(), sizeof header);
    std::memcpy(header.Signature, formats::overlay_signature, sizeof header.Signature);
    header.Version.set(formats::overlay_version);
    header.Checksum.set(formats::overlay_checksum(header));
    std::memcpy(content.data(), &header, sizeof header);
    const server::Session session{};
    File whole(content);
    const auto report = server::check_overlay(whole, session);
    try {
        const std::string name = server::overlay_shape(whole).base;
        const auto base = std::make_shared<server::MemoryStore>(report.shape.disk_bytes);
        server::OverlayStore store(base, std::make_unique<File>(content), session, name);
        Bytes data(512, 0x5A), got(512);
        for (const std::uint64_t at : {std::uint64_t{0}, report.shape.disk_bytes - 512}) {
            require(store.write(at, data) && store.read(at, got) && got == data, "what is written is read");
            require(!store.hole(at, 512), "data is no hole");
        }
        require(store.flush(), "nothing fails");
    } catch (const std::runtime_error&) {
        require(!report.faults.empty(), "what is refused is found by the check");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string text(data + 1, data + size);
    if (data[0] % 3 == 0)
        configuration(text);
    else if (data[0] % 3 == 1)
        overlay(Bytes(data + 1, data + size));
    else
        require(server::web_answer(
                    text,
                    [] {
                        return nlohmann::json{
                            {"server",
                             {{"boots", 0}, {"boots_refused", 0}, {"dropped", nlohmann::json::object()}}},
                            {"workstations", nlohmann::json::array()}};
                    })
                    .starts_with("HTTP/1.1 "),
                "every request has an answer");
    return 0;
}
