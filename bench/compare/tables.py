"""Tables as text: numbers in as many digits as they deserve, columns that line up on a console too."""

NOTHING = "–"


def number(value):
    """Three significant digits, more only for the whole part of large numbers."""
    if value is None:
        return NOTHING
    size = abs(value)
    digits = 0 if size >= 100 or value == 0 else 1 if size >= 10 else 2 if size >= 1 else 3
    return f"{value:,.{digits}f}"


def ratio(value):
    """Digits enough to tell which side of a target it is on."""
    return NOTHING if value is None else f"{value:,.3f}" if value < 10 else f"{value:,.1f}"


def with_range(spread, unit):
    if spread is None:
        return NOTHING
    text = f"{number(spread.median)} {unit}"
    if spread.rounds > 1:
        text += f" ({number(spread.low)}..{number(spread.high)})"
    return text


def bound(limit, at_most):
    return NOTHING if limit is None else f"{'≤' if at_most else '≥'} {limit:.4g}"


def verdict(answer):
    return {True: "yes", False: "**no**", None: NOTHING}[answer]


def table(header, rows):
    """A Markdown table, the lines of which also align as plain text."""
    cells = [[cell.replace("|", "\\|") for cell in row] for row in (header, *rows)]
    widths = [max(len(row[i]) for row in cells) for i in range(len(header))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in cells]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)
