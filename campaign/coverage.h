// SPDX-License-Identifier: MIT
// What the seeds of a campaign met: faults, messages of the driver, recoveries. A fixed list says what they
// ought to meet, so that what never happens is seen.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace campaign {

class Coverage {
public:
    void add(const std::string& name, std::uint64_t count = 1)
    {
        if (count != 0)
            counts_[name] += count;
    }
    // A message of the driver, as printed.
    void add_message(std::string_view text);
    void add(const Coverage& other);

    // One line for each; parse() adds such a line and tells whether it was one.
    std::string to_lines() const;
    bool parse(std::string_view line);

    // For people: what was met how often, and what of the list was not.
    std::string report() const;
    unsigned met() const;  // of the list

private:
    std::map<std::string, std::uint64_t> counts_;
};

}  // namespace campaign
