// base/list.h - the intrusive, counted lists that every subsystem uses.
//
// An unlinked link points at itself. Inserting and removing always updates the head's Count, because the
// idle decision compares sums of counts. Nothing here locks: a list belongs to one thread, or to the lock
// that is named beside it.
#ifndef ZVX_BASE_LIST_H
#define ZVX_BASE_LIST_H

#include <cstddef>
#include <cstdint>

namespace zvx {

struct ListLink {
    ListLink *Next;
    ListLink *Prev;
};

// The head's own link comes first; Ends.Next is the first element and Ends.Prev the last.
struct ListHead {
    ListLink Ends;
    uint32_t Count;
};

inline void InitLink(ListLink *link) { link->Next = link->Prev = link; }
inline void InitList(ListHead *head) {
    InitLink(&head->Ends);
    head->Count = 0;
}
inline bool IsLinked(const ListLink *link) { return link->Next != link; }
inline bool IsEmpty(const ListHead *head) { return head->Ends.Next == &head->Ends; }

inline ListLink *FirstLink(const ListHead *head) { return head->Ends.Next; }

// Inserts `link` in front of `where`, which may be the head's own link (then at the tail).
inline void InsertBefore(ListHead *head, ListLink *where, ListLink *link) {
    link->Next = where;
    link->Prev = where->Prev;
    where->Prev->Next = link;
    where->Prev = link;
    head->Count++;
}
inline void AppendLink(ListHead *head, ListLink *link) { InsertBefore(head, &head->Ends, link); }
inline void PushLink(ListHead *head, ListLink *link) { InsertBefore(head, head->Ends.Next, link); }

inline void UnlinkFrom(ListHead *head, ListLink *link) {
    link->Prev->Next = link->Next;
    link->Next->Prev = link->Prev;
    InitLink(link);
    head->Count--;
}
// The first element, unlinked, or null.
inline ListLink *PopLink(ListHead *head) {
    ListLink *link = head->Ends.Next;
    if (link == &head->Ends) return nullptr;
    UnlinkFrom(head, link);
    return link;
}
// Moves everything from `from` to the tail of `to`, keeping the order; `from` is empty afterwards.
inline void SpliceAll(ListHead *to, ListHead *from) {
    if (IsEmpty(from)) return;
    ListLink *first = from->Ends.Next;
    ListLink *last = from->Ends.Prev;
    first->Prev = to->Ends.Prev;
    to->Ends.Prev->Next = first;
    last->Next = &to->Ends;
    to->Ends.Prev = last;
    to->Count += from->Count;
    InitList(from);
}

// The part of a record by which it waits until no other thread can have it in hand any more; Release then gives the
// record back, on the scheduler that retired it.
struct Scheduler;
struct RetireEntry {
    ListLink Link;
    void (*Release)(Scheduler *S, RetireEntry *entry);
};

// The record that embeds `member` at `link`.
template <typename Record, typename Member>
inline Record *RecordOf(Member *member, size_t offset) {
    return reinterpret_cast<Record *>(reinterpret_cast<char *>(member) - offset);
}
#define ZVX_RECORD_OF(link, Record, Field) (::zvx::RecordOf<Record>((link), offsetof(Record, Field)))

}  // namespace zvx

#endif  // ZVX_BASE_LIST_H
