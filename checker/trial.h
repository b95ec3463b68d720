// What runs in the child: one plugin, its volumes behind the verifier, and the log of what held and what did not.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <workbench/host.h>
#include <workbench/plugin_table.h>

#include "checker/checker.h"
#include "checker/verifier.h"

namespace checker {

using workbench::Text;

// Goes to the parent line by line, so that a crash loses nothing. Thread-safe.
class Log {
public:
    explicit Log(int fd) : fd_(fd) {}
    void Held(const std::string& property);
    void Broke(const Breach& breach);
    std::set<std::string> Broken() const;

private:
    void Send(const std::string& line);
    int fd_;
    mutable std::mutex mutex_;
    std::set<std::string> held_, broken_;
};

// A volume of the plugin. Its calls go through the verifier, and what nthost finds in them is a breach.
class Trial {
public:
    // std::runtime_error if the plugin makes no volume.
    Trial(const GvndPlugin& plugin, const std::string& arguments, const Options& options, Log& log, char* page);
    // The volume ends; what it left in pool is a breach.
    ~Trial();
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;

    const Options& Choice() const { return options_; }
    const PluginOps* Table() const { return verifier_->Table(); }
    const workbench::PluginTable& Calls() const { return *calls_; }
    Verifier& Verified() { return *verifier_; }
    bool Has(auto PluginOps::*slot) const { return Table()->*slot != nullptr; }
    bool CanChange() const { return !options_.ReadOnly && Has(&PluginOps::Create) && Has(&PluginOps::CreateDir); }

    // Of the last call of this thread. The result says whether it holds.
    bool Check(const char* property, bool holds, const std::string& got);
    bool CheckStatus(const char* property, NTSTATUS expected, NTSTATUS actual);
    // Of something else.
    bool CheckAt(const char* property, const std::string& call, bool holds, const std::string& got);
    void Held(const char* property) { log_.Held(property); }
    // What nthost has found since the last time.
    void TakeFindings();

    // A directory of the checker's own; empty if there can be none. Removed by Remove.
    std::string MakePlace(const std::string& name);
    void Remove(const std::string& path);

private:
    const GvndPlugin& plugin_;
    const Options& options_;
    Log& log_;
    uint64_t poolBefore_;
    PluginOps* operations_ = nullptr;
    std::unique_ptr<Verifier> verifier_;
    std::unique_ptr<workbench::PluginTable> calls_;
};

// A handle that closes itself. 0 if the open failed.
class Opened {
public:
    Opened(Trial& trial, const workbench::PluginHandle& handle) : trial_(trial), Status(handle.Status), Fd(handle.Fd) {}
    ~Opened() { Close(); }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    bool Works() const { return NT_SUCCESS(Status) && Fd; }
    void Close()
    {
        if (Works() && trial_.Has(&PluginOps::Close)) (void)trial_.Calls().Close(Fd);
        Fd = 0;
    }

private:
    Trial& trial_;

public:
    NTSTATUS Status;
    PluginFd Fd;
};

std::string NumberText(uint64_t value);

// A part of the check: what it is called, whether it changes the volume, whether it wants volumes of its own.
struct Scenario {
    const char* Name;
    bool Changes;
    void (*Run)(Trial& trial);
};
void CheckTable(Trial& trial);
void CheckTree(Trial& trial);
void CheckCreation(Trial& trial);
void CheckContent(Trial& trial);
void CheckSizes(Trial& trial);
void CheckListing(Trial& trial);
void CheckMetadata(Trial& trial);
void CheckRemoval(Trial& trial);
void CheckRenames(Trial& trial);
void CheckEas(Trial& trial);
void CheckVolumeRecord(Trial& trial);
void CheckFileModel(Trial& trial);
void CheckNameModel(Trial& trial);
void CheckMemory(Trial& trial);
void CheckThreads(Trial& trial);
void CheckCancel(Trial& trial);
void CheckMounted(Trial& trial, workbench::Host& host);
void CheckKept(Trial& trial);

} // namespace checker
