#include "ZunstorebagTest.h"

namespace zun {
namespace {

TEST_F(ZunstorebagTest, SignedStorebagVerifiesAndHoldsTheSource) {
  makeKeys();
  const Outcome signing = sign(write("source.json", kComplete));
  EXPECT_EQ(signing.exitCode, 0) << signing.errors;
  EXPECT_EQ(signing.errors, "");
  const Outcome verification = verify(file("envelope"));
  EXPECT_EQ(verification.exitCode, 0) << verification.errors;
  EXPECT_TRUE(contains(verification.output, "the signature verifies, version 2.5, name (none)"))
      << verification.output;

  const auto envelope = parsePropertyList(contentOf(file("envelope")));
  ASSERT_TRUE(envelope);
  const auto bag = base64Decode((*envelope->dictionary())["bag"].stringValue());
  ASSERT_TRUE(bag);
  const auto inner = parsePropertyList(*bag);
  const auto source = parseJSON(kComplete);
  ASSERT_TRUE(inner && source);
  EXPECT_EQ(*inner, *source);
  expectNoStrayFiles();
}

// The daemon refuses what was signed for another name, or before what it has.
TEST_F(ZunstorebagTest, SignWritesWhichStorebagItIsAndWhenItWasSigned) {
  makeKeys();
  const auto before = static_cast<int64_t>(std::time(nullptr));
  const std::string source = write("tessel.json", kComplete);
  for (const auto& [output, name] : {std::pair("confero", "confero"), {"envelope", "tessel"}}) {
    const Outcome signing =
        run({"sign", source, "--key", file("private.pem"), "-o", file(output), "--strict"});
    EXPECT_EQ(signing.exitCode, 0) << signing.errors;
    const auto shown = parseJSON(run({"show", file(output)}).output);
    ASSERT_TRUE(shown);
    EXPECT_EQ((*shown->dictionary())["name"], Value(name));
    const Value& serial = (*shown->dictionary())["serial"];
    EXPECT_TRUE(serial.isInteger());
    EXPECT_GE(serial.intValue(), before);
    EXPECT_LE(serial.intValue(), static_cast<int64_t>(std::time(nullptr)));
    const Outcome verification = verify(file(output));
    EXPECT_TRUE(
        contains(verification.output,
                 fmt::format("the signature verifies, version 2.5, name {}, serial {}\n", name, serial)))
        << verification.output;
  }
}

TEST_F(ZunstorebagTest, NameAndSerialOfTheAuthorStay) {
  makeKeys();
  const std::string source =
      write("source.json", R"({"name": "tessel", "serial": 7, "version": "1", "release": {"joulex": {}}})");
  for (const std::string output : {"tessel", "envelope"}) {
    EXPECT_EQ(run({"sign", source, "--key", file("private.pem"), "-o", file(output), "--strict"}).exitCode,
              0);
    EXPECT_TRUE(contains(verify(file(output)).output, "name tessel, serial 7\n"));
  }
  const Outcome outcome = run({"sign", source, "--key", file("private.pem"), "-o", file("confero")});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.errors, "warning: name: must be \"confero\" where devices ask for that, is \"tessel\"\n");
}

TEST_F(ZunstorebagTest, SignWarnsOfAStorebagThatHasNoNameAndPlainOnesHaveNeither) {
  makeKeys();
  const std::string source = write("source.json", kComplete);
  const Outcome outcome = run({"sign", source, "--key", file("private.pem"), "-o", file("envelope")});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.errors,
            "warning: name: missing, and no file is named after a storebag: devices take it "
            "under any name\n");
  EXPECT_TRUE(contains(verify(file("envelope")).output, "name (none), serial 1"));
  const Outcome plain = sign(source, {"-o", file("confero"), "--strict"});
  EXPECT_EQ(plain.exitCode, 0) << plain.errors;
  EXPECT_TRUE(contains(verify(file("confero")).output, "version 2.5, name (none), serial (none)\n"));
}

TEST_F(ZunstorebagTest, NameOrSerialThatEveryDeviceRefusesIsNotSigned) {
  makeKeys();
  for (const auto& [name, serial] : {std::pair("\"conferro\"", "1"),
                                     {"5", "1"},
                                     {"\"confero\"", "1.5"},
                                     {"\"confero\"", "\"1\""},
                                     {"\"confero\"", "18446744073709551615"}}) {
    const Outcome outcome = sign(
        write("source.json", fmt::format(R"({{"name": {}, "serial": {}, "release": {{}}}})", name, serial)));
    EXPECT_EQ(outcome.exitCode, 1) << name << serial;
    EXPECT_TRUE(contains(outcome.errors, ": every device refuses it\n")) << outcome.errors;
  }
}

TEST_F(ZunstorebagTest, PropertyListsAreSourcesToo) {
  makeKeys();
  const auto storebag = parseJSON(kComplete);
  ASSERT_TRUE(storebag);
  for (const std::string& bytes :
       {serializeXMLPropertyList(*storebag), serializeBinaryPropertyList(*storebag)}) {
    EXPECT_EQ(sign(write("source.plist", bytes), {"--binary"}).exitCode, 0);
    EXPECT_TRUE(contentOf(file("envelope")).starts_with("bplist00"));
    EXPECT_EQ(verify(file("envelope")).exitCode, 0);
  }
}

TEST_F(ZunstorebagTest, TamperedEnvelopeAndAnotherKeyDoNotVerify) {
  makeKeys();
  ASSERT_EQ(sign(write("source.json", kComplete)).exitCode, 0);
  const auto envelope = parsePropertyList(contentOf(file("envelope")));
  ASSERT_TRUE(envelope);
  Dictionary tampered = *envelope->dictionary();
  std::string bag = *base64Decode(tampered["bag"].stringValue());
  bag[bag.size() / 2] ^= 1;
  tampered.set("bag", base64Encode(bag));
  const Outcome outcome = verify(write("tampered", serializeXMLPropertyList(tampered)));
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_TRUE(contains(outcome.errors, "the signature does not verify")) << outcome.errors;

  ASSERT_EQ(run({"keygen", "--private-key", file("other.pem"), "--public-key", file("other.der")}).exitCode,
            0);
  EXPECT_EQ(run({"verify", file("envelope"), "--key", file("other.der")}).exitCode, 1);
}

TEST_F(ZunstorebagTest, WhatIsNoEnvelopeIsInvalidAndWhatCannotBeReadIsUsage) {
  makeKeys();
  EXPECT_EQ(verify(write("garbage", "garbage")).exitCode, 1);
  EXPECT_EQ(verify(write("empty", "")).exitCode, 1);
  EXPECT_EQ(verify(write("plain", serializeXMLPropertyList(Dictionary{{"release", Dictionary{}}}))).exitCode,
            1);
  EXPECT_EQ(verify(file("missing")).exitCode, 2);
  EXPECT_EQ(run({"verify", file("plain"), "--key", write("bad.der", "no key")}).exitCode, 2);
  EXPECT_EQ(run({"verify", scratch_.path(), "--key", file("public.der")}).exitCode, 2);
}

TEST_F(ZunstorebagTest, InvalidSourceIsNotSignedAndTheOldEnvelopeStays) {
  makeKeys();
  write("envelope", "the old one");
  for (const std::string content :
       {"[]", "{\"release\": 5}", "{}", "{\"release\": ", "plain text",
        "{\"signature\": \"\", \"bag\": \"\"}",
        "{\"release\": {\"httpPost\": {\"clients\": [{\"post_url\": \"@UNKNOWN@\"}]}}}"}) {
    const Outcome outcome = sign(write("source.json", content));
    EXPECT_EQ(outcome.exitCode, 1) << content;
    EXPECT_NE(outcome.errors, "") << content;
    EXPECT_EQ(contentOf(file("envelope")), "the old one") << content;
  }
  EXPECT_EQ(sign(file("missing")).exitCode, 2);
  EXPECT_EQ(
      run({"sign", write("s.json", kComplete), "--key", file("public.der"), "-o", file("envelope")}).exitCode,
      2);
  EXPECT_EQ(
      run({"sign", file("s.json"), "--key", file("private.pem"), "-o", file("no/such/folder")}).exitCode, 2);
  EXPECT_EQ(contentOf(file("envelope")), "the old one");
  expectNoStrayFiles();
}

TEST_F(ZunstorebagTest, SignWarnsOfWhatTheDaemonWouldReadOtherwise) {
  makeKeys();
  const std::string source = write("source.json", R"({
    "version": 3, "refresh_cycle": 100000, "typo": 1,
    "shared_values": {"==urls": "https://a,https://b", "regions": "DE"},
    "release": {
      "httpPost": {"clients": [
        {"client": "Foo, Bar", "locale_whitelist": ["DE"], "filters": [{"key": "k", "action": "delete"}],
         "sampling_threshold": 2, "post_url": "==urls", "event_whitelist": ["1"], "unknown": 1},
        {"post_url": "http://example.com", "device_whitelist": "==missing"}]},
      "post2": {"client": []},
      "release_timeuot": 5}})");
  const Outcome outcome = sign(source);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  for (const std::string line :
       {"warning: version: must be a string, is a number",
        "warning: refresh_cycle: must be 0 to 86400 seconds: more counts as 86400, less as out of date at "
        "once",
        "warning: typo: unknown key, the daemon ignores it",
        "warning: shared_values.regions: a macro's name begins with \"==\": nothing refers to this",
        "warning: release.httpPost.clients[0].client: blanks count: names are divided by commas alone",
        "warning: release.httpPost.clients[0].filters[0].action: must be \"remove\", \"sha256\", "
        "\"blacklistValues\" or \"whitelistValues\": the filter does nothing",
        "warning: release.httpPost.clients[0].sampling_threshold: must be between 0 and 1, is 2",
        "warning: release.httpPost.clients[0].post_url: must be a string, is a list (a macro's text always "
        "becomes a list)",
        "warning: release.httpPost.clients[0].event_whitelist: must be a list of numbers, is a list",
        "warning: release.httpPost.clients[0].unknown: unknown key, the daemon ignores it",
        "warning: release.httpPost.clients[1]: no \"locale_whitelist\": reporting is disabled everywhere",
        "warning: release.httpPost.clients[1]: no \"filters\" (an empty list will do): reporting is disabled",
        "warning: release.httpPost.clients[1]: no \"sampling_threshold\": reporting is disabled",
        "warning: release.httpPost.clients[1].post_url: must begin with https://",
        "warning: release.httpPost.clients[1].device_whitelist: macro \"==missing\" is not in shared_values",
        "warning: release.post2: no list \"clients\": the backend is not created",
        "warning: release.release_timeuot: no backend has this name"}) {
    EXPECT_TRUE(contains(outcome.errors, line + "\n")) << line << "\nin:\n" << outcome.errors;
  }
  fs::remove(file("envelope"));
  EXPECT_EQ(sign(source, {"--strict"}).exitCode, 1);
  EXPECT_FALSE(fs::exists(file("envelope")));
}

// Other environments are the maker's own devices; seed ones use release's section.
TEST_F(ZunstorebagTest, StorebagForReleaseAloneIsCompleteAndOneWithoutItIsNot) {
  makeKeys();
  const Outcome release =
      sign(write("release.json", R"({"version": "1", "release": {"joulex": {}}})"), {"--strict"});
  EXPECT_EQ(release.exitCode, 0);
  EXPECT_EQ(release.errors, "");
  const Outcome seed = sign(write("seed.json", R"({"version": "1", "seed": {"joulex": {}}})"), {"--strict"});
  EXPECT_EQ(seed.exitCode, 1);
  EXPECT_TRUE(contains(seed.errors, "warning: release: no section: release devices get no storebag\n"))
      << seed.errors;
}

TEST_F(ZunstorebagTest, SignWarnsOfDashboardsAndUploadServersThatCannotWork) {
  makeKeys();
  const std::string source = write("source.json", R"({"version": "1", "release": {
      "dashboard": {"ip": "dashboard.example", "port": 65536, "reliable": 0, "post_url": "http://a", "prot": 1},
      "uploadServer": {"display_url": 5},
      "kodo": []}, "seed": {"dashboard": {}, "uploadServer": {"post_url": "http://a"}}})");
  const Outcome outcome = sign(source);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  for (const std::string line :
       {"warning: release.dashboard.ip: must be an IPv4 address like \"192.0.2.1\": names are not looked up",
        "warning: release.dashboard.port: must be 1 to 65535",
        "warning: release.dashboard.reliable: must be at least 1, the milliseconds of one tick; leave it out "
        "for plain datagrams",
        "warning: release.dashboard.post_url: must begin with https://",
        "warning: release.dashboard.prot: unknown key, the daemon ignores it",
        "warning: release.uploadServer: no \"post_url\": the backend is not created",
        "warning: release.uploadServer.display_url: must be a string, is a number",
        "warning: release.kodo: must be a dictionary, is a list",
        "warning: seed.dashboard: no \"ip\": the backend is not created",
        "warning: seed.dashboard: no \"port\": the backend is not created",
        "warning: seed.uploadServer.post_url: must begin with https://"}) {
    EXPECT_TRUE(contains(outcome.errors, line + "\n")) << line << "\nin:\n" << outcome.errors;
  }
}

TEST_F(ZunstorebagTest, AddressesThatAreNotFourNumbersAreWarnedOf) {
  makeKeys();
  for (const std::string ip :
       {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", "-1.2.3.4", "1..2.3", "1.2.3."}) {
    const Outcome outcome =
        sign(write("source.json", R"({"release": {"dashboard": {"ip": ")" + ip + R"("}}})"));
    EXPECT_TRUE(contains(outcome.errors, "release.dashboard.ip: must be an IPv4 address")) << ip;
  }
  const Outcome good =
      sign(write("source.json", R"({"release": {"dashboard": {"ip": "255.0.2.1", "port": 65535}}})"));
  EXPECT_FALSE(contains(good.errors, "release.dashboard")) << good.errors;
}

TEST_F(ZunstorebagTest, DefinitionsReplacePlaceholdersInsideStrings) {
  makeKeys();
  const std::string source = write("source.json", R"({"version": "@VERSION@-x", "release": {"httpPost": {
      "display_url": "https://@HOST@/@HOST@?mail=a@b.c", "clients": []}}})");
  ASSERT_EQ(sign(source, {"--define", "HOST=h.example", "--define", "VERSION=1=2"}).exitCode, 0);
  const Outcome shown = run({"show", file("envelope")});
  EXPECT_TRUE(contains(shown.output, "https://h.example/h.example?mail=a@b.c")) << shown.output;
  EXPECT_TRUE(contains(shown.output, "\"1=2-x\"")) << shown.output;
  EXPECT_EQ(sign(source, {"--define", "HOST"}).exitCode, 2);
}

TEST_F(ZunstorebagTest, DeepAndHugeSourcesAreRefused) {
  makeKeys();
  EXPECT_EQ(sign(write("deep.json", std::string(100'000, '['))).exitCode, 1);
  EXPECT_EQ(sign(write("huge.json", std::string((size_t{16} << 20) + 1, ' '))).exitCode, 2);
}

TEST_F(ZunstorebagTest, ExampleStorebagsAreSignedWithoutAWarning) {
  makeKeys();
  for (const std::string name : {"confero", "tessel"}) {
    const Outcome outcome = sign(std::string(STOREBAG_SOURCES) + "/" + name + ".json", {"--strict"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    for (const std::string environment : {"development", "vantix_internal", "seed", "release"}) {
      const Outcome shown = run({"show", file("envelope"), "--environment", environment});
      EXPECT_EQ(shown.exitCode, 0);
      EXPECT_TRUE(contains(shown.output, "\"https://collector.example/events\"")) << shown.output;
      EXPECT_FALSE(contains(shown.output, "\"==")) << shown.output;
    }
  }
}

}  // namespace
}  // namespace zun
