"""Sending away from the loop, of what its target does not take at once."""

from __future__ import annotations

import threading
from collections import deque
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

# Targets that may keep a sender waiting at once before others wait for them.
_THREADS = 16


class Lanes:
    """One order for each target, so that one that takes nothing holds up only what is for it."""

    def __init__(self) -> None:
        self._threads = ThreadPoolExecutor(_THREADS, "convey-send")
        self._mutex = threading.Lock()
        self._jobs: dict[bytes, deque[Callable[[], None]]] = {}  # of targets that have a thread

    def is_free(self, target: bytes) -> bool:
        """Whether what is sent now overtakes nothing; for who adds, since that may change it."""
        return target not in self._jobs

    def add(self, target: bytes, job: Callable[[], None]) -> None:
        with self._mutex:
            jobs = self._jobs.get(target)
            if jobs is not None:
                jobs.append(job)
                return
            self._jobs[target] = deque([job])
        self._threads.submit(self._run, target)

    def _run(self, target: bytes) -> None:
        while True:
            with self._mutex:
                jobs = self._jobs[target]
                if not jobs:
                    del self._jobs[target]
                    return
                job = jobs.popleft()
            job()
