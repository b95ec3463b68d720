// What a scenario plays on: nthost, the driver with few workers, memfs with a small tree mounted. All of it begins and
// ends within one schedule.
#pragma once

#include <optional>
#include <string>

#include <gvnd/memfs.h>
#include <nthost/schedule.h>
#include <workbench/volume.h>

namespace schedule {

using workbench::Handle;
using workbench::OpenRequest;

constexpr ACCESS_MASK kAll = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE;
inline const OpenRequest kReadWrite = {.Access = FILE_GENERIC_READ | FILE_GENERIC_WRITE};
inline const OpenRequest kDeleting = {.Access = kAll, .Options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE};
inline const OpenRequest kAsync = {.Access = FILE_READ_DATA | FILE_WRITE_DATA, .Options = 0};

// \file (three pages), \a\file, \a\other, \b\file
class Stage {
public:
    explicit Stage(nthost::Schedule& schedule);
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    // Unmounts, unloads and shuts down; what is left is a failure of the schedule.
    ~Stage();

    workbench::OpenResult Open(const std::string& path, const OpenRequest& request = {}) const;
    // Must succeed.
    Handle Get(const std::string& path, const OpenRequest& request = {}) const;
    void Remove(const std::string& path) const;
    void RenameTo(const std::string& from, const std::string& to) const;
    void Expect(bool holds, const std::string& what);

    workbench::Host& Host() { return host_; }
    workbench::Volume& Volume() { return *volume_; }
    PluginOps* Memfs() { return memfs_; }

private:
    nthost::Schedule& schedule_;
    workbench::Host host_;
    PluginOps* memfs_ = nullptr;
    std::optional<workbench::Volume> volume_;
};

struct NamedScenario {
    const char* Name;
    void (*Play)(nthost::Schedule&);
};
extern const NamedScenario kScenarios[];
extern const size_t kScenarioCount;

} // namespace schedule
