"""The table of bench/mount: a line for each row as soon as it is measured."""

import statistics


class Unavailable(Exception):
    """There is no number for this mount and row; the text says why, in two or three words."""


class Table:
    """Columns: the limit, each mount by its name. A cell holds the seconds of each round, or why there are none."""

    def __init__(self, mounts):
        self.columns = ["limit", *mounts]
        self.notes = []
        self._print("seconds", [*self.columns, "ours/limit"])

    @staticmethod
    def _print(title, cells):
        print(f"{title:<52}" + "".join(f"{cell:>14}" for cell in cells), flush=True)

    def row(self, title, cells, unit=1.0, digits=3):
        """`cells`: column -> [seconds] or a text. Printed as medians, in units of which a second has `unit`."""
        medians = {name: statistics.median(cell) for name, cell in cells.items() if isinstance(cell, list) and cell}
        shown = []
        for name in self.columns:
            if name in medians:
                shown.append(f"{medians[name] * unit:.{digits}f}")
            else:
                reason = cells.get(name)
                shown.append(self._short(title, name, reason) if reason else "")
        both = medians.get("limit") and "kestrune" in medians
        shown.append(f"{medians['kestrune'] / medians['limit']:.2f}" if both else "")
        self._print(title, shown)

    def _short(self, title, name, reason):
        if len(reason) <= 13:
            return reason
        self.notes.append(f"{title}: {name}: {reason}")
        return f"[{len(self.notes)}]"

    def finish(self):
        for number, note in enumerate(self.notes, 1):
            print(f"[{number}] {note}")


class Cells:
    """What is measured for one row, round by round."""

    def __init__(self):
        self.values = {}

    def missing(self, column):
        """Whether it was found that there is no number for the column: it is not tried again."""
        return isinstance(self.values.get(column), str)

    def measure(self, column, measurement):
        """`measurement` gives seconds, or raises Unavailable."""
        if self.missing(column):
            return
        try:
            self.values.setdefault(column, []).append(measurement())
        except Unavailable as reason:
            self.values[column] = str(reason)
