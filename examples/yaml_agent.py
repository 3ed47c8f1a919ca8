#!/usr/bin/python3
"""An agent whose card answers from a YAML file such as card.yaml. Needs python3-yaml."""

import sys

import yaml

from agent import Agent


class YamlCard:
    def __init__(self, file):
        with open(file, encoding="utf-8") as text:
            # Loaded as text: 9000 is two bytes, not a number.
            content = yaml.load(text, yaml.BaseLoader)
        self.the_atr = bytes.fromhex(content["atr"])
        self.otherwise = bytes.fromhex(content["otherwise"])
        self.answers = [(bytes.fromhex(each["command"]), bytes.fromhex(each["response"]))
                        for each in content["answers"]]

    def reset(self):
        return self.the_atr

    def atr(self):
        return self.the_atr

    def transmit(self, apdu):
        return next((response for begin, response in self.answers if apdu.startswith(begin)),
                    self.otherwise)


if len(sys.argv) not in (2, 3):
    sys.exit("Usage: yaml_agent.py FILE [READER]")
Agent(YamlCard(sys.argv[1]), *sys.argv[2:]).run()
