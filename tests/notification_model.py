#!/usr/bin/env python3
"""Explores every interleaving of what docs/notifications.md describes, and checks what it promises.

Two watchers of one process register, wait, look and deliver; a thread that waits for what one of them delivers may look and
deliver for it; writers write; the service pulses at once or by its thread; somebody else may pulse the event; the service may
die and be followed by another. A stopped thread is one that takes no
step for a while, which is among the interleavings. With any one of the rules in BREAKS left out, a check has to fail.
"""
import sys
from typing import NamedTuple

BREAKS = ("remember", "count-pulses", "count-first", "publish-first", "tell-after-restart", "turn", "give-back")


class Watcher(NamedTuple):
    step: str = "open"  # the next one
    life: int = 0       # the service in which it has its watch
    position: int = 0   # of the event, as it was last taken
    begun: int = 0      # the position from which it waits
    told: int = 0       # writes
    before: int = 0     # pulses of the service when the watch began
    seen: int = 0       # pulses since then
    writes: int = 0     # just read
    asleep: bool = False  # only with "remember" left out: pulses count while it sleeps
    registered: int = -1  # writes when the registration returned
    value: int = -1     # of the last delivery
    deliveries: int = 0
    racing: int = 0     # pulses on their way when the watch began: of writes at that moment, which may be told
    needless: int = 0   # deliveries without a new write
    turn: str = ""      # who looks: "", "watcher", "waiter"
    waiter: str = "none"  # where the other thread stands, from "away" on
    signalled: int = 0  # the event, as that thread last saw it
    taken: int = 0      # pulses that it took
    read: int = 0       # writes that it has read


class State(NamedTuple):
    writes: int = 0     # published
    counted: int = 0    # pulses of the service, published
    event: int = 0      # position
    owed: bool = False  # to the thread of the service
    pulse: str = ""     # where a pulse stands: "", "count", "pulse"
    left: int = 0       # writes to come
    writer: str = ""    # "", "signal"
    foreign: int = 0    # pulses of somebody else to come
    deaths: int = 0
    life: int = 0
    a: Watcher = Watcher()
    b: Watcher = Watcher()


def pulse_steps(s, broken):
    """A pulse is counted, then given."""
    order = ("pulse", "count") if "count-first" in broken else ("count", "pulse")
    if s.pulse == "":
        return None
    if s.pulse == "count":
        s = s._replace(counted=s.counted + 1)
    else:
        wake = lambda w: w._replace(step="take", asleep=False) if w.asleep else w
        s = s._replace(event=s.event + 1, a=wake(s.a), b=wake(s.b))
    return s._replace(pulse=order[1] if s.pulse == order[0] else "")


def watcher_steps(s, w, broken):
    put = lambda **changes: w._replace(**changes)
    now = lambda: (s.writes, s.counted)
    if w.step == "none":
        return None
    if w.step == "open":  # the event is open, and the service knows the watch
        return put(step="base-writes", life=s.life, position=s.event)
    if w.step == "base-writes":
        return put(step="base-pulses", told=s.writes)
    if w.step == "base-pulses":
        return put(step="base-check", before=s.counted)
    if w.step == "base-check":  # nothing was pulsed meanwhile
        if s.event != w.position:
            return put(step="base-writes", position=s.event)
        renewed = w.registered >= 0
        tells = renewed and "tell-after-restart" not in broken
        on_their_way = s.owed + (s.pulse != "") + (s.writer == "signal")
        return put(step="deliver" if tells else "begin", seen=0, waiter="away" if w.waiter == "gone" else w.waiter, racing=w.racing + on_their_way,
                   registered=w.registered if renewed else s.writes, writes=w.told)
    if w.step == "begin":
        return put(step="wait", begun=w.position) if w.turn == "" or "turn" in broken else None
    if w.step == "wait":
        if w.life != s.life:  # the step of the other thread ends first
            return put(step="open", waiter="gone" if w.waiter != "none" else "none") if w.turn == "" else None
        if "remember" in broken:  # whoever does not sleep misses the pulse
            return None if w.asleep else put(asleep=True, position=s.event)
        return put(step="take") if s.event != w.begun else None
    if w.step == "take":
        if w.turn != "" and "turn" not in broken:
            return None
        if s.event == w.position:  # the other thread has had it
            return put(step="begin")
        return put(step="read-writes", turn="watcher", seen=w.seen + s.event - w.position, position=s.event)
    if w.step == "read-writes":
        return put(step="read-pulses", writes=s.writes)
    if w.step == "read-pulses":
        given = s.counted - w.before
        foreign = w.seen > given or "count-pulses" in broken
        news = foreign or w.writes != w.told
        return put(step="deliver" if news else "begin", seen=min(w.seen, given), told=w.writes, turn="",
                   needless=w.needless + (news and w.writes == w.told))
    assert w.step == "deliver"
    return put(step="begin", value=s.writes, deliveries=w.deliveries + 1)


def waiter_steps(s, w, broken):
    """The thread that waits for what the watcher delivers: it looks in turn. Where the values cannot be read without a call, it
    gives back what it took."""
    put = lambda **changes: w._replace(**changes)
    if w.waiter == "away" and w.step in ("begin", "wait"):
        yield put(waiter="asleep", signalled=s.event)
    elif w.waiter == "asleep" and s.event != w.signalled and (
            s.event == w.position or (w.turn != "" and "turn" not in broken)):  # the watcher had it, or is at it
        yield put(signalled=s.event)
    elif w.waiter == "asleep" and s.event != w.signalled:
        yield put(waiter="read-writes", turn="waiter", signalled=s.event, taken=s.event - w.position, position=s.event)
    elif w.waiter == "read-writes":
        yield put(waiter="read-pulses", read=s.writes)
        yield put(waiter="asleep", turn="", position=w.position - (0 if "give-back" in broken else w.taken))
    elif w.waiter == "read-pulses":
        seen, given = w.seen + w.taken, s.counted - w.before
        news = seen > given or w.read != w.told
        yield put(waiter="asleep", turn="", seen=min(seen, given), told=w.read, deliveries=w.deliveries + news,
                  value=s.writes if news else w.value, needless=w.needless + (news and w.read == w.told))


def steps(s, broken):
    first = "pulse" if "count-first" in broken else "count"
    if s.writer == "" and s.left > 0:  # publish, then signal
        if "publish-first" in broken:
            yield s._replace(writer="publish", left=s.left - 1, owed=True)
        else:
            yield s._replace(writer="signal", left=s.left - 1, writes=s.writes + 1)
    elif s.writer == "publish":
        yield s._replace(writer="", writes=s.writes + 1)
    elif s.writer == "signal":
        yield s._replace(writer="", owed=True)
        if s.pulse == "" and not s.owed:
            yield s._replace(writer="", pulse=first)
    if s.owed and s.pulse == "":
        yield s._replace(owed=False, pulse=first)
    if s.pulse:
        yield pulse_steps(s, broken)
    if s.foreign > 0:
        yield pulse_steps(s._replace(pulse="pulse"), ())._replace(pulse=s.pulse, foreign=s.foreign - 1)
    if s.deaths > 0:  # the next one starts, and its first value is one that nobody was told
        yield s._replace(deaths=s.deaths - 1, life=s.life + 1, writes=s.writes + 1, owed=False, pulse="", writer="")
    for name in ("a", "b"):
        stepped = watcher_steps(s, getattr(s, name), broken)
        if stepped is not None:
            yield s._replace(**{name: stepped})
        for stepped in waiter_steps(s, getattr(s, name), broken):
            yield s._replace(**{name: stepped})


def check_end(s, start, trace):
    """Nothing moves any more."""
    for w in (s.a, s.b):
        if w.step == "none":
            continue
        assert w.step == "wait", f"a watcher hangs: {trace}"
        if s.writes > w.registered:
            assert w.value == s.writes, f"the last write is untold: {trace}"
        assert w.deliveries <= s.writes + start.foreign + start.deaths, f"told twice: {trace}"
        assert w.needless <= start.foreign + w.racing, f"told without a write: {trace}"


def explore(start, broken=()):
    seen = {start}
    stack = [start]
    while stack:
        state = stack.pop()
        moved = False
        for after in steps(state, broken):
            moved = True
            if after not in seen:
                seen.add(after)
                stack.append(after)
        if not moved:
            check_end(state, start, state)
    return len(seen)


NOBODY = Watcher(step="none")
WITH_WAITER = Watcher(waiter="away")
STARTS = (State(left=1, foreign=1), State(left=1, deaths=1, b=NOBODY), State(left=2, foreign=1, b=NOBODY),
          State(left=3, b=NOBODY), State(left=2, foreign=1, a=WITH_WAITER, b=NOBODY), State(left=1, deaths=1, a=WITH_WAITER, b=NOBODY))


def main():
    print(f"{sum(explore(start) for start in STARTS)} states, every promise holds")
    for rule in BREAKS:
        try:
            for start in STARTS:
                explore(start, (rule,))
        except AssertionError:
            continue
        sys.exit(f"notification_model: without the rule {rule!r} no check fails")


main()
