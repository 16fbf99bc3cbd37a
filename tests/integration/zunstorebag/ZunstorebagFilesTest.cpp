#include <sys/sysmacros.h>

#include "ZunstorebagTest.h"

namespace zun {
namespace {

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

}  // namespace
}  // namespace zun
