// Generated sequences, each beside a model that is right by being simple: an array of bytes, and a map of names.
#include "trial.h"

#include <map>
#include <random>

#include <nthost/debug.h>

namespace checker {

namespace {

// The file below test, and what it should hold.
class FileModel {
public:
    FileModel(Trial& trial, PluginFd fd, uint64_t seed) : trial_(trial), fd_(fd), random_(seed) {}

    bool Step()
    {
        const size_t offset = random_() % kLargest, length = 1 + random_() % 9000;
        switch (random_() % 4) {
        case 0: return Write(offset, length);
        case 1: return Resize(offset);
        default: return Read(offset, length);
        }
    }

private:
    static constexpr size_t kLargest = 200000;

    bool Agrees(bool holds, const std::string& got) { return trial_.Check("model.files", holds, got); }

    bool Write(size_t offset, size_t length)
    {
        const std::string bytes(length, static_cast<char>('a' + random_() % 26));
        const NTSTATUS status = trial_.Calls().Write(fd_, static_cast<LONGLONG>(offset), bytes);
        if (bytes_.size() < offset + length) bytes_.resize(offset + length);
        bytes_.replace(offset, length, bytes);
        return Agrees(NT_SUCCESS(status), nthost::StatusName(status));
    }

    bool Resize(size_t size)
    {
        if (!trial_.Has(&PluginOps::SetFileSize)) return true;
        const NTSTATUS status = trial_.Calls().Resize(fd_, static_cast<LONGLONG>(size), static_cast<LONGLONG>(size));
        bytes_.resize(size);
        return Agrees(NT_SUCCESS(status), nthost::StatusName(status));
    }

    bool Read(size_t offset, size_t length)
    {
        NTSTATUS status;
        const std::string bytes =
            trial_.Calls().Read(fd_, static_cast<LONGLONG>(offset), static_cast<ULONG>(length), &status);
        const std::string expected = offset < bytes_.size() ? bytes_.substr(offset, length) : std::string();
        return Agrees(bytes == expected, Verifier::LastOutcome() + ", " + NumberText(bytes.size()) + " of " +
                                             NumberText(expected.size()) + " bytes, or other bytes");
    }

    Trial& trial_;
    const PluginFd fd_;
    std::string bytes_;
    std::mt19937_64 random_;
};

// Names of two levels below a place.
class NameModel {
public:
    NameModel(Trial& trial, std::string place, uint64_t seed) : trial_(trial), place_(std::move(place)), random_(seed)
    {}

    bool Step()
    {
        const std::string name = Name();
        switch (random_() % 5) {
        case 0: return Make(name, false);
        case 1: return Make(name, true);
        case 2: return Delete(name);
        case 3: return Rename(name, Name());
        default: return Agrees(Exists(name), trial_.Calls().Lookup(place_ + name).Status);
        }
    }

    // All that should be there, and no more.
    bool Whole()
    {
        for (const auto& [name, isDirectory] : tree_) {
            if (!Agrees(true, trial_.Calls().Lookup(place_ + name).Status)) return false;
            if (!isDirectory) continue;
            const Opened directory(trial_, trial_.Calls().OpenDir(place_ + name));
            NTSTATUS status;
            size_t listed = 0;
            for (const std::u16string& entry : trial_.Calls().List(directory.Fd, &status))
                listed += entry != u"." && entry != u"..";
            const size_t expected = Children(name, Depth::One);
            if (!trial_.Check("model.names", listed == expected,
                              NumberText(listed) + " entries of " + NumberText(expected) + " in " + name))
                return false;
        }
        return true;
    }

private:
    std::string Name()
    {
        std::string name = std::string("\\n") + static_cast<char>('a' + random_() % 4);
        if (random_() % 2) name += std::string("\\m") + static_cast<char>('a' + random_() % 4);
        return name;
    }
    bool Exists(const std::string& name) const { return tree_.contains(name); }
    bool HasParent(const std::string& name) const
    {
        const size_t end = name.rfind('\\');
        if (end == 0) return true;
        const auto parent = tree_.find(name.substr(0, end));
        return parent != tree_.end() && parent->second;
    }
    enum class Depth { One, Any };
    size_t Children(const std::string& name, Depth depth) const
    {
        size_t count = 0;
        for (const auto& [other, isDirectory] : tree_) {
            const bool isBelow = other.starts_with(name + "\\");
            count += isBelow && (depth == Depth::Any || other.rfind('\\') == name.size());
        }
        return count;
    }

    bool Agrees(bool shouldWork, NTSTATUS status)
    {
        return trial_.Check("model.names", NT_SUCCESS(status) == shouldWork,
                            nthost::StatusName(status) +
                                (shouldWork ? ", and it should work" : ", and it should fail"));
    }

    bool Make(const std::string& name, bool directory)
    {
        const bool shouldWork = !Exists(name) && HasParent(name);
        const NTSTATUS status =
            directory ? trial_.Calls().MakeDir(place_ + name) : trial_.Calls().MakeFile(place_ + name);
        if (shouldWork) tree_[name] = directory;
        return Agrees(shouldWork, status);
    }

    bool Delete(const std::string& name)
    {
        if (!trial_.Has(&PluginOps::Delete)) return true;
        const bool shouldWork = Exists(name) && Children(name, Depth::Any) == 0;
        const NTSTATUS status = trial_.Calls().Delete(place_ + name);
        if (shouldWork) tree_.erase(name);
        return Agrees(shouldWork, status);
    }

    // What is in the way has been deleted before the driver renames.
    bool Rename(const std::string& from, const std::string& to)
    {
        if (!trial_.Has(&PluginOps::Rename) || Exists(to)) return true;
        const bool shouldWork = Exists(from) && HasParent(to) && !to.starts_with(from + "\\");
        const NTSTATUS status = trial_.Calls().Rename(place_ + from, place_ + to);
        if (shouldWork) Move(from, to);
        return Agrees(shouldWork, status);
    }

    void Move(const std::string& from, const std::string& to)
    {
        std::map<std::string, bool> moved;
        for (const auto& [name, isDirectory] : tree_) {
            const bool goes = name == from || name.starts_with(from + "\\");
            moved[goes ? to + name.substr(from.size()) : name] = isDirectory;
        }
        tree_ = std::move(moved);
    }

    Trial& trial_;
    const std::string place_;
    std::map<std::string, bool> tree_; // whether it is a directory
    std::mt19937_64 random_;
};

} // namespace

void CheckFileModel(Trial& trial)
{
    const std::string place = trial.MakePlace("file-model");
    if (place.empty() || !trial.Has(&PluginOps::Write)) return;
    {
        const Opened file(trial, trial.Calls().Create(place + "\\file"));
        FileModel model(trial, file.Fd, trial.Choice().Seed);
        for (unsigned i = 0; i < trial.Choice().Steps && model.Step(); ++i) {}
    }
    trial.Remove(place);
}

void CheckNameModel(Trial& trial)
{
    const std::string place = trial.MakePlace("name-model");
    if (place.empty()) return;
    NameModel model(trial, place, trial.Choice().Seed);
    for (unsigned i = 1; i <= trial.Choice().Steps && model.Step(); ++i)
        if (i % 100 == 0 && !model.Whole()) break;
    trial.Remove(place);
}

} // namespace checker
