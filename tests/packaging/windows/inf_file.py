"""Parses a driver package's INF."""

import re


class InfFile:
    """Section and key names compare without case, as they do for Windows."""

    def __init__(self, text):
        self.text = text
        self.sections = {}
        self.repeated = []
        self.strays = []
        section = None
        for number, line in enumerate(text.splitlines(), 1):
            line = _without_comment(line).strip()
            if not line:
                continue
            title = re.fullmatch(r"\[([^\[\]]+)\]", line)
            if title:
                name = title.group(1).lower()
                if name in self.sections:
                    self.repeated.append(title.group(1))
                section = self.sections.setdefault(name, [])
            elif section is None or line.startswith("["):
                self.strays.append(number)
            else:
                key, separator, value = line.partition("=")
                section.append((key.strip(), value.strip() if separator else None))

    def lines(self, section):
        """The (key, value) pairs in order; a line without "=" has the value None."""
        return self.sections.get(section.lower(), [])

    def values(self, section, key):
        return [v for k, v in self.lines(section) if k.lower() == key.lower() and v is not None]

    def value(self, section, key):
        """The key's value without quotes; None unless it is there once."""
        found = self.values(section, key)
        return found[0].strip('"') if len(found) == 1 else None

    def tokens(self):
        """The names between percent signs outside [Strings], without numbers of folders."""
        names = set()
        for name, pairs in self.sections.items():
            if name == "strings":
                continue
            for pair in pairs:
                for part in pair:
                    names.update(re.findall(r"%([^%]+)%", part or ""))
        return {name.lower() for name in names if not name.isdigit()}


def _without_comment(line):
    quoted = False
    for at, character in enumerate(line):
        if character == '"':
            quoted = not quoted
        elif character == ";" and not quoted:
            return line[:at]
    return line
