// The lock-order graph. Address nodes tell apart two locks of one class; class nodes connect what was seen on different
// locks of the same classes. An edge keeps the stack of its first appearance for the report.
#include "check/lock_order.h"

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

using Key = uintptr_t; // address of a lock, or of a class's interned name

struct Node {
    std::map<Key, CapturedStack> Out;
    std::set<Key> In;
};

struct Graph {
    std::map<Key, Node> Nodes;
    std::map<Key, Key> ClassOf;       // by lock
    std::set<std::string> ClassNames; // never shrinks: keys are addresses of these
};

std::mutex graphLock;
std::atomic<bool> graphInUse; // a pool free need not lock while nothing was noted

Graph& TheGraph()
{
    static Graph graph;
    return graph;
}

Key KeyOf(const volatile void* lock) { return reinterpret_cast<Key>(lock); }

Key ClassKey(const Graph& graph, Key lock)
{
    const auto found = graph.ClassOf.find(lock);
    return found == graph.ClassOf.end() ? lock : found->second;
}

std::string KeyText(const Graph& graph, Key key)
{
    for (const std::string& name : graph.ClassNames)
        if (KeyOf(&name) == key) return "class " + name;
    const Key named = ClassKey(graph, key);
    const std::string address = Format("%#zx", key);
    return named == key ? address : address + " (" + *reinterpret_cast<const std::string*>(named) + ")";
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

void ReportCycle(const Graph& graph, Key from, Key to, const std::vector<Key>& path)
{
    std::string detail = KeyText(graph, to) + " is taken while " + KeyText(graph, from) + " is held; elsewhere:";
    for (size_t i = 0; i + 1 < path.size(); ++i)
        detail += "\n" + KeyText(graph, path[i + 1]) + " while " + KeyText(graph, path[i]) + " at\n" +
                  StackText(graph.Nodes.at(path[i]).Out.at(path[i + 1]));
    ReportFinding("lock-order-cycle", detail);
}

// True if a cycle was closed. The edge stays in any case, so that a cycle is found once.
bool AddEdge(Graph& graph, Key from, Key to, const CapturedStack& stack, bool report)
{
    if (from == to || !graph.Nodes[from].Out.emplace(to, stack).second) return false;
    graph.Nodes[to].In.insert(from);
    std::set<Key> seen;
    std::vector<Key> path;
    if (!report || !FindPath(graph, to, from, seen, path)) return false;
    ReportCycle(graph, from, to, path);
    return true;
}

void AddOrder(Graph& graph, Key held, Key taken)
{
    CapturedStack stack;
    CaptureStack(stack);
    const Key heldClass = ClassKey(graph, held), takenClass = ClassKey(graph, taken);
    bool reported = false;
    if (heldClass != held || takenClass != taken) reported = AddEdge(graph, heldClass, takenClass, stack, true);
    AddEdge(graph, held, taken, stack, !reported);
}

void RemoveNode(Graph& graph, Key key, const Node& node)
{
    for (const auto& [next, stack] : node.Out) graph.Nodes[next].In.erase(key);
    for (const Key before : node.In) graph.Nodes[before].Out.erase(key);
}

} // namespace

void NoteLockOrder(_ETHREAD* thread, void* lock)
{
    const auto& held = ke::HeldBy(thread);
    if (held.empty()) return;
    std::lock_guard guard(graphLock);
    graphInUse = true;
    for (const HeldLock& other : held)
        if (other.Address != lock) AddOrder(TheGraph(), KeyOf(other.Address), KeyOf(lock));
}

void ForgetLocksIn(const volatile void* memory, size_t size)
{
    if (!graphInUse.load(std::memory_order_relaxed)) return;
    std::lock_guard guard(graphLock);
    Graph& graph = TheGraph();
    const Key begin = KeyOf(memory), end = begin + size;
    for (auto node = graph.Nodes.lower_bound(begin); node != graph.Nodes.end() && node->first < end;) {
        RemoveNode(graph, node->first, node->second);
        node = graph.Nodes.erase(node);
    }
    graph.ClassOf.erase(graph.ClassOf.lower_bound(begin), graph.ClassOf.lower_bound(end));
}

void ForgetAllLocks()
{
    std::lock_guard guard(graphLock);
    TheGraph().Nodes.clear();
    TheGraph().ClassOf.clear();
    graphInUse = false;
}

void NameLock(void* lock, const char* className)
{
    if (!NTHOST_CHECKS) return;
    std::lock_guard guard(graphLock);
    graphInUse = true;
    TheGraph().ClassOf[KeyOf(lock)] = KeyOf(&*TheGraph().ClassNames.insert(className).first);
}

std::string LockText(void* lock)
{
    std::lock_guard guard(graphLock);
    return KeyText(TheGraph(), KeyOf(lock));
}

} // namespace nthost
