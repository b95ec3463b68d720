// The weight-balanced tree. The recursion is as deep as the tree, which for n entries is below 2.5 * log2(n): an order
// of insertions that somebody chooses with care cannot exhaust the kernel stack. Relies on MemFs.TreeLock.

#include "directory.h"

#include "names.h"

namespace memfs {
namespace {

// The one pair of small numbers that keeps both insertion and removal in balance with single and double rotations.
constexpr ULONG kHeavy = 3;
constexpr ULONG kDouble = 2;

ULONG Weight(const Node* tree) { return tree ? tree->Count + 1 : 1; }

void Recount(Node* tree) { tree->Count = Weight(tree->Left) + Weight(tree->Right) - 1; }

Node* RotateLeft(Node* tree)
{
    Node* const top = tree->Right;
    tree->Right = top->Left;
    top->Left = tree;
    Recount(tree);
    Recount(top);
    return top;
}

Node* RotateRight(Node* tree)
{
    Node* const top = tree->Left;
    tree->Left = top->Right;
    top->Right = tree;
    Recount(tree);
    Recount(top);
    return top;
}

// The top of the tree after one entry has come to or gone from one of its sides.
Node* Balance(Node* tree)
{
    if (Weight(tree->Right) > kHeavy * Weight(tree->Left)) {
        if (Weight(tree->Right->Left) >= kDouble * Weight(tree->Right->Right)) tree->Right = RotateRight(tree->Right);
        return RotateLeft(tree);
    }
    if (Weight(tree->Left) > kHeavy * Weight(tree->Right)) {
        if (Weight(tree->Left->Right) >= kDouble * Weight(tree->Left->Left)) tree->Left = RotateLeft(tree->Left);
        return RotateRight(tree);
    }
    Recount(tree);
    return tree;
}

Node* Insert(Node* tree, Node* node)
{
    if (!tree) return node;
    Node*& side = CompareNames(node->Name, tree->Name) < 0 ? tree->Left : tree->Right;
    side = Insert(side, node);
    return Balance(tree);
}

Node* TakeFirst(Node* tree, Node** first)
{
    if (!tree->Left) {
        *first = tree;
        return tree->Right;
    }
    tree->Left = TakeFirst(tree->Left, first);
    return Balance(tree);
}

// What stands in the place of a node that goes.
Node* JoinSides(Node* node)
{
    if (!node->Left) return node->Right;
    if (!node->Right) return node->Left;
    Node* top;
    Node* const right = TakeFirst(node->Right, &top);
    top->Left = node->Left;
    top->Right = right;
    return Balance(top);
}

Node* Remove(Node* tree, Node* node)
{
    if (tree == node) return JoinSides(node);
    Node*& side = CompareNames(node->Name, tree->Name) < 0 ? tree->Left : tree->Right;
    side = Remove(side, node);
    return Balance(tree);
}

void Detach(Node* node)
{
    node->Left = node->Right = nullptr;
    node->Count = 1;
}

} // namespace

Node* DirectoryFind(const Node* directory, const UNICODE_STRING& name)
{
    Node* tree = directory->Children;
    while (tree) {
        const LONG order = CompareNames(name, tree->Name);
        if (order == 0) return tree;
        tree = order < 0 ? tree->Left : tree->Right;
    }
    return nullptr;
}

Node* DirectoryAt(const Node* directory, ULONG index)
{
    Node* tree = directory->Children;
    while (tree) {
        const ULONG before = Weight(tree->Left) - 1;
        if (index == before) return tree;
        if (index < before) {
            tree = tree->Left;
        } else {
            index -= before + 1;
            tree = tree->Right;
        }
    }
    return nullptr;
}

bool DirectoryInsert(Node* directory, Node* node)
{
    if (DirectoryFind(directory, node->Name)) return false;
    Detach(node);
    directory->Children = Insert(directory->Children, node);
    node->Parent = directory;
    return true;
}

void DirectoryRemove(Node* node)
{
    node->Parent->Children = Remove(node->Parent->Children, node);
    node->Parent = nullptr;
    Detach(node);
}

Node* DirectoryTakeAny(Node* directory)
{
    Node* tree = directory->Children;
    if (!tree) return nullptr;
    while (tree->Left) tree = RotateRight(tree);
    directory->Children = tree->Right;
    Detach(tree);
    return tree;
}

} // namespace memfs
