// tests/fuzz/settings_fuzz.cpp - the settings, from whatever a host's lookup function answers.
//
// An answer is taken from the input each time: no value, one of up to 63 characters (all that the function is given
// room for), or one whose length is a lie. Whatever comes, the library must be able to start with what was read.
#include "config/settings.h"
#include "fuzz/fuzz.h"
#include "sched/records.h"

namespace {

fuzz::Input gInput;

int Answer(const char *name, char *buffer, int capacity) {
    fuzz::Require(capacity == 63 && std::string_view(name).starts_with("ZVX_"), "another question", capacity);
    const uint8_t kind = gInput.Byte();
    if (kind < 0x40) return 0;
    if (kind < 0x48) return -static_cast<int>(gInput.Number(4) >> 1);
    const std::string_view value = gInput.Bytes(kind & 0x3F);
    if (kind >= 0xF8) std::memset(buffer, ' ', 63);  // what a lie covers is there, but says nothing
    value.copy(buffer, 63);
    return kind < 0xF8 ? static_cast<int>(value.size()) : 63 + static_cast<int>(gInput.Number(4) >> 2);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    gInput = fuzz::Input{data, size};
    zvx::OptionFlags = 0;
    zvx::initialOutputBufferOffset = 0;
    zvx::gLookupValue = Answer;
    zvx::ReadSchedulerSettings();
    fuzz::Require(zvx::gNumSchedulers >= 1, "no scheduler");
    fuzz::Require(zvx::gQuantumUpdateInterval >= 1 && zvx::gPortWaitMs >= 1, "a thread would spin");
    fuzz::Require(zvx::gPRQ + zvx::gFRQ == 3 && zvx::gPRQ * zvx::gFRQ == 2, "two run queues are one");
    const uint32_t used = zvx::initialOutputBufferOffset;
    fuzz::Require(used < zvx::INITIAL_OUTPUT_BUFFER_SIZE && zvx::initialOutputBuffer[used] == 0, "text without end");
    return 0;
}
