"""An INF as the checks read it: its sections with strings expanded."""

import pathlib
import re

Line = tuple[str | None, list[str]]  # key, or None for a line without; fields


def split_fields(text: str) -> list[str]:
    """Comma separated fields; quotes protect commas and are dropped, a doubled quote inside stands for one."""
    if text.count('"') % 2:
        raise ValueError(f"unclosed quote: {text}")
    fields = re.findall(r'(?:^|,)((?:"(?:[^"]|"")*"|[^",])*)', text)
    return [re.sub(r'"((?:[^"]|"")*)"', lambda quoted: quoted[1].replace('""', '"'), field.strip()) for field in fields]


def without_comment(line: str) -> str:
    return re.match(r'(?:"[^"]*"?|[^";])*', line)[0].strip()


class Inf:
    def __init__(self, path: pathlib.Path):
        self.sections: dict[str, list[Line]] = {}  # by name in lower case
        self.used: set[str] = set()  # names of strings that the sections name, known or not
        raw: dict[str, list[tuple[str | None, str]]] = {}
        current = None
        for number, line in enumerate(path.read_bytes().decode("ascii").splitlines(), 1):
            line = without_comment(line)
            if line.startswith("["):
                if not line.endswith("]"):
                    raise ValueError(f"line {number}: {line}")
                current = raw.setdefault(line[1:-1].lower(), [])
            elif line:
                if current is None:
                    raise ValueError(f"line {number}: outside any section")
                assignment = re.match(r'((?:"[^"]*"|[^"=,])*?)\s*=\s*(.*)$', line)
                current.append((assignment[1].strip('"'), assignment[2]) if assignment else (None, line))
        self.strings = {key.lower(): split_fields(value)[0] for key, value in raw.pop("strings", []) if key}
        for name, lines in raw.items():
            self.sections[name] = [(key and self._expand(key), [self._expand(field) for field in split_fields(value)])
                                   for key, value in lines]

    def _expand(self, text: str) -> str:
        def value(match: re.Match) -> str:
            name = match[1].lower()
            if not name:
                return "%"
            if name.isdecimal():
                return match[0]  # a directory
            self.used.add(name)
            return self.strings.get(name, match[0])
        return re.sub(r"%([^%]*)%", value, text)

    def section(self, name: str) -> list[Line]:
        return self.sections.get(name.lower(), [])

    def entry(self, section: str, key: str) -> list[str]:
        """The fields of the first line with that key; none when there is none."""
        return next((fields for k, fields in self.section(section) if k and k.lower() == key.lower()), [])

    def source_files(self) -> list[str]:
        return [key for key, _ in self.section("SourceDisksFiles") if key]

    def models(self) -> list[tuple[str, str, list[str]]]:
        """(description, install section, hardware ids) of every device of every models section."""
        names = [".".join(filter(None, (fields[0], decoration))) for _, fields in self.section("Manufacturer")
                 for decoration in fields[1:] or [""]]
        return [(key or "", fields[0], fields[1:]) for name in names for key, fields in self.section(name)]
