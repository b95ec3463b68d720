// Random operations against a model of maps and strings: every status and every byte must agree. The seed is printed,
// and GVND_TEST_SEED sets it.

#include <cstdlib>
#include <map>
#include <random>

#include "volume.h"

namespace memfs_tests {
namespace {

struct Object;
struct Entry {
    std::string Spelling;
    std::shared_ptr<Object> What;
};
struct Object {
    bool IsDirectory = false;
    std::string Data;
    std::map<std::string, Entry> Entries; // by upper-case name
};

std::string Upper(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::toupper(c));
    return text;
}

// A path cut before its last component; both empty for the root.
std::pair<std::string, std::string> Split(const std::string& path)
{
    const size_t cut = path.rfind('\\');
    return {path.substr(0, cut), path.substr(cut + 1)};
}

class Model {
public:
    Model() { root_->IsDirectory = true; }

    NTSTATUS Find(const std::string& path, std::shared_ptr<Object>* found)
    {
        std::shared_ptr<Object> at = root_;
        for (size_t begin = 1; begin < path.size();) {
            const size_t end = std::min(path.find('\\', begin), path.size());
            if (!at->IsDirectory) return STATUS_OBJECT_PATH_NOT_FOUND;
            const auto entry = at->Entries.find(Upper(path.substr(begin, end - begin)));
            const bool isLast = end == path.size();
            if (entry == at->Entries.end()) {
                return isLast ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            }
            at = entry->second.What;
            begin = end + 1;
        }
        *found = at;
        return STATUS_SUCCESS;
    }

    NTSTATUS Create(const std::string& path, bool isDirectory)
    {
        auto object = std::make_shared<Object>();
        object->IsDirectory = isDirectory;
        return Add(path, object);
    }

    NTSTATUS Delete(const std::string& path)
    {
        std::shared_ptr<Object> object;
        if (const NTSTATUS status = Find(path, &object); !NT_SUCCESS(status)) return status;
        if (!object->Entries.empty()) return STATUS_DIRECTORY_NOT_EMPTY;
        Drop(path);
        return STATUS_SUCCESS;
    }

    NTSTATUS Rename(const std::string& from, const std::string& to)
    {
        std::shared_ptr<Object> object, directory, target;
        if (const NTSTATUS status = Find(from, &object); !NT_SUCCESS(status)) return status;
        if (!NT_SUCCESS(Find(Split(to).first, &directory)) || !directory->IsDirectory) {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        if (Upper(to + "\\").starts_with(Upper(from + "\\")) && to.size() > from.size())
            return STATUS_INVALID_PARAMETER;
        if (NT_SUCCESS(Find(to, &target)) && target != object) return STATUS_OBJECT_NAME_COLLISION;
        Drop(from);
        return Add(to, object);
    }

private:
    NTSTATUS Add(const std::string& path, const std::shared_ptr<Object>& object)
    {
        const auto [parent, name] = Split(path);
        std::shared_ptr<Object> directory;
        if (!NT_SUCCESS(Find(parent, &directory)) || !directory->IsDirectory) return STATUS_OBJECT_PATH_NOT_FOUND;
        const bool added = directory->Entries.try_emplace(Upper(name), Entry{name, object}).second;
        return added ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
    }
    void Drop(const std::string& path)
    {
        std::shared_ptr<Object> directory;
        EXPECT_EQ(Find(Split(path).first, &directory), STATUS_SUCCESS);
        directory->Entries.erase(Upper(Split(path).second));
    }

    std::shared_ptr<Object> root_ = std::make_shared<Object>();
};

Text Wide(const std::string& path) { return Text(std::u16string(path.begin(), path.end())); }

unsigned Seed()
{
    const char* const given = std::getenv("GVND_TEST_SEED");
    return given ? static_cast<unsigned>(std::strtoul(given, nullptr, 0)) : std::random_device()();
}

} // namespace

class ModelTest : public MemFsTest {
protected:
    unsigned Pick(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(random); }

    std::string PickPath()
    {
        static constexpr const char* kNames[] = {"a", "A", "b", "cc", "Cc", "d", "e0", "z_"};
        std::string path;
        for (unsigned depth = 1 + Pick(3); depth != 0; --depth) path += std::string("\\") + kNames[Pick(8)];
        return path;
    }

    void CloseIf(NTSTATUS status, PluginFd fd)
    {
        EXPECT_EQ(NT_SUCCESS(status), fd != 0);
        if (fd != 0) fs->Close(fd);
    }

    void ChangeTree(const std::string& path)
    {
        PluginFd fd = 0;
        NTSTATUS status;
        switch (Pick(4)) {
        case 0:
            status = fs->Call(&PluginOps::Create, Wide(path), &fd);
            EXPECT_EQ(status, model.Create(path, false)) << "create " << path;
            return CloseIf(status, fd);
        case 1:
            status = fs->Call(&PluginOps::CreateDir, Wide(path), &fd);
            EXPECT_EQ(status, model.Create(path, true)) << "mkdir " << path;
            return CloseIf(status, fd);
        case 2: EXPECT_EQ(fs->Call(&PluginOps::Delete, Wide(path)), model.Delete(path)) << "delete " << path; return;
        default:
            const std::string to = PickPath();
            EXPECT_EQ(fs->Call(&PluginOps::Rename, Wide(path), Wide(to)), model.Rename(path, to))
                << "rename " << path << " to " << to;
        }
    }

    void ChangeFile(const std::string& path, Object& object)
    {
        const PluginFd fd = fs->Open(Wide(path), GVND_ACCESS_ALL);
        const LONGLONG offset = Pick(4) == 0 ? Pick(300000) : Pick(2000);
        if (Pick(3) == 0) {
            EXPECT_EQ(fs->Resize(fd, offset, Pick(10000)), STATUS_SUCCESS);
            object.Data.resize(static_cast<size_t>(offset));
        } else {
            const std::string bytes(Pick(5) == 0 ? Pick(150000) : Pick(1000), static_cast<char>('a' + Pick(26)));
            const size_t end = static_cast<size_t>(offset) + bytes.size();
            EXPECT_EQ(fs->Write(fd, offset, bytes), STATUS_SUCCESS);
            if (object.Data.size() < end && !bytes.empty()) object.Data.resize(end);
            object.Data.replace(static_cast<size_t>(offset) < object.Data.size() ? static_cast<size_t>(offset) : 0,
                                bytes.size(), bytes);
        }
        EXPECT_TRUE(fs->ReadAll(fd) == object.Data) << path;
        fs->Close(fd);
    }

    void CompareTree(const std::string& path, const Object& directory)
    {
        const PluginFd fd = fs->OpenDir(Wide(path.empty() ? "\\" : path));
        ULONG index = path.empty() ? 0 : 2;
        for (const auto& [name, entry] : directory.Entries) {
            const std::string below = path + "\\" + entry.Spelling;
            EXPECT_EQ(fs->NameAt(fd, index++), Wide(entry.Spelling).Units());
            PluginFileInfo info = {};
            EXPECT_EQ(fs->Lookup(Wide(below), &info), STATUS_SUCCESS);
            EXPECT_EQ(info.EndOfFile, static_cast<LONGLONG>(entry.What->Data.size()));
            if (entry.What->IsDirectory) CompareTree(below, *entry.What);
        }
        EXPECT_EQ(fs->NameAt(fd, index), u"");
        fs->Close(fd);
    }

    Model model;
    std::mt19937 random;
};

TEST_F(ModelTest, RandomOperationsAgree)
{
    const unsigned seed = Seed();
    SCOPED_TRACE(testing::Message() << "GVND_TEST_SEED=" << seed);
    random.seed(seed);
    std::shared_ptr<Object> root;
    ASSERT_EQ(model.Find("\\", &root), STATUS_SUCCESS);
    for (int step = 0; step < 6000 && !HasFailure(); ++step) {
        const std::string path = PickPath();
        std::shared_ptr<Object> object;
        const NTSTATUS found = model.Find(path, &object);
        ASSERT_EQ(fs->Lookup(Wide(path)), found) << path;
        if (NT_SUCCESS(found) && !object->IsDirectory && Pick(2) == 0) {
            ChangeFile(path, *object);
        } else {
            ChangeTree(path);
        }
        if (step % 100 == 0) CompareTree("", *root);
    }
}

} // namespace memfs_tests
