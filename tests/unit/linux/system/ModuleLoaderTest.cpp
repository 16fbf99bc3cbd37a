#include "platform/ModuleLoader.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "linux/system/SharedObjectLoader.h"
#include "support/ScratchFolder.h"
#include "support/TestModules.h"

namespace zun {
namespace {

constexpr const char* kClass = "KodoAdaptor";
constexpr const char* kOperation = "sendMessageWithMethod:respCode:dict:";

class ModuleLoaderTest : public ::testing::Test {
 protected:
  void install(const std::string& module) { installTestModule(module, path_); }
  /// A file that is no module in the module's place.
  void write(const std::string& bytes) {
    install("recording_adaptor");
    std::filesystem::resize_file(path_, 0);
    std::ofstream(path_) << bytes;
  }

  /// Why the module is not loaded; empty if it is.
  std::string refusal() {
    const auto module = loader_.load(path_);
    return module ? "" : module.error();
  }
  std::unique_ptr<ModuleObject> makeObject() {
    const auto module = loader_.load(path_);
    if (!module) {
      ADD_FAILURE() << module.error();
      return nullptr;
    }
    auto object = (*module)->createInstance(kClass);
    if (!object) ADD_FAILURE() << object.error();
    return object ? std::move(*object) : nullptr;
  }
  /// Why the module makes no object.
  std::string objectRefusal() {
    const auto module = loader_.load(path_);
    if (!module) return "not loaded: " + module.error();
    const auto object = (*module)->createInstance(kClass);
    return object ? "" : object.error();
  }
  std::string folder() const { return scratch_.path("usr/lib"); }

  ScratchFolder scratch_;
  const std::string path_ = scratch_.path("usr/lib/Adaptor.so");
  SharedObjectLoader loader_;
};

TEST_F(ModuleLoaderTest, ModuleOfTheDaemonsUserIsLoadedAndMakesObjects) {
  install("recording_adaptor");
  const auto object = makeObject();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->description(), "recording adaptor (0 events)");
  EXPECT_TRUE(object->respondsTo(kOperation));
  EXPECT_FALSE(object->respondsTo("sendMessage:"));
}

TEST_F(ModuleLoaderTest, SameModuleIsGivenAgainEvenWhenItsFileHasGone) {
  install("recording_adaptor");
  const auto first = loader_.load(path_);
  ASSERT_TRUE(first);
  std::filesystem::remove(path_);
  const auto second = loader_.load(path_);
  ASSERT_TRUE(second);
  EXPECT_EQ(*first, *second);
}

TEST_F(ModuleLoaderTest, MissingModuleIsLookedForAgain) {
  EXPECT_EQ(refusal(), scratch_.path("usr") + ": No such file or directory");
  std::filesystem::create_directories(folder());
  EXPECT_EQ(refusal(), path_ + ": No such file or directory");
  install("recording_adaptor");
  EXPECT_EQ(refusal(), "");
}

TEST_F(ModuleLoaderTest, ModuleOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give a file away";
  install("recording_adaptor");
  ASSERT_EQ(::chown(path_.c_str(), 65534, 0), 0);
  EXPECT_EQ(refusal(), path_ + ": it belongs neither to root nor to this user");
  ASSERT_EQ(::chown(path_.c_str(), 0, 65534), 0);
  EXPECT_EQ(refusal(), "");
}

TEST_F(ModuleLoaderTest, ModuleThatGroupOrOthersCanWriteIsRefused) {
  install("recording_adaptor");
  for (const mode_t mode : {0775, 0757, 0777}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    EXPECT_EQ(refusal(), path_ + ": others can write it");
  }
  ASSERT_EQ(::chmod(path_.c_str(), 0755), 0);
  EXPECT_EQ(refusal(), "");
}

TEST_F(ModuleLoaderTest, FoldersAboveAreHeldToTheSameRule) {
  install("recording_adaptor");
  for (const std::string& above : {folder(), scratch_.path("usr"), scratch_.path()}) {
    ASSERT_EQ(::chmod(above.c_str(), 0770), 0);
    EXPECT_EQ(refusal(), above + ": others can write it");
    ASSERT_EQ(::chmod(above.c_str(), 0700), 0);
  }
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(scratch_.path("usr").c_str(), 65534, 0), 0);
    EXPECT_EQ(refusal(), scratch_.path("usr") + ": it belongs neither to root nor to this user");
    ASSERT_EQ(::chown(scratch_.path("usr").c_str(), 0, 0), 0);
  }
  EXPECT_EQ(refusal(), "");
}

// In such a folder nobody can replace what is another's, but can link an old file of
// root's into it.
TEST_F(ModuleLoaderTest, StickyFolderMayStandAboveButNotHoldTheModule) {
  install("recording_adaptor");
  ASSERT_EQ(::chmod(folder().c_str(), 01777), 0);
  EXPECT_EQ(refusal(), folder() + ": others can write it");
  ASSERT_EQ(::chmod(folder().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(scratch_.path("usr").c_str(), 01777), 0);
  EXPECT_EQ(refusal(), "");
}

TEST_F(ModuleLoaderTest, SymbolicLinksAreRefusedAnywhereInThePath) {
  const std::string elsewhere = scratch_.path("elsewhere");
  installTestModule("recording_adaptor", elsewhere + "/Adaptor.so");
  std::filesystem::create_directories(folder());
  std::filesystem::create_symlink(elsewhere + "/Adaptor.so", path_);
  EXPECT_EQ(refusal(), path_ + ": it is a symbolic link");
  std::filesystem::remove_all(folder());
  std::filesystem::create_directory_symlink(elsewhere, folder());
  EXPECT_EQ(refusal(), folder() + ": it is a symbolic link");
}

TEST_F(ModuleLoaderTest, WhatIsNoRegularFileIsRefusedWithoutOpeningIt) {
  std::filesystem::create_directories(path_);
  EXPECT_EQ(refusal(), path_ + ": it is no regular file");
  std::filesystem::remove(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(refusal(), path_ + ": it is no regular file");
  EXPECT_NE(SharedObjectLoader().load(path_ + "/more").error().find("it is no folder"), std::string::npos);
  EXPECT_FALSE(loader_.load(std::string("/a\0b", 4)));
}

TEST_F(ModuleLoaderTest, FilesThatAreNoSharedObjectsAreRefused) {
  for (const char* bytes : {"", "#!/bin/sh\n",
                            "\x7f"
                            "ELF and nothing behind"}) {
    write(bytes);
    EXPECT_TRUE(refusal().starts_with(path_ + ": /proc/self/fd/")) << refusal();
  }
  install("recording_adaptor");
  EXPECT_EQ(refusal(), "");
}

// Refused files leave nothing behind under which a later one could be mistaken for them.
TEST_F(ModuleLoaderTest, AnotherFileInTheSamePlaceIsLoadedAnew) {
  install("adaptor_without_entry_point");
  const std::string reason = path_ + ": it does not export zun_kodo_class_named";
  EXPECT_EQ(refusal(), reason);
  EXPECT_EQ(refusal(), reason);
  std::filesystem::remove(path_);
  install("recording_adaptor");
  EXPECT_EQ(refusal(), "");
  EXPECT_EQ(makeObject()->description(), "recording adaptor (0 events)");
}

TEST_F(ModuleLoaderTest, RepeatedRefusalsKeepNoDescriptors) {
  const auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  install("adaptor_without_entry_point");
  ASSERT_NE(refusal(), "");
  const auto before = openDescriptors();
  for (int i = 0; i < 100; ++i) ASSERT_NE(refusal(), "");
  std::filesystem::remove(path_);  // what is loaded must not be written into
  write("no module");
  for (int i = 0; i < 100; ++i) ASSERT_NE(refusal(), "");
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ModuleLoaderTest, ModulesAtDifferentPathsAreDifferentModules) {
  install("recording_adaptor");
  const std::string other = scratch_.path("usr/lib/Other.so");
  installTestModule("adaptor_without_operation", other);
  const auto first = makeObject();
  const auto second = loader_.load(other);
  ASSERT_TRUE(second);
  const auto object = (*second)->createInstance(kClass);
  ASSERT_TRUE(object);
  EXPECT_TRUE(first->respondsTo(kOperation));
  EXPECT_FALSE((*object)->respondsTo(kOperation));
}

TEST_F(ModuleLoaderTest, ThreadsThatAskAtOnceGetTheSameModule) {
  install("recording_adaptor");
  std::vector<std::shared_ptr<const Module>> modules(8);
  std::vector<std::thread> threads;
  for (auto& slot : modules) {
    threads.emplace_back([this, &slot] {
      const auto module = loader_.load(path_);
      if (!module) return;
      slot = *module;
      for (int i = 0; i < 20; ++i) {
        const auto object = slot->createInstance(kClass);
        if (object) (*object)->perform(kOperation, 1, 2, {{"thread", i}});
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_NE(modules[0], nullptr);
  for (const auto& module : modules) EXPECT_EQ(module, modules[0]);
}

// --- Classes and objects -------------------------------------------------------------

TEST_F(ModuleLoaderTest, ModuleWithoutTheClassMakesNoObject) {
  install("adaptor_without_class");
  EXPECT_EQ(objectRefusal(), path_ + ": class KodoAdaptor is missing");
}

TEST_F(ModuleLoaderTest, ClassOfAnotherVersionOfTheInterfaceMakesNoObject) {
  install("adaptor_with_another_version");
  EXPECT_EQ(objectRefusal(), path_ + ": class KodoAdaptor is of version 2 of the interface, not 1");
}

TEST_F(ModuleLoaderTest, ClassThatLacksAFunctionMakesNoObject) {
  install("adaptor_without_function");
  EXPECT_EQ(objectRefusal(), path_ + ": class KodoAdaptor lacks functions");
}

TEST_F(ModuleLoaderTest, ClassThatFailsToCreateMakesNoObject) {
  install("adaptor_without_object");
  EXPECT_EQ(objectRefusal(), path_ + ": class KodoAdaptor makes no object");
}

TEST_F(ModuleLoaderTest, ObjectWithoutADescriptionIsToldAsNull) {
  install("adaptor_without_operation");
  EXPECT_EQ(makeObject()->description(), "(null)");
}

TEST_F(ModuleLoaderTest, ObjectsEndWithTheirOwners) {
  const AdaptorRecord record(scratch_.path("record"));
  install("recording_adaptor");
  makeObject()->perform(kOperation, 3, 4, {});
  EXPECT_EQ(record.text(), "create 0\nevent 1 3 4 {}\ndestroy 1\n");
}

TEST_F(ModuleLoaderTest, ModuleReadsEveryKindOfValueAsItIs) {
  const AdaptorRecord record(scratch_.path("record"));
  install("recording_adaptor");
  Dictionary removed{{"gone", 1}, {"kept", 2}};
  removed.remove("gone");
  const std::string longKey(100, 'k');
  makeObject()->perform(kOperation, 65535, 0,
                        {{"yes", true},
                         {"no", false},
                         {"low", std::numeric_limits<int64_t>::min()},
                         {"high", std::numeric_limits<uint64_t>::max()},
                         {"real", 0.1},
                         {"text", std::string_view("a\"\0\xC3\xA4", 5)},
                         {"empty", ""},
                         {"data", Value::data(std::string_view("\0\xFF", 2))},
                         {"date", Date{1'700'000'000.5}},
                         {"array", Array{1, "two", Array(), Dictionary()}},
                         {"dictionary", removed},
                         {Value(longKey), 1}});
  EXPECT_EQ(record.text(),
            "create 0\nevent 1 65535 0 {\"yes\":true,\"no\":false,\"low\":-9223372036854775808,"
            "\"high\":18446744073709551615,\"real\":0.10000000000000001,\"text\":\"a\\\"\\u0000\xC3\xA4\","
            "\"empty\":\"\",\"data\":{\"data\":\"00ff\"},\"date\":{\"date\":1700000000.5},"
            "\"array\":[1,\"two\",[],{}],\"dictionary\":{\"kept\":2},\"" +
                longKey + "\":1}\ndestroy 1\n");
}

TEST_F(ModuleLoaderTest, ExceptionOfAModuleEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  install("adaptor_with_exception");
  const auto object = makeObject();
  ASSERT_NE(object, nullptr);
  EXPECT_DEATH(
      {
        try {
          object->perform(kOperation, 1, 2, {});
        } catch (...) {
          std::fputs("caught\n", stderr);
        }
      },
      "not for the daemon");
}

// --- The integrators' example ----------------------------------------------------------

class StatsDServer final {
 public:
  StatsDServer() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
  }
  std::string port() const { return std::to_string(port_); }
  std::string receive() const {
    pollfd ready{socket_.get(), POLLIN, 0};
    if (::poll(&ready, 1, 60'000) != 1) return "(nothing)";
    std::string text(512, '\0');
    text.resize(
        static_cast<size_t>(std::max<ssize_t>(::recv(socket_.get(), text.data(), text.size(), 0), 0)));
    return text;
  }

 private:
  FileDescriptor socket_;
  uint16_t port_ = 0;
};

TEST_F(ModuleLoaderTest, ExampleAdaptorCountsEventsAtAStatsDServer) {
  const StatsDServer server;
  ::setenv("STATSD_PORT", server.port().c_str(), 1);
  install("statsd_adaptor");
  const auto object = makeObject();
  ::unsetenv("STATSD_PORT");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->description(), "StatsD adaptor");
  ASSERT_TRUE(object->respondsTo(kOperation));
  object->perform(kOperation, 2, 7, {{"duration", "no number"}});
  EXPECT_EQ(server.receive(), "zun.event.2.7:1|c");
  object->perform(kOperation, 2, 7, {{"duration", 12.5}});
  EXPECT_EQ(server.receive(), "zun.event.2.7:1|c\nzun.duration.2.7:12.5|ms");
  object->perform(kOperation, 65535, 65535, {{"duration", -std::numeric_limits<double>::max()}});
  EXPECT_EQ(server.receive(),
            "zun.event.65535.65535:1|c\nzun.duration.65535.65535:-1.79769313486232e+308|ms");
}

}  // namespace
}  // namespace zun
