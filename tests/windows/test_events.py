"""The message texts agree with the driver's codes, and the generator reads what it claims to."""

import pathlib
import re
import tempfile
import unittest

from support import HOST_COMPILER, ROOT, WINDOWS, run

import event_texts

CARRY_THE_NAME = {
    0xC0060001, 0xC0060005, 0xC0060007, 0x40060009, 0xC006000B, 0xC006000C, 0xC006000D, 0xC006000E,
    0xC006000F,
}

HEAD = """SeverityNames=(
  Error=0x3
)
FacilityNames=(
  Vorlix=0x6
)
LanguageNames=(
  English=0x409:MSG00409
)
"""
MESSAGE = """MessageId=0x0001
Severity=Error
Facility=Vorlix
SymbolicName=EVENT_ONE
Language=English
%1: a text
in two lines.
.
"""


class EventTest(unittest.TestCase):
    def test_texts_and_header_name_the_same_codes(self):
        header = (ROOT / "driver/event_log.h").read_text(encoding="utf-8")
        declared = {name: int(code, 16)
                    for name, code in re.findall(r"(EVENT_\w+) = 0x([0-9A-F]{8}),", header)}
        messages = event_texts.parse_file(WINDOWS / "events.mc")
        self.assertEqual({message.name: message.code for message in messages}, declared)
        self.assertEqual(len(declared), 16)

    def test_exactly_the_events_with_a_name_insert_it(self):
        messages = event_texts.parse_file(WINDOWS / "events.mc")
        self.assertEqual({m.code for m in messages if "%1" in m.text}, CARRY_THE_NAME)

    def test_message_is_read(self):
        (message,) = event_texts.parse((HEAD + MESSAGE).splitlines())
        self.assertEqual(message, event_texts.Message("EVENT_ONE", 0xC0060001,
                                                      "%1: a text in two lines."))

    def test_malformed_files_are_refused(self):
        whole = HEAD + MESSAGE
        for old, new, expected in [
            ("  Error=0x3", "  Error=3", "line 2: expected NAME=0xNUMBER"),
            ("SeverityNames=(", "SeverityNames=", "line 1: expected NAME=VALUE"),
            ("SeverityNames=(", "SeverityNames=[", "line 1: expected '('"),
            (whole, "SeverityNames=(\n", "SeverityNames is not closed"),
            ("Severity=Error", "Severity=Fatal", "line 14: 'Fatal' is not among"),
            ("Facility=Vorlix\n", "", "line 13: the message has no Facility"),
            ("MessageId=0x0001", "MessageId=one", "'one' is not a hexadecimal"),
            ("MessageId=0x0001", "MessageId=0x10000", "out of range"),
            ("MessageId=0x0001", "MessageID=0x0001", "line 10: unknown keyword"),
            ("Severity=Error", "Severity=Error\nSeverity=Error", "Severity is given twice"),
            ("%1: a text", "%2: a text", "line 15: the only insertion is %1"),
            ("%1: a text", "%1: caf\u00e9", "line 15: a text line must hold printable"),
            ("%1: a text\nin two lines.\n", "", "the text is empty"),
            (".\n.\n", ".\n", "not closed"),
            (MESSAGE, MESSAGE + MESSAGE, "repeats the code or the name"),
            (MESSAGE, MESSAGE + "MessageId=2\n", "the last message has no text"),
            (MESSAGE, "", "no messages"),
        ]:
            with self.subTest(expected):
                self.assertEqual(whole.count(old), 1)
                with self.assertRaisesRegex(event_texts.MessageFileError, re.escape(expected)):
                    event_texts.parse(whole.replace(old, new).splitlines())

    def test_generated_source_answers_with_the_texts(self):
        with tempfile.TemporaryDirectory() as name:
            directory = pathlib.Path(name)
            source = directory / "event_texts.cpp"
            main = directory / "main.cpp"
            self.assertEqual(event_texts.main([str(WINDOWS / "events.mc"), str(source)]), 0)
            messages = event_texts.parse_file(WINDOWS / "events.mc")
            codes = ", ".join(f"0x{message.code:08X}u" for message in messages)
            main.write_text(
                '#include <cstdio>\n#include "host/event_texts.h"\n'
                f"int main() {{\n  const uint32_t codes[] = {{{codes}}};\n"
                "  for (uint32_t code : codes) std::puts(EventText(code));\n"
                "  return EventText(0xC0060012u) != nullptr;\n}\n", encoding="ascii")
            run(*HOST_COMPILER, source, main, "-o", directory / "texts")
            self.assertEqual(run(directory / "texts").splitlines(), [m.text for m in messages])


if __name__ == "__main__":
    unittest.main()
