"""TLS with the card's certificate: curl through OpenSSL's PKCS#11 engine, NSS' tstclnt, and
Firefox."""

import unittest

import stack
from firefox import Firefox
from stack import PIN, CardTest
from tls_server import PAGE, TlsServer

OWNER = "Demo Card Authentication"


def setUpModule():
    stack.enter_namespace()


class TlsTest(CardTest):
    def setUp(self):
        super().setUp()
        self.server = TlsServer(self.folder, self.folder / "card" / "ca.pem")

    def database_with_authority(self, name):
        database = self.nss_database(name)
        self.run_here("certutil", "-A", "-d", f"sql:{database}", "-n", "server", "-t", "C,,",
                      "-a", "-i", "authority.pem")
        return database


class Curl(TlsTest):
    def curl(self, *words, **options):
        return self.run_here("curl", "--silent", "--show-error", "--cacert", "authority.pem",
                             *words, self.server.url, **options)

    def with_card(self, pin, **options):
        return self.curl("--engine", "pkcs11", "--cert-type", "ENG", "--key-type", "ENG",
                         "--cert", "pkcs11:id=%00%01;type=cert",
                         "--key", f"pkcs11:id=%00%01;type=private;pin-value={pin}", **options)

    def test_server_sees_the_certificate_of_the_card(self):
        self.assertEqual(self.with_card(PIN).stdout, PAGE)
        self.assertEqual(self.server.clients, [OWNER])

    def test_without_the_card_the_server_refuses(self):
        self.assertNotEqual(self.curl(check=False).returncode, 0)
        stack.wait_until(lambda: self.server.refusals, "the refusal")
        self.assertEqual(self.server.clients, [])
        self.assertIn("PEER_DID_NOT_RETURN_A_CERTIFICATE", self.server.refusals[0])

    def test_with_a_wrong_pin_the_card_does_not_sign(self):
        self.assertNotEqual(self.with_card("11111111", check=False).returncode, 0)
        self.assertEqual(self.server.clients, [])


class Tstclnt(TlsTest):
    def test_server_sees_the_certificate_of_the_card(self):
        database = self.database_with_authority("nss")
        (self.folder / "request").write_text("GET / HTTP/1.0\r\n\r\n")
        text = self.run_here("tstclnt", "-h", "localhost", "-a", "localhost", "-4",
                             "-p", self.server.port, "-d", f"sql:{database}",
                             "-n", f"{OWNER}:CAC ID Certificate", "-w", PIN, "-A", "request").stdout
        self.assertIn(PAGE, text)
        self.assertEqual(self.server.clients, [OWNER])


class FirefoxTls(TlsTest):
    def test_it_asks_for_the_pin_and_shows_the_page(self):
        firefox = Firefox(self.database_with_authority("profile"), self.folder)
        self.addCleanup(firefox.close)
        firefox.answer_prompts(PIN)
        firefox.go_to(self.server.url)
        stack.wait_until(lambda: PAGE in firefox.page(), "the page")
        self.assertEqual(set(self.server.clients), {OWNER})
        self.assertEqual(firefox.asked(),
                         f"Please authenticate to the security device ({OWNER}).")


if __name__ == "__main__":
    unittest.main(verbosity=2)
