// SPDX-License-Identifier: MIT
// What a command has to say: lines for people, or one JSON object for programs.
#pragma once

#include <cstdio>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace image_tool {

using Json = nlohmann::ordered_json;

class Report {
public:
    Report(bool is_json, std::FILE* out) : is_json_(is_json), out_(out) {}

    template <typename... Args>
    void print(fmt::format_string<Args...> text, Args&&... args)
    {
        if (!is_json_)
            fmt::print(out_, text, std::forward<Args>(args)...);
    }
    bool is_json() const { return is_json_; }
    // Of the object; what is set here shows with --output json only.
    Json& operator[](const char* key) { return data_[key]; }
    void finish()
    {
        if (is_json_)
            fmt::print(out_, "{}\n", data_.dump(2, ' ', false, Json::error_handler_t::replace));
    }

private:
    bool is_json_;
    std::FILE* out_;
    Json data_ = Json::object();
};

}  // namespace image_tool
