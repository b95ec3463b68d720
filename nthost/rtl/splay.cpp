// Bottom-up splaying by parent links. Nothing recurses, so the depth of a tree costs no stack.

#include "rtl/splay.h"

namespace nthost::rtl {
namespace {

bool IsRoot(PRTL_SPLAY_LINKS links) { return links->Parent == links; }

bool IsLeftChild(PRTL_SPLAY_LINKS links) { return links->Parent->LeftChild == links; }

void SetParent(PRTL_SPLAY_LINKS child, PRTL_SPLAY_LINKS parent)
{
    if (child) child->Parent = parent;
}

// `other` hangs from now on where `links` hangs.
void TakePlace(PRTL_SPLAY_LINKS other, PRTL_SPLAY_LINKS links)
{
    if (IsRoot(links)) {
        other->Parent = other;
        return;
    }
    (IsLeftChild(links) ? links->Parent->LeftChild : links->Parent->RightChild) = other;
    other->Parent = links->Parent;
}

// Lifts the node over its parent.
void Rotate(PRTL_SPLAY_LINKS links)
{
    const PRTL_SPLAY_LINKS parent = links->Parent;
    const bool left = IsLeftChild(links);
    TakePlace(links, parent);
    PRTL_SPLAY_LINKS& inner = left ? links->RightChild : links->LeftChild;
    (left ? parent->LeftChild : parent->RightChild) = inner;
    SetParent(inner, parent);
    inner = parent;
    parent->Parent = links;
}

} // namespace

void InitializeLinks(PRTL_SPLAY_LINKS links) { *links = {links, nullptr, nullptr}; }

void Splay(PRTL_SPLAY_LINKS links)
{
    while (!IsRoot(links)) {
        const PRTL_SPLAY_LINKS parent = links->Parent;
        // The parent goes up first on a straight line: lifting the node twice would not shorten the path to the rest.
        if (!IsRoot(parent)) Rotate(IsLeftChild(links) == IsLeftChild(parent) ? parent : links);
        Rotate(links);
    }
}

PRTL_SPLAY_LINKS DeleteLinks(PRTL_SPLAY_LINKS links)
{
    Splay(links);
    const PRTL_SPLAY_LINKS left = links->LeftChild, right = links->RightChild;
    SetParent(left, left);
    SetParent(right, right);
    if (!left) return right;
    PRTL_SPLAY_LINKS last = left;
    while (last->RightChild) last = last->RightChild;
    Splay(last);
    last->RightChild = right;
    SetParent(right, last);
    return last;
}

void ReplaceLinks(PRTL_SPLAY_LINKS links, PRTL_SPLAY_LINKS other)
{
    TakePlace(other, links);
    other->LeftChild = links->LeftChild;
    other->RightChild = links->RightChild;
    SetParent(other->LeftChild, other);
    SetParent(other->RightChild, other);
}

PRTL_SPLAY_LINKS FirstLinks(PRTL_SPLAY_LINKS links)
{
    while (links->LeftChild) links = links->LeftChild;
    return links;
}

PRTL_SPLAY_LINKS NextLinks(PRTL_SPLAY_LINKS links)
{
    if (links->RightChild) return FirstLinks(links->RightChild);
    while (!IsRoot(links) && !IsLeftChild(links)) links = links->Parent;
    return IsRoot(links) ? nullptr : links->Parent;
}

} // namespace nthost::rtl
