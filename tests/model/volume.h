// A mounted memfs volume and nothing in front of it, with the driver's trace off: what runs a hundred thousand requests
// needs. The volume can be emptied and filled again behind the driver's back while nothing is open. Also where seed and
// length of a run come from.
#pragma once

#include <gvnd/memfs.h>
#include <workbench/plugin_table.h>

#include "support/client.h"
#include "support/host.h"

namespace model {

extern const char* const kVolume; // the path of its root, without the backslash

class ModelVolume : public support::HostFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    PluginOps* Storage() const { return storage_; }
    void MakeStored(const std::string& path, bool isDirectory, const std::string& linkTarget, LONGLONG size);
    void Wipe();
    // As NamespaceModel::Tree.
    std::string StoredTree();
    // What stayed behind after the last close.
    ULONG ControlBlocks() const;

private:
    std::vector<std::pair<std::string, bool>> StoredEntries(const std::string& directory, const std::string& indent,
                                                            std::string* text);
    void DescribeStored(const std::string& directory, const std::string& indent, std::string* text);
    void WipeBelow(const std::string& directory);

    PluginOps* storage_ = nullptr;
    std::optional<workbench::PluginTable> table_;
    PDEVICE_OBJECT device_ = nullptr;
};

// GVND_TEST_SEED, or a random one.
unsigned Seed();
// GVND_TEST_OPERATIONS, or what suits the build.
unsigned OperationCount();

} // namespace model
