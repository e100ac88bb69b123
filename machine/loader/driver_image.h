// SPDX-License-Identifier: MIT
// A driver to boot: the one linked into this program, or a .sys file. Loading gives a fresh driver
// with its initial data, however often it was loaded before in this process.
#pragma once

#include <memory>
#include <string>

#include <nt.h>

namespace machine {

class DriverImage {
public:
    using Entry = NTSTATUS(NTAPI*)(PDRIVER_OBJECT, PUNICODE_STRING);

    virtual ~DriverImage() = default;
    // Puts the driver's data into its initial state and returns its entry point.
    virtual Entry load() = 0;
    virtual std::string name() const = 0;
    // Where the copy of the driver that was loaded last has the data of this name; null when it exports
    // no such thing or was not loaded.
    virtual void* exported(const std::string&) const { return nullptr; }
};

// The driver that is linked into the program.
std::unique_ptr<DriverImage> builtin_driver();

// A 32-bit native PE file. Throws std::runtime_error with a clear message when the file is no such
// file, is damaged, or imports a routine that this machine does not have (all missing ones named).
std::unique_ptr<DriverImage> driver_file(const std::string& path);

// "builtin" or a path.
std::unique_ptr<DriverImage> driver_named(const std::string& name_or_path);

}  // namespace machine
