// SPDX-License-Identifier: MIT
// A folder of raw disks and areas, and qrn-image's commands run in it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "formats/image_area.h"
#include "tests/scratch_folder.h"
#include "tools/errors.h"
#include "tools/options.h"

namespace tools_test {

using namespace formats;

struct Result {
    int status;
    std::string text;  // what was printed, and the error
};

// One chunk of contents: `sectors` of noise from its start, zeros after them.
struct Noise {
    std::uint32_t chunk;
    unsigned sectors;
};

class ToolTest : public testing::Test {
protected:
    std::string path(const std::string& name) { return folder_ / name; }

    // Words that name files of the folder start with @.
    Result run(const std::string& command)
    {
        std::vector<std::string> words = {"qrn-image"};
        std::istringstream stream(command);
        for (std::string word; stream >> word;)
            words.push_back(word[0] == '@' ? path(word.substr(1)) : word);
        std::vector<const char*> argv;
        for (const std::string& word : words)
            argv.push_back(word.c_str());
        char* text = nullptr;
        std::size_t size = 0;
        std::FILE* const out = open_memstream(&text, &size);
        Result result{2, ""};
        try {
            const auto line = image_tool::parse_options(static_cast<int>(argv.size()), argv.data());
            result.status = line.command(line.options, out);
        } catch (const image_tool::ToolError& error) {
            result.text = error.what();
        }
        fclose(out);
        result.text += text;
        free(text);
        return result;
    }
    void expect(const std::string& command, int status, const std::string& text = "")
    {
        const Result result = run(command);
        EXPECT_EQ(result.status, status) << command << "\n" << result.text;
        EXPECT_NE(result.text.find(text), std::string::npos) << command << "\n" << result.text;
    }

    void make_raw(const std::string& name, std::uint64_t sectors, const std::vector<Noise>& noises)
    {
        std::ofstream file(path(name), std::ios::binary);
        for (const Noise& noise : noises) {
            std::string bytes(noise.sectors * sector_bytes, '\0');
            for (char& byte : bytes)
                byte = static_cast<char>(random_());
            file.seekp(static_cast<std::streamoff>(noise.chunk) * chunk_bytes);
            file << bytes;
        }
        file.close();
        std::filesystem::resize_file(path(name), sectors * sector_bytes);
    }
    std::string content(const std::string& name)
    {
        std::ostringstream text;
        text << std::ifstream(path(name), std::ios::binary).rdbuf();
        return text.str();
    }
    void put(const std::string& name, std::uint64_t offset, std::string_view bytes)
    {
        std::fstream file(path(name), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(offset));
        file << bytes;
    }
    template <typename Value>
    Value get(const std::string& name, std::uint64_t offset)
    {
        Value value{};
        std::ifstream file(path(name), std::ios::binary);
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(reinterpret_cast<char*>(&value), sizeof value);
        return value;
    }
    void put32(const std::string& name, std::uint64_t offset, std::uint32_t value)
    {
        put(name, offset, {reinterpret_cast<const char*>(&value), sizeof value});
    }
    // After a change of the header.
    void renew_checksum(const std::string& name)
    {
        put32(name, image_checksum_offset, image_checksum(content(name).data()));
    }

    std::mt19937 random_{1};

private:
    ScratchFolder folder_;
};

}  // namespace tools_test
