// platform/system/io_stream.cpp - the order of operations on one stream.
//
// Bytes of a FIFO, a terminal or a socket have no offsets: which operation gets which bytes is decided by the order
// in which they are served, and a write that is taken in pieces must not be mixed with the next one. The kernel
// promises no order among operations that wait at the same time, so of each stream and direction an engine runs only
// the oldest; the others wait behind it. Operations of different threads on one stream have no order, here as anywhere.
//
// Owner of the engine only. The table is found by descriptor number and grows with it, never on the steady path.
#include <stdlib.h>
#include <string.h>

#include "platform/system/io_engine.h"

namespace os {

namespace {

bool GrowStreams(Engine *engine, uint32_t index) {
    uint32_t limit = engine->StreamLimit == 0 ? 64 : engine->StreamLimit;
    while (limit <= index) limit *= 2;
    Stream *grown = static_cast<Stream *>(realloc(engine->Streams, limit * sizeof(Stream)));
    if (grown == nullptr) return false;
    memset(static_cast<void *>(grown + engine->StreamLimit), 0, (limit - engine->StreamLimit) * sizeof(Stream));
    engine->Streams = grown;
    engine->StreamLimit = limit;
    return true;
}

}  // namespace

Stream *StreamOf(Engine *engine, const IoObject *object) {
    const uint32_t index = static_cast<uint32_t>(object->Fd);
    if (index >= engine->StreamLimit && !GrowStreams(engine, index)) return nullptr;
    Stream *stream = &engine->Streams[index];
    if (stream->Serial != object->Serial) {
        // Another object had this number. Its operations have ended, or it would still hold the number.
        *stream = Stream{};
        stream->Serial = object->Serial;
    }
    return stream;
}

bool AppendToStream(Stream *stream, Request *request) {
    const uint32_t direction = DirectionOf(request->Call.Kind);
    request->InStream = true;
    request->QueueNext = nullptr;
    Request *last = stream->Tail[direction];
    stream->Tail[direction] = request;
    if (last == nullptr) {
        stream->Head[direction] = request;
        return true;
    }
    last->QueueNext = request;
    return false;
}

Request *RemoveFromStream(Engine *engine, Request *request) {
    Stream *stream = &engine->Streams[DescriptorOf(request->Call)->Fd];
    const uint32_t direction = DirectionOf(request->Call.Kind);
    Request *before = nullptr;
    for (Request *at = stream->Head[direction]; at != request; at = at->QueueNext) before = at;
    if (before != nullptr)
        before->QueueNext = request->QueueNext;
    else
        stream->Head[direction] = request->QueueNext;
    if (request->QueueNext == nullptr) stream->Tail[direction] = before;
    request->InStream = false;
    return before == nullptr ? stream->Head[direction] : nullptr;
}

void ForgetStreams(Engine *engine) {
    if (engine->StreamLimit != 0) memset(static_cast<void *>(engine->Streams), 0, engine->StreamLimit * sizeof(Stream));
}

}  // namespace os
