// What the targets run in: nthost and the driver, booted once, and the rules that each input is held to. An input that
// leaves a finding of nthost's, or a pool block, ends the process, which is how the fuzzer learns of a crash.
#pragma once

#include <cstdint>
#include <functional>

#include <gvnd/memfs.h>
#include <workbench/plugin_table.h>
#include <workbench/failure.h>
#include <workbench/host.h>

namespace fuzz {

// Boots and loads on first use; stays until the process ends.
workbench::Host& TheHost();

// Prints, and ends the process.
[[noreturn]] void Fail(const char* what, const std::string& detail);
// Fails if there is a finding.
void ExpectNoFindings();

// Holds what lies between construction and destruction to leaving no pool block and no finding. What still runs on
// other threads, such as a worker's end, is waited for.
class Balanced {
public:
    Balanced();
    ~Balanced();
    Balanced(const Balanced&) = delete;
    Balanced& operator=(const Balanced&) = delete;

private:
    uint64_t serial_;
};

// A small memfs volume, with \file, \dir\file, \dir\sub\deep, \caf\u00e9, and \link to \file.
class MemfsTable {
public:
    MemfsTable();
    ~MemfsTable();
    MemfsTable(const MemfsTable&) = delete;
    MemfsTable& operator=(const MemfsTable&) = delete;
    PluginOps* Operations() const { return operations_; }

private:
    PluginOps* operations_ = nullptr;
};

// Mounts the table, lets a user process use the volume at the link, and unmounts, when the process's handles have been
// closed. The plugin is that of the table, or of the one behind it, which hears OnUnmounted.
void UseVolume(const GvndPlugin* plugin, PluginOps* honest, const PluginOps* table,
               const std::function<void(const std::string& link)>& use);

} // namespace fuzz
