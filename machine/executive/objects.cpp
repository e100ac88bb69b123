// SPDX-License-Identifier: MIT
#include "machine/executive/objects.h"

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"

namespace machine {

void Objects::add(void* object, ObjectKind kind, Destroy destroy, Destroy closed)
{
    std::lock_guard guard(lock_);
    objects_[object] = {kind, 1, 0, std::move(destroy), std::move(closed)};
}

LONG Objects::reference(void* object)
{
    {
        std::lock_guard guard(lock_);
        if (const auto found = objects_.find(object); found != objects_.end())
            return ++found->second.references;
    }
    violation("ObReferenceObject: no such object");
}

LONG Objects::dereference(void* object)
{
    Destroy destroy;
    {
        std::lock_guard guard(lock_);
        const auto found = objects_.find(object);
        if (found == objects_.end())
            object = nullptr;
        else if (const LONG left = --found->second.references; left > 0)
            return left;
        else {
            destroy = std::move(found->second.destroy);
            objects_.erase(found);
        }
    }
    if (!object)
        violation("ObDereferenceObject: no such object, or one reference too many was given back");
    if (destroy)
        destroy();
    return 0;
}

HANDLE Objects::open(void* object)
{
    std::lock_guard guard(lock_);
    const auto handle = reinterpret_cast<HANDLE>(next_handle_);
    next_handle_ += 4;
    handles_[handle] = object;
    ++objects_.at(object).handles;
    return handle;
}

void* Objects::find(HANDLE handle, ObjectKind kind)
{
    std::lock_guard guard(lock_);
    const auto found = handles_.find(handle);
    return found != handles_.end() && objects_.at(found->second).kind == kind ? found->second : nullptr;
}

void* Objects::reference_by_handle(HANDLE handle, ObjectKind& kind)
{
    std::lock_guard guard(lock_);
    const auto found = handles_.find(handle);
    if (found == handles_.end())
        return nullptr;
    Info& info = objects_.at(found->second);
    ++info.references;
    kind = info.kind;
    return found->second;
}

void Objects::close(HANDLE handle)
{
    void* object = nullptr;
    Destroy closed;
    {
        std::lock_guard guard(lock_);
        if (auto entry = handles_.extract(handle)) {
            object = entry.mapped();
            Info& info = objects_.at(object);
            if (--info.handles == 0)
                closed = std::move(info.closed);
        }
    }
    if (!object)
        violation("ZwClose: the handle is not open");
    if (closed)
        closed();
    dereference(object);
}

std::size_t Objects::open_handles() const
{
    std::lock_guard guard(lock_);
    return handles_.size();
}

unsigned Objects::next_number()
{
    std::lock_guard guard(lock_);
    return ++next_number_;
}

}  // namespace machine

using namespace machine;

namespace {

char thread_type, file_type;  // only their addresses matter

POBJECT_TYPE thread_type_object = reinterpret_cast<POBJECT_TYPE>(&thread_type);
POBJECT_TYPE file_type_object = reinterpret_cast<POBJECT_TYPE>(&file_type);

POBJECT_TYPE type_of(ObjectKind kind)
{
    switch (kind) {
    case ObjectKind::thread:
        return thread_type_object;
    case ObjectKind::file:
        return file_type_object;
    case ObjectKind::key:
        break;
    }
    return nullptr;
}

}  // namespace

extern "C" {

POBJECT_TYPE* PsThreadType = &thread_type_object;
POBJECT_TYPE* IoFileObjectType = &file_type_object;

LONG_PTR FASTCALL ObfReferenceObject(PVOID object)
{
    enter_at_most(DISPATCH_LEVEL, "ObReferenceObject");
    return executive().objects.reference(object);
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID object)
{
    enter_at_most(DISPATCH_LEVEL, "ObDereferenceObject");
    return executive().objects.dereference(object);
}

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK, POBJECT_TYPE type, KPROCESSOR_MODE,
                                         PVOID* object, POBJECT_HANDLE_INFORMATION)
{
    enter_at_most(PASSIVE_LEVEL, "ObReferenceObjectByHandle");
    *object = nullptr;
    Objects& objects = executive().objects;
    ObjectKind kind;
    void* found = objects.reference_by_handle(handle, kind);
    if (!found)
        return STATUS_INVALID_HANDLE;
    if (type && type != type_of(kind)) {
        objects.dereference(found);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *object = found;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwClose(HANDLE handle)
{
    enter_at_most(PASSIVE_LEVEL, "ZwClose");
    executive().objects.close(handle);
    return STATUS_SUCCESS;
}

}  // extern "C"
