#include "agent/remote/ssh_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zelta::agent {
namespace {

using testing::ElementsAre;

struct Good {
  const char* text;
  const char* user;
  const char* host;
  const char* port;
  std::uint32_t reader;
};

TEST(SshAddress, PartsAreTakenAsFarAsGiven) {
  for (const Good& good :
       {Good{"ssh://host", "", "host", "", 0}, Good{"ssh://host/", "", "host", "", 0},
        Good{"ssh://me@host.example:2222/3", "me", "host.example", "2222", 3},
        Good{"ssh://a.b_c-d@10.0.0.1", "a.b_c-d", "10.0.0.1", "", 0},
        Good{"ssh://host/4294967295", "", "host", "", 4294967295u},
        Good{"ssh://me@[::1]:65535/1", "me", "::1", "65535", 1},
        Good{"ssh://[fe80::1%eth0]", "", "fe80::1%eth0", "", 0}}) {
    const std::optional<SshAddress> address = parseSshAddress(good.text);
    ASSERT_TRUE(address) << good.text;
    EXPECT_EQ(address->user, good.user) << good.text;
    EXPECT_EQ(address->host, good.host) << good.text;
    EXPECT_EQ(address->port, good.port) << good.text;
    EXPECT_EQ(address->reader, good.reader) << good.text;
  }
}

TEST(SshAddress, MalformedAddress_IsRefused) {
  for (const char* text : {"",
                           "host",
                           "ssh:/host",
                           "http://host",
                           "ssh://",
                           "ssh:///1",
                           "ssh://@host",
                           "ssh://me@",
                           "ssh://-oProxyCommand=x",
                           "ssh://-l@host",
                           "ssh://me@-host",
                           "ssh://ho st",
                           "ssh://ho;st",
                           "ssh://$(id)",
                           "ssh://host:0",
                           "ssh://host:65536",
                           "ssh://host:",
                           "ssh://host:22x",
                           "ssh://host/x",
                           "ssh://host/-1",
                           "ssh://host/4294967296",
                           "ssh://host/1/2",
                           "ssh://[::1",
                           "ssh://[::1]x",
                           "ssh://[]",
                           "ssh://::1",
                           "ssh://me@you@host"}) {
    EXPECT_FALSE(parseSshAddress(text)) << text;
  }
}

TEST(SshCommand, Address_BecomesACallOfTheAgentForTheReaderThere) {
  EXPECT_THAT(sshCommand("ssh", *parseSshAddress("ssh://host"), Severity::kInfo),
              ElementsAre("ssh", "-T", "--", "host",
                          "zelta-agent --backend remote --reader 0 --log-level info"));
  EXPECT_THAT(sshCommand("/my/ssh", *parseSshAddress("ssh://me@[::1]:22/3"), Severity::kDebug),
              ElementsAre("/my/ssh", "-T", "-p", "22", "--", "me@::1",
                          "zelta-agent --backend remote --reader 3 --log-level debug"));
}

}  // namespace
}  // namespace zelta::agent
