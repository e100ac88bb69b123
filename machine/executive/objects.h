// SPDX-License-Identifier: MIT
// Reference counts and handles of kernel objects: threads, device and file objects, registry keys.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <unordered_map>

#include <nt.h>

namespace machine {

enum class ObjectKind { thread, file, key };

class Objects {
public:
    using Destroy = std::function<void()>;

    // Enters an object with one reference. destroy runs when the last one goes, closed when its last handle
    // does; both may be empty.
    void add(void* object, ObjectKind kind, Destroy destroy, Destroy closed = nullptr);
    // Both return the new count. A violation when the object is unknown.
    LONG reference(void* object);
    LONG dereference(void* object);

    // A new handle, to which the caller's reference goes over.
    HANDLE open(void* object);
    // The handle's object, without a reference; null when there is no such handle of this kind.
    void* find(HANDLE handle, ObjectKind kind);
    // The object of any kind, with a new reference; null when there is no such handle.
    void* reference_by_handle(HANDLE handle, ObjectKind& kind);
    // A violation when the handle is not open.
    void close(HANDLE handle);
    std::size_t open_handles() const;

    unsigned next_number();

private:
    struct Info {
        ObjectKind kind;
        LONG references;
        LONG handles;
        Destroy destroy, closed;
    };

    mutable std::mutex lock_;
    std::unordered_map<void*, Info> objects_;
    std::map<HANDLE, void*> handles_;
    ULONG_PTR next_handle_ = 0x80000004;  // kernel handles have the top bit
    unsigned next_number_ = 0;
};

}  // namespace machine
