#!/usr/bin/env python3
"""Reads the message texts (events.mc) and writes them as a C++ source.

    event_texts.py EVENTS_MC OUTPUT_CPP

The source defines EventText() of host/event_texts.h. Only the part of the message compiler's
language that events.mc uses is understood; anything else is an error that names the line.
"""

import re
import sys
from dataclasses import dataclass


class MessageFileError(Exception):
    """A line of the message file that cannot be understood."""


@dataclass(frozen=True)
class Message:
    name: str
    code: int
    text: str  # one line; line breaks of the file are blanks


_ASSIGNMENT = re.compile(r"(\w+)\s*=\s*(\S.*)$")
_TABLE_ENTRY = re.compile(r"(\w+)\s*=\s*(0x[0-9A-Fa-f]+)(?::\w+)?$")
_TABLES = ("SeverityNames", "FacilityNames", "LanguageNames")
_FIELDS = ("MessageId", "Severity", "Facility", "SymbolicName", "Language")


class _Parser:
    def __init__(self, lines):
        self.lines = lines
        self.at = 0
        self.tables = {name: {} for name in _TABLES}
        self.messages = []

    def fail(self, why):
        raise MessageFileError(f"line {self.at}: {why}")

    def next_line(self):
        line = self.lines[self.at]
        self.at += 1
        return line.rstrip("\r\n")

    def parse(self):
        fields = {}
        while self.at < len(self.lines):
            line = self.next_line().strip()
            if not line or line.startswith(";"):
                continue
            match = _ASSIGNMENT.match(line)
            if not match:
                self.fail(f"expected NAME=VALUE, found {line!r}")
            name, value = match.groups()
            if name in _TABLES:
                self.parse_table(name, value)
            elif name not in _FIELDS:
                self.fail(f"unknown keyword {name!r}")
            elif name in fields:
                self.fail(f"{name} is given twice")
            else:
                fields[name] = value
                if name == "Language":
                    self.parse_message(fields)
                    fields = {}
        if fields:
            self.fail("the last message has no text")
        return self.messages

    def parse_table(self, name, value):
        if value != "(":
            self.fail(f"expected '(' after {name}=")
        while self.at < len(self.lines):
            line = self.next_line().strip()
            if line == ")":
                return
            match = _TABLE_ENTRY.match(line)
            if not match:
                self.fail(f"expected NAME=0xNUMBER, found {line!r}")
            self.tables[name][match.group(1)] = int(match.group(2), 16)
        self.fail(f"{name} is not closed")

    def lookup(self, table, value):
        if value not in self.tables[table]:
            self.fail(f"{value!r} is not among the {table}")
        return self.tables[table][value]

    def parse_message(self, fields):
        for name in _FIELDS:
            if name not in fields:
                self.fail(f"the message has no {name}")
        self.lookup("LanguageNames", fields["Language"])
        try:
            number = int(fields["MessageId"], 16)
        except ValueError:
            self.fail(f"{fields['MessageId']!r} is not a hexadecimal number")
        severity = self.lookup("SeverityNames", fields["Severity"])
        facility = self.lookup("FacilityNames", fields["Facility"])
        if not (0 <= number <= 0xFFFF and severity <= 3 and facility <= 0xFFF):
            self.fail("number, severity or facility is out of range")
        code = severity << 30 | facility << 16 | number
        for other in self.messages:
            if code == other.code or fields["SymbolicName"] == other.name:
                self.fail(f"{fields['SymbolicName']} repeats the code or the name of {other.name}")
        self.messages.append(Message(fields["SymbolicName"], code, self.parse_text()))

    def parse_text(self):
        text = []
        while self.at < len(self.lines):
            line = self.next_line()
            if line == ".":
                if not text:
                    self.fail("the text is empty")
                return " ".join(text)
            if not line.strip() or not line.isascii() or not line.isprintable():
                self.fail("a text line must hold printable ASCII characters")
            if re.sub("%1", "", line).count("%"):
                self.fail("the only insertion is %1")
            text.append(line.strip())
        self.fail("the text is not closed by a line with a single dot")


def parse(lines):
    """The messages of a file, given as a list of lines, in their order."""
    messages = _Parser(lines).parse()
    if not messages:
        raise MessageFileError("no messages")
    return messages


def parse_file(path):
    with open(path, encoding="ascii") as file:
        try:
            return parse(file.readlines())
        except (MessageFileError, UnicodeDecodeError) as error:
            raise MessageFileError(f"{path}: {error}") from None


def generate(messages):
    lines = ['#include "host/event_texts.h"', "", "const char *EventText(uint32_t Code) {"]
    lines.append("  switch (Code) {")
    for message in messages:
        text = message.text.replace("\\", "\\\\").replace('"', '\\"')
        lines.append(f"  case 0x{message.code:08X}:  // {message.name}")
        lines.append(f'    return "{text}";')
    lines += ["  default:", "    return nullptr;", "  }", "}", ""]
    return "\n".join(lines)


def main(arguments):
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        source = generate(parse_file(arguments[0]))
    except (MessageFileError, OSError) as error:
        print(f"event_texts: {error}", file=sys.stderr)
        return 1
    with open(arguments[1], "w", encoding="ascii") as file:
        file.write(source)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
