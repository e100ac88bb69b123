// SPDX-License-Identifier: MIT
// Bytes as a client writes and reads them, for dialogues that are compared byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace station_test {

using Bytes = std::vector<std::uint8_t>;

// Big-endian integers, texts and other Bytes, one after another.
class Writer {
public:
    Writer& u16(std::uint64_t value) { return number(value, 2); }
    Writer& u32(std::uint64_t value) { return number(value, 4); }
    Writer& u64(std::uint64_t value) { return number(value, 8); }
    Writer& text(const std::string& text)
    {
        bytes.insert(bytes.end(), text.begin(), text.end());
        return *this;
    }
    Writer& zeroes(std::size_t count)
    {
        bytes.resize(bytes.size() + count);
        return *this;
    }
    Writer& add(const Bytes& more)
    {
        bytes.insert(bytes.end(), more.begin(), more.end());
        return *this;
    }
    operator const Bytes&() const { return bytes; }

    Bytes bytes;

private:
    Writer& number(std::uint64_t value, int count)
    {
        while (count--)
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * count)));
        return *this;
    }
};

inline Bytes option(std::uint32_t number, const Bytes& data = {})
{
    return Writer().text("IHAVEOPT").u32(number).u32(data.size()).add(data);
}

// The data of INFO and GO.
inline Bytes choice(const std::string& name, const std::vector<std::uint16_t>& wishes = {})
{
    Writer data;
    data.u32(name.size()).text(name).u16(wishes.size());
    for (const auto wish : wishes)
        data.u16(wish);
    return data;
}

inline Bytes option_reply(std::uint32_t option, std::uint32_t type, const Bytes& data = {})
{
    return Writer().u64(0x0003e889045565a9).u32(option).u32(type).u32(data.size()).add(data);
}

inline Bytes request(std::uint16_t command, std::uint64_t cookie, std::uint64_t offset, std::uint32_t length,
                     std::uint16_t flags = 0)
{
    return Writer().u32(0x25609513).u16(flags).u16(command).u64(cookie).u64(offset).u32(length);
}

inline Bytes reply(std::uint64_t cookie, std::uint32_t error = 0)
{
    return Writer().u32(0x67446698).u32(error).u64(cookie);
}

// A structured reply of one chunk.
inline Bytes chunk(std::uint64_t cookie, std::uint16_t type, const Bytes& content)
{
    return Writer().u32(0x668e33ef).u16(1).u16(type).u64(cookie).u32(content.size()).add(content);
}

// The data of LIST_META_CONTEXT and SET_META_CONTEXT.
inline Bytes contexts(const std::string& name, const std::vector<std::string>& queries)
{
    Writer data;
    data.u32(name.size()).text(name).u32(queries.size());
    for (const std::string& query : queries)
        data.u32(query.size()).text(query);
    return data;
}

}  // namespace station_test
