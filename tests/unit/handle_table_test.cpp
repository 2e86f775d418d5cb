// tests/unit/handle_table_test.cpp - the table of wrapped handles: growth, families of duplicates, entries under a
// reader's feet, and the dump.
#include "kernel/handles.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "child.h"
#include "diag/trace.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct HandleTable : testing::Test {
    void SetUp() override {
        InitLibrary();
        S = NewScheduler();
    }
    void TearDown() override { CheckHandleTable(); }

    // An entry for a value that the operating system need not know.
    PSEHAND *Insert(uint32_t handle, PSEHAND *parent = nullptr) {
        PSEHAND *entry = AllocHandleEntry(S, kOwnNode);
        entry->Handle = handle;
        entry->Type = PHAND_HTYPE_CreateFileA;
        entry->Parent = parent;
        if (parent != nullptr) parent->RefCount++;
        InsertHandle(entry);
        return entry;
    }
    void AsFiber(std::function<void(Fiber *)> body) {
        NewFiber(S, std::move(body));
        RunUntilIdle(S);
    }
    Scheduler *S = nullptr;
};

TEST_F(HandleTable, GrowthKeepsEveryEntryAndTheArrayBefore) {
    EXPECT_EQ(LookUpHandle(uintptr_t{400}), nullptr);
    EXPECT_EQ(gHandleTableSize.load(), 0u);
    PSEHAND *low = Insert(400);
    EXPECT_EQ(gHandleTableSize.load(), 0x200000u);
    PSEHAND *last = Insert((0x200000 - 1) * 4);
    EXPECT_EQ(gHandleTableSize.load(), 0x200000u);
    EXPECT_EQ(LookUpHandle(uintptr_t{0x200000} * 4), nullptr) << "the first slot beyond the array";
    const HandleSlot *first = gHandleTable.load();

    PSEHAND *high = Insert(20'000'000);  // two doublings at once
    EXPECT_EQ(gHandleTableSize.load(), 8'388'608u);
    EXPECT_NE(gRetiredHandleTable, first) << "the first array was let go at the second growth";
    const HandleSlot *third = gHandleTable.load();
    const HandleSlot *second = gRetiredHandleTable;
    EXPECT_EQ(second[100].load(), low) << "a late reader of the array before still finds what was there";
    PSEHAND *higher = Insert(40'000'000);
    EXPECT_EQ(gHandleTableSize.load(), 16'777'216u);
    EXPECT_EQ(gRetiredHandleTable, third);
    EXPECT_EQ(LookUpHandle(uintptr_t{400}), low);
    EXPECT_EQ(LookUpHandle(uintptr_t{(0x200000 - 1) * 4}), last);
    EXPECT_EQ(LookUpHandle(uintptr_t{20'000'000}), high);
    EXPECT_EQ(LookUpHandle(uintptr_t{40'000'000}), higher);
    EXPECT_EQ(gHandleCount, 4u);
    for (HANDLE never : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE, os::GetCurrentThread()}) {
        EXPECT_EQ(LookUpHandle(never), nullptr);
    }
}

TEST_F(HandleTable, RemovalLeavesASlotThatIsSomebodyElses) {
    PSEHAND *old = Insert(800);
    PSEHAND *young = Insert(800);
    EXPECT_EQ(gHandleCount, 1u);
    EXPECT_FALSE(RemoveHandle(old));
    EXPECT_EQ(LookUpHandle(uintptr_t{800}), young);
    EXPECT_TRUE(RemoveHandle(young));
    EXPECT_EQ(LookUpHandle(uintptr_t{800}), nullptr);
    EXPECT_FALSE(RemoveHandle(young));
    EXPECT_EQ(gHandleCount, 0u);
}

TEST_F(HandleTable, FamiliesLiveAsLongAsTheirLastHandle) {
    PSEHAND *entry = NewEntry(S, PHAND_HTYPE_CreateFileA);
    const HANDLE root = HandleValue(entry);
    const HANDLE process = os::GetCurrentProcess();
    AsFiber([&](Fiber *F) {
        entry->OwnerFiber = F;
        entry->OwnerGeneration = 17;
        HANDLE first = nullptr, second = nullptr;
        EXPECT_TRUE(DuplicateHandle(process, root, process, &first, 0, FALSE, DUPLICATE_SAME_ACCESS));
        EXPECT_TRUE(DuplicateHandle(process, first, process, &second, 0, FALSE, DUPLICATE_SAME_ACCESS));
        EXPECT_EQ(LookUpHandle(second)->Parent, entry) << "a child of the root, not of the handle between";
        EXPECT_EQ(LookUpHandle(second)->OwnerGeneration, 17u);
        EXPECT_EQ(LookUpHandle(second)->Flags.load(), entry->Flags.load());
        EXPECT_EQ(entry->RefCount, 3u);
        CheckHandleTable();
        EXPECT_TRUE(CloseHandle(root));
        EXPECT_EQ(LookUpHandle(root), entry) << "the family keeps its root";
        EXPECT_TRUE(CloseHandle(first));
        EXPECT_EQ(LookUpHandle(first), nullptr);
        EXPECT_EQ(entry->RefCount, 1u);
        CheckHandleTable();

        // Moving a handle closes its source, whose entry goes too.
        HANDLE moved = nullptr;
        EXPECT_TRUE(DuplicateHandle(process, second, process, &moved, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE));
        EXPECT_EQ(LookUpHandle(second), nullptr);
        EXPECT_EQ(entry->RefCount, 1u);
        EXPECT_TRUE(CloseHandle(moved));
        EXPECT_EQ(LookUpHandle(root), nullptr);
        EXPECT_EQ(gHandleCount, 0u);

        // What is not wrapped stays so, and a refusal by the operating system drops the reference all the same.
        const HANDLE event = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
        HANDLE copy = nullptr;
        EXPECT_TRUE(DuplicateHandle(process, event, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
        EXPECT_EQ(LookUpHandle(copy), nullptr);
        EXPECT_TRUE(CloseHandle(copy) && CloseHandle(event));
        const HANDLE refused = HandleValue(NewEntry(S, PHAND_HTYPE_CreateFileA));
        os::FailCall("CloseHandle", 1, ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(refused));
        EXPECT_EQ(LookUpHandle(refused), nullptr);
        EXPECT_FALSE(DuplicateHandle(process, event, process, nullptr, 0, FALSE, DUPLICATE_SAME_ACCESS));
        Note("done");
    });
    EXPECT_EQ(TakeNotes(), std::vector<std::string>{"done"});
}

// Another scheduler's user thread may have looked an entry up just before its handle was closed: entry and handle
// value stay until that scheduler has moved on.
TEST_F(HandleTable, AnEntryOutlivesItsReaders) {
    Scheduler *other = NewScheduler();
    PSEHAND *entry = NewEntry(S, PHAND_HTYPE_CreateFileA);
    const HANDLE handle = HandleValue(entry);
    const uint32_t serial = entry->Serial;
    NewFiber(other, [&](Fiber *F) {
        PSEHAND *seen = LookUpHandle(handle);
        Pause();  // in the middle of a call: not blocked, no pass
        EXPECT_EQ(seen->Serial, serial);
        EXPECT_EQ(SameHandle(handle, serial), nullptr);
        SchedYield(F, Yield_USER);
        Note("read");
    });
    RunUntilIdle(other);
    AsFiber([&](Fiber *) { EXPECT_TRUE(CloseHandle(handle)); });
    for (int i = 0; i < 3; i++) {
        RunUntilIdle(S);
        EXPECT_EQ(S->RetireOpen.Count + S->RetireWaiting.Count, 1u);
    }
    RunUntilIdle(other);
    EXPECT_EQ(TakeNotes(), std::vector<std::string>{"read"});
    RunUntilIdle(S);
    RunUntilIdle(S);
    EXPECT_EQ(S->RetireOpen.Count + S->RetireWaiting.Count, 0u);
}

TEST_F(HandleTable, AReferenceTooManyIsFatal) {
    const ChildResult child = RunChild([&] {
        AsFiber([&](Fiber *) {
            PSEHAND *entry = Insert(4000);
            entry->RefCount = 0;
            ReleaseHandleRef(entry, 4000, S);
        });
    });
    EXPECT_EQ(child.ExitCode, 1);
    EXPECT_EQ(child.Output.rfind("ZORVEX KILLED: in CLOSE HANDLE REF ALREADY ZERO handle 4000 \n (see", 0), 0u)
        << child.Output;
}

TEST_F(HandleTable, DumpShowsOccupiedSlotsInOrder) {
    char folder[] = "/tmp/zvxdumpXXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    TraceInit(folder);
    PSEHAND *root = Insert(0x1000);
    Insert(0x800, root)->Type = PHAND_HTYPE_CreateFileA;
    root->Flags.store(PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
    Fiber *owner = NewUnplacedFiber(S, [](Fiber *) {});
    owner->Tag.store("FMAIN");
    owner->OsThreadId.store(0xABC);
    root->OwnerFiber = owner;
    root->OwnerGeneration = 9;
    DumpHandleTable();
    std::string text, path = std::string(gTraceDir) + gTraceFileName;
    if (FILE *file = fopen(path.c_str(), "r")) {
        char buffer[4096];
        text.assign(buffer, fread(buffer, 1, sizeof buffer, file));
        fclose(file);
    }
    char rootLine[256];
    snprintf(rootLine, sizeof rootLine,
             "Handle[x1000/x1000]: flags[x14] type[PHAND_HTYPE_CreateFileA] ref[2] hid[] fiber[%p/%u/9] ftid[xABC] "
             "fid[FMAIN]\n",
             static_cast<void *>(owner), owner->Generation.load());
    const size_t start = text.find("skvtphand: debug info START\n");
    const size_t child =
        text.find("Handle[x800/x800]: flags[x0] type[PHAND_HTYPE_CreateFileA] ref[1] hid[] parent[x1000]\n");
    const size_t parent = text.find(rootLine);
    const size_t end = text.find("skvtphand: debug info END\n");
    ASSERT_NE(end, std::string::npos) << path << ": " << text;
    EXPECT_TRUE(start < child && child < parent && parent < end) << text;
    const char *hid = nullptr, *type = nullptr;
    EXPECT_TRUE(DescribeHandle(0x800, &hid, &type));
    EXPECT_STREQ(type, "PHAND_HTYPE_CreateFileA");
    EXPECT_STREQ(hid, "");
    EXPECT_FALSE(DescribeHandle(0x804, &hid, &type));
    remove(path.c_str());
    remove(folder);
}

}  // namespace
}  // namespace zvx::test
