// tests/fuzz/settings_fuzz.cpp - the settings, from whatever a host's lookup function answers.
//
// An answer is taken from the input each time: no value, one of up to 63 characters (all that the function is given room
// for), or one whose length is a lie. Whatever comes, the library must be able to start with what was read.
#include <vector>

#include "config/settings.h"
#include "fuzz/fuzz.h"
#include "sched/records.h"

namespace {

fuzz::Input gInput;
std::vector<std::string> gNames;

int Answer(const char *name, char *buffer, int capacity) {
    fuzz::Require(capacity == 63, "room of another size", static_cast<uint64_t>(capacity));
    gNames.emplace_back(name);
    const uint8_t kind = gInput.Byte();
    if (kind < 0x40) return 0;
    if (kind < 0x48) return -static_cast<int>(gInput.Number(4) >> 1);
    const std::string_view value = gInput.Bytes(kind & 0x3F);
    std::memcpy(buffer, value.data(), value.size());
    if (kind < 0xF8) return static_cast<int>(value.size());
    // The rest of what a lie covers is there, but says nothing.
    std::memset(buffer + value.size(), ' ', static_cast<size_t>(capacity) - value.size());
    return 63 + static_cast<int>(gInput.Number(4) >> 2);
}

// What the settings leave behind, as text.
std::string Read(const uint8_t *data, size_t size) {
    gInput = fuzz::Input{data, size};
    gNames.clear();
    zvx::OptionFlags = 0;
    zvx::initialOutputBufferOffset = 0;
    std::memset(zvx::initialOutputBuffer, 0, sizeof zvx::initialOutputBuffer);
    zvx::gLookupValue = Answer;
    zvx::ReadSchedulerSettings();
    fuzz::Require(zvx::gNumSchedulers >= 1, "no scheduler");
    fuzz::Require(zvx::gQuantumUpdateInterval >= 1 && zvx::gPortWaitMs >= 1, "a thread would spin");
    fuzz::Require(zvx::gPRQ + zvx::gFRQ == 3 && zvx::gPRQ * zvx::gFRQ == 2, "two run queues are one");
    const uint32_t used = zvx::initialOutputBufferOffset;
    fuzz::Require(used < zvx::INITIAL_OUTPUT_BUFFER_SIZE && zvx::initialOutputBuffer[used] == 0, "text without end");
    for (const std::string &name : gNames) fuzz::Require(name.starts_with("ZVX_"), "a name of somebody else");
    return std::to_string(zvx::OptionFlags.load()) + " " + std::to_string(zvx::gStackSize) + " " +
           std::to_string(zvx::gPortWaitMs) + " " + std::to_string(zvx::gStallReportMs) + " " +
           zvx::initialOutputBuffer;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string first = Read(data, size);
    fuzz::Require(Read(data, size) == first, "the same answers, other settings");
    return 0;
}
