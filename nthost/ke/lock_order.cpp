// The graph behind the lock-order check. Address nodes tell apart two locks of one class; class nodes connect what was
// seen on different locks of the same classes. An edge keeps the stack of its first appearance for the report.
#include "ke/lock_order.h"

#include <compare>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include <nthost/check.h>

#include "check/stack.h"
#include "check/text.h"
#include "ke/held.h"

namespace nthost {

namespace {

enum class Owned : uint8_t { Alone, Shared };

// A lock, a control area, a semaphore or a class's interned name; and who holds it, or is waited for.
struct Key {
    uintptr_t Address;
    Owned How;
    auto operator<=>(const Key&) const = default;
};

struct Node {
    std::map<Key, CapturedStack> Out;
    std::set<Key> In;
};

enum class Kind : uint8_t { Lock, Pages, Queue };

struct Name {
    Kind Of;
    uintptr_t Class;  // its interned name, or 0
    std::string Text; // of what is no lock
};

struct Graph {
    std::map<Key, Node> Nodes;
    std::map<uintptr_t, Name> Names;  // by address; an unnamed lock has none
    std::set<std::string> ClassNames; // never shrinks: keys are addresses of these
};

std::mutex graphLock;
std::atomic<bool> graphInUse; // a pool free need not lock while nothing was noted

Graph& TheGraph()
{
    static Graph graph;
    return graph;
}

uintptr_t AddressOf(const volatile void* node) { return reinterpret_cast<uintptr_t>(node); }

const Name& NameOf(const Graph& graph, uintptr_t address)
{
    static const Name unnamed{Kind::Lock, 0, ""};
    const auto found = graph.Names.find(address);
    return found == graph.Names.end() ? unnamed : found->second;
}

uintptr_t ClassOf(const Graph& graph, uintptr_t address)
{
    const uintptr_t named = NameOf(graph, address).Class;
    return named ? named : address;
}

std::string AddressText(const Graph& graph, uintptr_t address)
{
    for (const std::string& name : graph.ClassNames)
        if (AddressOf(&name) == address) return "class " + name;
    const Name& name = NameOf(graph, address);
    if (name.Of != Kind::Lock) return name.Text;
    const std::string text = Format("%#zx", address);
    return name.Class ? text + " (" + *reinterpret_cast<const std::string*>(name.Class) + ")" : text;
}

// Depth first; the path from `from` to `to`, both included.
bool FindPath(const Graph& graph, Key from, Key to, std::set<Key>& seen, std::vector<Key>& path)
{
    path.push_back(from);
    if (from == to) return true;
    seen.insert(from);
    if (const auto node = graph.Nodes.find(from); node != graph.Nodes.end())
        for (const auto& [next, stack] : node->second.Out)
            if (!seen.count(next) && FindPath(graph, next, to, seen, path)) return true;
    path.pop_back();
    return false;
}

const char* HoldText(const Graph& graph, Key key)
{
    switch (NameOf(graph, key.Address).Of) {
    case Kind::Pages: return "reads ";
    case Kind::Queue: return "serves ";
    case Kind::Lock: break;
    }
    return key.How == Owned::Shared ? "shares " : "holds ";
}

std::string EdgeText(const Graph& graph, Key from, Key to)
{
    return (to.How == Owned::Shared ? "wait for who shares " : "wait for ") + AddressText(graph, to.Address) +
           " by a thread that " + HoldText(graph, from) + AddressText(graph, from.Address);
}

void ReportCycle(const Graph& graph, Key from, Key to, const std::vector<Key>& path)
{
    std::string detail = EdgeText(graph, from, to);
    if (path.size() > 1) detail += "; elsewhere:";
    for (size_t i = 0; i + 1 < path.size(); ++i)
        detail += "\n" + EdgeText(graph, path[i], path[i + 1]) + " at\n" +
                  StackText(graph.Nodes.at(path[i]).Out.at(path[i + 1]));
    ReportFinding("lock-order-cycle", detail);
}

// True if a cycle was closed. The edge stays in any case, so that a cycle is found once.
bool AddEdge(Graph& graph, Key from, Key to, const CapturedStack& stack, bool report)
{
    if (!graph.Nodes[from].Out.emplace(to, stack).second) return false;
    graph.Nodes[to].In.insert(from);
    std::set<Key> seen;
    std::vector<Key> path;
    if (!report || !FindPath(graph, to, from, seen, path)) return false;
    ReportCycle(graph, from, to, path);
    return true;
}

bool IsNamedLock(const Graph& graph, Key key)
{
    const Name& name = NameOf(graph, key.Address);
    return name.Of == Kind::Lock && name.Class;
}

// True if a cycle was closed. All pages are of one class, whose locks mostly have none; so a class edge takes a named
// lock: else a lock would seem to wait for itself through the pages of two files.
bool AddOrder(Graph& graph, Key held, Key awaited, const CapturedStack& stack, bool report)
{
    const Key heldClass{ClassOf(graph, held.Address), held.How};
    const Key awaitedClass{ClassOf(graph, awaited.Address), awaited.How};
    bool reported = false;
    if ((IsNamedLock(graph, held) || IsNamedLock(graph, awaited)) && heldClass.Address != awaitedClass.Address)
        reported = AddEdge(graph, heldClass, awaitedClass, stack, report);
    return AddEdge(graph, held, awaited, stack, report && !reported) || reported;
}

std::vector<Key> HeldKeys(_ETHREAD* thread)
{
    std::vector<Key> keys;
    for (const HeldLock& held : ke::HeldBy(thread))
        keys.push_back({AddressOf(held.Address), held.Exclusive ? Owned::Alone : Owned::Shared});
    for (const void* const node : thread->AtWork) keys.push_back({AddressOf(node), Owned::Alone});
    return keys;
}

// A lock can be taken again by who has it, and which of a file's pages is read is not told apart. But a queue's worker
// that waits for the queue waits for workers who may all do so.
bool MayWaitForItself(const Graph& graph, uintptr_t address) { return NameOf(graph, address).Of == Kind::Queue; }

void RemoveNode(Graph& graph, Key key, const Node& node)
{
    for (const auto& [next, stack] : node.Out) graph.Nodes[next].In.erase(key);
    for (const Key before : node.In) graph.Nodes[before].Out.erase(key);
}

void SetName(const volatile void* node, Kind kind, const char* className, std::string text)
{
    std::lock_guard guard(graphLock);
    graphInUse = true;
    Graph& graph = TheGraph();
    const uintptr_t named = className ? AddressOf(&*graph.ClassNames.insert(className).first) : 0;
    graph.Names[AddressOf(node)] = {kind, named, std::move(text)};
}

} // namespace

void NoteLockOrder(_ETHREAD* thread, const volatile void* awaited, BlockedBy blockedBy)
{
    if (!HoldsAnything(thread)) return;
    const std::vector<Key> held = HeldKeys(thread);
    const uintptr_t address = AddressOf(awaited);
    CapturedStack stack;
    CaptureStack(stack);
    std::lock_guard guard(graphLock);
    graphInUse = true;
    Graph& graph = TheGraph();
    for (const Key key : held) {
        if (key.Address == address && !MayWaitForItself(graph, address)) continue;
        const bool reported = AddOrder(graph, key, {address, Owned::Alone}, stack, true);
        if (blockedBy == BlockedBy::AnyOwner) AddOrder(graph, key, {address, Owned::Shared}, stack, !reported);
    }
}

void NoteAtWork(_ETHREAD* thread, const void* node) { thread->AtWork.push_back(node); }

void NoteDone(_ETHREAD* thread, const void* node) { std::erase(thread->AtWork, node); }

bool HoldsAnything(_ETHREAD* thread) { return !ke::HeldBy(thread).empty() || !thread->AtWork.empty(); }

PageRead::PageRead(const void* area) : area_(area)
{
    if (NTHOST_CHECKS) NoteAtWork(ke::CurrentThread(), area_);
}

// Reads of several pages of an area can be nested: the innermost ends.
PageRead::~PageRead()
{
    if (NTHOST_CHECKS) ke::CurrentThread()->AtWork.pop_back();
}

void NamePages(const void* area, std::string name) { SetName(area, Kind::Pages, "page being read", std::move(name)); }

void NameQueue(const void* semaphore, std::string name) { SetName(semaphore, Kind::Queue, nullptr, std::move(name)); }

void NameLock(void* lock, const char* className)
{
    if (NTHOST_CHECKS) SetName(lock, Kind::Lock, className, "");
}

void ForgetLocksIn(const volatile void* memory, size_t size)
{
    if (!graphInUse.load(std::memory_order_relaxed)) return;
    std::lock_guard guard(graphLock);
    Graph& graph = TheGraph();
    const uintptr_t begin = AddressOf(memory), end = begin + size;
    for (auto node = graph.Nodes.lower_bound({begin, Owned::Alone});
         node != graph.Nodes.end() && node->first.Address < end;) {
        RemoveNode(graph, node->first, node->second);
        node = graph.Nodes.erase(node);
    }
    graph.Names.erase(graph.Names.lower_bound(begin), graph.Names.lower_bound(end));
}

void ForgetAllLocks()
{
    std::lock_guard guard(graphLock);
    TheGraph().Nodes.clear();
    TheGraph().Names.clear();
    graphInUse = false;
}

std::string LockText(const volatile void* lock)
{
    std::lock_guard guard(graphLock);
    return AddressText(TheGraph(), AddressOf(lock));
}

} // namespace nthost
