"""The clients: half stay for every reply, half leave whenever they like."""

import collections
import random
import threading
import time

import figures
from asks import chunk_places
from chronicle import DESCRIPTORS, PROCESSES, Span
from harness import bus

# Seconds for a request. Nothing that is asked here takes a tenth of it, but a sanitizer on a machine with other work.
TIME_LIMIT = 30.0
SANITIZED_TIME_LIMIT = 150.0
POINTS = ("mid-header", "mid-body", "before the reply", "mid-reply", "after the reply")


def time_limit(instance):
    return SANITIZED_TIME_LIMIT if instance.sanitized else TIME_LIMIT


class Ended(Exception):
    """The service ended the stream where more was due."""


class Hung(Exception):
    """No whole answer within the limit."""


class Connection(bus.RawConnection):
    """Knows how long the request under way may still take, and tells an early end from a wrong answer."""

    def __init__(self, path, time_limit):
        self.time_limit = time_limit
        self.deadline = time.monotonic() + time_limit
        try:
            super().__init__(path, time_limit)
        except TimeoutError as error:
            raise Hung("connecting") from error

    def begin(self):
        self.deadline = time.monotonic() + self.time_limit

    def send(self, data):
        self.limit()
        try:
            super().send(data)
        except TimeoutError as error:
            raise Hung("sending") from error
        except OSError as error:
            raise Ended(str(error)) from error

    def limit(self):
        left = self.deadline - time.monotonic()
        if left <= 0:
            raise Hung("waiting")
        self.socket.settimeout(left)

    def _more(self):
        self.limit()
        try:
            if not super()._more():
                raise Ended("the stream ended")
        except TimeoutError as error:
            raise Hung("reading") from error
        return True

    def final_response(self):
        """The response after those that only say to go on."""
        while True:
            response = self.response()
            if response.status >= 200:
                return response

    def read_some(self, count):
        """Reads up to so many bytes of whatever comes."""
        while len(self.buffer) < count:
            self._more()

    def ends(self):
        try:
            self._more()
        except Ended:
            return True
        return False


class Tally:
    """Figures of all clients together."""

    def __init__(self):
        self.lock = threading.Lock()
        self.outcomes = collections.defaultdict(collections.Counter)  # endpoint: outcome: count
        self.seconds = collections.defaultdict(list)  # endpoint: of each answered request
        self.left = collections.Counter()  # point: count
        self.failures = []

    def requests(self):
        with self.lock:
            return sum(sum(counts.values()) for counts in self.outcomes.values())

    def note(self, label, outcome, seconds=None):
        with self.lock:
            self.outcomes[label][outcome] += 1
            if seconds is not None:
                self.seconds[label].append(seconds)

    def note_left(self, label, point):
        with self.lock:
            self.left[point] += 1
            self.outcomes[label]["left"] += 1

    def fail(self, text):
        with self.lock:
            self.failures.append(text)


class Client(threading.Thread):
    def __init__(self, number, seed, instance, asks, chronicle, tally, until):
        super().__init__(daemon=True, name=f"client {number}")
        self.instance = instance
        self.time_limit = time_limit(instance)
        self.chance = random.Random(f"{seed} {self.name}")
        self.asks, self.chronicle, self.tally = asks, chronicle, tally
        self.until = until
        self.connection = None
        self.doing = "nothing"

    def run(self):
        while time.monotonic() < self.until and len(self.tally.failures) < 20:
            try:
                self.turn()
            except Exception as error:  # each is a failure of the run, which goes on to show what else there is
                where = "; the daemon: " + figures.describe(self.instance) if isinstance(error, Hung) else ""
                self.tally.fail(f"{self.name}: {self.doing}: {type(error).__name__}: {error}"[:3000] + where)
                self.disconnect()
        self.disconnect()

    def turn(self):
        raise NotImplementedError

    def disconnect(self):
        if self.connection is not None:
            self.connection.close()
            self.connection = None

    def connected(self):
        if self.connection is None:
            self.connection = Connection(self.instance.socket, self.time_limit)
        return self.connection

    def excused(self, span, status=None):
        """The outcome of a request that was not answered as it should be; fails when there is no reason for it."""
        if status == 503:
            assert self.chronicle.scarce(span, DESCRIPTORS), "503 with descriptors to spare"
            return "503, no descriptor"
        if self.chronicle.scarce(span, PROCESSES):
            return f"{status or 'cut short'}, no process"
        assert self.chronicle.excuse_by_kill(span), f"{status or 'an early end'} for no reason"
        return f"{status or 'cut short'}, killed"

    def settle(self, ask, reply, span):
        """Notes how the reply turned out, and returns that."""
        if reply.status in (502, 503):
            outcome = self.excused(span, reply.status)
        else:
            outcome = ask.check(reply, span)
        self.tally.note(ask.label, outcome, span.end - span.begin)
        return outcome


class StayingClient(Client):
    """Waits for every reply, on connections that it mostly keeps."""

    own_cache_lock = threading.Lock()

    def turn(self):
        kind = self.chance.random()
        if kind < 0.06 and self.own_cache_lock.acquire(blocking=False):
            try:
                self.asks.own_cache(self.do, self.chance)
            finally:
                self.own_cache_lock.release()
        elif kind < 0.12:
            self.pipeline([self.asks.some(self.chance) for _ in range(3)])
        else:
            self.do(self.asks.some(self.chance))
        if self.chance.random() < 0.1:
            self.disconnect()

    def do(self, ask):
        """Asks and returns the outcome."""
        self.doing = f"{ask.label} {ask.body[:200]!r}"
        way = self.chance.random()
        span = Span()
        connection = self.connected()
        connection.begin()
        try:
            if way < 0.1 and ask.body and not ask.closes:
                head, _, body = ask.wire().partition(b"\r\n\r\n")
                connection.send(head + b"\r\nExpect: 100-continue\r\n\r\n")
                time.sleep(self.chance.uniform(0, 0.01))
                connection.send(body)
            else:
                connection.send(ask.wire(way > 0.95, chunk_places(self.chance, len(ask.body)) if ask.body else None))
                if way > 0.9:
                    connection.end_sending()
        except Ended:
            if not ask.closes:
                raise
            # A refusal may come before all is sent.
        try:
            reply = connection.final_response()
        except Ended:
            span.close()
            self.disconnect()
            outcome = self.excused(span)
            self.tally.note(ask.label, outcome)
            return outcome
        span.close()
        if ask.closes or way > 0.9:
            assert connection.ends(), "the connection goes on after its last reply"
            self.disconnect()
        return self.settle(ask, reply, span)

    def pipeline(self, asks):
        """Several requests at once; those behind one that ends the connection are not answered."""
        asks = [ask for ask in asks if not ask.closes]
        self.doing = f"pipelined {[(ask.label, ask.body[:200]) for ask in asks]}"
        span = Span()
        connection = self.connected()
        connection.begin()
        connection.send(b"".join(ask.wire() for ask in asks))
        for place, ask in enumerate(asks):
            try:
                reply = connection.final_response()
            except Ended:
                span.close()
                self.disconnect()
                outcome = self.excused(span)
                for missed in asks[place:]:
                    self.tally.note(missed.label, outcome)
                return
            answered = Span()
            answered.begin, answered.end = span.begin, time.monotonic()
            self.settle(ask, reply, answered)


class LeavingClient(Client):
    """Asks on a connection of its own each time and goes away at a random point, mostly before it is answered."""

    def __init__(self, number, *arguments):
        super().__init__(number, *arguments)
        self.next_point = POINTS[number // 2 % len(POINTS)]  # each is some client's first

    def turn(self):
        ask = self.asks.some(self.chance)
        point, self.next_point = self.next_point, self.chance.choice(POINTS)
        self.doing = f"{ask.label} {ask.body[:200]!r}, leaving {point}"
        span = Span()
        connection = self.connected()
        try:
            request = ask.wire(point == "mid-reply", chunk_places(self.chance, len(ask.body)) if ask.body else None)
            head = request.index(b"\r\n\r\n") + 4
            if point == "mid-header":
                connection.send(request[:self.chance.randrange(head)])
            elif point == "mid-body":
                connection.send(request[:self.chance.randrange(head, max(head + 1, len(request)))])
            else:
                connection.send(request)
            self.leave(connection, ask, point, span)
        except Ended:
            span.close()
            if ask.closes:
                self.tally.note_left(ask.label, point)
            else:
                self.tally.note(ask.label, self.excused(span))
        finally:
            self.disconnect()

    def leave(self, connection, ask, point, span):
        if point == "mid-reply":
            try:
                connection.read_some(self.chance.choice((1, 15, 100, 300, 5_000, 70_000)))
            except Ended:
                if not connection.buffer:
                    raise
        elif point == "after the reply":
            reply = connection.final_response()
            span.close()
            self.settle(ask, reply, span)
            self.tally.left[point] += 1
            return
        elif self.chance.random() < 0.5:
            time.sleep(self.chance.uniform(0, 0.02))
        self.tally.note_left(ask.label, point)
