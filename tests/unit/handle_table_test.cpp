// tests/unit/handle_table_test.cpp - the table of wrapped handles: growth and families of duplicates.
// Entries under a reader's feet: tests/model.
#include "call_fixture.h"

namespace zvx::test {
namespace {

struct HandleTable : CallTest {
    // An entry for a value that the operating system need not know.
    PSEHAND *Insert(uint32_t handle) {
        PSEHAND *entry = AllocHandleEntry(S, kOwnNode);
        entry->Handle = handle;
        entry->Type = PHAND_HTYPE_CreateFileA;
        InsertHandle(entry);
        return entry;
    }
    static PSEHAND *At(uintptr_t handle) { return LookUpHandle(handle); }
};

TEST_F(HandleTable, GrowthKeepsEveryEntryAndTheArrayBefore) {
    PSEHAND *low = Insert(400);
    PSEHAND *last = Insert((0x200000 - 1) * 4);
    EXPECT_EQ(gHandleTableSize.load(), 0x200000u);
    EXPECT_EQ(At(0x200000 * 4), nullptr) << "the first slot beyond the array";
    PSEHAND *high = Insert(20'000'000);  // two doublings at once
    EXPECT_EQ(gHandleTableSize.load(), 8'388'608u);
    EXPECT_EQ(gRetiredHandleTable[100].load(), low) << "a late reader of the array before finds what was there";
    EXPECT_TRUE(At(400) == low && At((0x200000 - 1) * 4) == last && At(20'000'000) == high);
    for (HANDLE never : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, os::GetCurrentThread()})
        EXPECT_EQ(LookUpHandle(never), nullptr);

    // A value that was given out again: the old entry leaves the slot to the new one.
    PSEHAND *young = Insert(400);
    EXPECT_FALSE(RemoveHandle(low));
    EXPECT_EQ(At(400), young);
    EXPECT_TRUE(RemoveHandle(young));
    EXPECT_FALSE(RemoveHandle(young));
    EXPECT_EQ(At(400), nullptr);
    EXPECT_EQ(gHandleCount, 2u);
}

TEST_F(HandleTable, FamiliesLiveAsLongAsTheirLastHandle) {
    PSEHAND *entry = NewEntry(S, PHAND_HTYPE_CreateFileA);
    const HANDLE root = HandleValue(entry);
    const auto duplicate = [](HANDLE source, DWORD options = 0) {
        const HANDLE process = os::GetCurrentProcess();
        HANDLE copy = nullptr;
        EXPECT_TRUE(DuplicateHandle(process, source, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS | options));
        return copy;
    };
    RunToEnd([&](Fiber *) {
        const HANDLE first = duplicate(root);
        const HANDLE second = duplicate(first);
        EXPECT_EQ(LookUpHandle(second)->Parent, entry) << "a child of the root, not of the handle between";
        EXPECT_EQ(entry->RefCount, 3u);
        EXPECT_TRUE(CloseHandle(root));
        EXPECT_EQ(LookUpHandle(root), entry) << "the family keeps its root";
        EXPECT_TRUE(CloseHandle(first));
        EXPECT_EQ(entry->RefCount, 1u);
        // Moving a handle closes its source, whose entry goes too.
        const HANDLE moved = duplicate(second, DUPLICATE_CLOSE_SOURCE);
        EXPECT_EQ(LookUpHandle(second), nullptr);
        EXPECT_EQ(entry->RefCount, 1u);
        EXPECT_TRUE(CloseHandle(moved));
        EXPECT_EQ(LookUpHandle(root), nullptr);
        // A refusal by the operating system drops the reference all the same.
        const HANDLE refused = HandleValue(NewEntry(S, PHAND_HTYPE_CreateFileA));
        os::FailCall("CloseHandle", 1, ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(refused));
        EXPECT_EQ(gHandleCount, 0u);
    });
}

}  // namespace
}  // namespace zvx::test
