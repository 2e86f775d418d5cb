// tests/unit/ringlog_test.cpp - the records of the ring log and the user thread that writes them, against a scripted
// file.
#include "diag/ringlog.h"

#include <gtest/gtest.h>

#include <cstring>

#include "diag/trace.h"
#include "support/call_fixture.h"

using namespace zvx;
using namespace zvx::test;

namespace {

struct RingLog : CallTest {
    void SetUp() override {
        CallTest::SetUp();
        S = NewScheduler();  // the first one would queue a line a second
        SetOption(su_LogToFile);
        ASSERT_TRUE(RingLogInit());
    }
};

TEST_F(RingLog, TextsAreCutAtACharacterAndDroppedWhenThereIsNoRecord) {
    const std::string tooLong = std::string(254, 'x') + "\xC3\xA9tail";  // the character would lie across the end
    for (const std::string &text : {std::string("a\n"), tooLong}) {
        EXPECT_TRUE(RingLogPrintf("%s", text.c_str()));
        RingRecord *record = TakeRingRecord(&gRingLog);
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(text.substr(0, 254), record->Text);
        EXPECT_EQ(std::strlen(record->Text) + 1, record->Length);
        PutRingRecord(&gRingFree, record);
    }
    for (uint32_t i = 0; i < kRingRecords; ++i) ASSERT_TRUE(RingLogPrintf("%u\n", i));
    EXPECT_FALSE(RingLogPrintf("one too many\n"));
    EXPECT_EQ(1u, gRingDropped.load());
    for (uint32_t i = 0; i < kRingRecords; ++i) EXPECT_EQ(std::to_string(i) + "\n", TakeRingRecord(&gRingLog)->Text);
    EXPECT_EQ(nullptr, TakeRingRecord(&gRingLog));
}

// Batches follow each other in the file, in the order of the queue; one that is refused is tried again a second later,
// and nothing that is queued meanwhile overtakes it.
TEST_F(RingLog, BatchesGoOutInOrderAndARefusedOneIsTriedAgain) {
    for (const char *text : {"a\n", "b\n", "c\n"}) RingLogPrintf("%s", text);
    std::vector<DWORD> ends;  // of each write in the file
    bool refuse = false;
    script::gScript.OnIo = [&](const script::IoCall &call) {
        if (refuse) return script::Failed(ERROR_DISK_FULL);
        EXPECT_EQ(call.Ov->Offset, ends.empty() ? 0 : ends.back());
        ends.push_back(call.Ov->Offset + call.Count);
        return script::Done(call.Count);
    };
    NewFiber(S, [](Fiber *) { FiberLogger(nullptr); });
    RunUntilIdle(S);
    EXPECT_EQ(ends, std::vector<DWORD>{6});  // no zero bytes between them

    refuse = true;
    RingLogPrintf("refused\n");
    Pass(1100);
    for (int i = 0; i < 200; ++i) RingLogPrintf("%0150d\n", i);
    Pass(2500);
    EXPECT_EQ(ends.size(), 1u);
    refuse = false;
    Pass(2200);
    // Each batch is closed when another text of the largest size might not fit.
    EXPECT_EQ(ends, (std::vector<DWORD>{6, 14, 14 + 107 * 151, 14 + 200 * 151}));
    EXPECT_EQ(2u, script::gScript.Flushes);  // each time the queue had run empty
    uint32_t free = 0;
    while (TakeRingRecord(&gRingFree) != nullptr) free++;
    EXPECT_EQ(kRingRecords, free);
}

}  // namespace
