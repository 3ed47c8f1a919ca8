#include "agent/trace/secret_mask.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "contract/bytes.h"

namespace zelta::agent {
namespace {

Bytes bytes(const std::string& digits) { return parseHex(digits).value(); }

// The masked exchange: "command response".
std::string shown(SecretMask& mask, const std::string& command, const std::string& response) {
  const HiddenParts parts = mask.look(bytes(command), bytes(response));
  return toMaskedHex(bytes(command), parts.command) + " " +
         toMaskedHex(bytes(response), parts.response);
}

struct Case {
  const char* command;
  const char* response;
  const char* shown;
};

void PrintTo(const Case& one, std::ostream* out) { *out << one.command; }

class Mask : public testing::TestWithParam<Case> {};

TEST_P(Mask, HidesWhatIsSecretAndNothingElse) {
  SecretMask mask;
  EXPECT_EQ(shown(mask, GetParam().command, GetParam().response), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(
    Exchanges, Mask,
    testing::Values(Case{"00A4040002A000", "6F009000", "00A4040002A000 6F009000"},
                    Case{"00200080083132333435363738", "9000", "0020008008**************** 9000"},
                    Case{"00200080", "63C3", "00200080 63C3"},
                    Case{"0020008000", "63C3", "0020008000 63C3"},
                    Case{"10200081023132", "9000", "1020008102**** 9000"},
                    Case{"00200080FF3132", "6700", "00200080****** 6700"},
                    Case{"002000800231323334", "6700", "00200080********** 6700"},
                    Case{"0024008004313233340A", "9000", "0024008004********0A 9000"},
                    Case{"002C0080023132", "9000", "002C008002**** 9000"},
                    Case{"00260080013100", "9000", "0026008001**00 9000"},
                    Case{"002A808602AABB00", "01029000", "002A808602AABB00 ****9000"},
                    Case{"002A808402AABB00", "01029000", "002A808402AABB00 ****9000"},
                    Case{"002A808202AABB00", "01029000", "002A808202AABB00 ****9000"},
                    Case{"002A848002AABB00", "01029000", "002A848002****00 01029000"},
                    Case{"002A828002AABB00", "01029000", "002A828002****00 01029000"},
                    Case{"00270080023132", "9000", "0027008002**** 9000"},
                    Case{"00290080023132", "9000", "0029008002**** 9000"},
                    Case{"00C2000002AABB", "01029000", "00C2000002**** ****9000"},
                    Case{"002A9E9A02AABB00", "01029000", "002A9E9A02AABB00 01029000"},
                    Case{"8042000002AABB", "01029000", "8042000002AABB ****9000"},
                    Case{"0087079B027C00", "7C029000", "0087079B02**** ****9000"},
                    Case{"0082000002AABB", "9000", "0082000002**** 9000"},
                    Case{"00DB3FFF025C00", "9000", "00DB3FFF02**** 9000"},
                    Case{"00DA00D3023132", "9000", "00DA00D302**** 9000"},
                    Case{"00DA00D1023132", "9000", "00DA00D102**** 9000"},
                    Case{"00DA00D2023132", "9000", "00DA00D202**** 9000"},
                    Case{"00DA00F4023132", "9000", "00DA00F402**** 9000"},
                    Case{"00DA005B023132", "9000", "00DA005B023132 9000"},
                    Case{"0020", "6700", "0020 6700"}),
    [](const auto& each) { return std::string(each.param.command); });

TEST(SecretMask, ExtendedData_IsHiddenWithoutItsLength) {
  SecretMask mask;
  EXPECT_EQ(shown(mask, "002000800000023132", "9000"), "00200080000002**** 9000");
}

TEST(SecretMask, RestOfASecretResponse_IsHidden) {
  SecretMask mask;
  EXPECT_EQ(shown(mask, "8042000002AABB", "6102"), "8042000002AABB 6102");
  EXPECT_EQ(shown(mask, "00C0000001", "016101"), "00C0000001 **6101");
  EXPECT_EQ(shown(mask, "00C0000001", "029000"), "00C0000001 **9000");
  EXPECT_EQ(shown(mask, "00B0000001", "6101"), "00B0000001 6101");
  EXPECT_EQ(shown(mask, "00C0000001", "039000"), "00C0000001 039000");
}

TEST(SecretMask, GetResponseAfterAMissedCommand_IsHidden) {
  SecretMask mask;
  EXPECT_EQ(shown(mask, "00C0000001", "019000"), "00C0000001 **9000");
  EXPECT_EQ(shown(mask, "00B0000001", "6101"), "00B0000001 6101");
  mask.miss();
  EXPECT_EQ(shown(mask, "00C0000001", "019000"), "00C0000001 **9000");
}

}  // namespace
}  // namespace zelta::agent
