"""The context-manager habit every opened object of the package shares."""

from .errors import check


class Closing:
    """`with obj:` hands back the object and closes it on the way out, also on an error."""

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class RunningUnit(Closing):
    """One unit of an adapter (an output, a converter) that runs between start() and stop().
    The class names its family (`_FAMILY`, for errors) and its stop call (`_STOP`); the
    object keeps the unit's number in `_unit`. `with obj:` starts it unless it runs already;
    close() stops it if it still runs (ignoring an adapter that is gone) and lets go of the
    adapter."""

    _FAMILY = None
    _STOP = None

    def _call(self, name, *args):
        return check(self._FAMILY, name,
                     getattr(self._lib, name)(self.adapter.handle, self._unit, *args))

    def stop(self):
        self._call(self._STOP)
        self._running = False

    def close(self):
        if self._running:
            self._running = False
            getattr(self._lib, self._STOP)(self.adapter.handle, self._unit)
        self.adapter.close()

    def __enter__(self):
        if not self._running:
            self.start()
        return self
