"""The context-manager habit every opened object of the package shares."""


class Closing:
    """`with obj:` hands back the object and closes it on the way out, also on an error."""

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
