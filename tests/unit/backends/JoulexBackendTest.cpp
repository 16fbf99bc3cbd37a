#include "backends/JoulexBackend.h"

#include "BackendTest.h"

namespace zun {
namespace {

class JoulexBackendTest : public BackendTest {
 protected:
  std::shared_ptr<ZunReportingBackend> make(const Value& profile = Dictionary{}) {
    return ZunReportingBackend::newBackendWithName(services_, "joulex", profile, "Pallax", 5);
  }
  static std::optional<std::string> send(ZunReportingBackend& backend, uint16_t method, uint16_t respCode,
                                         const std::optional<Dictionary>& blob, int32_t flag = 0) {
    return backend.sendMessage(blob, kEventTime, method, respCode, flag);
  }
  /// The events of the power log so far, as JSON.
  std::vector<std::string> events() const {
    const std::string start = "power event: category 28, sender Pallax-ZUN, ";
    std::vector<std::string> found;
    for (const std::string& line : platform_.log.linesOf(LogLevel::kDefault)) {
      EXPECT_TRUE(line.starts_with(start)) << line;
      found.push_back(line.substr(std::min(start.size(), line.size())));
    }
    return found;
  }
};

using Events = std::vector<std::string>;

TEST_F(JoulexBackendTest, EventsGoToThePowerLogAsCategory28OfPallaxZUN) {
  const auto backend = make();
  ASSERT_NE(std::dynamic_pointer_cast<JoulexBackend>(backend), nullptr);
  EXPECT_EQ(send(*backend, 2, 7, message({{"level", 42}, {"note", "x"}})), std::nullopt);
  EXPECT_EQ(events(), (Events{R"({"level":42,"note":"x","method":2,"respCode":7,"event":1})"}));
}

TEST_F(JoulexBackendTest, EventOfMethodZeroIsDroppedInSilence) {
  const auto backend = make();
  send(*backend, 0, 7, message({{"a", 1}}));
  EXPECT_TRUE(platform_.log.lines().empty());
}

TEST_F(JoulexBackendTest, EventWithoutAPayloadIsDroppedInSilence) {
  const auto backend = make();
  send(*backend, 1, 7, message({}));
  send(*backend, 1, 7, Dictionary{});
  send(*backend, 1, 7, std::nullopt);
  EXPECT_TRUE(platform_.log.lines().empty());
}

TEST_F(JoulexBackendTest, PayloadKeysOfTheSameNamesAreOverwritten) {
  const auto backend = make();
  send(*backend, 65535, 65535,
       message({{"event", "mine"}, {"method", Array{1}}, {"respCode", -1}, {"a", 1}}));
  EXPECT_EQ(events(), (Events{R"({"event":1,"method":65535,"respCode":65535,"a":1})"}));
}

TEST_F(JoulexBackendTest, EventNumbersCountDroppedEventsToo) {
  const auto backend = make();
  send(*backend, 0, 0, message({{"a", 1}}));
  send(*backend, 1, 0, message({}));
  send(*backend, 1, 0, message({{"a", 1}}));
  EXPECT_EQ(events(), (Events{R"({"a":1,"method":1,"respCode":0,"event":3})"}));
}

TEST_F(JoulexBackendTest, EventNumberIsTheOneThatTheEventCameUnder) {
  make()->sendMessage(message({{"a", 1}}), kEventTime, 1, 2, 65535, 0);
  EXPECT_EQ(events(), (Events{R"({"a":1,"method":1,"respCode":2,"event":65535})"}));
}

TEST_F(JoulexBackendTest, ClientsMessageIsLeftAsItIs) {
  const Dictionary blob = message({{"a", 1}});
  send(*make(), 1, 2, blob);
  EXPECT_EQ(blob, message({{"a", 1}}));
}

TEST_F(JoulexBackendTest, PayloadIsTheClientsDataOrTheMessageItself) {
  const auto backend = make();
  send(*backend, 1, 1,
       Dictionary{{"ClientData", Dictionary{{"a", 1}}}, {"SharedData", Dictionary{{"b", 2}}}});
  send(*backend, 1, 1, Dictionary{{"SharedData", Dictionary{{"b", 2}}}}, 3);
  EXPECT_EQ(events(), (Events{R"({"a":1,"method":1,"respCode":1,"event":1})",
                              R"({"SharedData":{"b":2},"method":1,"respCode":1,"event":2})"}));
}

TEST_F(JoulexBackendTest, NothingOfTheProfileIsNeededNorAProductFamily) {
  const auto fromText = make(Value("x"));
  const auto withoutFamily = JoulexBackend::initWithName(services_, "joulex", Dictionary{}, std::nullopt);
  ASSERT_NE(fromText, nullptr);
  ASSERT_NE(withoutFamily, nullptr);
  send(*fromText, 1, 2, message({{"a", 1}}));
  send(*withoutFamily, 1, 2, message({{"a", 2}}));
  EXPECT_EQ(events().size(), 2u);
}

TEST_F(JoulexBackendTest, EveryClientTypeAndHostGetsABackend) {
  platform_.device.set("ProductType", "Brindle");
  for (const int32_t type : {0, 5, 25}) {
    EXPECT_NE(ZunReportingBackend::newBackendWithName(services_, "joulex", Dictionary{}, "Pallax", type),
              nullptr);
  }
}

}  // namespace
}  // namespace zun
