// A plugin's test in C, with nothing but the installed headers and libraries. The exit code says whether all was as
// expected and nothing was left.
#include <stdio.h>
#include <string.h>

#include <workbench/workbench_c.h>

#include "hello.h"

static int failed;

static void Expect(const char* what, NTSTATUS actual, NTSTATUS expected)
{
    if (actual == expected) return;
    failed = 1;
    fprintf(stderr, "%s: %s", what, WbStatusName(actual));
    fprintf(stderr, ", expected %s\n", WbStatusName(expected));
}

static void Note(void* context, const WbEntry* entry)
{
    char* const names = context;
    strcat(names, entry->Name);
    strcat(names, entry->Size == 15 ? ";" : "?");
}

static void ReadsItsFile(WbVolume* volume)
{
    HANDLE file;
    char text[64];
    ULONG length = sizeof text;
    Expect("open", WbOpen(volume, "/HELLO.txt", NULL, &file), STATUS_SUCCESS);
    Expect("read", WbRead(file, 0, text, &length), STATUS_SUCCESS);
    failed |= length != 15 || memcmp(text, "Hello, volume.\n", 15) != 0;
    Expect("read on", WbRead(file, 15, text, &length), STATUS_END_OF_FILE);
    failed |= length != 0;
    Expect("close", WbClose(file), STATUS_SUCCESS);
    failed |= WbCallCount(volume, "Read") != 2;
}

static void Lists(WbVolume* volume)
{
    char names[64] = "";
    Expect("list", WbList(volume, "/", NULL, Note, names), STATUS_SUCCESS);
    failed |= strcmp(names, "hello.txt;") != 0;
    Expect("list what is no directory", WbList(volume, "/hello.txt", NULL, Note, names), STATUS_NOT_A_DIRECTORY);
}

static void RefusesTheRest(WbVolume* volume)
{
    const WbOpenHow writing = {.Access = FILE_GENERIC_WRITE, .Disposition = FILE_OPEN};
    HANDLE file;
    Expect("open for writing", WbOpen(volume, "/hello.txt", &writing, &file), STATUS_ACCESS_DENIED);
    Expect("open what is not there", WbOpen(volume, "/other", NULL, &file), STATUS_OBJECT_NAME_NOT_FOUND);
    WbFailCall(volume, "Open", STATUS_DEVICE_NOT_READY, 1);
    Expect("open a failing one", WbOpen(volume, "/hello.txt", NULL, &file), STATUS_DEVICE_NOT_READY);
}

// The volume is the system's and one user's.
static void KeepsOthersOut(WbVolume* volume)
{
    WbUser* other;
    HANDLE file;
    Expect("be what is no user", WbActAs("S-1-x", &other), STATUS_INVALID_PARAMETER);
    Expect("be somebody else", WbActAs("S-1-5-21-1-2-3-1002", &other), STATUS_SUCCESS);
    Expect("open as somebody else", WbOpen(volume, "/hello.txt", NULL, &file), STATUS_ACCESS_DENIED);
    WbActAsSelf(other);
}

int main(void)
{
    WbHost* host;
    WbVolume* volume;
    if (!NT_SUCCESS(WbStart(&host))) return 1;
    const NTSTATUS status =
        WbMount(host, "Hello", "D:P(A;;GA;;;SY)(A;;GA;;;S-1-5-21-1-2-3-1001)", HelloTable(), &volume);
    Expect("mount", status, STATUS_SUCCESS);
    if (NT_SUCCESS(status)) {
        ReadsItsFile(volume);
        Lists(volume);
        RefusesTheRest(volume);
        KeepsOthersOut(volume);
        Expect("unmount", WbUnmount(volume), STATUS_SUCCESS);
    }
    const int left = WbFinish(host);
    return failed ? 1 : left;
}
