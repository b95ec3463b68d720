// Setting the stage, and what has to be true when it is taken down.
#include "schedule/stage.h"

#include <nthost/registry.h>
#include <nthost/sections.h>
#include <workbench/plugin_table.h>

#include "support/host.h"

namespace schedule {

Stage::Stage(nthost::Schedule& schedule) : schedule_(schedule)
{
    workbench::Require("a setting", nthost::SetRegistryDword(support::kServiceKey, "NumVcbWorkers", 2));
    workbench::Require("load", host_.LoadGvnd());
    workbench::Require("memfs", MemFsCreate(nullptr, &memfs_));
    workbench::PluginTable content(memfs_);
    for (const char* directory : {"\\a", "\\b"}) workbench::Require("mkdir", content.MakeDir(directory));
    workbench::Require("make", content.MakeFile("\\file", std::string(3 * PAGE_SIZE, 'f')));
    for (const char* file : {"\\a\\file", "\\a\\other", "\\b\\file"})
        workbench::Require("make", content.MakeFile(file, "content"));
    volume_.emplace(host_, memfs_, workbench::MountOptions{.Name = "Stage"});
    volume_->Plugin().CountOnly(true);
}

Stage::~Stage()
{
    nthost::TrimSections();
    if (volume_->Mounted())
        volume_->Unmount();
    else
        volume_->Plugin().WaitUntilUnmounted();
    MemFsDestroy(memfs_);
    const workbench::Report unloaded = host_.UnloadDrivers(); // waits for what follows OnUnmounted
    volume_.reset();
    for (const workbench::Report& report : {unloaded, host_.Finish()})
        for (const std::string& line : report.Lines) schedule_.Fail(line);
}

workbench::OpenResult Stage::Open(const std::string& path, const OpenRequest& request) const
{
    return workbench::Open(volume_->Link() + path, request);
}

Handle Stage::Get(const std::string& path, const OpenRequest& request) const
{
    workbench::OpenResult opened = Open(path, request);
    workbench::Require("open " + path, opened.Status);
    return std::move(opened.File);
}

void Stage::Remove(const std::string& path) const { workbench::OpenResult opened = Open(path, kDeleting); }

void Stage::RenameTo(const std::string& from, const std::string& to) const
{
    workbench::OpenResult opened = Open(from, {.Access = DELETE | SYNCHRONIZE});
    if (NT_SUCCESS(opened.Status)) (void)workbench::Rename(opened.File.Get(), volume_->Link() + to, true);
}

void Stage::Expect(bool holds, const std::string& what)
{
    if (!holds) schedule_.Fail(what);
}

} // namespace schedule
