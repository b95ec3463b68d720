// The check in a child process, and what comes of it. The child sends a line for each result; the page that the two
// share says what the plugin was doing when the child ended without a word.
#include "checker/checker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "trial.h"

namespace checker {

namespace {

constexpr Scenario kScenarios[] = {
    {"table", false, CheckTable},
    {"tree", false, CheckTree},
    {"volume", false, CheckVolumeRecord},
    {"create", true, CheckCreation},
    {"content", true, CheckContent},
    {"sizes", true, CheckSizes},
    {"listing", true, CheckListing},
    {"metadata", true, CheckMetadata},
    {"delete", true, CheckRemoval},
    {"rename", true, CheckRenames},
    {"ea", true, CheckEas},
    {"model files", true, CheckFileModel},
    {"model names", true, CheckNameModel},
    {"memory", true, CheckMemory},
    {"threads", true, CheckThreads},
    {"cancel", false, CheckCancel},
};

// What every call has been held to, if none broke it.
constexpr const char* kOfEveryCall[] = {
    "call.status",
    "call.not-pending",
    "call.returns",
    "call.survives",
    "call.no-exception",
    "call.no-throw",
    "call.thread-state",
    "call.kernel-rules",
    "call.arguments-unchanged",
    "call.arguments-not-kept",
    "record.pool",
    "record.room",
    "record.within",
    "record.owed",
    "record.values",
};

bool Wanted(const Options& options, const char* name) { return std::string(name).starts_with(options.Scenario); }

std::string Names()
{
    std::string names;
    for (const Scenario& scenario : kScenarios) names += std::string(scenario.Name) + ", ";
    return names + "mount";
}

// Whether the slots are there without which no other scenario can run.
bool CanGoOn(Trial& trial)
{
    const PluginOps* const table = trial.Table();
    return table->Lookup && table->Open && table->OpenDir && table->Read && table->ReadDirEntry && table->GetInfo &&
           table->GetVolInfo && table->Close;
}

// A listing that gives the same for all indexes has no end, neither for the driver nor for programs.
bool ListingsEnd(const Log& log)
{
    const std::set<std::string> broken = log.Broken();
    return !broken.contains("list.no-name-twice") && !broken.contains("list.index") && !broken.contains("list.end");
}

void RunScenarios(Trial& trial, workbench::Host& host, const Log& log)
{
    CheckTable(trial);
    if (!CanGoOn(trial)) return;
    for (const Scenario& scenario : kScenarios) {
        if (scenario.Changes && !trial.CanChange()) continue;
        if (Wanted(trial.Choice(), scenario.Name) && ListingsEnd(log)) scenario.Run(trial);
    }
    if (Wanted(trial.Choice(), "mount") && ListingsEnd(log)) CheckMounted(trial, host);
}

int RunChild(const GvndPlugin& plugin, const std::string& arguments, const Options& options, int fd, char* page)
{
    Log log(fd);
    workbench::Host host;
    if (!NT_SUCCESS(host.LoadGvnd())) return 1;
    try {
        bool keeps;
        {
            Trial trial(plugin, arguments, options, log, page);
            RunScenarios(trial, host, log);
            keeps = options.Keeps && trial.CanChange();
        }
        if (keeps && Wanted(options, "mount")) {
            Trial again(plugin, arguments, options, log, page);
            CheckKept(again);
        }
    } catch (const std::exception& failure) {
        log.Broke({"mount.works", "Create of the plugin's entry", failure.what()});
    }
    for (const char* property : kOfEveryCall) log.Held(property);
    page[0] = 0;
    log.Held("");
    _exit(0); // what the plugin left in this process is nobody's any more
}

std::string Unescaped(const std::string& field)
{
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 1 < field.size())
            text += field[++i] == 'n' ? '\n' : field[i];
        else
            text += field[i];
    }
    return text;
}

// The parent's side: lines into results.
class Collector {
public:
    Collector()
    {
        for (const Property* property = kProperties; property->Id; ++property)
            results_.push_back({property, Verdict::NotTried, {}, {}, 0});
    }

    void Take(const std::string& bytes)
    {
        buffer_ += bytes;
        for (size_t end; (end = buffer_.find('\n')) != std::string::npos; buffer_.erase(0, end + 1))
            TakeLine(buffer_.substr(0, end));
    }
    void Break(const std::string& property, const std::string& call, const std::string& got)
    {
        Result* const result = Find(property);
        if (!result) throw std::runtime_error("a breach of '" + property + "', which is no rule");
        if (result->Times++ == 0) {
            result->Call = call;
            result->Got = got;
        }
        result->Outcome = Verdict::Broken;
    }
    // The child got to its end, or has said why not.
    bool Ended() const { return ended_; }
    std::vector<Result> Results() const { return results_; }

private:
    Result* Find(const std::string& id)
    {
        for (Result& result : results_)
            if (id == result.Rule->Id) return &result;
        return nullptr;
    }
    void TakeLine(const std::string& line)
    {
        std::vector<std::string> fields;
        std::istringstream stream(line);
        for (std::string field; std::getline(stream, field, '\t');) fields.push_back(Unescaped(field));
        fields.resize(4);
        if (fields[0] == "broke") {
            Break(fields[1], fields[2], fields[3]);
            ended_ |= fields[1] == "call.returns";
        } else if (fields[1].empty()) {
            ended_ = true;
        } else if (Result* const result = Find(fields[1]); result && result->Outcome == Verdict::NotTried) {
            result->Outcome = Verdict::Held;
        }
    }

    std::vector<Result> results_;
    std::string buffer_;
    bool ended_ = false;
};

// Pipes whose ends close themselves.
struct Pipe {
    int Read = -1, Write = -1;
    Pipe()
    {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
        Read = ends[0];
        Write = ends[1];
    }
    ~Pipe()
    {
        CloseEnd(&Read);
        CloseEnd(&Write);
    }
    static void CloseEnd(int* end)
    {
        if (*end >= 0) close(*end);
        *end = -1;
    }
};

class Child {
public:
    Child(const GvndPlugin& plugin, const std::string& arguments, const Options& options) : limit_(options.StuckAfter)
    {
        page_ = static_cast<char*>(
            mmap(nullptr, Verifier::kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        if (page_ == MAP_FAILED) throw std::runtime_error("no memory to share");
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error(std::string("cannot fork: ") + std::strerror(errno));
        if (pid_ == 0) {
            signal(SIGPIPE, SIG_IGN);
            dup2(errors_.Write, STDERR_FILENO);
            _exit(RunChild(plugin, arguments, options, results_.Write, page_));
        }
        Pipe::CloseEnd(&results_.Write);
        Pipe::CloseEnd(&errors_.Write);
    }
    ~Child() { munmap(page_, Verifier::kPageSize); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void Follow(Collector* collector)
    {
        const int idle = static_cast<int>(limit_) * 2 + 10000;
        bool hung = false;
        while (results_.Read >= 0 || errors_.Read >= 0) {
            pollfd ends[] = {{results_.Read, POLLIN, 0}, {errors_.Read, POLLIN, 0}};
            if (poll(ends, 2, idle) == 0) {
                hung = true;
                kill(pid_, SIGKILL);
                break;
            }
            if (ends[0].revents) Drain(&results_.Read, [&](const std::string& bytes) { collector->Take(bytes); });
            if (ends[1].revents) Drain(&errors_.Read, [&](const std::string& bytes) { errorText_ += bytes; });
        }
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {}
        if (hung)
            collector->Break("call.returns", Doing(), "nothing happened for " + NumberText(idle) + " ms");
        else if (!collector->Ended())
            Judge(status, collector);
    }

private:
    static void Drain(int* end, const std::function<void(const std::string&)>& take)
    {
        char bytes[4096];
        const ssize_t count = read(*end, bytes, sizeof bytes);
        if (count > 0)
            take(std::string(bytes, count));
        else if (count == 0 || errno != EINTR)
            Pipe::CloseEnd(end);
    }

    std::string Doing() const { return page_[0] ? page_ : "no call yet"; }

    // Which rule was broken by who ended the process: the host and the sanitizers say so in words.
    void Judge(int status, Collector* collector) const
    {
        const auto says = [&](const char* words) { return errorText_.find(words) != std::string::npos; };
        const char* property = "call.survives";
        if (says("never from pool") || says("use-after-free")) property = "record.pool";
        if (says("pool-overrun") || says("pool-underrun") || says("heap-buffer-overflow")) property = "record.within";
        const std::string how = WIFSIGNALED(status) ? std::string("signal ") + strsignal(WTERMSIG(status))
                                                    : "exit code " + NumberText(WEXITSTATUS(status));
        collector->Break(property, Doing(), "the process ends with " + how + "\n" + Excerpt());
    }

    std::string Excerpt() const
    {
        constexpr size_t kMost = 3000;
        return errorText_.substr(0, kMost);
    }

    const unsigned limit_;
    Pipe results_, errors_;
    std::string errorText_;
    char* page_;
    pid_t pid_;
};

} // namespace

Report Check(const GvndPlugin& plugin, const std::string& arguments, const Options& options)
{
    const bool any = Wanted(options, "mount") ||
                     std::any_of(std::begin(kScenarios), std::end(kScenarios),
                                 [&](const Scenario& scenario) { return Wanted(options, scenario.Name); });
    if (!any)
        throw std::invalid_argument("no scenario's name begins with '" + options.Scenario + "'; there are " + Names());
    Collector collector;
    Child(plugin, arguments, options).Follow(&collector);
    return {plugin.Name, options.Seed, collector.Results()};
}

} // namespace checker
