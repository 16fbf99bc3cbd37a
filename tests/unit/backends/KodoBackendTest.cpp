#include "backends/KodoBackend.h"

#include <filesystem>

#include "BackendTest.h"
#include "support/TestModules.h"

namespace zun {
namespace {

constexpr int32_t kConfero = 7;
const std::string kRefusedLine =
    "KodoBackend(sendMessage): Kodo adaptor (null) does not respond to forwarding selector "
    "sendMessageWithMethod:respCode:dict:";

class KodoBackendTest : public BackendTest {
 protected:
  void install(const std::string& module) { installTestModule(module, modulePath()); }
  std::string modulePath() const { return platform_.files.resolve(KodoBackend::kAdaptorModulePath); }

  std::shared_ptr<ZunReportingBackend> make(int32_t clientType = kConfero,
                                            const Value& profile = Dictionary{}) {
    return ZunReportingBackend::newBackendWithName(services_, "kodo", profile, "Pallax", clientType);
  }
  static std::optional<std::string> send(ZunReportingBackend& backend, uint16_t method, uint16_t respCode,
                                         const std::optional<Dictionary>& blob, int32_t flag = 0) {
    return backend.sendMessage(blob, kEventTime, method, respCode, flag);
  }
  void expectNote(const std::string& what) {
    expectDefaultLine("KodoBackend(initWithName): Kodo adaptor " + what);
  }

  const AdaptorRecord record_{platform_.scratch.path("record")};
};

TEST_F(KodoBackendTest, OnlyClientTypes7And11And13AreAllowed) {
  for (int32_t type = -2; type < 30; ++type) {
    EXPECT_EQ(KodoBackend::isClientTypeAllowed(type), type == 7 || type == 11 || type == 13) << type;
  }
}

TEST_F(KodoBackendTest, AllowedClientTypesGetABackendWithAnAdaptorEach) {
  install("recording_adaptor");
  for (const int32_t type : {7, 11, 13}) {
    const auto backend = make(type);
    ASSERT_NE(std::dynamic_pointer_cast<KodoBackend>(backend), nullptr) << type;
    EXPECT_EQ(backend->name(), "kodo");
    expectDefaultLine(
        fmt::format("KodoBackend(initWithName): Loading Kodo adaptor class for client type {}", type));
  }
  EXPECT_EQ(record_.text(), "create 0\ndestroy 0\ncreate 0\ndestroy 0\ncreate 0\ndestroy 0\n");
}

// Types 12 and 20 are beside the allowed ones, and 20 even shares their storebag.
TEST_F(KodoBackendTest, OtherClientTypesGetNoBackendAndAnErrorLine) {
  install("recording_adaptor");
  for (const int32_t type : {12, 20, 0, -1, 6, 263}) {
    EXPECT_EQ(make(type), nullptr);
    expectDefaultLine(
        fmt::format("KodoBackend(initWithName): Loading Kodo adaptor class for client type {}", type));
    expectErrors(
        {fmt::format("KodoBackend(initWithName): No matching bundle found for client type {}", type)});
  }
  EXPECT_EQ(record_.text(), "");
}

TEST_F(KodoBackendTest, WithoutAClientTypeThereNeverIsABackend) {
  install("recording_adaptor");
  EXPECT_EQ(KodoBackend::initWithName(services_, "kodo", Dictionary{}, "Pallax"), nullptr);
  expectDefaultLine("KodoBackend(initWithName): Loading Kodo adaptor class for client type 0");
  expectErrors({"KodoBackend(initWithName): No matching bundle found for client type 0"});
}

TEST_F(KodoBackendTest, NothingOfTheProfileIsNeededNorAProductFamily) {
  install("recording_adaptor");
  EXPECT_NE(make(kConfero, Value(5)), nullptr);
  EXPECT_NE(KodoBackend::initWithName(services_, "kodo", Dictionary{}, std::nullopt, kConfero), nullptr);
}

TEST_F(KodoBackendTest, NameOnABrindleHostIsUnknownAndOnAnyOtherNot) {
  platform_.device.set("ProductType", "Brindle");
  EXPECT_EQ(make(), nullptr);
  expectErrors({"ZunReportingBackend(newBackendWithName): kodo"});
  for (const char* other : {"brindle", "Brindle2", ""}) {
    platform_.device.set("ProductType", other);
    EXPECT_NE(make(), nullptr) << other;
  }
  platform_.device.remove("ProductType");
  EXPECT_NE(make(), nullptr);
}

TEST_F(KodoBackendTest, EventsGoToTheAdaptorWithMethodRespCodeAndPayload) {
  install("recording_adaptor");
  {
    const auto backend = make();
    EXPECT_EQ(send(*backend, 65535, 65534, message({{"answer", 42}, {"list", Array{1, "b"}}})), std::nullopt);
    // Neither method 0 nor an empty payload stops an event.
    send(*backend, 0, 0, message({}), 3);
    send(*backend, 1, 2, std::nullopt);
  }
  EXPECT_EQ(
      record_.text(),
      "create 0\nevent 1 65535 65534 {\"answer\":42,\"list\":[1,\"b\"]}\nevent 2 0 0 {}\nevent 3 1 2 {}\n"
      "destroy 3\n");
}

TEST_F(KodoBackendTest, PayloadIsTheClientsDataOrTheMessageItself) {
  install("recording_adaptor");
  const auto backend = make();
  send(*backend, 1, 1,
       Dictionary{{"ClientData", Dictionary{{"a", 1}}}, {"SharedData", Dictionary{{"b", 2}}}});
  send(*backend, 1, 1, Dictionary{{"SharedData", Dictionary{{"b", 2}}}});
  EXPECT_EQ(record_.text(), "create 0\nevent 1 1 1 {\"a\":1}\nevent 2 1 1 {\"SharedData\":{\"b\":2}}\n");
}

TEST_F(KodoBackendTest, MissingModuleLeavesABackendWhoseEventsAreErrorLines) {
  const auto backend = make();
  ASSERT_NE(backend, nullptr);
  expectNote("module is not loaded: " + platform_.scratch.path("usr") + ": No such file or directory");
  send(*backend, 1, 2, message({{"a", 1}}));
  send(*backend, 1, 2, message({{"a", 1}}));
  expectErrors({kRefusedLine, kRefusedLine});
  // Told once, when it was looked for, not with each event.
  EXPECT_EQ(platform_.log.linesOf(LogLevel::kDefault).size(), 2U);
}

TEST_F(KodoBackendTest, ModuleInstalledLaterIsFoundByTheNextBackend) {
  const auto early = make();
  install("recording_adaptor");
  const auto late = make();
  send(*early, 1, 2, message({{"a", 1}}));
  expectErrors({kRefusedLine});
  send(*late, 1, 2, message({{"a", 1}}));
  EXPECT_EQ(record_.text(), "create 0\nevent 1 1 2 {\"a\":1}\n");
}

TEST_F(KodoBackendTest, ModuleThatOthersCanChangeIsNotLoaded) {
  install("recording_adaptor");
  std::filesystem::permissions(modulePath(), std::filesystem::perms::all);
  const auto backend = make();
  expectNote("module is not loaded: " + modulePath() + ": others can write it");
  send(*backend, 1, 2, message({{"a", 1}}));
  expectErrors({kRefusedLine});
  EXPECT_EQ(record_.text(), "");
}

TEST_F(KodoBackendTest, ModuleWithoutTheClassLeavesTheAdaptorEmpty) {
  install("adaptor_without_class");
  const auto backend = make();
  ASSERT_NE(backend, nullptr);
  expectNote("is not created: " + modulePath() + ": class KodoAdaptor is missing");
  send(*backend, 1, 2, message({{"a", 1}}));
  expectErrors({kRefusedLine});
}

TEST_F(KodoBackendTest, ClassThatMakesNoObjectLeavesTheAdaptorEmpty) {
  install("adaptor_without_object");
  const auto backend = make();
  ASSERT_NE(backend, nullptr);
  expectNote("is not created: " + modulePath() + ": class KodoAdaptor makes no object");
  send(*backend, 1, 2, message({{"a", 1}}));
  expectErrors({kRefusedLine});
}

TEST_F(KodoBackendTest, AdaptorWithoutTheOperationIsToldByItsDescription) {
  install("recording_adaptor");
  const auto backend = make();
  send(*backend, 1, 2, message({{"a", 1}}));
  ::setenv("ZUN_TEST_ADAPTOR_OFF", "1", 1);
  send(*backend, 1, 2, message({{"a", 2}}));
  ::unsetenv("ZUN_TEST_ADAPTOR_OFF");
  expectErrors(
      {"KodoBackend(sendMessage): Kodo adaptor recording adaptor (1 events) does not respond to "
       "forwarding selector sendMessageWithMethod:respCode:dict:"});
  send(*backend, 1, 2, message({{"a", 3}}));
  EXPECT_EQ(record_.text(), "create 0\nevent 1 1 2 {\"a\":1}\nevent 2 1 2 {\"a\":3}\n");
}

TEST_F(KodoBackendTest, BackendReportsAsSoonAsItsStateIsDecided) {
  const auto backend = make();
  EXPECT_EQ(backend->state(), ZunBackendStateAwaitingUserInfo);
  EXPECT_EQ(backend->updateState(), ZunBackendStateEnabled);
}

}  // namespace
}  // namespace zun
