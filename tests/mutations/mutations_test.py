"""Every mutation can be tried as it is written, and every rule of the pages has one."""

import fnmatch
import functools
import os
import pathlib
import re
import unittest

from mutations import MUTATIONS

SOURCE = pathlib.Path(os.environ["ZELTA_SOURCE_DIR"])
PAGES = ("threads", "wire-protocol")

# About several rules of other sections, or facts about the code.
SECTIONS_WITHOUT_RULES = {
    "Threads",                       # who runs what
    "Models",                        # have mutations of their own, which ./zelta models tries
    "Shared values without a lock",  # what is atomic
}

ITEM = re.compile(r"(\d+\.|-) ")
TEST = re.compile(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", re.MULTILINE)
INSTANTIATION = re.compile(r"INSTANTIATE_TEST_SUITE_P\(\s*(\w+),\s*(\w+)")


def items_after(lines):
    """How many items the list has, or rows the table, that begins with the first of the lines."""
    listed = ITEM.match(lines[0])
    count = 0
    for line in lines:
        if not line and listed or listed is None and not line.startswith("|"):
            break
        count += ITEM.match(line) is not None if listed else 1
    return count if listed else count - 2  # without the table's head


def rules_of(page):
    """Each rule of the page, with the section that it is in."""
    rules = {}
    section = ""
    lines = (SOURCE / "docs" / f"{page}.md").read_text(encoding="utf-8").splitlines()
    for number, line in enumerate(lines):
        if line.startswith("## "):
            section = line[3:]
        named = re.fullmatch("<!-- rules: (.*) -->", line)
        for name in named[1].split(", ") if named else ():
            if name.endswith(" #"):
                name = name[:-2]
                for item in range(items_after(lines[number + 1:])):
                    rules[f"{page}: {name} {item + 1}"] = section
            else:
                rules[f"{page}: {name}"] = section
    return rules


def sections_of(page):
    text = (SOURCE / "docs" / f"{page}.md").read_text(encoding="utf-8")
    return re.findall("^## (.*)", text, re.MULTILINE)


def rules_broken_by(mutation):
    for part in filter(None, mutation.doc.split("; ")):
        page, names = part.split(": ")
        for name in names.split(", "):
            yield f"{page}: {name}"


@functools.lru_cache(maxsize=None)
def tests_of(program):
    """The names that GoogleTest may give the program's tests, as far as the sources tell."""
    for lists in (SOURCE / "tests").rglob("CMakeLists.txt"):
        text = lists.read_text(encoding="utf-8")
        if f"zelta_add_test({program}\n" in text or f"zelta_add_test({program} " in text:
            break
    else:
        return set()
    names = set()
    for source in re.findall(r"[\w/.]+_test\.cpp", text):
        code = (lists.parent / source).read_text(encoding="utf-8")
        prefixes = {}
        for prefix, suite in INSTANTIATION.findall(code):
            prefixes.setdefault(suite, []).append(prefix)
        for suite, name in TEST.findall(code):
            names |= {f"{prefix}/{suite}.{name}/0" for prefix in prefixes.get(suite, ())}
            if suite not in prefixes:
                names.add(f"{suite}.{name}")
    return names


class Mutations(unittest.TestCase):
    def test_names_are_unique(self):
        names = [mutation.name for mutation in MUTATIONS]
        self.assertEqual(len(names), len(set(names)))

    def test_text_to_replace_occurs_once(self):
        for mutation in MUTATIONS:
            with self.subTest(mutation.name):
                text = (SOURCE / mutation.file).read_text(encoding="utf-8")
                self.assertEqual(text.count(mutation.old), 1)
                self.assertNotEqual(mutation.old, mutation.new)

    def test_each_part_of_a_filter_names_a_test_of_the_program(self):
        for mutation in MUTATIONS:
            tests = tests_of(mutation.program)
            for part in mutation.tests.split(":"):
                with self.subTest(mutation.name, part=part):
                    self.assertTrue(fnmatch.filter(tests, part))


class Rules(unittest.TestCase):
    def setUp(self):
        self.rules = {}
        for page in PAGES:
            self.rules.update(rules_of(page))

    def test_each_item_of_a_list_is_a_rule(self):
        self.assertIn("wire-protocol: commands 9", self.rules)
        self.assertNotIn("wire-protocol: commands 10", self.rules)
        self.assertIn("wire-protocol: given up 3", self.rules)
        self.assertNotIn("wire-protocol: given up 4", self.rules)
        self.assertIn("wire-protocol: effects 4", self.rules)
        self.assertNotIn("wire-protocol: effects 5", self.rules)

    def test_each_rule_has_a_mutation(self):
        broken = {rule for mutation in MUTATIONS for rule in rules_broken_by(mutation)}
        self.assertEqual(sorted(set(self.rules) - broken), [])

    def test_rule_that_a_mutation_names_is_on_its_page(self):
        for mutation in MUTATIONS:
            with self.subTest(mutation.name):
                self.assertLessEqual(set(rules_broken_by(mutation)), set(self.rules))

    def test_each_section_names_its_rules(self):
        for page in PAGES:
            sections = set(sections_of(page)) - SECTIONS_WITHOUT_RULES
            self.assertLessEqual(sections, set(self.rules.values()), page)


if __name__ == "__main__":
    unittest.main(verbosity=2)
