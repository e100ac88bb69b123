// SPDX-License-Identifier: MIT
// A directory of the test's own, gone with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class ScratchFolder {
public:
    ScratchFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qrn-test-XXXXXX").string();
        folder_ = mkdtemp(pattern.data());
    }
    ~ScratchFolder() { std::filesystem::remove_all(folder_); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::string operator/(const std::string& name) const { return folder_ + "/" + name; }

private:
    std::string folder_;
};
