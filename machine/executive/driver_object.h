// SPDX-License-Identifier: MIT
// The driver object of a loaded driver, with the names and the registry path that its entry gets.
#pragma once

#include <memory>
#include <string>

#include <nt.h>

namespace machine {

class DriverObject {
public:
    DriverObject(const std::u16string& name, const std::u16string& service_key, PDRIVER_INITIALIZE entry);
    DriverObject(const DriverObject&) = delete;
    DriverObject& operator=(const DriverObject&) = delete;

    // Calls the driver's entry in the calling thread.
    NTSTATUS initialize();

    DRIVER_OBJECT object{};

private:
    DRIVER_EXTENSION extension_{};
    // Exactly as long as the text: the system ends no counted string with a zero.
    std::unique_ptr<WCHAR[]> name_, service_name_, registry_path_;
    UNICODE_STRING registry_string_{};
};

}  // namespace machine
