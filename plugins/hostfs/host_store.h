// A directory of the Linux machine as a store (node.h).
#pragma once

#include <memory>

#include "beneath.h"
#include "node.h"

namespace hostfs {

// An object by a descriptor that is open for its contents, wherever it is. It has no children.
[[nodiscard]] posixfs::NodeRef NodeOf(UniqueFd opened);

class HostStore final : public posixfs::Store {
public:
    explicit HostStore(std::unique_ptr<Beneath> root);
    ~HostStore() override;

    posixfs::Node& Root() override { return *root_; }
    int Find(const posixfs::Components& path, posixfs::NodeRef* node) override;
    std::vector<std::string> RootPaths() const override { return beneath_->RootPaths(); }
    int StatFileSystem(struct statvfs* info) override;
    int Flush() override;

private:
    std::unique_ptr<Beneath> beneath_;
    posixfs::NodeRef root_;
};

} // namespace hostfs
