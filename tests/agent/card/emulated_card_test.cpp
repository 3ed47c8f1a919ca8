// The program with its emulated card and the demo database, tested by the card's own commands.
#include <cert.h>
#include <keyhi.h>
#include <nss.h>
#include <pk11pub.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "agent/card/emulated_card.h"
#include "agent/control/control_socket.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/program/program_fixture.h"

namespace zelta::test {
namespace {

constexpr char kPin[] = "123456";

Bytes hex(const std::string& text) { return parseHex(text).value(); }

const Bytes kCardAtr = hex("3B7A18000073667465206364313434");
const Bytes kSelectAuthentication = hex("00A4040007 A0000000790100");
const Bytes kVerify = hex("0020000008 313233343536FFFF");
const Bytes kVerifyWrong = hex("0020000008 313233343537FFFF");
const Bytes kIsVerified = hex("00200000");
constexpr std::size_t kKeyBytes = 256;

// A padded block as it is signed: below every modulus of its length.
Bytes paddedBlock() {
  Bytes block(kKeyBytes, 0xFF);
  block[0] = 0x00;
  block[1] = 0x01;
  for (std::size_t i = kKeyBytes - 32; i < kKeyBytes; ++i) block[i] = static_cast<std::uint8_t>(i);
  block[kKeyBytes - 33] = 0x00;
  return block;
}

// The result of applying the certificate's key to a signature.
Bytes recover(const std::string& folder, const char* nickname, const Bytes& signature) {
  NSSInitParameters parameters{};
  parameters.length = sizeof parameters;
  NSSInitContext* context = NSS_InitContext(("sql:" + folder).c_str(), "", "", "", &parameters,
                                            NSS_INIT_READONLY | NSS_INIT_NOROOTINIT);
  CERTCertificate* certificate = PK11_FindCertFromNickname(nickname, nullptr);
  SECKEYPublicKey* key = CERT_ExtractPublicKey(certificate);
  Bytes block(kKeyBytes);
  EXPECT_EQ(PK11_PubEncryptRaw(key, block.data(), signature.data(),
                               static_cast<unsigned>(signature.size()), nullptr),
            SECSuccess);
  SECKEY_DestroyPublicKey(key);
  CERT_DestroyCertificate(certificate);
  EXPECT_EQ(NSS_ShutdownContext(context), SECSuccess);
  return block;
}

class EmulatedCardTest : public Program {
 protected:
  EmulatedCardTest() : database_(folder_.file("db")) {
    const std::string make = std::string(ZELTA_SOURCE_DIR) + "/scripts/make-demo-db.sh " +
                             database_ + " " + kPin + " >/dev/null";
    EXPECT_EQ(std::system(make.c_str()), 0);
    std::ofstream(folder_.file("pin")) << kPin << "\n";
  }

  std::vector<std::string> arguments() {
    return withControl({"--db", database_, "--pin-file", folder_.file("pin"), "-v"});
  }
  std::string problemOf(const std::vector<std::string>& options) {
    const Ended ended = runProgram(withControl(options));
    EXPECT_EQ(ended.exitCode, 2);
    return ended.text;
  }

  const std::string database_;
};

// A control command may come while the agent ends.
TEST(EmulatedCardAtItsEnd, WithoutALibrary_RefusesToBeMoved) {
  agent::EmulatedCard card({});
  EXPECT_EQ(card.insert(), "the card emulation does not run");
  EXPECT_EQ(card.remove(), "the card emulation does not run");
  card.stop();
  EXPECT_EQ(card.insert(), "the card emulation does not run");
}

TEST_F(EmulatedCardTest, PinVerified_Signs) {
  DriverEnd driver;
  AgentProcess process(arguments());
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
  EXPECT_EQ(driver.transmit(kSelectAuthentication), hex("610D"));
  const Bytes block = paddedBlock();
  Bytes first = hex("8042800080");
  first.insert(first.end(), block.begin(), block.begin() + kKeyBytes / 2);
  Bytes last = hex("8042000080");
  last.insert(last.end(), block.begin() + kKeyBytes / 2, block.end());

  EXPECT_EQ(driver.transmit(first), hex("9000"));
  EXPECT_EQ(driver.transmit(last), hex("6985"));  // without the PIN
  EXPECT_EQ(driver.transmit(kVerifyWrong), hex("63CF"));
  EXPECT_NE(driver.transmit(kIsVerified), hex("9000"));
  EXPECT_EQ(driver.transmit(kVerify), hex("9000"));
  EXPECT_EQ(driver.transmit(kIsVerified), hex("9000"));
  EXPECT_EQ(driver.transmit(first), hex("9000"));
  EXPECT_EQ(driver.transmit(last), hex("6100"));
  std::optional<Bytes> signature = driver.transmit(hex("00C0000000"));
  ASSERT_TRUE(signature);
  ASSERT_EQ(signature->size(), kKeyBytes + 2);
  EXPECT_EQ(Bytes(signature->end() - 2, signature->end()), hex("9000"));
  signature->resize(kKeyBytes);
  EXPECT_EQ(recover(database_, "zelta-auth", *signature), block);
}

TEST_F(EmulatedCardTest, ResetAndRemoval_ForgetThePin) {
  DriverEnd driver;
  AgentProcess process(arguments());
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
  EXPECT_EQ(driver.transmit(kVerify), hex("9000"));
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), kCardAtr);
  EXPECT_EQ(driver.transmit(kIsVerified), hex("9000"));  // not reset, PIN still verified
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
  EXPECT_NE(driver.transmit(kIsVerified), hex("9000"));
  EXPECT_EQ(driver.transmit(kVerify), hex("9000"));
  EXPECT_EQ(ctl({"remove"}).exitCode, 0);
  EXPECT_EQ(ctl({"insert"}).exitCode, 0);
  EXPECT_NE(driver.transmit(kIsVerified), hex("9000"));
}

TEST_F(EmulatedCardTest, OddCommands_AreAnsweredAndHarmNothing) {
  DriverEnd driver;
  AgentProcess process(arguments());
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
  for (const char* text :
       {"00", "0000", "000000", "00A404", "00A40400FF", "00A4040007A0", "FFFFFFFF",
        "00000000000000", "0000000000FFFF", "8052000002", "805200000401"}) {
    const std::optional<Bytes> response = driver.transmit(hex(text));
    ASSERT_TRUE(response) << text;
    EXPECT_GE(response->size(), 2u) << text;
  }
  for (const std::size_t size : {261u, 65535u, 65544u, 65548u}) {
    Bytes longOne(size, 0x41);
    longOne[0] = 0x00;
    const std::optional<Bytes> response = driver.transmit(longOne);
    ASSERT_TRUE(response) << size;
    EXPECT_GE(response->size(), 2u) << size;
  }
  EXPECT_EQ(driver.transmit(kVerify), hex("9000"));
}

TEST_F(EmulatedCardTest, HundredsOfSwaps_LeaveAWorkingCard) {
  DriverEnd driver;
  AgentProcess process(arguments());
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
  for (int swap = 0; swap < 300; ++swap) {
    ASSERT_EQ(agent::askAgent({control()}, "remove\n"), "ok\n");
    ASSERT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
    ASSERT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), Bytes());
    ASSERT_EQ(agent::askAgent({control()}, "insert\n"), "ok\n");
    ASSERT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
    ASSERT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
  }
  EXPECT_EQ(driver.transmit(kVerify), hex("9000"));
  ::kill(static_cast<pid_t>(process.id()), SIGTERM);
  EXPECT_EQ(process.wait(), 0);
}

TEST_F(EmulatedCardTest, NoCardAsked_StartsWithoutTheCard) {
  DriverEnd driver;
  std::vector<std::string> options = arguments();
  options.emplace_back("--no-card");
  AgentProcess process(options);
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  EXPECT_EQ(driver.transmit(kSelectAuthentication), Bytes());
  EXPECT_EQ(ctl({"insert"}).exitCode, 0);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kCardAtr);
}

TEST_F(EmulatedCardTest, WrongDatabase_IsSaidAtTheStart) {
  using testing::HasSubstr;
  EXPECT_THAT(problemOf({"--db", database_, "--pin", "9999"}),
              HasSubstr("error: the PIN is not the card database's password"));
  EXPECT_THAT(problemOf({"--db", database_, "--cert", "nobody"}),
              HasSubstr("error: no certificate 'nobody' in " + database_));
  EXPECT_THAT(problemOf({"--db", database_, "--cert", "a,b"}), HasSubstr("error: "));
}

TEST_F(EmulatedCardTest, DemoDatabase_IsMadeOnceAndOnlyWithItsPin) {
  const auto before = std::filesystem::last_write_time(database_ + "/key4.db");
  const std::string make = std::string(ZELTA_SOURCE_DIR) + "/scripts/make-demo-db.sh " + database_;
  EXPECT_EQ(std::system((make + " " + kPin).c_str()), 0);
  EXPECT_EQ(std::filesystem::last_write_time(database_ + "/key4.db"), before);
  EXPECT_NE(std::system((make + " 99999 2>/dev/null").c_str()), 0);
  EXPECT_NE(std::system((make + " 12 2>/dev/null").c_str()), 0);
}

}  // namespace
}  // namespace zelta::test
