"""scripts/sign-windows.sh signs the built files, and the signatures verify."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["ZELTA_SOURCE"])
SCRIPT = SOURCE / "scripts" / "sign-windows.sh"
BUILT = [pathlib.Path(os.environ[name]) for name in ("ZELTA_MODULE", "ZELTA_AGENT", "ZELTA_SETUP")]


class Signing(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.files = [pathlib.Path(shutil.copy(path, self.folder)) for path in BUILT]
        self.certificate = self.folder / "keys" / "zelta-test.pem"
        self.key = self.folder / "keys" / "zelta-test.key"

    def sign(self, *arguments, code=0):
        result = subprocess.run([SCRIPT, *arguments], capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return result.stdout + result.stderr

    def sign_anew(self, *files):
        return self.sign("--new-certificate", self.folder / "keys", *files)

    def is_signed(self, file, certificate=None):
        return subprocess.run(
            ["osslsigncode", "verify", "-CAfile", certificate or self.certificate, "-in", file],
            capture_output=True, check=False).returncode == 0

    def test_library_agent_and_setup_are_signed_with_a_fresh_certificate(self):
        output = self.sign_anew(*self.files)
        self.assertEqual(output, "".join(f"signed: {file}\n" for file in self.files))
        for file in self.files:
            self.assertTrue(self.is_signed(file), file)

    def test_file_that_was_changed_or_never_signed_does_not_verify(self):
        changed, unsigned = self.files[0], self.files[1]
        self.sign_anew(changed)
        content = bytearray(changed.read_bytes())
        content[0x1000] ^= 1
        changed.write_bytes(content)
        self.assertFalse(self.is_signed(changed))
        self.assertFalse(self.is_signed(unsigned))

    def test_given_certificate_signs_in_the_place_of_another(self):
        setup = self.files[2]
        self.sign_anew(setup)
        shutil.move(self.folder / "keys", self.folder / "old")
        self.sign_anew(setup)
        self.assertFalse(self.is_signed(setup, self.folder / "old" / "zelta-test.pem"))
        self.sign("--certificate", self.folder / "old" / "zelta-test.pem",
                  "--key", self.folder / "old" / "zelta-test.key", setup)
        self.assertTrue(self.is_signed(setup, self.folder / "old" / "zelta-test.pem"))
        self.assertFalse(self.is_signed(setup))

    def test_certificate_is_for_signing_code_and_its_key_is_the_owners(self):
        self.sign_anew(self.files[2])
        text = subprocess.run(
            ["openssl", "x509", "-inform", "der", "-noout", "-subject", "-ext", "extendedKeyUsage",
             "-in", self.folder / "keys" / "zelta-test.cer"],
            check=True, capture_output=True, text=True).stdout
        self.assertIn("CN = Zelta Test", text)
        self.assertIn("Code Signing", text)
        self.assertEqual(self.key.stat().st_mode & 0o777, 0o600)

    def test_key_that_is_there_is_not_overwritten(self):
        self.sign_anew(self.files[2])
        key = self.key.read_bytes()
        output = self.sign("--new-certificate", self.folder / "keys", self.files[2], code=1)
        self.assertIn("is there already", output)
        self.assertEqual(self.key.read_bytes(), key)

    def test_file_that_cannot_be_signed_stays_as_it_was(self):
        text = self.folder / "text.exe"
        text.write_text("no program")
        output = self.sign("--new-certificate", self.folder / "keys", text, code=1)
        self.assertIn("text.exe: ", output)
        self.assertEqual(text.read_text(), "no program")

    def test_wrong_usage_is_said(self):
        for arguments in ((), ("file",), ("--key", "k", "file"), ("--sign", "file"),
                          ("--new-certificate", "f", "--key", "k", "file")):
            with self.subTest(arguments=arguments):
                self.assertTrue(self.sign(*arguments, code=2).startswith("zelta: "))


if __name__ == "__main__":
    unittest.main(verbosity=2)
