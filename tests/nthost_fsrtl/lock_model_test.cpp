// Random lock traffic against a naive model. The model knows no ranges: a file of 24 bytes is 49 places, the bytes and
// the points before, between and behind them; a range is the set of places it covers, and two ranges overlap if they
// share one.
#include "lock_fixture.h"

#include <list>
#include <memory>
#include <random>

namespace {

using namespace locktest;

constexpr unsigned FileBytes = 24;

struct ModelLock {
    Who Owner;
    unsigned First;
    unsigned Length;
    bool Exclusive;
    LockRequest* Request = nullptr; // while it waits

    uint64_t Places() const
    {
        if (Length == 0) return 1ull << (2 * First);
        return ((1ull << (2 * Length - 1)) - 1) << (2 * First + 1);
    }
    bool Overlaps(const ModelLock& other) const { return (Length || other.Length) && (Places() & other.Places()); }
    bool SameHandle(const Who& who) const { return Owner.File == who.File && Owner.Process == who.Process; }
};

struct Model {
    std::list<ModelLock> Held;
    std::list<ModelLock> Waiting;

    bool Allows(const ModelLock& wanted) const
    {
        for (const ModelLock& held : Held) {
            if (!wanted.Overlaps(held)) continue;
            if (wanted.Exclusive || (held.Exclusive && held.Owner != wanted.Owner)) return false;
        }
        return true;
    }
    bool MayRead(const ModelLock& range) const
    {
        for (const ModelLock& held : Held)
            if (range.Length && range.Overlaps(held) && held.Exclusive && held.Owner != range.Owner) return false;
        return true;
    }
    bool MayWrite(const ModelLock& range) const
    {
        for (const ModelLock& held : Held)
            if (range.Length && range.Overlaps(held) && !held.Exclusive) return false;
        return MayRead(range);
    }
    void GrantWaiting()
    {
        for (auto it = Waiting.begin(); it != Waiting.end();) {
            const auto next = std::next(it);
            if (Allows(*it)) Held.splice(Held.end(), Waiting, it);
            it = next;
        }
    }
    bool Unlock(const ModelLock& wanted)
    {
        for (const bool exclusive : {true, false}) {
            for (auto it = Held.begin(); it != Held.end(); ++it) {
                if (it->Exclusive != exclusive || it->Owner != wanted.Owner) continue;
                if (it->First != wanted.First || it->Length != wanted.Length) continue;
                Held.erase(it);
                GrantWaiting();
                return true;
            }
        }
        return false;
    }
    template <typename Match>
    void UnlockAll(Match match)
    {
        Held.remove_if(match);
        Waiting.remove_if(match);
        GrantWaiting();
    }
};

class LockModel : public LockTest {
protected:
    void Run(unsigned seed, uint64_t base);

private:
    unsigned Pick(unsigned n) { return static_cast<unsigned>(random_() % n); }
    ModelLock AnyRange()
    {
        ModelLock lock{{Pick(3), Pick(2), Pick(2)}, Pick(FileBytes), 0, Pick(2) == 0};
        lock.Length = Pick(std::min(8u, FileBytes - lock.First) + 1);
        return lock;
    }
    Bytes At(const ModelLock& lock) const { return {base_ + lock.First, lock.Length}; }

    void Step();
    void AskForLock(ModelLock lock);
    void UnlockOne(ModelLock lock);
    void UnlockMany(const Who& who, bool onlyKey);
    void CancelOne();
    void CheckRequests();

    std::mt19937 random_;
    uint64_t base_ = 0; // where the model's file lies in the range of offsets
    Model model_;
    std::list<std::unique_ptr<LockRequest>> requests_; // given to the package and not seen to end
};

void LockModel::AskForLock(ModelLock lock)
{
    const bool allowed = model_.Allows(lock);
    const bool mayWait = Pick(2) == 0 && model_.Waiting.size() < 6;
    if (!mayWait) {
        ASSERT_EQ(TryLock(lock.Owner, At(lock), lock.Exclusive), allowed);
    } else {
        auto request = std::make_unique<LockRequest>();
        ASSERT_EQ(request->Lock(&Lock_, lock.Owner, At(lock), lock.Exclusive),
                  allowed ? STATUS_SUCCESS : STATUS_PENDING);
        if (allowed) return model_.Held.push_back(lock);
        lock.Request = request.get();
        model_.Waiting.push_back(lock);
        requests_.push_back(std::move(request));
        return;
    }
    if (allowed) model_.Held.push_back(lock);
}

void LockModel::UnlockOne(ModelLock lock)
{
    const NTSTATUS expected = model_.Unlock(lock) ? STATUS_SUCCESS : STATUS_RANGE_NOT_LOCKED;
    ASSERT_EQ(Unlock(lock.Owner, At(lock)), expected);
}

void LockModel::UnlockMany(const Who& who, bool onlyKey)
{
    model_.UnlockAll(
        [&](const ModelLock& lock) { return lock.SameHandle(who) && (!onlyKey || lock.Owner.Key == who.Key); });
    if (onlyKey)
        FsRtlFastUnlockAllByKey(&Lock_, File(who), Process(who), who.Key, nullptr);
    else
        FsRtlFastUnlockAll(&Lock_, File(who), Process(who), nullptr);
}

void LockModel::CancelOne()
{
    if (model_.Waiting.empty()) return;
    auto it = std::next(model_.Waiting.begin(), Pick(static_cast<unsigned>(model_.Waiting.size())));
    EXPECT_TRUE(it->Request->Cancel());
    EXPECT_EQ(it->Request->Status, STATUS_CANCELLED);
    model_.Waiting.erase(it);
}

// A request waits here as long as it waits in the model, and one that was granted is held in the model.
void LockModel::CheckRequests()
{
    const auto has = [](const std::list<ModelLock>& locks, LockRequest* request) {
        for (const ModelLock& lock : locks)
            if (lock.Request == request) return true;
        return false;
    };
    for (auto it = requests_.begin(); it != requests_.end();) {
        LockRequest* const request = it->get();
        ASSERT_EQ(request->Completions == 0, has(model_.Waiting, request));
        if (request->Completions != 0) {
            ASSERT_EQ(request->Status == STATUS_SUCCESS, has(model_.Held, request));
            for (ModelLock& lock : model_.Held)
                if (lock.Request == request) lock.Request = nullptr;
        }
        it = request->Completions ? requests_.erase(it) : std::next(it);
    }
    ASSERT_EQ(HeldCount(), model_.Held.size());
    ASSERT_EQ(FsRtlAreThereCurrentFileLocks(&Lock_) != FALSE, !model_.Held.empty());
}

void LockModel::Step()
{
    const ModelLock range = AnyRange();
    const unsigned what = Pick(100);
    if (what < 40)
        AskForLock(range);
    else if (what < 55)
        UnlockOne(range);
    else if (what < 75 && !model_.Held.empty())
        UnlockOne(*std::next(model_.Held.begin(), Pick(static_cast<unsigned>(model_.Held.size()))));
    else if (what < 78)
        UnlockMany(range.Owner, what == 75);
    else if (what < 82)
        CancelOne();
    EXPECT_EQ(MayRead(range.Owner, At(range)), model_.MayRead(range));
    EXPECT_EQ(MayWrite(range.Owner, At(range)), model_.MayWrite(range));
}

void LockModel::Run(unsigned seed, uint64_t base)
{
    SCOPED_TRACE(testing::Message() << "seed " << seed << ", base " << base);
    random_.seed(seed);
    base_ = base;
    for (int i = 0; i < 3000 && !HasFailure(); ++i) {
        Step();
        if (!HasFatalFailure()) CheckRequests();
    }
    for (unsigned owner = 0; owner < 6; ++owner) {
        UnlockMany({owner / 2, owner % 2, 0}, false);
        CheckRequests();
    }
    EXPECT_TRUE(requests_.empty());
}

TEST_F(LockModel, AgreesAtBothEndsOfTheOffsets)
{
    for (const unsigned seed : {1u, 2u, std::random_device()()}) {
        Run(seed, 0);
        Run(seed, UINT64_MAX - FileBytes + 1); // the last byte is the last there can be
        if (HasFailure()) return;
    }
}

} // namespace
