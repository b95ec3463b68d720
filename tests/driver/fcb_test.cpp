// Control blocks: references along the chain, the deletion tree.

#include "objects/fcb.h"

#include <nthost/debug.h>

#include "objects/tree.h"
#include "open_requests.h"

namespace opening {
namespace {

class Fcbs : public VolumeTest {
protected:
    template <typename Body>
    void AsARequest(Body body)
    {
        ServedRequest request(Device());
        body(request.Context());
    }

    // What a deletion at cleanup does to the record.
    void MarkDeleted(Fcb* fcb)
    {
        AsARequest([&](IrpContext* context) {
            (void)Plugin().Table()->Close(Plugin().Table()->PluginContext, &context->PluginCallContext, fcb->PluginFd);
            fcb->PluginFd = 0;
            fcb->PluginFdClosed = 1;
            fcb->Deleted = 1;
            EXPECT_STATUS(STATUS_SUCCESS, GvFcbMarkFcbAsDeleted(context, fcb));
        });
    }
};

TEST_F(Fcbs, AnOpenFileKeepsItsChain)
{
    Handle file = OpenOrFail("\\dir\\sub\\deep");
    EXPECT_EQ(FcbCount(), 4u);
    for (const char* path : {"\\", "\\dir", "\\dir\\sub"}) {
        EXPECT_EQ(Find(path)->RefCount, 1) << path;
        EXPECT_EQ(Find(path)->OpenCount, 0) << path;
    }
    Handle directory = OpenOrFail("\\dir");
    EXPECT_EQ(Find("\\dir")->RefCount, 2);
    EXPECT_EQ(Find("\\")->IsRootDir, 1);
    file.Close();
    EXPECT_EQ(FcbCount(), 2u); // what the directory's handle needs
}

TEST_F(Fcbs, DeletedObjectsOfOneNameStandSideBySide)
{
    Handle first = OpenOrFail("\\dir\\file"), second, third;
    Fcb* const firstFcb = Find("\\dir\\file");
    MarkDeleted(firstFcb);
    EXPECT_EQ(FcbCount(), 1u); // its directories had no other user
    EXPECT_EQ(Find("\\dir\\file"), nullptr);
    EXPECT_EQ(firstFcb->ParentFcb, nullptr);

    second = OpenOrFail("\\dir\\file"); // the name is free for another one
    MarkDeleted(Find("\\dir\\file"));
    third = OpenOrFail("\\dir\\file");
    EXPECT_EQ(FcbCount(), 5u);
    EXPECT_NE(Find("\\dir\\file"), firstFcb);

    PUNICODE_STRING name = nullptr;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, GvFcbGetName(Volume()->FcbTables, firstFcb, &name));
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, Open("below", {.Root = first.Get()}).Status);
    // The key is the path with the address behind it.
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(firstFcb)));
    EXPECT_EQ(nthost::ToUtf8(firstFcb->TreeEntry.Key), std::string("\\dir\\file") + hex);
    // A deleted file has no data, whatever its handle asks for, and the plugin hears nothing.
    Plugin().Clear();
    EXPECT_EQ(ReadText(first.Get(), 4, 0), "<STATUS_END_OF_FILE>");
    first.Close();
    second.Close();
    EXPECT_TRUE(Plugin().Calls().empty());
    EXPECT_EQ(FcbCount(), 3u);
}

TEST_F(Fcbs, TheLastReferenceOnADeletedObjectWithoutATreeLeavesIt)
{
    Handle file = OpenOrFail("\\file");
    Fcb* const fcb = Find("\\file");
    MarkDeleted(fcb);
    AsARequest([&](IrpContext* context) {
        // What a deletion leaves that could not enter the deletion tree.
        GvTree* const tree = context->Vcb->FcbTables->DeletionTree;
        GvTreeRemoveEntryByVal(tree, &fcb->TreeEntry);
        fcb->OnDeletionTree = 0;
        fcb->RefCount = 1;
        EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvFcbReleaseFcb(context, fcb));
        EXPECT_TRUE(Trace().Contains("bad FCB.. not on deletion tree: 0x"));
        const UNICODE_STRING key = GvLiteral(L"\\any");
        EXPECT_STATUS(STATUS_SUCCESS, GvTreeAddEntry(tree, &key, &fcb->TreeEntry));
        fcb->OnDeletionTree = 1;
        fcb->RefCount = 1; // the file object's
    });
}

TEST_F(Fcbs, TheRootCannotBeMarkedDeleted)
{
    Handle root = OpenOrFail("\\");
    AsARequest([&](IrpContext* context) {
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, GvFcbMarkFcbAsDeleted(context, Find("\\")));
    });
    EXPECT_NE(Find("\\"), nullptr);
}

TEST_F(Fcbs, AReferencedListHoldsWhatItNames)
{
    Handle one = OpenOrFail("\\dir\\file"), other = OpenOrFail("\\file");
    AsARequest([&](IrpContext* context) {
        Fcb* head = nullptr;
        GvFcbGetReferencedFcbList(Volume()->FcbTables, GvFile, &head);
        unsigned found = 0;
        while (Fcb* const fcb = GvFcbPopReferencedFcb(&head)) {
            EXPECT_EQ(fcb->FcbType, ULONG(GvFile));
            EXPECT_EQ(fcb->RefCount, 2);
            GvFcbReleaseFcb(context, fcb);
            ++found;
        }
        EXPECT_EQ(found, 2u);
    });
    EXPECT_EQ(Find("\\file")->RefCount, 1);
}

} // namespace
} // namespace opening
