"""A session with the daemon, for programs with asyncio."""

from __future__ import annotations

import asyncio
import os
import warnings
import weakref
from collections import deque
from collections.abc import AsyncIterator, Callable, Mapping, Sequence
from types import TracebackType
from typing import TYPE_CHECKING, Any, Generic, Self, TypeVar

from . import _calls
from ._calls import Call, Description
from ._native import NativeSession
from .results import Answer, Delivery, Flushed, States, Uploaded
from .session import DEFAULT_DEADLINE
from .values import Storable

if TYPE_CHECKING:
    from .testing import TestSink

T = TypeVar("T")


class Stream(AsyncIterator[T], Generic[T]):
    """What a session tells, from the making of this object on, until the session is closed.

    Keeps at most `limit` for a reader who does not come; past it the oldest go, and `lost` counts
    them. One that is let go of takes nothing more.
    """

    def __init__(self, limit: int) -> None:
        self.lost = 0
        self._limit = limit
        self._waiting: deque[T] = deque()
        self._ended = False
        self._changed = asyncio.Event()

    async def __anext__(self) -> T:
        while not self._waiting:
            if self._ended:
                raise StopAsyncIteration
            self._changed.clear()
            await self._changed.wait()
        return self._waiting.popleft()

    def _put(self, item: T) -> None:
        if len(self._waiting) == self._limit:
            self._waiting.popleft()
            self.lost += 1
        self._waiting.append(item)
        self._changed.set()

    def _end(self) -> None:
        self._ended = True
        self._changed.set()


class _Streams(Generic[T]):
    """Those who read what a session tells."""

    def __init__(self) -> None:
        self._all: weakref.WeakSet[Stream[T]] = weakref.WeakSet()
        self._ended = False

    def make(self, limit: int) -> Stream[T]:
        stream: Stream[T] = Stream(limit)
        self._all.add(stream)
        if self._ended:
            stream._end()
        return stream

    def put(self, item: T) -> None:
        for stream in self._all:
            stream._put(item)

    def end(self) -> None:
        self._ended = True
        for stream in self._all:
            stream._end()


class _UnderWay:
    """Counts the calls that have not ended."""

    def __init__(self) -> None:
        self._count = 0
        self._none = asyncio.Event()
        self._none.set()

    def begin(self) -> None:
        self._count += 1
        self._none.clear()

    def end(self) -> None:
        self._count -= 1
        if self._count == 0:
            self._none.set()

    async def wait_for_none(self) -> None:
        await self._none.wait()


class _Completion(Generic[T]):
    """Ends a call for the one who awaits it, if somebody does and still waits."""

    def __init__(self, under_way: _UnderWay, future: asyncio.Future[T] | None) -> None:
        self._under_way = under_way
        self._future = future

    def succeed(self, result: T) -> None:
        self._under_way.end()
        if self._future is not None and not self._future.done():
            self._future.set_result(result)

    def fail(self, error: BaseException) -> None:
        self._under_way.end()
        if self._future is not None and not self._future.done():
            self._future.set_exception(error)


class Session:
    """As corvid.Session, in an event loop: everything runs there, and no method waits for anything
    but by `await`.

        import corvid.aio

        async with corvid.aio.Session() as session:
            session.describe(corvid.Description(client_type=5, client_name="Player"))
            states = await session.start()
            answer = await session.send(7, 2, {"action": "play", "position": 12.5})

    Errors     As there. A call is made, and refused, when it is awaited.
    Cancelling Whoever awaits a call may be cancelled, by asyncio.timeout for example. The call goes
               on, since an accepted one cannot be withdrawn; its answer is dropped when it comes.
    Threads    That of the event loop only; others get a RuntimeError. Handlers are plain functions and run there; what one
               raises goes to the loop's exception handler.
    End        close(), which `async with` awaits. It gives accepted calls until the deadline to be
               answered, while the loop goes on.
    """

    def __init__(
        self,
        *,
        root: str | os.PathLike[str] | None = None,
        deadline: float = DEFAULT_DEADLINE,
        answer_deadline: float | None = None,
        test_sink: TestSink | None = None,
        on_connected: Callable[[], object] | None = None,
        on_reconnected: Callable[[], object] | None = None,
        on_invalidated: Callable[[], object] | None = None,
    ) -> None:
        """In a running event loop, which becomes the session's. Does not connect. `deadline` is for
        close() only: a call for which there is no room raises QueueFullError at once."""
        self._loop = asyncio.get_running_loop()
        self._deadline = deadline
        self._under_way = _UnderWay()
        self._deliveries: _Streams[Delivery] = _Streams()
        self._changes: _Streams[States] = _Streams()
        handlers: dict[str, Callable[..., object] | None] = {
            "message": self._deliveries.put,
            "states_changed": self._changes.put,
            "connected": on_connected,
            "reconnected": on_reconnected,
            "invalidated": on_invalidated,
        }
        self._native = NativeSession(
            root=root,
            deadline=0,
            answer_deadline=answer_deadline,
            dispatch=True,
            test_sink=test_sink,
            handlers={
                name: None if handler is None else _telling(self._loop, handler)
                for name, handler in handlers.items()
            },
        )
        descriptor = self._native.fileno()
        self._loop.add_reader(descriptor, self._native.dispatch)
        self._forgotten = weakref.finalize(
            self, _close_forgotten, self._native, self._loop, descriptor
        )
        self._forgotten.atexit = False

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        await self.close()

    async def close(self) -> None:
        """What is still under way at the deadline raises ClosedError where it is awaited. A second
        time does nothing."""
        try:
            async with asyncio.timeout(self._deadline):
                await self._under_way.wait_for_none()
        except TimeoutError:
            pass
        finally:
            if self._forgotten.detach() is not None:
                self._loop.remove_reader(self._native.fileno())
                self._native.close()
                self._deliveries.end()
                self._changes.end()

    def connect(self) -> None:
        """Connects, where there is no connection; any call does so too."""
        self._native.connect()

    def messages(self, limit: int = 4096) -> Stream[Delivery]:
        """Deliveries for a session that aggregates; make it before describe()."""
        return self._deliveries.make(limit)

    def states_changes(self) -> Stream[States]:
        """The states whenever they, or their reasons, are others than the daemon told last. Whoever
        reads slowly gets the last ones only."""
        return self._changes.make(1)

    def describe(self, description: Description, *, aggregates: bool = False) -> None:
        """Says who reports. `aggregates`: messages() wants those of the session's chain."""
        self._perform(_calls.describe(description, aggregates), None)

    async def start(self) -> States:
        """Has the daemon work out what reports; it may have to fetch its configuration for that."""
        return await self._ask(_calls.start())

    async def fetch_states(self, user_info: Mapping[str, Storable] | None = None) -> States:
        """`user_info` takes the place of what was described before."""
        return await self._ask(_calls.fetch_states(user_info))

    async def fetch_display_url(self) -> str | None:
        """Where people can look at the session; None where nowhere."""
        return await self._ask(_calls.fetch_display_url())

    async def send(
        self,
        category: int,
        type: int,
        payload: Mapping[str, Storable] | None = None,
        *,
        flag: int | None = None,
    ) -> Answer:
        """Sends an event."""
        return await self._ask(_calls.send(category, type, payload, flag))

    def report(
        self,
        category: int,
        type: int,
        payload: Mapping[str, Storable] | None = None,
        *,
        flag: int | None = None,
    ) -> None:
        """Sends an event, and wants to hear nothing of what becomes of it: cheaper than send()."""
        self._perform(_calls.send(category, type, payload, flag), None)

    async def send_single(
        self,
        description: Description,
        category: int,
        type: int,
        payload: Mapping[str, Storable] | None = None,
    ) -> Answer:
        """Sends one event outside of what the session described."""
        return await self._ask(_calls.send_single(description, category, type, payload))

    async def flush(self) -> Flushed:
        """Has events that wait in the daemon posted. The answer waits for servers."""
        return await self._ask(_calls.flush())

    async def finish(self) -> Answer:
        """Tells the daemon that the session's activity has ended."""
        return await self._ask(_calls.finish())

    async def upload_file(self, path: str | os.PathLike[str]) -> Uploaded:
        """The file is opened before anything is awaited, and removed where the server confirmed
        it."""
        return await self._ask(_calls.upload_file(path))

    async def upload_log_data(self, log_data: Sequence[Storable]) -> Uploaded:
        return await self._ask(_calls.upload_log_data(log_data))

    def _perform(self, call: Call[Any], future: asyncio.Future[Any] | None) -> None:
        if asyncio.get_running_loop() is not self._loop:
            raise RuntimeError("a corvid session is used outside of its event loop")
        self._native.perform(
            call, _Completion(self._under_way, future), answer=future is not None
        )
        self._under_way.begin()  # its end comes in a later turn of the loop

    async def _ask(self, call: Call[T]) -> T:
        future: asyncio.Future[T] = self._loop.create_future()
        self._perform(call, future)
        return await future


def _telling(
    loop: asyncio.AbstractEventLoop, handler: Callable[..., object]
) -> Callable[..., object]:
    def tell(*given: Any) -> None:
        try:
            handler(*given)
        except Exception as error:
            loop.call_exception_handler(
                {"message": "a handler of a corvid session failed", "exception": error}
            )

    return tell


def _close_forgotten(
    session: NativeSession, loop: asyncio.AbstractEventLoop, descriptor: int
) -> None:
    """Of a session that its program lost without closing it."""
    warnings.warn("a corvid session was not closed", ResourceWarning, stacklevel=2)
    if loop.is_closed():
        session.close()
    else:  # the collector may run on any thread
        loop.call_soon_threadsafe(loop.remove_reader, descriptor)
        loop.call_soon_threadsafe(session.close)
