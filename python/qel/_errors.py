"""The exception every failing call of the qel module raises."""


class Error(Exception):
    """A call failed: `number` is the library's error number (0 when the
    fault has none), `text` its description."""

    def __init__(self, number: int, text: str):
        super().__init__(f"{text} ({number})" if number else text)
        self.number = number
        self.text = text
