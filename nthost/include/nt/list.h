// Doubly linked, circular lists. Nothing here locks.
#pragma once

#include "base.h"

FORCEINLINE void InitializeListHead(PLIST_ENTRY head) { head->Flink = head->Blink = head; }

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* head) { return (BOOLEAN)(head->Flink == head); }

// TRUE if the list is empty afterwards. The entry's own links are left as they were.
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY entry)
{
    PLIST_ENTRY next = entry->Flink, previous = entry->Blink;
    previous->Flink = next;
    next->Blink = previous;
    return (BOOLEAN)(next == previous);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head)
{
    PLIST_ENTRY entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY head)
{
    PLIST_ENTRY entry = head->Blink;
    RemoveEntryList(entry);
    return entry;
}

FORCEINLINE void InsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry)
{
    PLIST_ENTRY last = head->Blink;
    entry->Flink = head;
    entry->Blink = last;
    last->Flink = entry;
    head->Blink = entry;
}

FORCEINLINE void InsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry)
{
    PLIST_ENTRY first = head->Flink;
    entry->Flink = first;
    entry->Blink = head;
    first->Blink = entry;
    head->Flink = entry;
}
