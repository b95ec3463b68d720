// Extended attributes: those of Linux's "user." that NT can hold. NT's names have no case, so they are listed in lower
// case, as Linux's mostly are.
#include <cerrno>
#include <cstring>

#include <sys/xattr.h>

#include "gvnd/eas.h"
#include "gvnd/mount/bridge.h"
#include "gvnd/mount/errors.h"

namespace tool::mount {

namespace {

constexpr std::string_view kPrefix = "user.";

char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

// Names with a dollar are this system's own.
int NtNameOf(std::string_view name, std::string* ntName)
{
    if (!name.starts_with(kPrefix)) return EOPNOTSUPP;
    name.remove_prefix(kPrefix.size());
    if (name.empty() || name.size() > 254) return ERANGE;
    if (name.starts_with('$')) return EPERM;
    *ntName = name;
    for (char& c : *ntName) c = Upper(c);
    return 0;
}

NTSTATUS ReadAll(HANDLE handle, EaMap* eas)
{
    std::vector<uint64_t> buffer;
    const NTSTATUS status = QueryEas(handle, &buffer, nullptr);
    if (status == STATUS_NO_EAS_ON_FILE || status == STATUS_NO_MORE_EAS || buffer.empty()) {
        return NT_SUCCESS(status) || status != STATUS_EAS_NOT_SUPPORTED ? STATUS_SUCCESS : status;
    }
    if (!NT_SUCCESS(status)) return status;
    const char* at = reinterpret_cast<const char*>(buffer.data());
    for (;;) {
        const auto* const record = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(at);
        const char* const value = record->EaName + record->EaNameLength + 1;
        eas->insert_or_assign(std::string(record->EaName, record->EaNameLength),
                              std::string(value, record->EaValueLength));
        if (record->NextEntryOffset == 0) return STATUS_SUCCESS;
        at += record->NextEntryOffset;
    }
}

// As getxattr and listxattr answer: the length alone for a size of 0.
int ReplyBytes(fuse_req_t request, const std::string& bytes, size_t size)
{
    if (size == 0) {
        fuse_reply_xattr(request, bytes.size());
        return 0;
    }
    if (bytes.size() > size) return ERANGE;
    fuse_reply_buf(request, bytes.data(), bytes.size());
    return 0;
}

int SetOne(HANDLE handle, const std::string& name, const std::string& value)
{
    return ErrorOf(SetEas(handle, EaList({{name, value}})));
}

} // namespace

int Bridge::SetXattr(fuse_req_t request, fuse_ino_t id, const char* name, const char* value, size_t size, int flags)
{
    std::string ntName;
    if (const int error = NtNameOf(name, &ntName)) return error;
    if (size == 0) return EINVAL; // an empty value is none in NT
    if (size > 0xffff) return E2BIG;
    const std::unique_lock lock(nodes_.Namespace); // the test and the change are one step
    Handle handle;
    if (const int error = OpenFor(id, FILE_READ_EA | FILE_WRITE_EA, &handle)) return error;
    EaMap eas;
    if (const NTSTATUS status = ReadAll(handle.Get(), &eas); !NT_SUCCESS(status)) return ErrorOf(status);
    const bool exists = eas.contains(ntName);
    if ((flags & XATTR_CREATE) && exists) return EEXIST;
    if ((flags & XATTR_REPLACE) && !exists) return ENODATA;
    if (const int error = SetOne(handle.Get(), ntName, {value, size})) return error;
    fuse_reply_err(request, 0);
    return 0;
}

int Bridge::GetXattr(fuse_req_t request, fuse_ino_t id, const char* name, size_t size)
{
    std::string ntName;
    if (const int error = NtNameOf(name, &ntName)) return error == EPERM ? ENODATA : error;
    const std::shared_lock lock(nodes_.Namespace);
    Handle handle;
    if (const int error = OpenFor(id, FILE_READ_EA, &handle)) return error;
    EaMap eas;
    if (const NTSTATUS status = ReadAll(handle.Get(), &eas); !NT_SUCCESS(status)) return ErrorOf(status);
    const auto found = eas.find(ntName);
    return found == eas.end() ? ENODATA : ReplyBytes(request, found->second, size);
}

int Bridge::ListXattrs(fuse_req_t request, fuse_ino_t id, size_t size)
{
    const std::shared_lock lock(nodes_.Namespace);
    Handle handle;
    NtName path;
    Facts link;
    EaMap eas;
    if (const int error = FindPath(id, &path)) return error;
    if (!links_.Describe(path, &link)) {
        if (const int error = OpenFor(id, FILE_READ_EA, &handle)) return error;
        if (const NTSTATUS status = ReadAll(handle.Get(), &eas); !NT_SUCCESS(status)) return ErrorOf(status);
    }
    std::string names;
    for (const auto& [name, value] : eas) {
        if (name.starts_with('$') || value.empty()) continue;
        names += kPrefix;
        for (const char c : name) names += Lower(c);
        names += '\0';
    }
    return ReplyBytes(request, names, size);
}

int Bridge::RemoveXattr(fuse_req_t request, fuse_ino_t id, const char* name)
{
    std::string ntName;
    if (const int error = NtNameOf(name, &ntName)) return error;
    const std::unique_lock lock(nodes_.Namespace);
    Handle handle;
    if (const int error = OpenFor(id, FILE_READ_EA | FILE_WRITE_EA, &handle)) return error;
    EaMap eas;
    if (const NTSTATUS status = ReadAll(handle.Get(), &eas); !NT_SUCCESS(status)) return ErrorOf(status);
    if (!eas.contains(ntName)) return ENODATA;
    if (const int error = SetOne(handle.Get(), ntName, {})) return error;
    fuse_reply_err(request, 0);
    return 0;
}

} // namespace tool::mount
