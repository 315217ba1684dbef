"""What goes wrong in ways that the user can do something about."""


class GridError(Exception):
    """Told to the user as one line; the command then ends with this exit code."""

    def __init__(self, message, exit_code=1):
        super().__init__(message)
        self.exit_code = exit_code
