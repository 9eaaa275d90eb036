"""Objects that are found again as long as somebody has them."""

from __future__ import annotations

import weakref

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any


class WeakValues:
    """Values by key, which go with the last one who has them.

    No Python code runs when a value goes, as it does for a weakref.WeakValueDictionary: a Ctrl-C
    that comes while it runs is lost.
    """

    def __init__(self):
        self._references: dict[Any, weakref.ref] = {}
        self._most = 64

    def get(self, key: Any) -> Any:
        """The value, or None if it is not there or has gone."""
        reference = self._references.get(key)
        return None if reference is None else reference()

    def keep(self, key: Any, value: Any) -> Any:
        """Returns the value that is there, or keeps this one and returns it."""
        if len(self._references) >= self._most:
            self._forget_those_that_have_gone()
        mine = weakref.ref(value)
        while True:
            # In one step, for other threads that keep a value for the key.
            kept = self._references.setdefault(key, mine)
            known = kept()
            if known is not None:
                return known
            self._forget(key, kept)

    def _forget_those_that_have_gone(self):
        for key, reference in list(self._references.items()):
            if reference() is None:
                self._forget(key, reference)
        self._most = 64 + 2 * len(self._references)

    def _forget(self, key: Any, reference: weakref.ref):
        # Another thread may have kept another value for the key meanwhile.
        if self._references.get(key) is reference:
            self._references.pop(key, None)
