// SPDX-License-Identifier: MIT
#include "tests/scenario/traffic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace scenario {

Pending::Pending(Rig& rig) : rig_(rig), request_(rig.scsi())
{
    request_.done = [this](machine::ScsiRequest&) { done_ms_ = rig_.now_ms(); };
}

Pending& Pending::read(unsigned lun, std::uint32_t lba, std::size_t bytes)
{
    data_.assign(bytes, 0xEE);
    request_.set_read(static_cast<std::uint8_t>(lun), lba, data_.data(), static_cast<std::uint32_t>(bytes));
    submit();
    return *this;
}

Pending& Pending::write(unsigned lun, std::uint32_t lba, Bytes content)
{
    data_ = std::move(content);
    request_.set_write(static_cast<std::uint8_t>(lun), lba, data_.data(),
                       static_cast<std::uint32_t>(data_.size()));
    submit();
    return *this;
}

void Pending::submit()
{
    start_ms_ = rig_.now_ms();
    done_ms_ = -1;
    rig_.scsi().submit(request_);
}

void Pending::wait()
{
    while (!done())
        rig_.machine.sleep_ms(1);
}

static constexpr unsigned clients_per_lun = 3;

struct Traffic::Client {
    Traffic& owner;
    unsigned lun;
    std::uint32_t first;
    machine::Random random;
    machine::ScsiRequest request;
    std::vector<std::uint32_t> generations;  // of each sector; 0: never written
    Bytes buffer;
    std::uint32_t generation = 0, at = 0;
    unsigned left;
    bool writing = false;

    Client(Traffic& traffic, unsigned disk, std::uint32_t first_lba, std::uint64_t seed)
        : owner(traffic), lun(disk), first(first_lba), random(seed), request(traffic.rig_.scsi()),
          generations(traffic.load_.sectors_each), left(traffic.load_.operations_each)
    {
        request.done = [this](machine::ScsiRequest&) { finished(); };
    }

    void next()
    {
        std::uint32_t sectors = 1 + random.below(owner.load_.request_sectors_max);
        at = random.below(owner.load_.sectors_each - sectors + 1);
        writing = random.chance(owner.load_.writes);
        auto target = static_cast<std::uint8_t>(lun);
        if (writing) {
            buffer = pattern(first + at, sectors * 512, ++generation);
            request.set_write(target, first + at, buffer.data(), sectors * 512);
        } else {
            buffer.assign(sectors * 512, 0xEE);
            request.set_read(target, first + at, buffer.data(), sectors * 512);
        }
        owner.rig_.scsi().submit(request);
    }

    Bytes expected(std::uint32_t sector) const
    {
        return generations[sector] ? pattern(first + sector, 512, generations[sector]) : Bytes(512, 0);
    }

    void check(std::uint32_t sector, const std::uint8_t* content)
    {
        Bytes right = expected(sector);
        if (std::memcmp(content, right.data(), right.size()) != 0)
            ADD_FAILURE() << "lun " << lun << " sector " << first + sector << " is not generation "
                          << generations[sector] << ", seed " << owner.rig_.plan.seed << ", at "
                          << owner.rig_.now_ms() << " ms";
    }

    void finished()
    {
        owner.reads_ += !writing;
        owner.failed_ += !request.ok();
        for (std::uint32_t i = 0; i < buffer.size() / 512 && request.ok(); ++i) {
            if (writing)
                generations[at + i] = generation;
            else
                check(at + i, &buffer[i * 512]);
        }
        if (--left != 0)
            next();
        else
            --owner.active_;
    }
};

Traffic::Traffic(Rig& rig, std::uint64_t seed, Load load) : rig_(rig), load_(load)
{
    for (unsigned lun = 0; lun < rig.plan.disks.size(); ++lun)
        for (unsigned i = 0; i < clients_per_lun; ++i)
            clients_.push_back(
                std::make_unique<Client>(*this, lun, i * load.sectors_each, seed * 100 + lun * 10 + i));
}

Traffic::~Traffic() = default;

void Traffic::start()
{
    active_ = static_cast<unsigned>(clients_.size());
    for (auto& client : clients_)
        client->next();
}

void Traffic::wait()
{
    double limit_ms = rig_.now_ms() + 3'600'000;
    while (active_ != 0) {
        if (rig_.now_ms() > limit_ms)
            machine::violation(std::to_string(active_) + " clients wait for ever, seed " +
                               std::to_string(rig_.plan.seed));
        rig_.machine.sleep_ms(10);
    }
}

static bool is_negotiation(const formats::WireHeader& header)
{
    return header.Kind == formats::kind_read && header.Byte_Offset.get() == 0;
}

static std::string name_of(const formats::WireHeader& header)
{
    if (header.Kind == formats::kind_shutdown)
        return "shutdown";
    if (header.Sub_Code == formats::sub_status_query)
        return "query";
    return header.Kind == formats::kind_write ? "write:" : "read";
}

std::string story(const Rig& rig, int lun)
{
    std::string text, last;
    double first_ms = -1;
    for (const SeenPacket& packet : rig.packets()) {
        const formats::WireHeader& header = packet.header();
        if (packet.direction != machine::Direction::to_server || is_negotiation(header) ||
            (lun >= 0 && header.Disk_Id[3] != 0xD0 + lun))
            continue;
        if (first_ms < 0)
            first_ms = packet.time_ms;
        char time[32];
        std::snprintf(time, sizeof time, "%s@%.10g ",
                      packet.server.Ip[3] == server_address(1).Ip[3] ? "*" : "",
                      std::round((packet.time_ms - first_ms) * 10) / 10);
        std::string name = name_of(header);
        // Fragments of one packet that leave together are one word.
        bool joins = name == "write:" && last == name + time;
        if (joins)
            text.erase(text.size() - std::strlen(time));
        last = name + time;
        text += joins ? "," : name;
        if (name == "write:")
            text += std::to_string(header.Frag_Num);
        text += time;
    }
    if (!text.empty())
        text.pop_back();
    return text;
}

}  // namespace scenario
