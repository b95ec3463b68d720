// The demonstration: load, fetch the service table, mount, one file request by request with the plugin calls each
// caused, a real tree copied in and compared, and one copied out through another plugin.
#include "gvnd/demo.h"

#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "gvnd/client.h"
#include "gvnd/session.h"
#include "gvnd/status.h"
#include "gvnd/transfer.h"

namespace tool {

namespace {

void Step(Session& session, const std::string& title)
{
    fmt::print("{}\n", title);
    for (const layer::PluginCall& call : session.Plugin().Calls()) fmt::print("    plugin: {}\n", call.Text());
    session.Plugin().Clear();
}

void MakeOneFile(Session& session)
{
    const char text[] = "Hello from behind the I/O manager.\n";
    OpenFile(session.NtPath("/greetings"),
             {.Access = SYNCHRONIZE, .Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE});
    Step(session, "make \\greetings: its parent is opened on the way");
    File file = OpenFile(session.NtPath("/greetings/hello.txt"),
                         {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Disposition = FILE_CREATE});
    Step(session, "create \\greetings\\hello.txt");
    file.Write(0, text, sizeof text - 1);
    Step(session, "write into it, straight out of the caller's buffer");
    file.Close();
    Step(session, "close it: nobody needs the chain any more, so it goes, leaf first");
}

void ShowOneFile()
{
    Session session(false);
    fmt::print("driver loaded; control device \\Device\\GvndCtrlDev\n");
    session.Mount({.Plugin = "memfs"});
    session.Plugin().Clear();
    fmt::print("volume mounted at \\??\\Gvnd (memfs)\n");
    MakeOneFile(session);

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

    const workbench::Report report = session.Finish();
    report.Print();
    fmt::print("unmounted and unloaded; {}\n\n", report.Clean() ? "nothing leaked" : "see above");
    if (!report.Clean()) throw Usage("the demonstration leaked");
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

// One transfer on a volume of its own. Exit code.
int ShowTransfer(const std::string& title, const VolumeChoice& volume,
                 CopyTotals (*transfer)(Session&, const std::string&, const std::string&), const std::string& from,
                 const std::string& to)
{
    Session session(false);
    session.Mount(volume);
    fmt::print("{}\n", title);
    const int agreed = PrintTotals(transfer(session, from, to));
    const workbench::Report report = session.Finish();
    report.Print();
    return report.Clean() ? agreed : report.ExitCode();
}

} // namespace

int RunDemo()
{
    const std::string tree = "/usr/include";
    ShowOneFile();
    const int imported =
        ShowTransfer("importing " + tree + " into memfs", {.Plugin = "memfs"}, ImportTree, tree, "/include");
    const TemporaryDirectory target;
    const int exported = ShowTransfer("\nexporting " + tree + " through hostfs",
                                      {.Plugin = "hostfs:" + tree, .ReadOnly = true}, ExportTree, "/", target.Path());
    return imported ? imported : exported;
}

} // namespace tool
