// The command line.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <exception>
#include <stdexcept>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include <nthost/recorder.h>

#include "gvnd/commands/check.h"
#include "gvnd/demo.h"
#include "gvnd/mount/mount.h"
#include "gvnd/plugins.h"
#include "gvnd/recording.h"
#include "gvnd/session.h"
#include "gvnd/shell.h"
#include "gvnd/status.h"
#include "gvnd/text.h"
#include "gvnd/transfer.h"

namespace {

using namespace tool;

struct Options {
    VolumeChoice Volume;
    bool Trace = false;
    std::string Image = workbench::ImageOfEnvironment("GVND_IMAGE");
    std::string Script;            // -c
    std::string ScriptFile;        // a file, or - for standard input
    std::string TraceFile;         // of trace events; empty: none
    size_t Kept = size_t{1} << 16; // spans of each thread in it
    std::string Capacity;
    std::string From; // export: a path of the volume; import: a directory of this machine
    std::string To;   // the other way round
};

// The exit code of a session that did all it had to do.
int ReportLeaks(Session& session)
{
    const workbench::Report report = session.Finish();
    report.Print();
    return report.Clean() && session.PluginAtFault() ? ExitPlugin : report.ExitCode();
}

// Writes the trace events however the commands end: what failed is what one wants to look at. A file that cannot be
// written is told in any case; it is the result only of commands that did what they should.
class Recording {
public:
    explicit Recording(std::string file) : file_(std::move(file)) {}
    ~Recording() noexcept(false)
    {
        if (file_.empty()) return;
        try {
            WriteTraceEvents(file_);
        } catch (const std::exception& error) {
            if (std::uncaught_exceptions() == exceptions_) throw;
            fmt::print(stderr, "gvnd: {}\n", error.what());
        }
    }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

private:
    const std::string file_;
    const int exceptions_ = std::uncaught_exceptions();
};

void RunCommands(Shell& shell, const Options& options)
{
    if (!options.Script.empty()) {
        std::istringstream lines(options.Script);
        if (options.Script.find('\n') == std::string::npos)
            shell.Run(options.Script);
        else
            shell.RunScript(lines, "-c");
    } else if (!options.ScriptFile.empty() && options.ScriptFile != "-") {
        std::ifstream file(options.ScriptFile);
        if (!file) throw Usage(fmt::format("cannot read the script '{}'", options.ScriptFile));
        shell.RunScript(file, options.ScriptFile);
    } else if (options.ScriptFile == "-" || !isatty(STDIN_FILENO)) {
        shell.RunScript(std::cin, "standard input");
    } else {
        shell.RunInteractive();
    }
}

VolumeChoice ChoiceOf(const Options& options)
{
    VolumeChoice choice = options.Volume;
    if (!options.Capacity.empty()) choice.Capacity = Number(options.Capacity);
    return choice;
}

int RunShell(const Options& options)
{
    if (!options.TraceFile.empty()) nthost::KeepSpans(options.Kept);
    Session session(options.Trace, options.Image);
    session.Mount(ChoiceOf(options));
    {
        Shell shell(session);
        const Recording recording(options.TraceFile);
        RunCommands(shell, options);
    }
    return ReportLeaks(session);
}

// An import or an export, by its function.
int RunTransfer(const Options& options, CopyTotals (*transfer)(Session&, const std::string&, const std::string&))
{
    Session session(options.Trace, options.Image);
    session.Mount(ChoiceOf(options));
    const int agreed = PrintTotals(transfer(session, options.From, options.To));
    const int leaked = ReportLeaks(session);
    return leaked ? leaked : agreed;
}

void AddVolumeOptions(CLI::App* command, Options& options)
{
    command
        ->add_option("-p,--plugin", options.Volume.Plugin,
                     "memfs, hostfs:DIR to serve a directory, or so:PATH[:ARGUMENTS]; see `plugins`")
        ->capture_default_str();
    command->add_flag("--read-only", options.Volume.ReadOnly, "refuse every change of the directory (hostfs)");
    command->add_option("--capacity", options.Capacity, "size of memfs in bytes, or as 512M or 4G (1G)");
    command->add_option("--sddl", options.Volume.Sddl,
                        "who may open the volume, as in \"D:P(A;;GA;;;SY)(A;;GR;;;WD)\"; everybody without it");
    command->add_option("--image", options.Image,
                        "a kernel image of the driver (gvnd.sys), run instead of the driver inside");
    command->add_flag("--verify", options.Volume.Verify,
                      "hold each call of the plugin to its contract; a mount stays in the foreground");
    command->add_flag("--trace", options.Trace, "the driver's trace on standard error, from the load on");
}

void AddCheckOptions(CLI::App* command, CheckChoice& check)
{
    command->add_option("plugin,-p,--plugin", check.Plugin, "as for -p of the other commands; see `plugins`")
        ->required();
    command->add_flag("--read-only", check.How.ReadOnly, "change nothing");
    command->add_flag("--keeps", check.How.Keeps, "a volume that is made anew must have what the last one had");
    command->add_option("--only", check.How.Scenario, "only scenarios whose name begins so, as in `list` or `model`");
    command->add_option("--seed", check.How.Seed, "of generated sequences")->capture_default_str();
    command->add_option("--steps", check.How.Steps, "length of a generated sequence")->capture_default_str();
    command->add_option("--threads", check.How.Threads, "calls at the same time")->capture_default_str();
    command->add_option("--stuck-after", check.How.StuckAfter, "milliseconds after which a call counts as stuck")
        ->capture_default_str();
    command->add_flag("--json", check.Json, "the report as JSON");
    command->add_option("--junit", check.JUnit, "a file for the report as JUnit's XML");
}

int Main(int argc, char** argv)
{
    CLI::App app("gvnd: mounts a storage plugin behind the NT file-system driver, in this process.\n"
                 "Without a command it shows the road of one file, imports /usr/include into\n"
                 "memory and compares it, and exports it through a served directory.");
    app.footer("Examples:\n"
               "  gvnd shell                                       an empty volume in memory; try `help`\n"
               "  gvnd shell -p hostfs:DIR -c \"calls on; ls -l\"    a directory, with what each command asks of it\n"
               "  gvnd import -p hostfs:DIR HOST-DIR /PATH         copies a tree in, and compares it\n"
               "  gvnd export -p hostfs:DIR / HOST-DIR             copies a tree out, and compares it\n"
               "  gvnd trace -o FILE -p hostfs:DIR -c \"ls -l\"      the same on a time line, for Perfetto\n"
               "  gvnd mount -p hostfs:DIR MOUNT-DIR               a directory, through the driver, for any program\n"
               "  gvnd check so:./plugin.so:ARGUMENTS              holds a plugin to its contract\n"
               "Exit codes: 0 success, 1 a request failed, 2 wrong usage, 3 copies disagree,\n"
               "4 something leaked, 5 the plugin is at fault.");
    app.set_version_flag("--version", "gvnd " GVND_TOOL_VERSION);
    app.get_formatter()->column_width(28);
    Options options;
    CLI::App* const shell = app.add_subcommand("shell", "commands on a volume; `help` inside lists them");
    AddVolumeOptions(shell, options);
    shell->add_option("-c", options.Script, "commands to run, separated by semicolons");
    shell->add_option("script", options.ScriptFile, "a file of commands, - for standard input");
    CLI::App* const tracer =
        app.add_subcommand("trace", "the shell, and a file for Perfetto: requests, plugin calls and waits by thread");
    AddVolumeOptions(tracer, options);
    tracer->add_option("-o", options.TraceFile, "the file, written when the commands have ended")->required();
    tracer->add_option("--keep", options.Kept, "the last spans of each thread that are kept")->capture_default_str();
    tracer->add_option("-c", options.Script, "commands to run, separated by semicolons");
    tracer->add_option("script", options.ScriptFile, "a file of commands, - for standard input");
    CLI::App* const importer =
        app.add_subcommand("import", "copy a directory of this machine into a volume, and verify it");
    AddVolumeOptions(importer, options);
    importer->add_option("from", options.From, "directory of this machine")->required();
    importer->add_option("to", options.To, "path in the volume, made if missing")->required();
    CLI::App* const exporter = app.add_subcommand("export", "copy a tree out of a volume, and verify it");
    AddVolumeOptions(exporter, options);
    exporter->add_option("from", options.From, "path in the volume, / for all")->required();
    exporter->add_option("to", options.To, "directory of this machine, made if missing")->required();
    std::vector<std::string> sharedObjects;
    CLI::App* const plugins = app.add_subcommand("plugins", "what -p can name, with the arguments of each");
    plugins->add_option("shared-object", sharedObjects, "plugins to look at");
    CheckChoice check;
    CLI::App* const checkCommand =
        app.add_subcommand("check", "hold a plugin to its contract; what it makes on the volume it removes again");
    AddCheckOptions(checkCommand, check);
    MountOptions mount;
    CLI::App* const mounter =
        app.add_subcommand("mount", "a volume as a file system of this machine; docs/mount.md says what differs");
    AddVolumeOptions(mounter, options);
    mounter->add_option("directory", mount.Directory, "where to mount, an existing directory")->required();
    mounter
        ->add_option("-o", mount.Words,
                     "ro, allow_other, share=LETTERS of r, w and d, writeback, nocache, or options of the kernel's")
        ->allow_extra_args(false);
    mounter->add_flag("-f,--foreground", mount.Foreground, "stay in the foreground; Ctrl-C unmounts");
    mounter->add_flag("-d,--debug", mount.Debug, "print each request and the plugin's operations; implies -f");
    app.require_subcommand(0, 1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        fmt::print("{}", Wrapped(app.help()));
        return ExitSuccess;
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? ExitSuccess : ExitUsage;
    }
    if (*shell || *tracer) return RunShell(options);
    if (*importer) return RunTransfer(options, ImportTree);
    if (*exporter) return RunTransfer(options, ExportTree);
    if (*plugins) {
        PrintPlugins(sharedObjects);
        return ExitSuccess;
    }
    if (*checkCommand) return RunCheck(check);
    if (*mounter) {
        mount.Volume = ChoiceOf(options);
        mount.Trace = options.Trace;
        return RunMount(mount);
    }
    return RunDemo();
}

// What was printed has arrived: a full disk and a closed pipe show only now, if the output is short.
int WithOutput(int code)
{
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return code;
    fmt::print(stderr, "gvnd: output is lost: {}\n", std::strerror(errno));
    return code ? code : int{ExitFailure};
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // the write fails then, and is told
    try {
        return WithOutput(Main(argc, argv));
    } catch (const Usage& error) {
        fmt::print(stderr, "gvnd: {}\n", error.what());
        return ExitUsage;
    } catch (const Mismatch& error) {
        fmt::print(stderr, "gvnd: {}\n", error.what());
        return ExitMismatch;
    } catch (const std::length_error& error) { // a name that NT cannot carry
        fmt::print(stderr, "gvnd: {}\n", error.what());
        return ExitUsage;
    } catch (const std::exception& error) {
        fmt::print(stderr, "gvnd: {}\n", Advised(error));
        return ExitFailure;
    }
}
