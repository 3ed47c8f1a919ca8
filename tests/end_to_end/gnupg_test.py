"""GnuPG. Its own scdaemon finds the reader and talks to the card, but knows no card of this type:
it has drivers for few cards, and a CAC is not one of them. gnupg-pkcs11-scd in its place uses the
card through OpenSC."""

import unittest

import stack
from stack import PIN, CardTest


def setUpModule():
    stack.enter_namespace()


class GnuPgTest(CardTest):
    def setUp(self):
        super().setUp()
        self.gnupg = self.folder / "gnupg"
        self.gnupg.mkdir(mode=0o700)
        self.home["GNUPGHOME"] = str(self.gnupg)
        self.addCleanup(self.run_here, "gpgconf", "--kill", "all")

    def configure(self, name, *lines):
        (self.gnupg / name).write_text("".join(f"{line}\n" for line in lines))

    def ask(self, *commands):
        return self.run_here("gpg-connect-agent", *commands, "/bye").stdout


class Scdaemon(GnuPgTest):
    def setUp(self):
        super().setUp()
        self.log = self.folder / "scdaemon.log"
        self.configure("scdaemon.conf", "disable-ccid", f"log-file {self.log}", "verbose")

    def test_reader_is_found_and_the_card_answers(self):
        # "undefined": no application, so that commands go to the card as they are.
        text = self.ask("/hex", "SCD SERIALNO undefined", "SCD APDU 00A4040007A000000079010000")
        self.assertRegex(text, r"D\[0000\] .*90 00")
        self.assertNotIn("ERR", text)
        log = self.log.read_text()
        self.assertIn("detected reader 'Zelta Virtual SmartCard Reader 00 00'", log)
        self.assertIn("ATR=3B 7A 18 00 00 73 66 74 65 20 63 64 31 34 34", log)

    def test_type_of_the_card_is_not_known(self):
        status = self.run_here("gpg", "--card-status", check=False)
        self.assertEqual(status.returncode, 2)
        self.assertIn("gpg: OpenPGP card not available", status.stdout)
        self.assertIn("no supported card application found", self.log.read_text())


class GnupgPkcs11Scd(GnuPgTest):
    def setUp(self):
        super().setUp()
        pinentry = self.folder / "pinentry"
        pinentry.write_text("#!/bin/sh\n"
                            "echo OK\n"
                            "while read -r line; do\n"
                            f'  case "$line" in GETPIN) echo "D {PIN}" ;; esac\n'
                            "  echo OK\n"
                            "done\n")
        pinentry.chmod(0o755)
        self.configure("gpg-agent.conf", "scdaemon-program /usr/bin/gnupg-pkcs11-scd",
                       f"pinentry-program {pinentry}")
        self.configure("gnupg-pkcs11-scd.conf", "providers opensc",
                       f"provider-opensc-library {stack.pkcs11_module()}")
        self.configure("gpgsm.conf", "disable-crl-checks")
        authority = self.folder / "card" / "ca.pem"
        fingerprint = self.run_here("openssl", "x509", "-in", authority, "-noout",
                                    "-fingerprint", "-sha1").stdout.split("=")[1]
        self.configure("trustlist.txt", fingerprint.strip().replace(":", "") + " S relax")
        self.run_here("gpgsm", "--import", authority)
        self.run_here("gpgsm", "--learn-card")

    def test_gpgsm_learns_the_certificates_and_signs(self):
        keys = self.run_here("gpgsm", "--list-secret-keys").stdout
        for name in ("Authentication", "Signature", "Encryption"):
            self.assertIn(f"/CN=Demo Card {name}/O=Zelta", keys)
        (self.folder / "message").write_text("signed with the card\n")
        self.run_here("gpgsm", "--local-user", "CN=Demo Card Signature", "--output", "signed",
                      "--sign", "message")
        # By gpgsm itself: openssl refuses the zero that it puts before some signatures.
        verified = self.run_here("gpgsm", "--verify", "signed").stdout
        self.assertIn('Good signature from "/CN=Demo Card Signature/O=Zelta"', verified)

    def test_gpgsm_decrypts_with_the_card(self):
        (self.folder / "message").write_text("for the card alone\n")
        self.run_here("gpgsm", "--recipient", "CN=Demo Card Encryption",
                      "--output", "hidden", "--encrypt", "message")
        self.assertIn("for the card alone", self.run_here("gpgsm", "--decrypt", "hidden").stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
