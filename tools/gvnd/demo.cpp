// The demonstration: load, fetch the service table, mount, one file request by request with the plugin calls each
// caused, and a real tree copied out through another plugin.
#include "gvnd/demo.h"

#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "gvnd/client.h"
#include "gvnd/export.h"
#include "gvnd/session.h"
#include "gvnd/status.h"

namespace tool {

namespace {

template <size_t N>
UNICODE_STRING Literal(const WCHAR (&text)[N])
{
    return {static_cast<USHORT>((N - 1) * sizeof(WCHAR)), static_cast<USHORT>(N * sizeof(WCHAR)),
            const_cast<WCHAR*>(text)};
}

// The volume needs something to read: put there by calling the plugin itself.
void Prepare(const PluginOps* ops)
{
    UNICODE_STRING directory = Literal(L"\\greetings");
    UNICODE_STRING path = Literal(L"\\greetings\\hello.txt");
    const char text[] = "Hello from behind the I/O manager.\n";
    KEVENT cancel;
    KeInitializeEvent(&cancel, SynchronizationEvent, FALSE);
    PluginFd fd = 0;
    Require("prepare a directory", ops->CreateDir(ops->PluginContext, &cancel, &directory, &fd));
    ops->Close(ops->PluginContext, &cancel, fd);
    Require("prepare a file", ops->Create(ops->PluginContext, &cancel, &path, &fd));
    ULONG length = sizeof text - 1;
    const NTSTATUS status = ops->Write(ops->PluginContext, &cancel, fd, 0, &length, text);
    ops->Close(ops->PluginContext, &cancel, fd);
    Require("prepare its contents", status);
}

void Step(Session& session, const std::string& title)
{
    fmt::print("{}\n", title);
    for (const layer::PluginCall& call : session.Plugin().Calls()) fmt::print("    plugin: {}\n", call.Text());
    session.Plugin().Clear();
}

void ShowOneFile()
{
    Session session(false);
    fmt::print("driver loaded; control device \\Device\\GvndCtrlDev\n");
    session.Mount({.Plugin = "memfs"});
    Prepare(session.Plugin().Table());
    session.Plugin().Clear();
    fmt::print("volume mounted at \\??\\Gvnd (memfs)\n");

    File file = OpenFile(session.NtPath("/greetings/hello.txt"));
    Step(session, "open \\greetings\\hello.txt: nothing is known yet, so the path is walked");
    File again = OpenFile(session.NtPath("/greetings/hello.txt"));
    Step(session, "open it again: the object is live, only its access is asked");
    char buffer[256];
    const size_t got = file.Read(0, buffer, sizeof buffer);
    Step(session, fmt::format("read: {} bytes, straight into the caller's buffer", got));
    fmt::print("    {}", std::string(buffer, got));
    again.Close();
    Step(session, "close one handle: nothing to tell the plugin");
    file.Close();
    Step(session, "close the last one: the chain goes, leaf first");

    const std::vector<std::string> left = session.Finish();
    for (const std::string& line : left) fmt::print(stderr, "left behind: {}\n", line);
    fmt::print("unmounted and unloaded; {}\n\n", left.empty() ? "nothing leaked" : "see above");
    if (!left.empty()) throw Usage("the demonstration leaked");
}

// A directory of its own, gone at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "gvnd-export-XXXXXX").string();
        if (!mkdtemp(name.data())) throw Usage("cannot make a temporary directory");
        path_ = name;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

int ExportInclude()
{
    const TemporaryDirectory target;
    Session session(false);
    session.Mount({.Plugin = "hostfs:/usr/include", .ReadOnly = true});
    fmt::print("exporting /usr/include through hostfs\n");
    const ExportTotals totals = ExportTree(session, {.From = "/", .To = target.Path(), .Progress = true});
    PrintTotals(totals);
    const std::vector<std::string> left = session.Finish();
    for (const std::string& line : left) fmt::print(stderr, "left behind: {}\n", line);
    if (!left.empty()) return ExitLeak;
    return totals.Problems.empty() ? ExitSuccess : ExitMismatch;
}

} // namespace

int RunDemo()
{
    ShowOneFile();
    return ExportInclude();
}

} // namespace tool
