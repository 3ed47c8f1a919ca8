"""OpenSSH with the card's key, against the test's own sshd."""

import re
import unittest

import stack
from sshd import Sshd, add_users
from stack import PIN, CardTest

USER = "cardholder"


def setUpModule():
    stack.enter_namespace()


class Ssh(CardTest):
    @classmethod
    def setUpClass(cls):
        add_users(USER)

    def setUp(self):
        super().setUp()
        keys = self.run_here("ssh-keygen", "-D", stack.pkcs11_module()).stdout
        (self.folder / "authorized").write_text(re.search(r"(?m)^ssh-rsa .* CAC ID.*\n", keys)[0])
        self.sshd = Sshd(self.folder, self.folder / "authorized")

    def answer_with(self, pin):
        """Answers ssh's questions with this text, and notes them."""
        script = self.folder / "askpass"
        script.write_text(f'#!/bin/sh\necho "$1" >>{self.folder}/asked\necho {pin}\n')
        script.chmod(0o755)
        return dict(self.home, SSH_ASKPASS=str(script), SSH_ASKPASS_REQUIRE="force")

    def ssh(self, pin, module=stack.pkcs11_module(), agent="none", **options):
        return self.run_here(
            "ssh", "-n", "-F", "none", "-p", self.sshd.port, "-o", f"IdentityAgent={agent}",
            "-o", f"UserKnownHostsFile={self.folder}/known", "-o", "StrictHostKeyChecking=yes",
            "-o", "IdentityFile=none", "-o", f"PKCS11Provider={module}",
            f"{USER}@127.0.0.1", "id", "-un", env=self.answer_with(pin), **options)

    def test_login_with_the_cards_key_runs_the_command_as_the_user(self):
        self.assertEqual(self.ssh(PIN).stdout, f"{USER}\n")
        self.assertIn("Demo Card Authentication", (self.folder / "asked").read_text())
        log = self.sshd.log.read_text()
        self.assertIn(f"Accepted publickey for {USER} from 127.0.0.1", log)

    def test_wrong_pin_is_no_login(self):
        refused = self.ssh("11111111", check=False)
        self.assertEqual(refused.returncode, 255)
        self.assertIn("Permission denied (publickey)", refused.stdout)

    def test_agent_of_ssh_keeps_the_card_and_logs_in(self):
        socket_path = self.folder / "ssh-agent"
        agent = stack.Process(["ssh-agent", "-D", "-a", socket_path], self.folder / "ssh-agent.log",
                              self.home)
        self.addCleanup(agent.end)
        stack.wait_until(socket_path.exists, "ssh-agent's socket")
        self.run_here("ssh-add", "-s", stack.pkcs11_module(),
                      env=dict(self.answer_with(PIN), SSH_AUTH_SOCK=str(socket_path)))
        (self.folder / "asked").unlink()
        result = self.ssh("nothing to ask", module="none", agent=socket_path)
        self.assertEqual(result.stdout, f"{USER}\n")
        self.assertFalse((self.folder / "asked").exists())


if __name__ == "__main__":
    unittest.main(verbosity=2)
