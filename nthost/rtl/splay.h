// Splay trees whose links stand in the caller's records; order is the caller's affair. The parent of a root is itself.
// Whoever walks down a tree must splay where the walk ends, found or not: that is what pays for a deep tree.
#pragma once

#include <ntifs.h>

namespace nthost::rtl {

// A tree of one.
void InitializeLinks(PRTL_SPLAY_LINKS links);
// Makes the node the root of its tree.
void Splay(PRTL_SPLAY_LINKS links);
// Takes the node out; returns the new root, null for a tree that is now empty.
[[nodiscard]] PRTL_SPLAY_LINKS DeleteLinks(PRTL_SPLAY_LINKS links);
// The other node, in no tree, takes the node's place.
void ReplaceLinks(PRTL_SPLAY_LINKS links, PRTL_SPLAY_LINKS other);

// The first node in order below (and with) this one; the node after this one in its tree, or null.
PRTL_SPLAY_LINKS FirstLinks(PRTL_SPLAY_LINKS links);
PRTL_SPLAY_LINKS NextLinks(PRTL_SPLAY_LINKS links);

} // namespace nthost::rtl
