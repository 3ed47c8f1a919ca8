#include "tools/trace/apdu_tables.h"

#include <gtest/gtest.h>

namespace zelta::trace {
namespace {

TEST(ApduTables, Classes_AreNamed) {
  EXPECT_EQ(className(0x00), "ISO");
  EXPECT_EQ(className(0x10), "chained");
  EXPECT_EQ(className(0x02), "channel 2");
  EXPECT_EQ(className(0x0C), "secure");
  EXPECT_EQ(className(0x1D), "secure, chained, channel 1");
  EXPECT_EQ(className(0x43), "channel 7");
  EXPECT_EQ(className(0x60), "secure, channel 4");
  EXPECT_EQ(className(0x80), "own");
  EXPECT_EQ(className(0x90), "own, chained");
}

TEST(ApduTables, Instructions_DependOnTheEdge) {
  EXPECT_EQ(instructionName(Edge::kIso, 0xB0, 0), "READ BINARY");
  EXPECT_EQ(instructionName(Edge::kCac, 0xB0, 0), "READ BINARY");
  EXPECT_EQ(instructionName(Edge::kIso, 0x27, 0), "DISABLE VERIFICATION REQUIREMENT");
  EXPECT_EQ(instructionName(Edge::kCac, 0x52, 0), "READ BUFFER");
  EXPECT_EQ(instructionName(Edge::kIso, 0x52, 0), "INS 52");
  EXPECT_EQ(instructionName(Edge::kPiv, 0xFE, 0), "IMPORT PRIVATE KEY");
  EXPECT_EQ(instructionName(Edge::kIso, 0xFE, 0), "TERMINATE CARD USAGE");
  EXPECT_EQ(instructionName(Edge::kOpenPgp, 0x47, 0x8100), "READ PUBLIC KEY");
  EXPECT_EQ(instructionName(Edge::kPiv, 0x47, 0x009A), "GENERATE ASYMMETRIC KEY PAIR");
}

TEST(ApduTables, SecurityOperations_AreToldApart) {
  EXPECT_EQ(instructionName(Edge::kOpenPgp, 0x2A, 0x9E9A), "COMPUTE DIGITAL SIGNATURE");
  EXPECT_EQ(instructionName(Edge::kOpenPgp, 0x2A, 0x8086), "DECIPHER");
  EXPECT_EQ(instructionName(Edge::kIso, 0x2A, 0x8280), "ENCIPHER");
  EXPECT_EQ(instructionName(Edge::kIso, 0x2A, 0x0000), "PERFORM SECURITY OPERATION");
}

TEST(ApduTables, StatusWords_AreNamed) {
  EXPECT_EQ(statusName(0x9000), "success");
  EXPECT_EQ(statusName(0x6110), "success, more to get");
  EXPECT_EQ(statusName(0x63C2), "wrong PIN or key, 2 tries left");
  EXPECT_EQ(statusName(0x6A82), "file or application not found");
  EXPECT_EQ(statusName(0x6AFF), "wrong parameters");
  EXPECT_EQ(statusName(0x1234), "not known");
}

TEST(ApduTables, Success_IncludesWarningsButNoWrongPin) {
  for (const std::uint16_t good : {0x9000, 0x6110, 0x6282, 0x6381}) EXPECT_TRUE(isSuccess(good));
  for (const std::uint16_t bad : {0x63C3, 0x6300, 0x6982, 0x6A82, 0x1234}) {
    EXPECT_FALSE(isSuccess(bad));
  }
}

TEST(ApduTables, Applications_AreFoundByTheirIdentifiersBeginning) {
  EXPECT_EQ(findApplication("A000000308000010000100")->edge, Edge::kPiv);
  EXPECT_STREQ(findApplication("A0000000790101")->name, "CAC key 2");
  EXPECT_EQ(findApplication("D276000124010304")->edge, Edge::kOpenPgp);
  EXPECT_EQ(findApplication("A0"), nullptr);
  EXPECT_EQ(findApplication(""), nullptr);
}

TEST(ApduTables, ObjectsAndReferences_AreTheEdges) {
  EXPECT_EQ(objectName(Edge::kPiv, "5FC105"), "PIV authentication certificate");
  EXPECT_EQ(objectName(Edge::kOpenPgp, "5FC105"), "");
  EXPECT_EQ(referenceName(Edge::kPiv, 0x80), "PIV PIN");
  EXPECT_EQ(referenceName(Edge::kOpenPgp, 0x83), "admin PIN");
  EXPECT_EQ(referenceName(Edge::kIso, 0x80), "");
}

TEST(ApduTables, EdgesHaveNames) {
  EXPECT_STREQ(edgeName(Edge::kIso), "ISO");
  EXPECT_STREQ(edgeName(Edge::kOpenPgp), "OpenPGP");
}

}  // namespace
}  // namespace zelta::trace
