/* tests/model/ring_inbox.pml - a handle is closed on one thread while the ring of another takes an operation on it.
 *
 * One object, the owner of a ring that issues an operation which never ends by itself, and a closer. When nothing can
 * move any more the operation must have ended, no message may be left, and the object must be gone. Each step is one
 * access of the C++ code, in its order; the function that it stands for is named beside it. Sequentially consistent.
 *
 * Seeded faults, by -D: HANDLES_FIRST, LOOK_FIRST, NO_SECOND_LOOK, MASK_FIRST, NO_WAKE.
 */
bool target = true;   /* HandleSlot.Target is the object */
byte handles = 1;     /* Object.Handles */
byte refs = 1;        /* Object.Refs: the handle, who works with the object, the operation, each message */
bool mask;            /* IoObject.EngineMask has the ring's bit */
bool running;         /* the request is in Engine.Outstanding */
bool cancelled;       /* CancelRequest was called for it */
byte inbox;           /* Engine.InboxCount */
bool inboxLock;       /* Engine.InboxLock */
bool blocked;         /* Engine.Blocked */
byte wakeFd;          /* the count of Engine.WakeFd */

inline Lock() { atomic { !inboxLock -> inboxLock = true } }
inline Unlock() { inboxLock = false }

inline Unref() { atomic { assert(refs > 0); refs-- } }

/* DrainInbox: TakeInbox, then CancelWhere for each message. */
inline DrainInbox() {
    Lock();
    taken = inbox;
    inbox = 0;
    Unlock();
    do
    :: taken > 0 ->
        if
        :: running -> cancelled = true
        :: else
        fi;
        Unref();
        taken--
    :: else -> break
    od
}

proctype Owner() {
    byte taken;
    bool orphaned;
    bool known;

    /* RefHandle */
    if
    :: !target -> goto idle
    :: else
    fi;
    atomic {
        if
        :: refs == 0 -> goto idle  /* TryRef */
        :: else -> refs++
        fi
    };
#ifndef NO_SECOND_LOOK
    if
    :: !target -> Unref(); goto idle
    :: else
    fi;
#endif
    /* NoteEngine */
#ifdef HANDLES_FIRST
    orphaned = (handles == 0);
    mask = true;
#else
    known = mask;
    if
    :: known -> skip
    :: else -> mask = true; orphaned = (handles == 0)
    fi;
#endif
    /* BeginRequest: the reference is the request's from here on. */
    assert(refs > 0);
    running = true;
    if
    :: orphaned -> cancelled = true
    :: else
    fi;

idle:
    /* SleepEngine, again and again */
    do
    ::
#ifdef LOOK_FIRST
        if
        :: inbox != 0 -> DrainInbox()
        :: else
        fi;
        blocked = true;
#else
        blocked = true;
        if
        :: inbox != 0 -> blocked = false; DrainInbox(); goto next
        :: else
        fi;
#endif
        /* EngineOps.Wait */
        if
        :: wakeFd > 0 -> wakeFd = 0
        :: running && cancelled -> running = false; Unref()  /* EndCall */
        fi;
        blocked = false;
        if
        :: inbox != 0 -> DrainInbox()
        :: else
        fi;
next:
        skip
    od
}

proctype Closer() {
    bool was;
    bool seen;

#ifdef MASK_FIRST
    seen = mask;
#endif
    /* CloseHandle */
    target = false;
    handles--;
    /* CancelObject */
    if
    :: refs == 1 -> goto done
    :: else
    fi;
#ifndef MASK_FIRST
    seen = mask;
#endif
    if
    :: !seen -> goto done
    :: else
    fi;
    refs++;
    /* Send */
    Lock();
    inbox++;
    Unlock();
    /* WakeEngine */
#ifndef NO_WAKE
    if
    :: !blocked -> goto done
    :: else
    fi;
    atomic { was = blocked; blocked = false };
    if
    :: was -> wakeFd++
    :: else
    fi;
#endif
done:
    Unref()
}

/* The ring may have had an operation on the object before. */
init {
    if
    :: mask = true
    :: mask = false
    fi;
    run Owner();
    run Closer();
    timeout -> assert(!running && inbox == 0 && refs == 0)
}
