// SPDX-License-Identifier: MIT
#include "server/image_shelf.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <fmt/format.h>

#include "server/image_check.h"

namespace server {

void ImageShelf::configure(const FleetConfig& config)
{
    for (auto& [name, image] : images_)
        image.in_config = false;
    for (const FleetImage& written : config.images) {
        Image& image = images_[written.name];
        image.in_config = true;
        image.area = written.area;
        if (image.configured != written.path)
            add_version(written.name, written.path, true);
        image.configured = written.path;
    }
}

ImageShelf::Image* ImageShelf::find(const std::string& name)
{
    const auto found = images_.find(name);
    return found == images_.end() ? nullptr : &found->second;
}

std::string ImageShelf::name_of(const std::string& image, unsigned version)
{
    return fmt::format("{}@{}", image, version);
}

bool ImageShelf::split(const std::string& name, std::string& image, unsigned& version)
{
    const std::size_t at = name.rfind('@');
    if (at == name.npos)
        return false;
    image = name.substr(0, at);
    const auto [end, error] = std::from_chars(name.data() + at + 1, name.data() + name.size(), version);
    return error == std::errc{} && end == name.data() + name.size();
}

std::shared_ptr<BlockStore> ImageShelf::open(const std::string& name, unsigned version)
{
    Image* const image = find(name);
    if (!image || !image->versions.contains(version))
        throw std::runtime_error(fmt::format("there is no {}", name_of(name, version)));
    auto& kept = image->open[version];
    std::shared_ptr<BlockStore> store = kept.lock();
    if (!store)
        kept = store = open_(image->versions[version], true);
    return store;
}

std::shared_ptr<BlockStore> ImageShelf::open_writable(const std::string& name, unsigned version)
{
    Image& image = images_.at(name);
    std::shared_ptr<BlockStore> store = image.writable.lock();
    if (!store)
        image.writable = store = open_(image.versions.at(version), false);
    return store;
}

std::shared_ptr<BlockStore> ImageShelf::open_area(const std::string& name, std::uint64_t disk_sectors)
{
    Image& image = images_.at(name);
    if (image.area.empty())
        return nullptr;
    std::shared_ptr<BlockStore> store = image.open_area.lock();
    if (!store)
        image.open_area = store = open_file_store(image.area, true);
    check_image_area(*store, image.area, disk_sectors);
    return store;
}

unsigned ImageShelf::add_version(const std::string& name, const std::string& path, bool becomes_current)
{
    Image& image = images_[name];
    const unsigned version = image.versions.empty() ? 1 : image.versions.rbegin()->first + 1;
    image.versions[version] = path;
    if (becomes_current)
        image.current = version;
    return version;
}

nlohmann::json ImageShelf::save() const
{
    nlohmann::json all = nlohmann::json::object();
    for (const auto& [name, image] : images_) {
        nlohmann::json versions = nlohmann::json::object();
        for (const auto& [version, path] : image.versions)
            versions[std::to_string(version)] = path;
        all[name] = {{"configured", image.configured}, {"current", image.current}, {"versions", versions}};
    }
    return all;
}

void ImageShelf::load(const nlohmann::json& saved)
{
    for (const auto& [name, one] : saved.items()) {
        Image& image = images_[name];
        image.configured = one.at("configured");
        image.current = one.at("current");
        for (const auto& [version, path] : one.at("versions").items())
            image.versions[static_cast<unsigned>(std::stoul(version))] = path.get<std::string>();
    }
}

}  // namespace server
