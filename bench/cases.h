// The cases by subject. Each call registers its cases; what they need is made when the first of them runs, and lives in
// the run's places.
#pragma once

#include <deque>
#include <map>
#include <memory>

#include "objects/tree.h"
#include "place.h"

namespace bench {

// Every index below count once per round, by golden-section steps: far from the one before.
class Order {
public:
    explicit Order(size_t count);
    size_t Next() { return at_ = (at_ + step_) % count_; }

private:
    size_t count_;
    size_t step_;
    size_t at_ = 0;
};

// A directory of count files whose control blocks are all live, since each is open through the driver; and a name tree
// apart that has the same names.
class Population {
public:
    Population(Host& host, unsigned count);
    Population(const Population&) = delete;
    Population& operator=(const Population&) = delete;
    ~Population();
    Place& Where() { return place_; }
    const std::deque<Path>& Paths() const { return paths_; }
    GvTree* Names() { return tree_; }

private:
    void Shuffle();

    Place place_;
    std::deque<Path> paths_;
    std::deque<HANDLE> handles_;
    std::deque<GvTreeEntry> entries_;
    GvTree* tree_ = nullptr;
};

// What the cases share; goes before the host does.
class Run {
public:
    explicit Run(Host& host) : host_(host) {}
    // \file, \1\2\...\8\file, \small (4 KiB), \large (1 MiB), \truncated, \renamed, \link to \file, \many with
    // 10,000 entries
    Place& Common();
    Population& Live(unsigned count);

private:
    Host& host_;
    std::unique_ptr<Place> common_;
    std::map<unsigned, std::unique_ptr<Population>> populations_;
};

// The common files that are read and written.
struct Size {
    const char* Name;
    const char* Path;
    ULONG Bytes;
};

inline constexpr Size kSizes[] = {
    {"4 KiB", "\\small", 4096},
    {"1 MiB", "\\large", 1 << 20},
};

void RegisterOpens(Run& run);
void RegisterReads(Run& run);
void RegisterListings(Run& run);
void RegisterTrees(Run& run);
void RegisterWrites(Run& run);
void RegisterChanges(Run& run);

} // namespace bench
