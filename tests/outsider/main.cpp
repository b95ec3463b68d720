// The whole workbench from outside: boot, driver, plugin, one open through the front door, and what was left behind.
#include <cstdio>

#include <gvnd/driver.h>
#include <gvnd/memfs.h>
#include <nthost/host.h>

// A status that is not a success ends the program with the line that met it.
#define REQUIRE(call) \
    if (!NT_SUCCESS(call)) return std::fprintf(stderr, "%s failed\n", #call), 1

int main()
{
    PDRIVER_OBJECT gvnd, memfs;
    nthost::LeakReport leaks[3];
    nthost::Boot();
    REQUIRE(nthost::LoadDriver("gvnd", GvndDriverEntry, &gvnd));
    REQUIRE(nthost::LoadDriver("memfs", GvMemfsDriverEntry, &memfs)); // mounts itself

    UNICODE_STRING path;
    RtlInitUnicodeString(&path, L"\\??\\Memfs\\");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK result;
    HANDLE root;
    REQUIRE(NtCreateFile(&root, FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &result, nullptr, 0, FILE_SHARE_READ,
                         FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0));
    REQUIRE(NtClose(root));

    REQUIRE(nthost::UnloadDriver(memfs, &leaks[0])); // unmounts
    REQUIRE(nthost::UnloadDriver(gvnd, &leaks[1]));
    leaks[2] = nthost::Shutdown();
    for (const nthost::LeakReport& report : leaks)
        for (const std::string& line : report.Lines) std::fprintf(stderr, "left behind: %s\n", line.c_str());
    return leaks[0].Clean() && leaks[1].Clean() && leaks[2].Clean() ? 0 : 1;
}
