"""Read, change and watch the status of monitored printers.

    import oriel

    with oriel.open("Front desk") as printer:
        print(printer["PageCount"])              # a number; None while it is not known
        printer["PrinterLocation"] = "2nd floor"
        print(printer.info("PrinterLocation"))   # when it was last written, UTC
        for change in printer.watch("PrinterStatus", "PageCount"):
            print(change.variable, change.before, "->", change.value)

In asyncio the loop is ``async for change in printer.watch("PrinterStatus")``.

The module calls the shared library of the product; the product has to be up ("oriel up"). docs/python.md has more.
"""

from ._errors import Error, status_text
from ._printer import Printer, Variable, open
from ._values import (
    Job,
    Port,
    PortEx,
    PrintingJob,
    PrintingJob2,
    Value,
)
from ._watch import Change, Watch

__all__ = [
    "Change",
    "Error",
    "Job",
    "Port",
    "PortEx",
    "Printer",
    "PrintingJob",
    "PrintingJob2",
    "Value",
    "Variable",
    "Watch",
    "open",
    "status_text",
]
