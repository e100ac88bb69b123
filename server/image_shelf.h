// SPDX-License-Identifier: MIT
// The golden images and their versions: which file each is, which is current, and the open ones, which all
// overlays on them share. Called under the fleet's lock.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "server/fleet_config.h"
#include "server/fleet_stores.h"

namespace server {

class ImageShelf {
public:
    struct Image {
        std::string configured;  // the path that the configuration file names, of the version it was seen at
        std::string area;
        unsigned current = 0;
        std::map<unsigned, std::string> versions;  // and their paths
        bool in_config = false;
        std::shared_ptr<DiskOwner> owner = std::make_shared<DiskOwner>();
        std::weak_ptr<BlockStore> writable;
        std::map<unsigned, std::weak_ptr<BlockStore>> open;
        std::weak_ptr<BlockStore> open_area;
    };
    using Open = std::shared_ptr<BlockStore> (*)(const std::string& path, bool readonly);

    explicit ImageShelf(Open open) : open_(open) {}

    // A path that the configuration did not name before becomes a new version, and the current one.
    void configure(const FleetConfig& config);

    Image* find(const std::string& name);
    const std::map<std::string, Image>& images() const { return images_; }

    // "NAME@VERSION"
    static std::string name_of(const std::string& image, unsigned version);
    static bool split(const std::string& name, std::string& image, unsigned& version);

    // Throw what opening throws.
    std::shared_ptr<BlockStore> open(const std::string& image, unsigned version);
    std::shared_ptr<BlockStore> open_writable(const std::string& image, unsigned version);
    std::shared_ptr<BlockStore> open_area(const std::string& image, std::uint64_t disk_sectors);

    unsigned add_version(const std::string& image, const std::string& path, bool becomes_current);

    nlohmann::json save() const;
    void load(const nlohmann::json& saved);

private:
    Open open_;
    std::map<std::string, Image> images_;
};

}  // namespace server
