// The volume under test, and the log.
#include "trial.h"

#include <stdexcept>

#include <unistd.h>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/pool.h>

namespace checker {

namespace {

// Fields of a line are separated by a tab, so that neither it nor a line's end may be in them.
std::string Field(const std::string& text)
{
    std::string field;
    for (const char c : text) {
        if (c == '\n')
            field += "\\n";
        else if (c == '\\')
            field += "\\\\";
        else
            field += c == '\t' ? ' ' : c;
    }
    return field;
}

} // namespace

std::string NumberText(uint64_t value) { return std::to_string(value); }

void Log::Send(const std::string& line)
{
    for (size_t at = 0; at < line.size();) {
        const ssize_t written = write(fd_, line.data() + at, line.size() - at);
        if (written <= 0) _exit(1); // nobody listens any more
        at += written;
    }
}

void Log::Held(const std::string& property)
{
    const std::lock_guard lock(mutex_);
    if (held_.insert(property).second) Send("held\t" + property + "\n");
}

void Log::Broke(const Breach& breach)
{
    const std::lock_guard lock(mutex_);
    broken_.insert(breach.Property);
    Send("broke\t" + breach.Property + "\t" + Field(breach.Call) + "\t" + Field(breach.Got) + "\n");
    if (breach.Property == "call.returns") _exit(0); // its thread will never come back
}

std::set<std::string> Log::Broken() const
{
    const std::lock_guard lock(mutex_);
    return broken_;
}

Trial::Trial(const GvndPlugin& plugin, const std::string& arguments, const Options& options, Log& log, char* page)
    : plugin_(plugin), options_(options), log_(log), poolBefore_(nthost::PoolAllocations())
{
    const NTSTATUS status = plugin.Create(arguments.c_str(), &operations_);
    if (!NT_SUCCESS(status) || !operations_)
        throw std::runtime_error(std::string("the plugin makes no volume of '") + arguments +
                                 "': " + nthost::StatusName(status));
    verifier_ = std::make_unique<Verifier>(
        operations_, [this](const Breach& breach) { log_.Broke(breach); }, options.StuckAfter);
    verifier_->ShowCallsAt(page);
    calls_ = std::make_unique<workbench::PluginTable>(verifier_->Table());
}

Trial::~Trial()
{
    TakeFindings();
    calls_.reset();
    verifier_.reset();
    plugin_.Destroy(operations_);
    for (const nthost::PoolBlock& block : nthost::LivePoolBlocks(poolBefore_))
        log_.Broke({"memory.nothing-left", "the end of the volume", nthost::PoolBlockText(block)});
    log_.Held("memory.nothing-left");
}

bool Trial::CheckAt(const char* property, const std::string& call, bool holds, const std::string& got)
{
    if (holds)
        log_.Held(property);
    else
        log_.Broke({property, call, got});
    return holds;
}

bool Trial::Check(const char* property, bool holds, const std::string& got)
{
    TakeFindings();
    return CheckAt(property, Verifier::LastCall(), holds, got);
}

bool Trial::CheckStatus(const char* property, NTSTATUS expected, NTSTATUS actual)
{
    return Check(property, expected == actual, nthost::StatusName(actual) + " and not " + nthost::StatusName(expected));
}

void Trial::TakeFindings()
{
    for (const nthost::Finding& finding : nthost::TakeFindings())
        log_.Broke({"call.kernel-rules", Verifier::LastCall(), finding.Rule + ": " + finding.Detail});
}

std::string Trial::MakePlace(const std::string& name)
{
    const std::string path = "\\gvnd-check-" + name;
    Remove(path); // of a check that did not get to its end
    const NTSTATUS status = calls_->MakeDir(path);
    return Check("create.found", NT_SUCCESS(status), nthost::StatusName(status)) ? path : std::string();
}

void Trial::Remove(const std::string& path)
{
    const workbench::FoundObject found = calls_->Lookup(path);
    if (!NT_SUCCESS(found.Status) || !Has(&PluginOps::Delete)) return;
    const ULONG kind = found.Info.FileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    if (kind == FILE_ATTRIBUTE_DIRECTORY) {
        std::vector<std::u16string> names;
        {
            const Opened directory(*this, calls_->OpenDir(path));
            constexpr ULONG kEnough = 4096;
            for (ULONG index = 0; directory.Works() && index < kEnough; ++index) {
                workbench::ListedEntry entry = calls_->EntryAt(directory.Fd, index);
                if (!NT_SUCCESS(entry.Status)) break;
                names.push_back(std::move(entry.Name));
            }
        }
        for (const std::u16string& name : names)
            if (name != u"." && name != u"..") Remove(path + "\\" + Text(name).Utf8());
    }
    (void)calls_->Delete(path);
}

} // namespace checker
