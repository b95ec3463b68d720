// The table of the shell's commands, and their handlers by verb group, each group in a file of its name beside this
// one. A handler gets all words of its line, the command's name first; how many there are has been checked.
#pragma once

#include <cstddef>
#include <span>

#include "gvnd/shell.h"

namespace tool {

enum class Needs {
    Nothing,
    Volume,
    Handles // a volume, and handles that live on after the command
};

struct Command {
    const char* Group;
    const char* Name;
    const char* Arguments;
    const char* Help;
    size_t Least;
    size_t Most;
    void (*Run)(Shell& shell, const Words& words);
    tool::Needs Needs = tool::Needs::Volume;
};

std::span<const Command> Commands();

namespace commands {

// info.cpp
void List(Shell& shell, const Words& words);
void Find(Shell& shell, const Words& words);
void Stat(Shell& shell, const Words& words);
void Attr(Shell& shell, const Words& words);
void Touch(Shell& shell, const Words& words);

// files.cpp
void Cat(Shell& shell, const Words& words);
void Get(Shell& shell, const Words& words);
void Put(Shell& shell, const Words& words);
void Copy(Shell& shell, const Words& words);
void Write(Shell& shell, const Words& words);
void Append(Shell& shell, const Words& words);
void Truncate(Shell& shell, const Words& words);
void Alloc(Shell& shell, const Words& words);

// names.cpp
void MakeDirectory(Shell& shell, const Words& words);
void Remove(Shell& shell, const Words& words);
void RemoveDirectory(Shell& shell, const Words& words);
void Move(Shell& shell, const Words& words);
void Link(Shell& shell, const Words& words);

// ea.cpp, map.cpp
void Ea(Shell& shell, const Words& words);
void Map(Shell& shell, const Words& words);

// trees.cpp
void Import(Shell& shell, const Words& words);
void Export(Shell& shell, const Words& words);

// handles.cpp
void Open(Shell& shell, const Words& words);
void Close(Shell& shell, const Words& words);
void Handles(Shell& shell, const Words& words);
void Lock(Shell& shell, const Words& words);
void Unlock(Shell& shell, const Words& words);

// volume.cpp
void Df(Shell& shell, const Words& words);
void Label(Shell& shell, const Words& words);
void Flush(Shell& shell, const Words& words);
void Mounted(Shell& shell, const Words& words);
void Unmount(Shell& shell, const Words& words);
void As(Shell& shell, const Words& words);

// table.cpp
void Trace(Shell& shell, const Words& words);
void ChangeDirectory(Shell& shell, const Words& words);
void PrintDirectory(Shell& shell, const Words& words);
void Calls(Shell& shell, const Words& words);
void Top(Shell& shell, const Words& words);
void Help(Shell& shell, const Words& words);

} // namespace commands

} // namespace tool
