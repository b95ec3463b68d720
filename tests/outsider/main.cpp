// The whole workbench from outside: boot, driver, plugin, requests through the front door, and what was left behind.
#include <cstdio>

#include <gvnd/memfs.h>
#include <workbench/workbench.h>

int Run()
{
    workbench::Host host;
    workbench::Require("load the driver", host.LoadGvnd());
    PluginOps* memfs;
    workbench::Require("make a file system", MemFsCreate(nullptr, &memfs));
    {
        workbench::Volume volume(host, memfs); // at \??\Volume until the end of the block
        volume.Open("/note.txt", {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Disposition = FILE_CREATE})
            .Write(0, "hello", 5);
        char text[6] = {};
        volume.Open("/NOTE.TXT").Read(0, text, 5);
        for (const workbench::Entry& entry : volume.List("/")) std::printf("%s: %s\n", entry.Name.c_str(), text);
        for (const layer::PluginCall& call : volume.Plugin().Calls()) std::printf("  %s\n", call.Text().c_str());
    }
    MemFsDestroy(memfs);
    const workbench::Report report = host.Finish();
    report.Print();
    return report.ExitCode();
}

int main()
{
    try {
        return Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what()); // the request, its path, its status
        return 1;
    }
}
