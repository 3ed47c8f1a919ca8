/*
 * The exchanges with the agent on the command pipe: turns, the watchdog, a notification that is
 * cancelled, a client that is dropped, and the stop. Checked over all interleavings of two requests
 * and an insertion with an agent that answers in time, late or not at all, or stops reading.
 *
 * Whoever changes what a process or an inline mirrors changes it here, too:
 *
 *   Query          a request that asks and is completed: CMyDevice::ProcessIoControl,
 *                  AgentQueries::runGuarded, CMyDevice::finish
 *   SetProtocol    the same, and AgentQueries::notifyCardReady after the completion
 *   Listener       PipeReader::cardInserted and agentLost, EventListener::serve
 *   take, giveUp, passOn, endRequest   ExchangeTurn and its RequestScope
 *   runGuarded     AgentQueries::runGuarded with QueryWatchdog
 *   writeCommand, flush, readAnswer   CancelablePipe::run: enter, the system's call, leave
 *   cancelCalls, cancelEnded, disconnect   CancelablePipe. `ended`: the exchange's epoch is over
 *   cancelNotification   AgentQueries
 *   Watchdog       WatchdogThread::run
 *   Device         CMyDevice::stopDispatch, CancelablePipe::endExchanges, the reader's destructor
 *   Agent          an agent that keeps to docs/wire-protocol.md on Linux
 *
 * Left out:
 *   - Fields: a command and an answer are sent and read whole. The pipe holds one command.
 *   - The retry's 5 ms and its end after two seconds: a cancel is repeated once there is something
 *     to cancel, and what blocks in the system can be cancelled.
 *   - The waiting requests, which request_life.pml has, and the dispatch gate before it is closed.
 *
 * Checked:
 *   - There are never two exchanges on the pipe, and none goes on with another client.
 *   - The answer that is read is that of the command.
 *   - A watchdog ends its own query only. A cancelled notification is never another exchange.
 *   - TIMED: a request is completed within two limits, and has given up waiting for its turn after
 *     one. A query that ends a notification may wait HAND_OVER longer.
 *   - Everybody ends, also while the agent is silent. LTL: both requests are completed.
 *
 * Searches, each on its own. In TIMED, time passes only if nobody can do anything; what happens at
 * one time still happens in every order. In the others, every time limit may be up at any time.
 * STOPPED stops the device at any time, the others do once the requests are completed. In LOST the
 * agent is lost and another one comes. These two have one request:
 * variant: TIMED ltl
 * variant: FREE
 * variant: STOPPED ltl
 * variant: LOST ltl
 *
 * Mutations, each of which has to be found:
 * mutation: TIMED MUTATE_TURN_NOT_KEPT          passes the turn on before the request is completed
 * mutation: FREE MUTATE_NO_TURN                 exchanges without waiting for the turn
 * mutation: FREE MUTATE_WATCHDOG_OF_ANOTHER     the watchdog cancels without holding its mutex
 * mutation: FREE MUTATE_STREAM_AFTER_WATCHDOG   arms the watchdog before the exchange has its epoch
 * mutation: FREE MUTATE_NOTIFICATION_UNGUARDED  cancels a notification without the mutex
 * mutation: FREE MUTATE_AGENT_DOES_NOT_LOOK     an agent that answers late all the same
 * mutation: STOPPED MUTATE_CANCEL_ONCE          does not repeat a cancel that comes too early
 * mutation: STOPPED MUTATE_EXCHANGES_NOT_REFUSED  ends the exchanges, and lets others begin
 * mutation: LOST MUTATE_DISCONNECT_KEEPS_EPOCH  drops the client without ending its exchanges
 */

#define LIMIT 2 /* of a query, and of a wait for the turn */
#define HAND_OVER 1

#define QUERY 0 /* who exchanges */
#define PROTOCOL 1
#define LISTENER 2
#define EXCHANGERS 3
#define NOBODY 255
#define WATCHDOG 3 /* timers of those and of these */
#define AGENT 4
#define TIMERS 5
#define OFF 255
#define NOTIFICATION 9 /* a command; a query's is the number of its exchanger */

#define IDLE 0 /* a call on the pipe */
#define ENTERED 1
#define BLOCKED 2
#define RELEASED 3

#define NONE 0 /* AgentQueries::NotificationState */
#define UNDER_WAY 1
#define CANCELLED 2

/* ExchangeTurn */
byte holder = NOBODY;
chan waiting = [EXCHANGERS] of {byte};
bool kept[EXCHANGERS];

/* CancelablePipe */
byte calls[EXCHANGERS];
bool ended[EXCHANGERS];
bool accepted = true, closed, stopped, exchangesEnded;

/* The pipe and the agent at its end */
chan command = [1] of {byte};
chan answer = [1] of {byte};
bool gone, foundGone, reading;

/* WatchdogThread */
byte guarded = NOBODY;
bool watchdogMutex, expired, watchdogStop, watchdogEnded;

/* AgentQueries */
byte notification;
bool notificationMutex;

/* The device */
byte lockOwner = NOBODY;
byte inside;
bool stop, listenerEnded, completed[2];

/* Only for the checks */
byte onPipe = NOBODY;
bool otherClient[EXCHANGERS];

byte timers[TIMERS];
byte spent[2]; /* by the requests until they are completed */
bool handedOver[EXCHANGERS];
byte j;        /* within one d_step */

#ifdef TIMED
#define due(t) (timers[t] == 0)
#define start(t, time) timers[t] = time
#else
#define due(t) (timers[t] != OFF)
#define start(t, time) timers[t] = 0
#endif

#define inFlight (calls[0] != IDLE || calls[1] != IDLE || calls[2] != IDLE)
#define endedCall(x) (ended[x] && calls[x] != IDLE)
#define endedInFlight (endedCall(0) || endedCall(1) || endedCall(2))
#define missed(x) (calls[x] == BLOCKED)

inline lockDevice(self) { atomic { lockOwner == NOBODY -> lockOwner = self } }
inline unlockDevice() { lockOwner = NOBODY }

/* The system's cancel: releases what is blocked. `victim` is what it is meant for. */
inline systemCancel(victim) {
  d_step {
    for (j : 0 .. EXCHANGERS - 1) {
      if
      :: calls[j] == BLOCKED ->
        assert(victim == NOBODY || victim == j);
        calls[j] = RELEASED
      :: else
      fi
    }
    j = 0
  }
}

inline endEpoch(victim) {
  d_step {
    assert(victim == NOBODY || onPipe == NOBODY || onPipe == victim);
    for (j : 0 .. EXCHANGERS - 1) {
      ended[j] = true
    }
    j = 0
  }
}

inline cancelEnded(victim) {
  systemCancel(victim);
#ifndef MUTATE_CANCEL_ONCE
  do
  :: !endedInFlight -> break
  :: endedInFlight && (missed(0) || missed(1) || missed(2)) -> systemCancel(victim)
  od
#endif
}

inline cancelCalls(victim) {
  endEpoch(victim);
  cancelEnded(victim)
}

inline disconnect() {
  atomic {
    closed = true;
    accepted = false;
#ifndef MUTATE_DISCONNECT_KEEPS_EPOCH
    endEpoch(NOBODY)
#endif
  }
  cancelEnded(NOBODY);
  atomic {
    gone = true;
    foundGone = true;
    do
    :: nempty(command) -> command?j
    :: nempty(answer) -> answer?j
    :: empty(command) && empty(answer) -> break
    od;
    for (j : 0 .. EXCHANGERS - 1) {
      otherClient[j] = true
    }
    j = 0;
    closed = false
  }
}

/* A call is refused, or blocks until it is done, the client is gone or it is cancelled. */
inline enter(self, done) {
  d_step {
    done = !(closed || stopped || ended[self] || exchangesEnded || !accepted);
    if
    :: done -> calls[self] = ENTERED
    :: !done
    fi
  }
}

inline writeCommand(self, code, done) {
  enter(self, done);
  if
  :: done ->
    calls[self] = BLOCKED;
    if
    :: atomic { calls[self] == RELEASED -> done = false; calls[self] = IDLE }
    :: atomic { gone -> done = false; calls[self] = IDLE }
    :: atomic { !gone && nfull(command) ->
        command!code;
        otherClient[self] = false;
        calls[self] = IDLE
      }
    fi
  :: !done
  fi
}

inline flush(self, done) {
  enter(self, done);
  if
  :: done ->
    assert(!otherClient[self]);
    calls[self] = BLOCKED;
    if
    :: atomic { calls[self] == RELEASED -> calls[self] = IDLE }
    :: atomic { gone -> foundGone = true; calls[self] = IDLE }
    :: atomic { !gone && empty(command) && !reading -> calls[self] = IDLE }
    fi
  :: !done
  fi
}

inline readAnswer(self, code, done) {
  enter(self, done);
  if
  :: done ->
    assert(!otherClient[self]);
    calls[self] = BLOCKED;
    if
    :: atomic { calls[self] == RELEASED -> done = false; calls[self] = IDLE }
    :: atomic { gone && (foundGone || empty(answer)) -> done = false; calls[self] = IDLE }
    :: atomic { !foundGone && nempty(answer) ->
        answer?code;
        assert(code == self);
        code = 0;
        calls[self] = IDLE
      }
    fi
  :: !done
  fi
}

/* PipeStream's constructor and destructor */
inline beginExchange(self) {
  atomic {
    assert(onPipe == NOBODY);
    onPipe = self;
    ended[self] = false
  }
}

inline endExchange() { onPipe = NOBODY }

inline passOn() {
  atomic {
    if
    :: nempty(waiting) -> waiting?holder
    :: empty(waiting) -> holder = NOBODY
    fi
  }
}

inline endRequest(self) {
  if
  :: kept[self] ->
    kept[self] = false;
    passOn()
  :: else
  fi
}

inline giveUp(self) {
#ifdef MUTATE_TURN_NOT_KEPT
  passOn()
#else
  if
  :: self != LISTENER -> kept[self] = true
  :: else -> passOn()
  fi
#endif
}

inline cancelNotification(ending) {
#ifdef MUTATE_NOTIFICATION_UNGUARDED
  if
  :: atomic { notification == UNDER_WAY -> notification = CANCELLED }
    cancelCalls(PROTOCOL)
  :: notification != UNDER_WAY
  fi;
  ending = (notification != NONE)
#else
  atomic {
    !notificationMutex -> notificationMutex = true;
    if
    :: notification == UNDER_WAY -> notification = CANCELLED; ending = true
    :: else -> ending = false
    fi
  }
  if
  :: ending -> cancelCalls(PROTOCOL)
  :: else
  fi;
  atomic {
    ending = (notification != NONE);
    notificationMutex = false
  }
#endif
}

/* `limit` is what is left of it. A notification waits without ending another. */
inline take(self, limit, ends, got, before, ending) {
  endRequest(self);
#ifdef MUTATE_NO_TURN
  got = true;
#else
  atomic {
    if
    :: holder == NOBODY -> holder = self; got = true
    :: else -> waiting!self; start(self, limit); got = false
    fi
  }
  if
  :: got
  :: !got ->
    if
    :: atomic { holder == self -> timers[self] = OFF; got = true }
    :: atomic { due(self) && holder != self ->
        before = holder;
        timers[self] = OFF;
        ending = false
      }
      if
      :: ends -> cancelNotification(ending)
      :: !ends
      fi;
      if
      :: ending ->
        atomic {
          start(self, HAND_OVER);
          handedOver[self] = true
        }
        if
        :: holder != before
        :: due(self)
        fi;
        timers[self] = OFF
      :: !ending
      fi;
      atomic {
        before = 0;
        if
        :: holder == self -> got = true
        :: holder != self -> waiting??eval(self)
        fi
      }
    fi
  fi;
#endif
  ending = false
}

inline runGuarded(self, code, done) {
#ifndef MUTATE_STREAM_AFTER_WATCHDOG
  beginExchange(self);
#endif
  atomic {
    !watchdogMutex -> guarded = self;
    expired = false;
    start(WATCHDOG, LIMIT)
  }
#ifdef MUTATE_STREAM_AFTER_WATCHDOG
  beginExchange(self);
#endif
  writeCommand(self, self, done);
  if
  :: done ->
    flush(self, done);
    readAnswer(self, code, done)
  :: else
  fi;
  atomic { !watchdogMutex -> done = done && !expired }
  atomic { !watchdogMutex -> guarded = NOBODY; timers[WATCHDOG] = OFF }
  endExchange()
}

proctype Watchdog() {
  byte victim;
  do
  :: atomic { !watchdogMutex && guarded != NOBODY && due(WATCHDOG) ->
#ifndef MUTATE_WATCHDOG_OF_ANOTHER
      watchdogMutex = true;
#endif
      expired = true;
      victim = guarded;
      guarded = NOBODY;
      timers[WATCHDOG] = OFF
    }
    cancelCalls(victim);
    watchdogMutex = false
  :: watchdogStop -> break
  od;
  watchdogEnded = true
}

/* The turn's limit goes down while the request waits for the device lock before it. */
#define LEFT(self) (spent[self] >= LIMIT -> 0 : LIMIT - spent[self])

inline checkWait(self) {
#ifdef TIMED
  assert(spent[self] <= LIMIT + (handedOver[self] -> HAND_OVER : 0))
#else
  skip
#endif
}

inline completeRequest(self) {
  lockDevice(self);
  atomic {
    assert(!completed[self]);
    completed[self] = true;
#ifdef TIMED
    assert(spent[self] <= 2 * LIMIT + (handedOver[self] -> HAND_OVER : 0));
#endif
    spent[self] = 0;
    unlockDevice()
  }
}

proctype Query() {
  byte code, before;
  bool got, done, ending;
  lockOwner == NOBODY; /* the look-up of its reader */
  take(QUERY, LEFT(QUERY), true, got, before, ending);
  checkWait(QUERY);
  if
  :: got ->
    runGuarded(QUERY, code, done);
    giveUp(QUERY)
  :: else
  fi;
  completeRequest(QUERY);
  endRequest(QUERY);
  inside--
}

proctype SetProtocol() {
  byte code, before;
  bool got, done, ending;
  lockOwner == NOBODY;
  take(PROTOCOL, LEFT(PROTOCOL), true, got, before, ending);
  checkWait(PROTOCOL);
  if
  :: got ->
    runGuarded(PROTOCOL, code, done);
    giveUp(PROTOCOL)
  :: else
  fi;
  completeRequest(PROTOCOL);
  if
  :: done ->
    take(PROTOCOL, LIMIT, false, got, before, ending);
    if
    :: got ->
      beginExchange(PROTOCOL);
      atomic { !notificationMutex -> notification = UNDER_WAY }
      writeCommand(PROTOCOL, NOTIFICATION, done);
      atomic {
#ifndef MUTATE_NOTIFICATION_UNGUARDED
        !notificationMutex ->
#endif
        notification = NONE
      }
      endExchange();
      giveUp(PROTOCOL)
    :: else
    fi
  :: else
  fi;
  endRequest(PROTOCOL);
  inside--
}

proctype Listener() {
  byte code, before;
  bool got, done, ending;
#ifdef LOST
  bool lost;
again:
#endif
#ifdef TIMED
  if
  :: timers[LISTENER] = 0
  :: timers[LISTENER] = 1
  :: timers[LISTENER] = LIMIT
  fi;
  atomic { timers[LISTENER] == 0 -> timers[LISTENER] = OFF }
#endif
  if
  :: true -> /* an insertion */
    take(LISTENER, LIMIT, true, got, before, ending);
    lockDevice(LISTENER);
    if
    :: got -> runGuarded(LISTENER, code, done)
    :: else
    fi;
    unlockDevice();
    if
    :: got -> giveUp(LISTENER)
    :: else
    fi
  :: true
  fi;
#ifndef LOST
  stop;
#else
  if
  :: stop
  :: !stop && !lost -> /* the agent is lost, another one comes */
    lost = true;
    lockDevice(LISTENER);
    disconnect();
    unlockDevice();
    atomic {
      if
      :: !stopped ->
        gone = false;
        foundGone = false;
        accepted = true
      :: else
      fi
    }
    goto again
  fi;
#endif
  listenerEnded = true
}

proctype Agent() {
  byte code;
end:
  do
  :: atomic { nempty(command) && !gone ->
#ifndef MUTATE_AGENT_DOES_NOT_LOOK
      if
      :: nempty(answer) -> gone = true; goto end
      :: empty(answer)
      fi;
#endif
      reading = true
    }
    atomic {
      reading = false;
      if
      :: empty(command) || gone -> goto end
      :: nempty(command) && !gone -> command?code
      fi;
      if
      :: code == NOTIFICATION -> code = 0; goto end
      :: code != NOTIFICATION
      fi
    }
    if
#ifdef TIMED
    :: timers[AGENT] = LIMIT;
      atomic { timers[AGENT] == 0 -> timers[AGENT] = OFF }
    :: timers[AGENT] = LIMIT + 1;
      atomic { timers[AGENT] == 0 -> timers[AGENT] = OFF }
#endif
    :: true /* answers */
    :: goto silent
    fi;
#ifndef MUTATE_AGENT_DOES_NOT_LOOK
    if
    :: atomic { nempty(command) -> gone = true; goto end }
    :: empty(command)
    fi;
#endif
    atomic {
      if
      :: !gone && nfull(answer) -> answer!code
      :: gone || full(answer)
      fi;
      code = 0
    }
  :: nempty(command) && !gone -> break /* stops reading */
  od;
silent:
  code = 0;
end_silent:
  gone -> goto end
}

proctype Device() {
#ifndef STOPPED
  completed[QUERY] && completed[PROTOCOL];
#endif
  /* endExchanges */
#ifndef MUTATE_EXCHANGES_NOT_REFUSED
  exchangesEnded = true;
#endif
  if
  :: inFlight -> systemCancel(NOBODY);
#ifndef MUTATE_CANCEL_ONCE
    do
    :: !inFlight -> break
    :: missed(0) || missed(1) || missed(2) -> systemCancel(NOBODY)
    od
#endif
  :: else
  fi;
  inside == 0;
  stop = true;
  atomic {
    stopped = true;
    endEpoch(NOBODY)
  }
  disconnect();
  listenerEnded;
  watchdogStop = true;
  watchdogEnded
}

#ifdef TIMED
/* Ends if nobody waits for a time. */
proctype Clock() {
  bool waits;
  do
  :: timeout ->
    d_step {
      waits = false;
      for (j : 0 .. TIMERS - 1) {
        if
        :: timers[j] != OFF && timers[j] > 0 -> timers[j]--; waits = true
        :: else
        fi
      }
      for (j : 0 .. 1) {
        if
        :: !completed[j] && spent[j] < 4 * LIMIT -> spent[j]++
        :: else
        fi
      }
      j = 0
    }
    if
    :: waits
    :: !waits -> break
    fi
  od
}
#endif

init {
  atomic {
    for (j : 0 .. TIMERS - 1) {
      timers[j] = OFF
    }
    j = 0;
#ifdef TIMED
    run Clock();
#endif
    run Device();
    run Watchdog();
    run Agent();
    run Listener();
    inside++;
    run SetProtocol();
#if !defined(STOPPED) && !defined(LOST)
    inside++;
    run Query()
#else
    completed[QUERY] = true
#endif
  }
}

ltl completion { <> (completed[QUERY] && completed[PROTOCOL]) }
