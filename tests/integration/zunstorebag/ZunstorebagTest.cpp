// Runs the real zunstorebag.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "linux/files/FileDescriptor.h"
#include "platform/Crypto.h"
#include "support/ScratchFolder.h"
#include "values/Base64.h"
#include "values/JSONReader.h"
#include "values/PropertyList.h"

extern char** environ;

namespace zun {
namespace {

namespace fs = std::filesystem;

struct Outcome {
  int exitCode = -1;
  std::string output;
  std::string errors;
};

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

class ZunstorebagTest : public ::testing::Test {
 protected:
  // Runs the tool with these arguments to its end.
  Outcome run(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{ZUNSTOREBAG};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const std::string output = scratch_.path("stdout");
    const std::string errors = scratch_.path("stderr");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), kFlags, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), kFlags, 0600);
    pid_t process = 0;
    EXPECT_EQ(posix_spawn(&process, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(output), contentOf(errors)};
  }

  std::string file(const std::string& name) const { return scratch_.path(name); }

  std::string write(const std::string& name, const std::string& content) {
    std::ofstream(file(name), std::ios::binary) << content;
    return file(name);
  }

  void makeKeys() {
    ASSERT_EQ(
        run({"keygen", "--private-key", file("private.pem"), "--public-key", file("public.der")}).exitCode,
        0);
  }

  Outcome sign(const std::string& source, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"sign", source, "--key", file("private.pem"), "--plain"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    if (std::find(more.begin(), more.end(), "-o") == more.end()) {
      arguments.insert(arguments.end(), {"-o", file("envelope")});
    }
    return run(arguments);
  }

  std::string signCommand(const std::string& source, const std::string& output) const {
    return std::string(ZUNSTOREBAG) + " sign " + source + " --key " + file("private.pem") + " -o " + output;
  }
  static int shell(const std::string& command) { return std::system(command.c_str()); }

  Outcome verify(const std::string& envelope) {
    return run({"verify", envelope, "--key", file("public.der")});
  }

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  // No file that is half written stays behind.
  void expectNoStrayFiles() const {
    for (const auto& entry : fs::directory_iterator(scratch_.path())) {
      const std::string name = entry.path().filename();
      EXPECT_FALSE(name.starts_with("envelope.") || name.starts_with("private.pem.") ||
                   name.starts_with("public.der."))
          << name;
    }
  }

  static constexpr const char* kComplete = R"({
    "version": "2.5", "refresh_cycle": 600,
    "shared_values": {"==regions": "DE,FR"},
    "development": {"kodo": {"active": true}}, "vantix_internal": {"kodo": {"active": true}},
    "seed": {"kodo": {"active": true}},
    "release": {"httpPost": {"clients": [{"client": "Foo,Bar", "locale_whitelist": "==regions", "filters": [],
                "sampling_threshold": 0.5, "post_url": "https://example.com/events"}]}}})";

  ScratchFolder scratch_;
};

// A device, say, that everybody on the machine needs.
TEST_F(ZunstorebagTest, WhatIsNoRegularFileIsWrittenToAndNeverReplaced) {
  makeKeys();
  const std::string source = write("bag.json", kComplete);
  ASSERT_EQ(::mkfifo(file("pipe").c_str(), 0600), 0);
  const FileDescriptor reader(::open(file("pipe").c_str(), O_RDONLY | O_NONBLOCK));
  ASSERT_EQ(sign(source, {"-o", file("pipe")}).exitCode, 0);
  EXPECT_TRUE(fs::is_fifo(file("pipe")));
  std::string received(1 << 16, '\0');
  received.resize(
      static_cast<size_t>(std::max<ssize_t>(::read(reader.get(), received.data(), received.size()), 0)));
  write("received", received);
  EXPECT_EQ(verify(file("received")).exitCode, 0);

  if (::mknod(file("null").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) GTEST_SKIP() << "needs privilege";
  EXPECT_EQ(sign(source, {"-o", file("null")}).exitCode, 0);
  EXPECT_TRUE(fs::is_character_file(file("null")));
  EXPECT_EQ(run({"keygen", "--private-key", file("null"), "--public-key", file("null"), "--force"}).exitCode,
            0);
  EXPECT_TRUE(fs::is_character_file(file("null")));
}

TEST_F(ZunstorebagTest, PipeThatIsNamedByItsDescriptorIsWrittenTo) {
  makeKeys();
  const std::string source = write("bag.json", kComplete);
  for (const std::string path : {"/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"}) {
    ASSERT_EQ(shell(signCommand(source, path) + " | cat > " + file("received")), 0) << path;
    EXPECT_EQ(verify(file("received")).exitCode, 0) << path;
  }
}

// What the shell has opened, others write to as well: before, behind, and through the same descriptor.
TEST_F(ZunstorebagTest, FileThatIsNamedByItsDescriptorIsWrittenToWhereItsOthersAre) {
  makeKeys();
  const std::string source = write("bag.json", kComplete);
  const std::pair<std::string, std::string> cases[] = {
      {"/dev/stdout", ">> "}, {"/dev/stdout", "> "}, {"/dev/fd/7", "7>> "}, {"/proc/self/fd/7", "7> "}};
  for (const auto& [path, redirection] : cases) {
    SCOPED_TRACE(path + " " + redirection);
    const std::string appended = write("appended", "precious ");
    const bool isKept = redirection.ends_with(">> ");
    const std::string to = redirection.starts_with('7') ? " >&7" : "";
    ASSERT_EQ(shell("{ printf 'before '" + to + "; " + signCommand(source, path) + "; printf ' after'" + to +
                    "; } " + redirection + appended),
              0);
    const std::string content = contentOf(appended);
    const std::string start = isKept ? "precious before " : "before ";
    const std::string end = " after";
    ASSERT_TRUE(content.starts_with(start) && content.ends_with(end)) << content.substr(0, 100);
    write("received", content.substr(start.size(), content.size() - start.size() - end.size()));
    EXPECT_EQ(verify(file("received")).exitCode, 0);
  }
}

TEST_F(ZunstorebagTest, FileThatAnotherProcessHasOpenIsAppendedToAndNotReplaced) {
  makeKeys();
  const std::string source = write("bag.json", kComplete);
  const FileDescriptor opened(::open(write("log", "precious ").c_str(), O_RDONLY));
  const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(opened.get());
  ASSERT_EQ(sign(source, {"-o", path}).exitCode, 0);
  const std::string content = contentOf(file("log"));
  ASSERT_TRUE(content.starts_with("precious ")) << content.substr(0, 100);
  struct stat status {};
  ASSERT_EQ(::fstat(opened.get(), &status), 0);
  EXPECT_EQ(static_cast<size_t>(status.st_size), content.size());
  write("received", content.substr(std::string("precious ").size()));
  EXPECT_EQ(verify(file("received")).exitCode, 0);
}

TEST_F(ZunstorebagTest, LinksAreFollowedToTheFileThatIsReplaced) {
  makeKeys();
  const std::string source = write("bag.json", kComplete);
  fs::create_directory(file("folder"));
  write("folder/there", "old");
  fs::create_symlink("folder/second", file("first"));
  fs::create_symlink("there", file("folder/second"));
  fs::create_symlink(file("folder/missing"), file("dangling"));
  for (const auto& [link, target] : {std::pair("first", "folder/there"), {"dangling", "folder/missing"}}) {
    ASSERT_EQ(sign(source, {"-o", file(link)}).exitCode, 0);
    EXPECT_TRUE(fs::is_symlink(file(link)));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file(target))));
    EXPECT_EQ(verify(file(target)).exitCode, 0) << target;
  }
  EXPECT_TRUE(fs::is_symlink(file("folder/second")));

  fs::create_symlink("loop", file("loop"));
  const Outcome outcome = sign(source, {"-o", file("loop")});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_TRUE(
      contains(outcome.errors, "cannot write " + file("loop") + ": Too many levels of symbolic links"))
      << outcome.errors;
}

TEST_F(ZunstorebagTest, KeygenMakesAKeyPairWhosePrivateHalfIsItsOwnersAlone) {
  makeKeys();
  struct stat status {};
  ASSERT_EQ(::stat(file("private.pem").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_TRUE(contains(contentOf(file("private.pem")), "PRIVATE KEY"));
  EXPECT_TRUE(RSAPublicKey::fromDER(contentOf(file("public.der"))));
  expectNoStrayFiles();
}

TEST_F(ZunstorebagTest, KeygenReplacesKeysOnlyWhenForced) {
  for (const std::string existing : {"private.pem", "public.der"}) {
    write(existing, "precious");
    const Outcome refused =
        run({"keygen", "--private-key", file("private.pem"), "--public-key", file("public.der")});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_TRUE(contains(refused.errors, "--force")) << refused.errors;
    EXPECT_EQ(contentOf(file(existing)), "precious");
    fs::remove(file(existing));
  }
  write("private.pem", "precious");  // readable by others, which the new key must not be
  fs::permissions(file("private.pem"), fs::perms(0644));
  EXPECT_EQ(
      run({"keygen", "--private-key", file("private.pem"), "--public-key", file("public.der"), "--force"})
          .exitCode,
      0);
  EXPECT_TRUE(RSAPrivateKey::fromPEM(contentOf(file("private.pem"))));
  EXPECT_EQ(fs::status(file("private.pem")).permissions(), fs::perms(0600));
}

TEST_F(ZunstorebagTest, KeygenLeavesNothingWhenTheSecondHalfCannotBeWritten) {
  const Outcome outcome =
      run({"keygen", "--private-key", file("private.pem"), "--public-key", file("missing/public.der")});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_FALSE(fs::exists(file("private.pem")));
}

TEST_F(ZunstorebagTest, KeygenRefusesWeakKeys) {
  EXPECT_EQ(run({"keygen", "--private-key", file("p"), "--public-key", file("q"), "--bits", "512"}).exitCode,
            2);
  EXPECT_FALSE(fs::exists(file("p")));
}

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
