// The deferred release behind the reads without the lock, on its own: what is retired while a
// reader is in a section outlives the section and no more, goes in the order it was retired,
// and is released even when releasing retires more, or when the thread that retired it exits.
// Threads enter and leave their sections at chosen points; the epochs advance only when the
// test collects.
#include "Readers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "SmallStack.h"

namespace {

using NSCam::readers::collect;
using NSCam::readers::retire;
using NSCam::readers::Section;

// Records the order in which items are released.
struct Released {
    std::mutex lock;
    std::vector<int> order;
    void note(int id) {
        std::lock_guard<std::mutex> guard(lock);
        order.push_back(id);
    }
    size_t count() {
        std::lock_guard<std::mutex> guard(lock);
        return order.size();
    }
};
Released gReleased;

struct Item {
    int id;
};
void releaseItem(void* p) {
    auto* item = static_cast<Item*>(p);
    gReleased.note(item->id);
    delete item;
}
void retireItem(int id) {
    retire(new Item{id}, releaseItem);
}

// A thread that holds a section open from `enter()` until `leave()`.
class Reader {
public:
    Reader()
        : mThread([this] {
              std::unique_lock<std::mutex> guard(mLock);
              mCv.wait(guard, [this] { return mState == 1; });
              {
                  const Section section;
                  mState = 2;
                  mCv.notify_all();
                  mCv.wait(guard, [this] { return mState == 3; });
              }
              mState = 4;
              mCv.notify_all();
          }) {}
    ~Reader() { mThread.join(); }
    void enter() { step(1, 2); }
    void leave() { step(3, 4); }

private:
    void step(int to, int until) {
        std::unique_lock<std::mutex> guard(mLock);
        mState = to;
        mCv.notify_all();
        mCv.wait(guard, [&] { return mState == until; });
    }
    std::mutex mLock;
    std::condition_variable mCv;
    int mState = 0;
    std::thread mThread;
};

class ReadersTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 8; ++i) collect();  // what earlier tests left
        std::lock_guard<std::mutex> guard(gReleased.lock);
        gReleased.order.clear();
    }
    static void collectAll() {
        for (int i = 0; i < 8; ++i) collect();
    }
};

TEST_F(ReadersTest, WhatIsRetiredDuringASectionOutlivesItAndNoMore) {
    Reader reader;
    reader.enter();
    retireItem(1);
    collectAll();  // the epoch may move once, not twice, while the reader is in
    EXPECT_EQ(gReleased.count(), 0u);
    reader.leave();
    collectAll();
    EXPECT_EQ(gReleased.count(), 1u);
    // A reader that entered after the retirement, before the epoch moved on, holds it back
    // too: the epochs cannot tell it from one that entered before.
    retireItem(2);
    Reader late;
    late.enter();
    collectAll();
    EXPECT_EQ(gReleased.count(), 1u);
    late.leave();
    collectAll();
    EXPECT_EQ(gReleased.count(), 2u);
}

TEST_F(ReadersTest, ItemsGoInTheOrderTheyWereRetiredAcrossFullBatches) {
    Reader reader;
    reader.enter();
    const int n = 20 * static_cast<int>(NSCam::readers::kBatch);  // more than the ring holds
    for (int i = 0; i < n; ++i) retireItem(i);
    EXPECT_EQ(gReleased.count(), 0u);
    reader.leave();
    collectAll();
    ASSERT_EQ(gReleased.count(), static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) ASSERT_EQ(gReleased.order[static_cast<size_t>(i)], i);
}

// A release that retires many more fills the ring while older batches still wait their turn:
// those move aside (spill), and still go before the newer batches of the ring.
void releaseAndRetireMany(void* p) {
    auto* item = static_cast<Item*>(p);
    gReleased.note(item->id);
    delete item;
    // Enough to fill the open batch and the one just freed, and start one more: the oldest
    // waiting batch moves aside, the next ones stay in the ring.
    for (int i = 0; i < 2 * static_cast<int>(NSCam::readers::kBatch) + 5; ++i) retireItem(-1);
}

TEST_F(ReadersTest, BatchesPushedAsideByAReleaseStillGoInOrder) {
    Reader reader;
    reader.enter();
    const int n = 7 * static_cast<int>(NSCam::readers::kBatch);
    retire(new Item{0}, releaseAndRetireMany);
    for (int i = 1; i < n; ++i) retireItem(i);
    reader.leave();
    collectAll();
    std::vector<int> order;
    for (int id : gReleased.order)
        if (id >= 0) order.push_back(id);
    ASSERT_EQ(order.size(), static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) ASSERT_EQ(order[static_cast<size_t>(i)], i);
}

// Batches moved aside wait for readers as the ring's do: a reader that entered after they were
// sealed, before the epoch moved on, holds them back, while an older one goes.
TEST_F(ReadersTest, BatchesMovedAsideOutliveTheSectionsThatMayReachThem) {
    using NSCam::readers::kBatch;
    using NSCam::readers::kBatches;
    Reader first;
    first.enter();
    // The first batch is sealed before the epoch moves; the others after. Two more batches than
    // the ring holds move the two oldest aside.
    const int n = static_cast<int>((kBatches + 2) * kBatch);
    for (int i = 0; i < n; ++i) retireItem(i);
    first.leave();
    Reader second;
    second.enter();
    collectAll();
    EXPECT_EQ(gReleased.count(), kBatch);  // the oldest batch, and no other
    second.leave();
    collectAll();
    ASSERT_EQ(gReleased.count(), static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) ASSERT_EQ(gReleased.order[static_cast<size_t>(i)], i);
}

// A thread whose reclamation state has gone (its thread-local destructors are running) opens
// sections that pin nothing, so that what it reads goes under the lock: its record may already
// serve another thread.
struct AtExit {
    std::function<void()> run;
    ~AtExit() {
        if (run) run();
    }
};

TEST_F(ReadersTest, AThreadWhoseStateHasGoneOpensSectionsThatPinNothing) {
    bool pinnedBefore = false;
    bool pinnedAtExit = true;
    std::thread exiting([&] {
        thread_local AtExit atExit;  // made before the thread's state, so destroyed after it
        atExit.run = [&] { pinnedAtExit = Section().pinned(); };
        pinnedBefore = Section().pinned();  // the state is made here
    });
    exiting.join();
    EXPECT_TRUE(pinnedBefore);
    EXPECT_FALSE(pinnedAtExit);
}

// Each release retires the next link: a chain of 10,000 goes by collecting, one level after
// another, without a call per level (on a 256 KiB stack).
struct Link {
    int left;
};
void releaseLink(void* p) {
    auto* link = static_cast<Link*>(p);
    if (link->left > 0) retire(new Link{link->left - 1}, releaseLink);
    gReleased.note(link->left);
    delete link;
}

TEST_F(ReadersTest, ReleasesThatRetireMoreGoWithoutAFrameEach) {
    zorcam_test::onSmallStack(256 << 10, [] {
        retire(new Link{9999}, releaseLink);
        for (int i = 0; i < 100 && gReleased.count() < 10000; ++i) collect();
    });
    EXPECT_EQ(gReleased.count(), 10000u);
}

// In the order it was retired: the batches moved aside, then the ring's, then the open one.
TEST_F(ReadersTest, WhatAnExitingThreadLeavesIsReleasedByTheOthers) {
    Reader reader;
    reader.enter();
    using NSCam::readers::kBatch;
    using NSCam::readers::kBatches;
    constexpr int n = static_cast<int>((kBatches + 2) * kBatch) + 10;
    std::thread([] {
        for (int i = 0; i < n; ++i) retireItem(i);
    }).join();
    collectAll();
    EXPECT_EQ(gReleased.count(), 0u);
    reader.leave();
    collectAll();
    ASSERT_EQ(gReleased.count(), static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) ASSERT_EQ(gReleased.order[static_cast<size_t>(i)], i);
}

// What an exiting thread leaves is released by one thread at a time, in order: a later item
// (a storage's block) must not go while an earlier one (the storage's destruction) is still
// being released by another thread, even when the later one is ready for the other thread.
struct Gate {
    std::mutex lock;
    std::condition_variable cv;
    bool started = false, open = false;
};
Gate gGate;
void releaseSlowly(void* p) {
    std::unique_lock<std::mutex> guard(gGate.lock);
    gGate.started = true;
    gGate.cv.notify_all();
    gGate.cv.wait(guard, [] { return gGate.open; });
    guard.unlock();
    releaseItem(p);
}

TEST_F(ReadersTest, WhatAnExitingThreadLeavesIsReleasedInOrderByOneThreadAtATime) {
    std::mutex step;
    std::condition_variable stepCv;
    int stage = 0;
    auto waitFor = [&](int s) {
        std::unique_lock<std::mutex> guard(step);
        stepCv.wait(guard, [&] { return stage >= s; });
    };
    auto moveTo = [&](int s) {
        std::lock_guard<std::mutex> guard(step);
        stage = s;
        stepCv.notify_all();
    };
    // The leaving thread: the slow item in a batch sealed early, the next item in a batch
    // sealed epochs later, so that the next one becomes ready after the first.
    Reader reader;
    reader.enter();  // holds the epoch back until the first batch is sealed
    std::thread leaving([&] {
        retire(new Item{1}, releaseSlowly);
        for (int i = 0; i < static_cast<int>(NSCam::readers::kBatch) - 1; ++i) retireItem(-1);
        moveTo(1);
        waitFor(2);
        retireItem(2);
    });
    waitFor(1);
    reader.leave();
    collectAll();  // the epoch moves past the first batch's stamp
    moveTo(2);
    leaving.join();  // the thread exits: both batches are left to the others
    // A reader holds the second batch back while one thread takes the first item and is slow
    // to release it; then the second item becomes ready for this thread's collection.
    Reader late;
    late.enter();
    std::thread first([] { collect(); });
    {
        std::unique_lock<std::mutex> guard(gGate.lock);
        gGate.cv.wait(guard, [] { return gGate.started; });
    }
    late.leave();
    collectAll();
    EXPECT_EQ(std::count(gReleased.order.begin(), gReleased.order.end(), 2), 0);
    {
        std::lock_guard<std::mutex> guard(gGate.lock);
        gGate.open = true;
        gGate.cv.notify_all();
    }
    first.join();
    collectAll();
    std::vector<int> order;
    for (int id : gReleased.order)
        if (id > 0) order.push_back(id);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

}  // namespace
