#include "ZunstorebagTest.h"

namespace zun {
namespace {

TEST_F(ZunstorebagTest, ShowPrintsAnEnvelopeAndAPlainStorebagAlike) {
  makeKeys();
  const std::string source = write("source.json", kComplete);
  ASSERT_EQ(sign(source).exitCode, 0);
  const Outcome fromEnvelope = run({"show", file("envelope")});
  const Outcome fromSource = run({"show", source});
  EXPECT_EQ(fromEnvelope.exitCode, 0);
  EXPECT_EQ(fromEnvelope.output, fromSource.output);
  const auto shown = parseJSON(fromSource.output);
  ASSERT_TRUE(shown);
  EXPECT_EQ(*shown, *parseJSON(kComplete));
}

TEST_F(ZunstorebagTest, ShowOfAnEnvironmentIsTheSectionAsTheDaemonSeesIt) {
  const std::string source = write("source.json", R"({
    "release_timeout": 120, "shared_values": {"==hosts": "a,b"},
    "release": {"httpPost": {"clients": [{"locale_whitelist": "==hosts"}]}}})");
  const Outcome release = run({"show", source, "--environment", "release"});
  ASSERT_EQ(release.exitCode, 0) << release.errors;
  const auto section = parseJSON(release.output);
  ASSERT_TRUE(section);
  EXPECT_EQ(
      *section,
      *parseJSON(R"({"httpPost": {"clients": [{"locale_whitelist": ["a", "b"]}]}, "release_timeout": 120})"));
  EXPECT_EQ(run({"show", source, "--environment", "seed"}).output, release.output);
  EXPECT_EQ(run({"show", source, "--environment", "development"}).exitCode, 1);
  EXPECT_EQ(run({"show", source, "--environment", "nonsense"}).exitCode, 2);
}

TEST_F(ZunstorebagTest, UsageErrorsAndHelp) {
  EXPECT_EQ(run({}).exitCode, 2);
  EXPECT_EQ(run({"frobnicate"}).exitCode, 2);
  EXPECT_EQ(run({"sign", "x"}).exitCode, 2);
  const Outcome help = run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const std::string command : {"keygen", "sign", "verify", "show", "Exit codes"}) {
    EXPECT_TRUE(contains(help.output, command)) << command;
  }
  EXPECT_EQ(run({"sign", "--help"}).exitCode, 0);
}

}  // namespace
}  // namespace zun
