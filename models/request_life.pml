/*
 * A presence request's life: dispatched, queued, marked, cancelled, unmarked, completed. Checked
 * over all interleavings with a card that comes and goes, an agent that leaves and comes back,
 * cancellations, and a device that is shut down.
 *
 * Whoever changes what a process or an inline mirrors changes it here, too:
 *
 *   Handler        CMyDevice::ProcessIoControl and route, DispatchGate::Pass,
 *                  Reader::IoSmartCardIsPresent and IoSmartCardIsAbsent
 *   Canceller      host::WdfRequest::cancel
 *   mark, unmark   host::WdfRequest::MarkCancelable and UnmarkCancelable: a request that is
 *                  cancelled while it is marked is handed to its callback once, and cannot be
 *                  unmarked from then on
 *   complete       host::WdfRequest::finish
 *   onCancel       CMyDevice::OnCancel and cancel, Reader::IoCancelRequest
 *   completeNewest, completeAll   WaitingRequests
 *   Listener       EventListener::serve and serveAgent; PipeReader::agentConnected, cardInserted,
 *                  cardRemoved, agentLost
 *   Device         CMyDevice::shutDown and stopDispatch, PipeReader::shutdown and its destructor
 *   Agent          an agent that keeps to docs/wire-protocol.md
 *
 * Left out:
 *   - The exchange: a query is one step that fails or tells whether the card is in. The turns are
 *     left out, too, which allows more interleavings than there are. exchange.pml has both.
 *   - Queries that time out. IS_PRESENT then waits although a card is in.
 *   - The listener's end after ten seconds without an insertion request.
 *   - Power, protocol and transmit requests, which never wait, and what they do to the state.
 *   - The host's refusal to cancel during a shut-down. The driver does not rely on it.
 *
 * Checked:
 *   - A request is completed exactly once. Nobody touches it afterwards, and it is in no list once
 *     the device lock is free. It is never marked or unmarked against the rules.
 *   - If nothing moves any more, no request waits in vain: for a card that is in, or for the
 *     removal of one that is out.
 *   - The lists are empty when the reader ends, and nobody uses it afterwards.
 *   - Everybody ends. LTL: each request is completed.
 *
 * Searches, each on its own. CALM shuts the device down when nothing moves any more, BUSY at any
 * time, with fewer moves of the card and without a loss of the agent:
 * variant: CALM
 * variant: BUSY ltl
 *
 * Mutations, each of which has to be found:
 * mutation: BUSY MUTATE_NO_UNMARK            completes a waiting request without unmarking it
 * mutation: BUSY MUTATE_CANCEL_KEEPS_LIST    the cancel callback leaves the request in its list
 * mutation: BUSY MUTATE_CANCEL_WITHOUT_LOCK  the cancel callback does not take the device lock
 * mutation: BUSY MUTATE_MARK_BEFORE_ADD      marks a request before it is in its list
 * mutation: BUSY MUTATE_NO_GATE              shuts down without waiting for the handlers
 * mutation: BUSY MUTATE_NO_SHUTDOWN          destroys a reader without completing what waits
 * mutation: CALM MUTATE_NO_COUNT             does not look for an event since the question
 * mutation: CALM MUTATE_LOSS_NOTED_EARLY     counts a loss before the pipes are dropped
 */

#define REQUESTS 2
#ifdef CALM
#define MOVES 2  /* of the card */
#define LOSSES 1 /* of the agent */
#else
#define MOVES 1
#define LOSSES 0
#endif

#define INSERTED 0 /* CardEvent: what a request waits for, and what the agent reports */
#define REMOVED 1
#define LOST 2 /* the event pipe breaks */
#define NOBODY 255

/* The framework's requests. */
bool completed[REQUESTS], cancelled[REQUESTS], marked[REQUESTS], handed[REQUESTS];

/* The device. */
byte lockOwner = NOBODY, lockDepth;
bool gateOpen = true, readersThere = true;
byte inside;

/* The reader: its lists, the newest request last. */
byte listed[2 * REQUESTS], size[2], count[2], asked[2];
bool absent = true, absentForGood, exchangesEnded, stop, listenerEnded, readerEnded;

/* The agent. */
bool card, told, agentThere, accepted;
chan eventPipe = [MOVES + LOSSES] of {byte};

byte i; /* within one d_step */
bool found;

#define stateAbsent (absent || absentForGood)
#define newest(kind) listed[(kind) * REQUESTS + size[kind] - 1]

inline lockDevice() {
  atomic {
    lockOwner == NOBODY || lockOwner == _pid -> lockOwner = _pid;
    lockDepth++
  }
}

inline unlockDevice() {
  d_step {
    assert(lockOwner == _pid);
    lockDepth--;
    if
    :: lockDepth == 0 ->
      /* Whoever takes the lock next finds no completed request in a list. */
      for (i : 0 .. REQUESTS - 1) {
        assert(i >= size[INSERTED] || !completed[listed[i]]);
        assert(i >= size[REMOVED] || !completed[listed[REQUESTS + i]])
      }
      lockOwner = NOBODY
    :: else
    fi;
    i = 0
  }
}

inline append(kind, request) {
  d_step {
    assert(!readerEnded && size[kind] < REQUESTS);
    listed[(kind) * REQUESTS + size[kind]] = request;
    size[kind]++
  }
}

/* Leaves the list as it is if the request is not in it. */
inline removeFrom(kind, request) {
  d_step {
    assert(!readerEnded);
    found = false;
    i = 0;
    do
    :: i < size[kind] ->
      if
      :: found -> listed[(kind) * REQUESTS + i - 1] = listed[(kind) * REQUESTS + i]
      :: !found && listed[(kind) * REQUESTS + i] == request -> found = true
      :: else
      fi;
      i++
    :: else -> break
    od;
    if
    :: found ->
      size[kind]--;
      listed[(kind) * REQUESTS + size[kind]] = 0
    :: else
    fi;
    found = false;
    i = 0
  }
}

inline complete(request) {
  d_step {
    assert(!completed[request]);
    completed[request] = true;
    marked[request] = false
  }
}

inline unmark(request, unmarked) {
  d_step {
    assert(!completed[request]);
    assert(marked[request] || handed[request]);
    unmarked = marked[request];
    marked[request] = false
  }
}

inline onCancel(request) {
#ifndef MUTATE_CANCEL_WITHOUT_LOCK
  lockDevice();
#endif
#ifndef MUTATE_CANCEL_KEEPS_LIST
  atomic {
    if
    :: readersThere ->
      removeFrom(REMOVED, request);
      removeFrom(INSERTED, request)
    :: else
    fi
  }
#endif
#ifdef MUTATE_CANCEL_WITHOUT_LOCK
  complete(request)
#else
  atomic {
    complete(request);
    unlockDevice()
  }
#endif
}

inline mark(request, calledBack) {
  d_step {
    assert(!completed[request] && !marked[request] && !handed[request]);
    calledBack = cancelled[request];
    handed[request] = cancelled[request];
    marked[request] = !cancelled[request]
  }
  if
  :: calledBack -> onCancel(request)
  :: else
  fi
}

/* The caller holds the device lock. */
inline completeNewest(kind, request, unmarked) {
  if
  :: size[kind] > 0 ->
    atomic {
      request = newest(kind);
      assert(!completed[request]); /* takes a reference */
#ifdef MUTATE_NO_UNMARK
      unmarked = true
#else
      unmark(request, unmarked)
#endif
    }
    atomic {
      if
      :: unmarked -> complete(request)
      :: else
      fi;
      removeFrom(kind, request)
    }
  :: else
  fi
}

inline completeAll(kind, request, unmarked) {
  do
  :: size[kind] > 0 -> completeNewest(kind, request, unmarked)
  :: else -> break
  od
}

inline note(event) {
  count[event]++
}

inline checkAtr(there) {
  d_step {
    there = card && agentThere && accepted && !exchangesEnded;
    told = told || there
  }
}

proctype Handler(byte self, awaited) {
  byte before;
  bool there, calledBack;

  atomic {
    if
    :: gateOpen -> inside++
    :: else -> goto refused
    fi;
    asked[awaited]++;
    before = count[awaited]
  }
  checkAtr(there);
  atomic {
    lockDevice();
    if
    :: there == (awaited == INSERTED) -> complete(self); goto done
    :: else
    fi;
#ifndef MUTATE_NO_COUNT
    if
    :: count[awaited] != before && (awaited == REMOVED || !stateAbsent) ->
      complete(self);
      goto done
    :: else
    fi;
#endif
    if
    :: true -> goto queue
    :: true -> /* no memory: the exception is caught outside the gate */
      unlockDevice();
      asked[awaited]--;
      inside--;
      goto refused
    fi
  }
queue:
#ifdef MUTATE_MARK_BEFORE_ADD
  mark(self, calledBack);
  append(awaited, self);
#else
  append(awaited, self);
  mark(self, calledBack);
#endif
done:
  unlockDevice();
  atomic {
    asked[awaited]--;
    inside--;
    goto returned
  }
refused:
  atomic {
    lockDevice();
    complete(self);
    unlockDevice()
  }
returned:
  skip
}

proctype Canceller(byte self) {
  bool calledBack;
  if
  :: true -> skip /* never */
  :: d_step {
      if
      :: completed[self] -> skip
      :: else ->
        cancelled[self] = true;
        calledBack = marked[self];
        handed[self] = handed[self] || marked[self];
        marked[self] = false
      fi
    }
    if
    :: calledBack -> onCancel(self)
    :: else
    fi
  fi
}

proctype Listener() {
  byte request, event;
  bool unmarked, there;

waiting:
  if
  :: stop -> goto ended
  :: size[INSERTED] > 0
  fi;
  if
  :: stop -> goto ended
  :: atomic { agentThere -> accepted = true }
  fi;
  /* agentConnected */
  if
  :: size[INSERTED] > 0 ->
    checkAtr(there);
    if
    :: there ->
      atomic {
        lockDevice();
        note(INSERTED)
      }
      completeAll(INSERTED, request, unmarked);
      atomic {
        absent = false;
        unlockDevice()
      }
    :: else
    fi
  :: else
  fi;
listening:
  if
  :: stop -> event = LOST /* the read is refused or ended */
  :: eventPipe?event
  fi;
  if
  :: event == INSERTED ->
    atomic {
      lockDevice();
      note(INSERTED);
      absent = false;
      unlockDevice()
    }
    if
    :: size[INSERTED] > 0 ->
      atomic {
        lockDevice();
        note(INSERTED)
      }
      completeAll(INSERTED, request, unmarked);
      atomic {
        absent = false;
        unlockDevice()
      }
    :: else
    fi;
    goto listening
  :: event == REMOVED ->
    atomic {
      lockDevice();
      note(REMOVED);
      absent = (absent || size[REMOVED] > 0 || asked[REMOVED] > 0)
    }
    completeAll(REMOVED, request, unmarked);
    unlockDevice();
    goto listening
  :: event == LOST ->
    atomic {
      lockDevice();
#ifdef MUTATE_LOSS_NOTED_EARLY
      note(REMOVED);
#endif
      absent = true
    }
    completeAll(REMOVED, request, unmarked);
    completeAll(INSERTED, request, unmarked);
    atomic {
      accepted = false;
      agentThere = false
    }
    atomic {
#ifndef MUTATE_LOSS_NOTED_EARLY
      note(REMOVED);
#endif
      unlockDevice()
    }
    goto waiting
  fi;
ended:
  listenerEnded = true
}

/*
 * A card moves before that is reported, so queries may be answered by it earlier. A card that is in
 * when the driver takes the connection is reported unless an answer has told of it.
 */
proctype Agent() {
  byte moves, losses;
  agentThere = true;
end:
  do
  :: moves < MOVES ->
    atomic {
      card = !card;
      moves++
    }
    atomic {
      if
      :: agentThere ->
        told = card;
        eventPipe!(card -> INSERTED : REMOVED)
      :: else
      fi
    }
  :: moves < MOVES -> moves = MOVES
  :: atomic { card && !told && agentThere && accepted ->
      told = true;
      eventPipe!INSERTED
    }
  :: atomic { agentThere && accepted && losses < LOSSES ->
      losses++
    }
    if
    :: eventPipe!LOST; agentThere = false
    :: agentThere = false; eventPipe!LOST
    fi
  :: losses < LOSSES -> losses = LOSSES
  :: atomic { !agentThere && !accepted ->
      agentThere = true;
      told = false
    }
  od
}

proctype Device() {
  byte request, kind;
  bool unmarked;

#ifdef CALM
  timeout; /* nothing moves any more */
  assert(size[REMOVED] == 0 || (card && accepted));
  assert(size[INSERTED] == 0 || !card || !accepted);
#endif
  gateOpen = false;
  atomic {
    absentForGood = true;
    exchangesEnded = true
  }
#ifndef MUTATE_NO_GATE
  inside == 0;
#endif
#ifndef MUTATE_NO_SHUTDOWN
  absent = true;
  kind = REMOVED;
  do
  :: size[kind] > 0 ->
    lockDevice();
    completeNewest(kind, request, unmarked);
    unlockDevice()
  :: size[kind] == 0 && kind == REMOVED -> kind = INSERTED
  :: size[kind] == 0 && kind == INSERTED -> break
  od;
#endif
  lockDevice();
  readersThere = false;
  unlockDevice();
  stop = true;
  listenerEnded;
  atomic {
    assert(size[REMOVED] == 0 && size[INSERTED] == 0);
    readerEnded = true
  }
  timeout;
  d_step {
    for (request : 0 .. REQUESTS - 1) {
      assert(completed[request])
    }
  }
}

init {
  atomic {
    run Device();
    run Listener();
    run Agent();
    if
    :: run Handler(0, INSERTED); run Handler(1, INSERTED)
    :: run Handler(0, INSERTED); run Handler(1, REMOVED)
    :: run Handler(0, REMOVED); run Handler(1, REMOVED)
    fi;
    run Canceller(0);
    run Canceller(1)
  }
}

ltl completion { <> (completed[0] && completed[1]) }
