// Making what the cases work on.

#include "cases.h"

#include <numeric>

namespace bench {

namespace {

constexpr unsigned kEntries = 10'000;

std::string Numbered(const char* prefix, unsigned number)
{
    std::string digits = std::to_string(number);
    return prefix + std::string(6 - digits.size(), '0') + digits;
}

} // namespace

Order::Order(size_t count) : count_(count), step_(static_cast<size_t>(static_cast<double>(count) * 0.618034))
{
    while (std::gcd(step_, count_) != 1) ++step_;
}

Population::Population(Host& host, unsigned count) : place_(host, "Live" + std::to_string(count))
{
    Require(GvTreeInit(&tree_), "make a tree");
    place_.MakeDirectory("\\d");
    for (unsigned i = 0; i < count; ++i) {
        const std::string path = Numbered("\\d\\file", i);
        place_.MakeFile(path, 0);
        const Path& names = paths_.emplace_back(place_.Link(), path);
        handles_.push_back(OpenByDriver(names));
        Require(GvTreeAddEntry(tree_, names.ForPlugin(), &entries_.emplace_back()), "fill a tree");
    }
    Shuffle();
}

Population::~Population()
{
    for (HANDLE handle : handles_) NtClose(handle);
    for (GvTreeEntry& entry : entries_) GvTreeRemoveEntryByVal(tree_, &entry);
    Require(GvTreeDelete(tree_), "delete a tree");
}

// Names that came in order make a tree that is a chain until it has been used.
void Population::Shuffle()
{
    Order order(paths_.size());
    for (size_t i = 0; i < paths_.size(); ++i) {
        const Path& path = paths_[order.Next()];
        NtClose(OpenByDriver(path));
        GvTreeEntry* entry = nullptr;
        Require(GvTreeGetEntry(tree_, path.ForPlugin(), &entry), "look up");
    }
}

Place& Run::Common()
{
    if (common_) return *common_;
    common_ = std::make_unique<Place>(host_, "Bench");
    common_->MakeFile("\\file", 0);
    std::string directory;
    for (char digit = '1'; digit <= '8'; ++digit) {
        directory += std::string("\\") + digit;
        common_->MakeDirectory(directory);
    }
    common_->MakeFile(directory + "\\file", 0);
    common_->MakeFile("\\small", 4096);
    common_->MakeFile("\\large", 1 << 20);
    common_->MakeFile("\\truncated", 0);
    common_->MakeFile("\\renamed", 0);
    common_->MakeLink("\\link", "\\file");
    common_->MakeDirectory("\\many");
    for (unsigned i = 0; i < kEntries; ++i) common_->MakeFile(Numbered("\\many\\entry", i), 0);
    return *common_;
}

Population& Run::Live(unsigned count)
{
    std::unique_ptr<Population>& population = populations_[count];
    if (!population) population = std::make_unique<Population>(host_, count);
    return *population;
}

} // namespace bench
