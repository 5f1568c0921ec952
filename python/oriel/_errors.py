"""Statuses of the library as an exception. The rows are those of include/tvsqdz_status.h; a test compares them."""

from __future__ import annotations

OK = 0
HANDLE = -1
DATABASE_GONE = -3
VALUE_GREW = -8
UNKNOWN = -19
SIZE = -36
MEMORY = -33
RPC_UNAVAILABLE = 1722
RPC_CALL_FAILED = 1726
RPC_CALL_FAILED_DNE = 1727

TEXTS = {
    0: "done",
    -1: "the manager or the registration is not open",
    -16: "no manager can be opened: the product is not up, or it has not opened the printer yet",
    -19: "unknown variable, or one that this operation does not serve",
    -33: "out of memory, or the printer has no driver, so its variables are unknown",
    -34: "memory cannot be read or written",
    -36: "the buffer is too small, or the value has another size",
    -38: "the printer's request lock is not available",
    -48: "the printer side is not ready",
    -49: "no process owns the printer, or the spooler does not know it",
    -50: "the printer takes no such request now, or the job is not there",
    -80: "the printer's model is not registered",
    -96: "the status database service did not come up in time",
    -256: "you lack the authority for this on this printer",
    -2: "another printer has that name",
    -3: "the service has no such database: it was restarted meanwhile",
    -4: "the printer's database is still being initialised",
    -5: "the printer's database has no such variable",
    -6: "a variable of that name exists already",
    -7: "the variable does not take a value of this size",
    -8: "the value grew while it was read",
    -9: "the service does not accept that name",
    -10: "the service does not accept that argument",
    -11: "a limit of the service is reached",
    -12: "another process initialises the printer's database",
    -13: "the variable is not watched",
    -14: "no printer side serves the printer",
    -15: "the service is out of memory",
    -17: "the service cannot create the variable's event",
    -18: "the printer side did not answer",
    -20: "only the service writes that variable",
    5: "access denied",
    8: "out of memory",
    14: "out of memory",
    87: "the system refused it as invalid",
    1130: "the service is out of memory",
    1460: "it took too long",
    1702: "the library is being unloaded, or did not load completely",
    1717: "the status database service has another version",
    1721: "the system has no resources left for the call",
    1722: "the status database service is not running",
    1723: "the status database service did not answer in time",
    1726: "the connection to the status database service broke",
    1727: "the connection to the status database service broke",
    1728: "the status database service sent an invalid answer",
    1745: "the status database service does not support that call",
    1783: "the status database service sent an invalid answer",
    1818: "the call was cancelled",
    1820: "the connection to the status database service broke",
}


def status_text(code: int) -> str:
    """The text of a status of the library."""
    return TEXTS.get(code) or ("the status database service refused it" if code < 0 else "system error")


class Error(Exception):
    """A call failed. ``code`` is the status of the library, ``text`` says it in words, ``what`` names what failed."""

    def __init__(self, code: int, what: str) -> None:
        super().__init__(code, what)
        self.code = code
        self.what = what
        self.text = status_text(code)

    def __str__(self) -> str:
        return f"{self.what}: {self.text} (status {self.code})"


class UnknownVariable(Error, KeyError):
    """The printer has no such variable, or not for this operation. Also a KeyError, so ``printer.get()`` has a default."""

    __str__ = Error.__str__


def check(status: int, what: str) -> None:
    """Raises Error unless the status is 0."""
    if status != OK:
        raise (UnknownVariable if status == UNKNOWN else Error)(status, what)
