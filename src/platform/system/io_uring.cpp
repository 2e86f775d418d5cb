// platform/system/io_uring.cpp - the engine on a submission and completion ring.
//
// One ring per engine, used by its owner alone. The kernel runs completions only when the owner enters it for them
// (deferred task running), so "has anything ended?" is the completion tail and the flag word, and nothing interrupts
// a user thread. Operations are prepared in the ring's memory and submitted together. No kernel polling thread is
// ever asked for. The kernel reads the submission queue only while the owner is inside a system call, so an entry that
// was not consumed yet can still be changed.
#include <errno.h>
#include <fcntl.h>
#include <liburing.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/uio.h>
#include <unistd.h>

#include <new>

#include "platform/system/io_engine.h"

namespace os {

struct RingState {
    io_uring Ring;
    uint64_t WakeValue;    // where the armed read of WakeFd puts the count
    uint32_t CallsWaited;  // reaps since the oldest prepared entry that found no new one
    uint32_t PreparedSeen; // entries prepared at the latest reap
    unsigned EnterFd;      // what the kernel is entered with: the registered index or the descriptor
    unsigned EnterFlags;   // IORING_ENTER_REGISTERED_RING with an index
    uint32_t DirectPrepared;  // operations past the page cache among the prepared ones
    bool WakeArmed;        // a read of WakeFd is prepared or running
    bool PollFirst;        // receives may say that they expect to wait
};

namespace {

// Entries of the submission queue; a full queue is submitted early, so this only bounds a batch.
constexpr uint32_t kSubmissionEntries = 256;
// Ended operations that the kernel can post without going through its overflow list.
constexpr uint32_t kCompletionEntries = 4096;
// Measured on a virtual machine with two processors, kernel 6.18: an entry to the kernel costs 1 us, so a cached
// 512-byte read takes 1.4 us alone, 0.33 in a batch of 8, 0.21 at 32 and 0.19 at 64. 16 calls are some 16 switches of
// the scheduler, below a microsecond: what a lone operation loses by waiting for company.
constexpr uint32_t kSubmitBatch = 64;
constexpr uint32_t kSubmitCalls = 16;
// Operations past the page cache go to the device in smaller groups: the kernel passes none of a group on before it has
// prepared them all, so a device that answers groups at once would idle while the next one gathers, and keep its users
// in step. file_bench direct, medians of reads a second with groups of up to 64, 8, 4, 2 and 1: 16 readers 52,000,
// 58,000, 62,000, 64,000, 59,000; 64 readers 70,000, 78,000, 84,000, 82,000, 78,000.
constexpr uint32_t kDirectBatch = 4;

// user_data of entries that are no request; requests are aligned.
constexpr uint64_t kIgnored = 1;
constexpr uint64_t kWakeUp = 2;

// Whether a send is tried by a call of its own before it becomes an entry. socket_bench, server's time beside a bare
// ring's in the same run: 50 connections 1.01 as entries, 1.2 to 1.4 when tried; one connection the same either way.
constexpr bool kSendAtOnce = false;

constexpr uint32_t kMaxTransfer = 0x7FFFF000u;  // what the kernel moves in one call

// The combinations to try, best first: older kernels know fewer of them.
constexpr unsigned kSetups[] = {
    IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_TASKRUN_FLAG,
    IORING_SETUP_COOP_TASKRUN | IORING_SETUP_TASKRUN_FLAG,
    0,
};

// Without these the protocol above does not hold: no completion is ever lost, and a wait has a time-out of its own.
constexpr unsigned kNeededFeatures = IORING_FEAT_NODROP | IORING_FEAT_EXT_ARG | IORING_FEAT_RW_CUR_POS;

// 0, or minus errno.
int SetUpRing(io_uring *ring, unsigned entries, unsigned completions) {
    if (ShouldFail("io_uring_setup")) return -EPERM;
    int result = -EINVAL;
    for (unsigned flags : kSetups) {
        io_uring_params params{};
        params.flags = flags | IORING_SETUP_CQSIZE | IORING_SETUP_CLAMP;
        params.cq_entries = completions;
        result = io_uring_queue_init_params(entries, ring, &params);
        if (result == -EINVAL) continue;
        if (result == 0 && (ring->features & kNeededFeatures) != kNeededFeatures) {
            io_uring_queue_exit(ring);
            return -ENOSYS;
        }
        break;
    }
    return result;
}

inline void CountUnsubmitted(Engine *engine) {
    engine->Io.Unsubmitted = io_uring_sq_ready(&engine->Ring->Ring) + engine->LockCount;
}

// The one entry to the kernel: hands over what is prepared, and with `events` also runs what was deferred to the owner
// and waits for `waitFor` completions, at most `limit`. The number that the kernel took, or minus errno; what it did
// not take stays in the queue for the next entry.
int Enter(RingState *state, bool events, unsigned waitFor, __kernel_timespec *limit) {
    if (const int error = ShouldFailInside("io_uring_enter")) return -error;
    io_uring_sq *queue = &state->Ring.sq;
    uint32_t tail = *queue->ktail;
    state->DirectPrepared = 0;
    for (; queue->sqe_head != queue->sqe_tail; queue->sqe_head++)
        queue->array[tail++ & queue->ring_mask] = queue->sqe_head & queue->ring_mask;
    io_uring_smp_store_release(queue->ktail, tail);
    const uint32_t ready = tail - io_uring_smp_load_acquire(queue->khead);
    unsigned flags = state->EnterFlags;
    if (events) flags |= IORING_ENTER_GETEVENTS;
    if (limit == nullptr) return io_uring_enter2(state->EnterFd, ready, waitFor, flags, nullptr, 0);
    io_uring_getevents_arg argument{};
    argument.ts = reinterpret_cast<uint64_t>(limit);
    return io_uring_enter2(state->EnterFd, ready, waitFor, flags | IORING_ENTER_EXT_ARG,
                           reinterpret_cast<sigset_t *>(&argument), sizeof argument);
}

void Submit(Engine *engine, bool events) {
    RingState *state = engine->Ring;
    state->CallsWaited = 0;
    // A kernel that is short of memory, or busy with completions that overflowed, takes the rest after those.
    for (int tries = 0; tries < 3; tries++) {
        Enter(state, events || tries > 0, 0, nullptr);
        if (io_uring_sq_ready(&state->Ring) == 0) break;
    }
    CountUnsubmitted(engine);
}

io_uring_sqe *NextEntry(Engine *engine) {
    io_uring *ring = &engine->Ring->Ring;
    io_uring_sqe *entry = io_uring_get_sqe(ring);
    while (entry == nullptr) [[unlikely]] {
            Submit(engine, false);
            entry = io_uring_get_sqe(ring);
        }
    engine->Io.Unsubmitted++;
    return entry;
}

void HandleCompletion(Engine *engine, uint64_t data, int32_t result) {
    if (data == kIgnored) return;
    if (data == kWakeUp) {
        engine->Ring->WakeArmed = false;
        return;
    }
    Request *request = reinterpret_cast<Request *>(data);
    // A request that was cancelled before its submission came through as an empty operation.
    if (request->Stage.load(std::memory_order_relaxed) == RequestStage::kEnded) result = -ECANCELED;
    StepRequest(engine, request, result);
}

void Consume(Engine *engine) {
    io_uring *ring = &engine->Ring->Ring;
    uint32_t head = engine->Io.Head;
    const uint32_t tail = io_uring_smp_load_acquire(ring->cq.ktail);
    while (head != tail) {
        const io_uring_cqe *entry = &ring->cq.cqes[head & ring->cq.ring_mask];
        const uint64_t data = entry->user_data;
        const int32_t result = entry->res;
        head++;
        // Freed before it is handled, because handling may submit and thereby need the room.
        io_uring_smp_store_release(ring->cq.khead, head);
        engine->Io.Head = head;
        HandleCompletion(engine, data, result);
    }
}

bool RingOpen(Engine *engine) {
    if (engine->Ring == nullptr) engine->Ring = static_cast<RingState *>(calloc(1, sizeof(RingState)));
    RingState *state = engine->Ring;
    if (state == nullptr) {
        errno = ENOMEM;
        return false;
    }
    *state = RingState{};
    const int result = SetUpRing(&state->Ring, kSubmissionEntries, kCompletionEntries);
    if (result != 0) {
        errno = -result;
        return false;
    }
    // Kernels that defer task running know it; older ones would not refuse it either.
    state->PollFirst = (state->Ring.flags & IORING_SETUP_DEFER_TASKRUN) != 0;
    // A registered descriptor saves its look-up at each entry; not every kernel has it.
    const bool registered = ShouldFailInside("io_uring_register") == 0 && io_uring_register_ring_fd(&state->Ring) == 1;
    state->EnterFd = static_cast<unsigned>(registered ? state->Ring.enter_ring_fd : state->Ring.ring_fd);
    state->EnterFlags = registered ? IORING_ENTER_REGISTERED_RING : 0;
    engine->Io.Tail = reinterpret_cast<const std::atomic<uint32_t> *>(state->Ring.cq.ktail);
    engine->Io.Head = *state->Ring.cq.khead;
    engine->Io.Tasks = reinterpret_cast<const std::atomic<uint32_t> *>(state->Ring.sq.kflags);
    engine->Io.TaskMask = IORING_SQ_TASKRUN | IORING_SQ_CQ_OVERFLOW;
    return true;
}

void RingClose(Engine *engine) {
    io_uring_queue_exit(&engine->Ring->Ring);
}

// The entry of an operation on a socket. Sends are left to the kernel until everything is taken. A receive is nearly
// always issued by somebody who has just answered and has to wait, so the kernel is told not to try first.
void PrepareSocket(const RingState *state, io_uring_sqe *entry, Request *request) {
    IoCall &call = request->Call;
    const int fd = call.Target->Fd;
    if (call.Kind == RequestKind::kAccept) {
        socklen_t *length;
        sockaddr *address = PeerArea(&call, &length);
        io_uring_prep_accept(entry, fd, address, length, SOCK_CLOEXEC);
        return;
    }
    const bool receive = call.Kind == RequestKind::kReceive;
    const int flags = call.MsgFlags | (receive ? 0 : MSG_NOSIGNAL | MSG_WAITALL);
    if (call.Parts != nullptr) {
        request->Header.msg_iov = call.Parts + call.PartFirst;
        request->Header.msg_iovlen = call.PartCount - call.PartFirst;
        if (receive)
            io_uring_prep_recvmsg(entry, fd, &request->Header, static_cast<unsigned>(flags));
        else
            io_uring_prep_sendmsg(entry, fd, &request->Header, static_cast<unsigned>(flags));
    } else if (receive) {
        io_uring_prep_recv(entry, fd, call.Buffer + call.Done, ShortOf(call.Count - call.Done), flags);
    } else {
        io_uring_prep_send(entry, fd, call.Buffer + call.Done, ShortOf(call.Count - call.Done), flags);
    }
    if (receive && state->PollFirst) entry->ioprio |= IORING_RECVSEND_POLL_FIRST;
}

void PrepareFile(io_uring_sqe *entry, const IoCall &call) {
    if (call.Kind == RequestKind::kFlush) {
        io_uring_prep_fsync(entry, call.Target->Fd, IORING_FSYNC_DATASYNC);
        return;
    }
    const uint32_t left = ShortOf(call.Count - call.Done);
    const uint32_t length = left < kMaxTransfer ? left : kMaxTransfer;
    const uint64_t offset = call.Target->Seekable && !call.Append ? call.Offset + call.Done : ~0ull;
    if (call.Kind == RequestKind::kRead) {
        io_uring_prep_read(entry, call.Target->Fd, call.Buffer + call.Done, length, offset);
    } else {
        io_uring_prep_write(entry, call.Target->Fd, call.Buffer + call.Done, length, call.Append ? 0 : offset);
        if (call.Append) entry->rw_flags = RWF_APPEND;
    }
}

// Prepares the entry of the request's next step.
void Prepare(Engine *engine, Request *request) {
    IoCall &call = request->Call;
    if (engine->Io.Unsubmitted == 0) engine->Ring->CallsWaited = 0;
    io_uring_sqe *entry = NextEntry(engine);
    if (IsSocketKind(call.Kind)) {
        PrepareSocket(engine->Ring, entry, request);
    } else if (IsPipeKind(call.Kind)) {
        // What is done is done by the owner; the ring says when to try.
        if (call.Later)
            io_uring_prep_nop(entry);
        else
            io_uring_prep_poll_add(entry, call.Channel->Fd, call.Kind == RequestKind::kPipeWrite ? POLLOUT : POLLIN);
        call.Later = false;
    } else {
        PrepareFile(entry, call);
    }
    entry->user_data = reinterpret_cast<uint64_t>(request);
    request->Entry = engine->Ring->Ring.sq.sqe_tail - 1;
    request->Stage.store(RequestStage::kPrepared, std::memory_order_relaxed);
}

bool RingStart(Engine *engine, Request *request) {
    if (!request->Call.Target->Seekable && !request->InStream) {
        Stream *stream = StreamOf(engine, DescriptorOf(request->Call));
        if (stream == nullptr) {
            request->Status = StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
            return true;
        }
        if (IsPipeKind(request->Call.Kind) && !request->Call.Later &&
            stream->Head[DirectionOf(request->Call.Kind)] == nullptr && MovePipe(&request->Call, &request->Status))
            return true;
        if (!AppendToStream(stream, request)) {
            request->Stage.store(RequestStage::kParked, std::memory_order_relaxed);
            return false;
        }
    }
    if (kSendAtOnce && request->Call.Kind == RequestKind::kSend && !request->Call.Later && request->Call.Done == 0) {
        const int64_t moved = MoveSocket(&request->Call, MSG_DONTWAIT);
        if (moved != -EAGAIN && AccountTransfer(&request->Call, moved, false, &request->Status)) {
            RemoveFromStream(engine, request);
            return true;
        }
    }
    Prepare(engine, request);
    // A system call inside the user thread's, which a quarter of the operations pay: they wait for the device anyway.
    if (request->Call.Target->Direct && ++engine->Ring->DirectPrepared >= kDirectBatch) Submit(engine, false);
    return false;
}

void RingStartNext(Engine *engine, Request *request) {
    // One that was cancelled while it waited is on its way through the ring already.
    if (request->Stage.load(std::memory_order_relaxed) == RequestStage::kParked) Prepare(engine, request);
}

void RingCancel(Engine *engine, Request *request) {
    io_uring *ring = &engine->Ring->Ring;
    const uint32_t consumed = io_uring_smp_load_acquire(ring->sq.khead);
    const uint64_t data = reinterpret_cast<uint64_t>(request);
    io_uring_sqe *entry = &ring->sq.sqes[request->Entry & ring->sq.ring_mask];
    if (request->Stage.load(std::memory_order_relaxed) == RequestStage::kParked) {
        entry = NextEntry(engine);
    } else if (request->Entry - consumed >= ring->sq.sqe_tail - consumed || entry->user_data != data) {
        // The kernel has it. Numbers come again after 2^32, so one that lies among those that wait may be another's.
        entry = NextEntry(engine);
        io_uring_prep_cancel64(entry, data, 0);
        entry->user_data = kIgnored;
        return;
    }
    // The kernel has not seen it: an empty operation takes its place, and the completion of that ends the request.
    io_uring_prep_nop(entry);
    entry->user_data = data;
    request->Stage.store(RequestStage::kEnded, std::memory_order_relaxed);
}

void RingReap(Engine *engine) {
    RingState *state = engine->Ring;
    const uint32_t prepared = io_uring_sq_ready(&state->Ring);
    // As long as others come along the batch grows; a call that found nothing new counts as waiting.
    const bool grown = prepared != state->PreparedSeen;
    state->PreparedSeen = prepared;
    if (prepared != 0 && (prepared >= kSubmitBatch || (!grown && ++state->CallsWaited >= kSubmitCalls)))
        Submit(engine, true);
    else if ((engine->Io.Tasks->load(std::memory_order_relaxed) & engine->Io.TaskMask) != 0)
        Enter(state, true, 0, nullptr);
    Consume(engine);
}

void RingSubmit(Engine *engine) {
    if (io_uring_sq_ready(&engine->Ring->Ring) != 0) Submit(engine, false);
}

bool RingWait(Engine *engine, int64_t ns) {
    RingState *state = engine->Ring;
    if (!state->WakeArmed) {
        io_uring_sqe *entry = NextEntry(engine);
        io_uring_prep_read(entry, engine->WakeFd, &state->WakeValue, sizeof state->WakeValue, 0);
        entry->user_data = kWakeUp;
        state->WakeArmed = true;
    }
    state->CallsWaited = 0;
    __kernel_timespec limit{ns / 1000000000, ns % 1000000000};
    const int result = Enter(state, true, 1, ns < 0 ? nullptr : &limit);
    CountUnsubmitted(engine);
    Consume(engine);
    return result == -ETIME;
}

}  // namespace

bool RingsAllowed() {
    io_uring ring;
    const int result = SetUpRing(&ring, 4, 8);
    if (result == 0) io_uring_queue_exit(&ring);
    errno = -result;
    return result == 0;
}

constexpr EngineOps kRingOps{"io_uring", RingOpen, RingClose,  RingStart, RingStartNext,
                             RingCancel, RingReap, RingSubmit, RingWait};

}  // namespace os
