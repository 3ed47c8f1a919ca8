"""OpenSC's own tools, GnuTLS' p11tool and NSS' certutil with the card in the reader."""

import os
import re
import unittest

import stack
from stack import PIN, CardTest

LABELS = ("CAC ID Certificate", "CAC Email Signature Certificate",
          "CAC Email Encryption Certificate")
AUTHENTICATION, SIGNATURE, ENCRYPTION = "0001", "0002", "0003"


def setUpModule():
    stack.enter_namespace()


class Pkcs11Tool(CardTest):
    def pkcs11(self, *words, **options):
        return self.run_here("pkcs11-tool", "--module", stack.pkcs11_module(), *words, **options)

    def test_its_own_test_finds_nothing_but_the_missing_random_numbers(self):
        text = self.pkcs11("--login", "--pin", PIN, "--test").stdout
        # The card has no command that gives a random number.
        self.assertEqual(re.findall(r"ERR: (.*)", text),
                         ["C_GenerateRandom failed: CKR_GENERAL_ERROR (0x5)"])
        self.assertRegex(text, r"(?m)^1 errors$")
        self.assertIn("all 4 digest functions seem to work", text)
        self.assertIn("all 4 signature functions seem to work", text)
        mechanisms = re.findall(r"(?m)^    [A-Z0-9a-z-]+: (.+)$", text)
        self.assertEqual([word for word in mechanisms if word != "OK"],
                         2 * ["mgf not set, defaulting to MGF1-SHA256"])
        for part in ("Signatures", "Verify", "Decryption"):
            section = text.split(f"{part} (currently only for RSA)\n")[1].split("(currently")[0]
            for key, label in enumerate(LABELS):
                self.assertIn(f"  testing key {key} ({label})", section)
        self.assertRegex(text, r"testing key 2 \(.*\)\n    RSA-X-509: OK\n    RSA-PKCS: OK\n")

    def test_what_the_public_key_hides_the_card_opens(self):
        self.pkcs11("--read-object", "--type", "cert", "--id", ENCRYPTION, "-o", "cert")
        (self.folder / "message").write_text("for the card alone\n")
        self.run_here("openssl", "pkeyutl", "-encrypt", "-certin", "-inkey", "cert",
                      "-keyform", "DER", "-in", "message", "-out", "hidden")
        opened = self.pkcs11("--login", "--pin", PIN, "--decrypt", "--id", ENCRYPTION,
                             "-m", "RSA-PKCS", "--input-file", "hidden").stdout
        self.assertIn("for the card alone", opened)


class Pkcs15(CardTest):
    """pkcs15-tool and pkcs15-crypt."""

    def test_keys_certificates_and_pin_are_listed(self):
        text = self.run_here("pkcs15-tool", "--list-certificates", "--list-keys",
                             "--list-pins").stdout
        for label in LABELS:
            self.assertIn(f"X.509 Certificate [{label}]", text)
            self.assertIn(f"Private RSA Key [{label}]", text)
        self.assertEqual(len(re.findall(r"(?m)^PIN \[PIN\]", text)), 1)

    def test_pin_is_verified(self):
        self.run_here("pkcs15-tool", "--verify-pin", "--pin", PIN)
        wrong = self.run_here("pkcs15-tool", "--verify-pin", "--pin", "11111111", check=False)
        self.assertNotEqual(wrong.returncode, 0)
        self.assertIn("PIN code or key incorrect", wrong.stdout)

    def test_signature_is_good(self):
        self.run_here("pkcs15-tool", "--read-certificate", SIGNATURE, "-o", "cert.pem")
        (self.folder / "digest").write_bytes(os.urandom(32))
        self.run_here("pkcs15-crypt", "--sign", "--key", SIGNATURE, "--pin", PIN, "--pkcs1",
                      "--sha-256", "--raw", "--input", "digest", "--output", "signature")
        self.run_here("openssl", "pkeyutl", "-verify", "-certin", "-inkey", "cert.pem",
                      "-in", "digest", "-sigfile", "signature", "-pkeyopt", "digest:sha256")


class OpenscTool(CardTest):
    def test_apdu_is_answered(self):
        text = self.run_here("opensc-tool", "--send-apdu", "00A4040007A0000000790100").stdout
        self.assertIn("Received (SW1=0x90, SW2=0x00)", text)


class P11tool(CardTest):
    """A program that finds OpenSC's module by itself, as all do that use p11-kit."""

    def test_token_and_certificates_are_listed(self):
        self.assertIn("token=Demo%20Card%20Authentication",
                      self.run_here("p11tool", "--list-token-urls").stdout)
        text = self.run_here("p11tool", "--list-all-certs",
                             "pkcs11:model=PKCS%2315%20emulated").stdout
        self.assertEqual(re.findall(r"(?m)^\tLabel: (.*)$", text), list(LABELS))

    def test_key_signs(self):
        text = self.run_here("p11tool", "--login", "--set-pin", PIN, "--test-sign",
                             "pkcs11:model=PKCS%2315%20emulated;id=%00%01;type=private").stdout
        self.assertIn("Verifying against public key in the token... ok", text)


class Certutil(CardTest):
    def test_certificates_and_keys_of_the_card_are_listed(self):
        database = self.nss_database("nss")
        (self.folder / "pin").write_text(PIN)
        for what, pattern in (("-L", r"(?m)^Demo Card Authentication:(CAC .*?) +u,u,u$"),
                              ("-K", r"(?m)^< \d> rsa +[0-9a-f]+ +(CAC .*)$")):
            text = self.run_here("certutil", what, "-d", f"sql:{database}", "-h", "all",
                                 "-f", "pin").stdout
            self.assertEqual(re.findall(pattern, text), list(LABELS), text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
