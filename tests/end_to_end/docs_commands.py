"""The commands in the documentation: those of the blocks `sh` and `console`, which also has the
answers, and in the text what begins with `sudo`, and a program with two words after it or more.
With one it is the name of a command or of an option, and with brackets a usage line."""

import dataclasses
import re

import stack

_BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.M | re.S)
_PROGRAM = (r"(?:\./zelta|zelta|zelta-\w+|scripts/[\w.-]+|ctest|curl|gpg|gpgsm|modutil|opensc-tool|"
            r"p11tool|pcsc_scan|pkcs1[15]-\w+|ssh|ssh-\w+|strace|systemctl|systemd-analyze)")
_INLINE = re.compile(rf"`(sudo\s[^`]+|{_PROGRAM}(?:\s+[^`\s[]+){{2,}})`")
_NAME = re.compile(r"`(\./zelta|zelta|zelta-\w+)\s+([^`\s[]+)`")
_COMMENT = re.compile(r"\s+#\s.*$")


@dataclasses.dataclass
class Command:
    page: str
    text: str  # without its comment, on one line
    source: str  # as it stands there
    answer: list  # the lines that it prints, or None


def pages():
    return [stack.SOURCE / "README.md", stack.SOURCE / "CONTRIBUTING.md",
            *sorted((stack.SOURCE / "docs").glob("*.md"))]


def name_of(page):
    return str(page.relative_to(stack.SOURCE))


def languages(page):
    return {language for language, _ in _BLOCK.findall(page.read_text())}


def _one_line(lines):
    return " ".join(_COMMENT.sub("", line).rstrip("\\").strip() for line in lines)


def _commands_of_sh(page, lines):
    found, begun = [], []
    for line in lines:
        if not line.strip() or line.startswith("#"):
            continue
        begun.append(line)
        if _COMMENT.sub("", line).endswith(("\\", "|")):
            continue
        found.append(Command(page, _one_line(begun), "\n".join(begun), None))
        begun = []
    assert not begun, f"{page}: unfinished: {begun}"
    return found


def _commands_of_console(page, lines):
    found = []
    for line in lines:
        if line.startswith("$ "):
            found.append(Command(page, _one_line([line[2:]]), line[2:], []))
        else:
            found[-1].answer.append(line.rstrip())
    return found


_READERS = {"sh": _commands_of_sh, "console": _commands_of_console}


def blocks(page):
    """The page's commands, a list for each block."""
    return [_READERS[language](name_of(page), text.splitlines())
            for language, text in _BLOCK.findall(page.read_text()) if language in _READERS]


def without_blocks(page):
    return _BLOCK.sub("", page.read_text())


def is_for_windows(page):
    """Whether the page is about Windows; the Windows suite follows these pages."""
    return page.name.startswith("windows")


def inline(page):
    if is_for_windows(page):
        return []
    commands = _INLINE.findall(without_blocks(page))
    found = dict.fromkeys(" ".join(command.split()) for command in commands)
    return [Command(name_of(page), command, command, None) for command in found]


def names(page):
    """The commands and options of our own programs that the text names: (program, word)."""
    return [] if is_for_windows(page) else _NAME.findall(without_blocks(page))


def every_command():
    return [command for page in pages()
            for command in [*(each for block in blocks(page) for each in block), *inline(page)]]


def is_for_systemd(command):
    return re.match(r"(sudo )?(systemctl|journalctl|systemd-analyze) ", command.text) is not None


def is_for_package_manager(command):
    return re.match(r"sudo (apt|dpkg|adduser) |\./zelta package ", command.text) is not None
