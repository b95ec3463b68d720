// Byte-range locks: the same rules for synchronous and asynchronous handles, locks that wait, and their end.

#include "open_requests.h"

namespace opening {
namespace {

class Locks : public VolumeTest {};

constexpr OpenRequest kSync = {.Access = FILE_READ_DATA | SYNCHRONIZE};
constexpr OpenRequest kAsync = {.Access = FILE_READ_DATA, .Options = 0};

TEST_F(Locks, HoldForBothKindsOfHandle)
{
    for (const auto& [ownerKind, otherKind] : {std::pair{kSync, kAsync}, {kAsync, kSync}, {kAsync, kAsync}}) {
        Handle owner = OpenOrFail("\\file", ownerKind), other = OpenOrFail("\\file", otherKind);
        EXPECT_STATUS(STATUS_SUCCESS, Lock(owner.Get(), {2, 3}));
        EXPECT_STATUS(STATUS_LOCK_NOT_GRANTED, Lock(other.Get(), {4, 1}, Request::Lock::Shared));
        EXPECT_STATUS(STATUS_SUCCESS, Lock(other.Get(), {5, 1}));
        EXPECT_EQ(ReadText(other.Get(), 3, 0), "<STATUS_FILE_LOCK_CONFLICT>");
        EXPECT_EQ(ReadText(other.Get(), 2, 0), "01");
        EXPECT_EQ(ReadText(owner.Get(), 2, 3), "34");
        EXPECT_EQ(ReadText(owner.Get(), 1, 5), "<STATUS_FILE_LOCK_CONFLICT>");
        EXPECT_STATUS(STATUS_SUCCESS, Unlock(owner.Get(), {2, 3}));
        EXPECT_EQ(ReadText(other.Get(), 3, 0), "012");
        EXPECT_STATUS(STATUS_RANGE_NOT_LOCKED, Unlock(owner.Get(), {2, 3}));
    }
}

// Refused before anything is handed over, so an asynchronous handle gets the same answer at once.
TEST_F(Locks, AreForTopLevelRequestsOnFiles)
{
    for (const char* path : {"\\dir", ""}) {
        SCOPED_TRACE(path);
        for (const OpenRequest& kind : {kSync, kAsync}) {
            Handle other = OpenOrFail(path, kind);
            EXPECT_STATUS(STATUS_INVALID_PARAMETER, Lock(other.Get(), {0, 1}));
        }
    }
    for (const OpenRequest& kind : {kSync, kAsync}) {
        Handle file = OpenOrFail("\\file", kind);
        FileReference object(file.Get());
        HandMade nested(Device(), object.Get(), IRP_MJ_LOCK_CONTROL, IRP_MN_LOCK, support::Caller::GoesOn);
        const InsideOtherWork inside;
        EXPECT_STATUS(STATUS_INVALID_PARAMETER, nested.Send());
        EXPECT_TRUE(Trace().Contains("ERR: lock-ctrl must be a top-level request\n"));
    }
}

struct EndRow {
    const char* What;
    NTSTATUS Expected;
};

// A lock that waits ends in one of three ways: the range comes free by an unlock or by its owner's end, or the request
// is cancelled. A worker brought it to where it waits, and is free again.
TEST_F(Locks, WaitUntilGrantedOrCancelled)
{
    for (const EndRow& row : {EndRow{"unlock", STATUS_SUCCESS}, EndRow{"owner closes", STATUS_SUCCESS},
                              EndRow{"cancel", STATUS_CANCELLED}}) {
        SCOPED_TRACE(row.What);
        const std::string what = row.What;
        Handle owner = OpenOrFail("\\file"), waiter = OpenOrFail("\\file", kAsync), third = OpenOrFail("\\file");
        EXPECT_STATUS(STATUS_SUCCESS, Lock(owner.Get(), {0, 4}));
        Request request;
        ASSERT_STATUS(STATUS_PENDING,
                      request.StartLock(waiter.Get(), 2, 4, Request::Lock::Exclusive, Request::IfHeld::Wait));
        EXPECT_FALSE(request.IsDone());
        if (what == "unlock") EXPECT_STATUS(STATUS_SUCCESS, Unlock(owner.Get(), {0, 4}));
        if (what == "owner closes") owner.Close();
        if (what == "cancel") EXPECT_STATUS(STATUS_SUCCESS, request.Cancel(waiter.Get()));
        EXPECT_STATUS(row.Expected, request.Wait());
        const bool granted = row.Expected == STATUS_SUCCESS;
        EXPECT_EQ(ReadText(third.Get(), 1, 5), granted ? "<STATUS_FILE_LOCK_CONFLICT>" : "5");
        // Cleanup takes exactly the locks of its own handle.
        waiter.Close();
        EXPECT_EQ(ReadText(third.Get(), 1, 5), "5");
        EXPECT_EQ(ReadText(third.Get(), 1, 1), what == "cancel" ? "<STATUS_FILE_LOCK_CONFLICT>" : "1");
    }
}

// The worker reaches the lock package while the issuing thread still looks at its request: whatever the outcome, each
// of these ends once.
TEST_F(Locks, ManyAsynchronousLocksEachEndOnce)
{
    constexpr int kRequests = 64;
    Handle owner = OpenOrFail("\\file", kAsync), other = OpenOrFail("\\file", kAsync);
    ASSERT_STATUS(STATUS_SUCCESS, Lock(owner.Get(), {2, 3}));
    std::vector<Request> refused(kRequests), waiting(kRequests);
    for (int i = 0; i < kRequests; ++i) {
        EXPECT_STATUS(STATUS_PENDING, refused[i].StartLock(owner.Get(), 2, 3));
        EXPECT_STATUS(STATUS_PENDING,
                      waiting[i].StartLock(other.Get(), 2, 3, Request::Lock::Shared, Request::IfHeld::Wait));
    }
    for (Request& request : refused) EXPECT_STATUS(STATUS_LOCK_NOT_GRANTED, request.Wait());
    for (int i = 0; i < kRequests; i += 2) EXPECT_STATUS(STATUS_SUCCESS, waiting[i].Cancel(other.Get()));
    for (int i = 0; i < kRequests; i += 2) EXPECT_STATUS(STATUS_CANCELLED, waiting[i].Wait());
    EXPECT_STATUS(STATUS_SUCCESS, Unlock(owner.Get(), {2, 3}));
    for (int i = 1; i < kRequests; i += 2) EXPECT_STATUS(STATUS_SUCCESS, waiting[i].Wait());
}

// A lock request is a matter of the driver alone: what became of the plugin's handle does not count.
TEST_F(Locks, NeedNoPluginHandle)
{
    Handle file = OpenOrFail("\\file");
    Fcb* const fcb = Find("\\file");
    fcb->PluginFdClosed = 1;
    EXPECT_STATUS(STATUS_SUCCESS, Lock(file.Get(), {0, 1}));
    fcb->PluginFdClosed = 0;
}

} // namespace
} // namespace opening
