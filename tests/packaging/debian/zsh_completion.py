"""Zsh's completions of a command line: the real completion, in a shell on its own terminal."""

import contextlib
import os
import pathlib
import pty
import subprocess
import tempfile

# Completes the typed line, writes the offers to the file, and ends.
STARTUP = """
PROMPT= RPROMPT=
zmodload zsh/complist
autoload -Uz compinit
fpath=({folder} $fpath)
compinit -u -d $ZDOTDIR/dump
bindkey '^I' complete-word
zstyle ':completion:*' insert-tab false
compadd() {{
  if [[ ${{@[1,(i)(-|--)]}} == *-(O|A|D)\\ * ]]; then
    builtin compadd "$@"
    return $?
  fi
  local -a offered
  builtin compadd -A offered "$@"
  print -rl -- $offered >>$ZDOTDIR/offered
  builtin compadd "$@"
}}
finish() {{ : >>$ZDOTDIR/offered; exit 0 }}
comppostfuncs=(finish)
"""
LIMIT = 30  # seconds


def complete(completions, *words):
    """What is offered for the last of the words; `completions` is the folder of the functions."""
    with tempfile.TemporaryDirectory() as folder:
        home = pathlib.Path(folder)
        (home / ".zshrc").write_text(STARTUP.format(folder=completions))
        ours, theirs = pty.openpty()
        environment = dict(os.environ, ZDOTDIR=folder, TERM="dumb")
        with subprocess.Popen(["zsh", "-d", "-i"], env=environment, stdin=theirs, stdout=theirs,
                              stderr=theirs, start_new_session=True) as shell:
            os.close(theirs)
            os.write(ours, " ".join(words).encode() + b"\t")
            shown = b""
            with open(ours, "rb", buffering=0) as terminal, contextlib.suppress(OSError):
                while data := terminal.read(1024):  # fails once the shell has ended
                    shown += data
            shell.wait(LIMIT)
        offered = home / "offered"
        assert offered.exists(), shown
        return set(offered.read_text().split())
