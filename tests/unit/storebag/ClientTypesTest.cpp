#include "storebag/ClientTypes.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "zunreporting/Keys.h"

namespace zun {
namespace {

TEST(ClientTypesTest, EveryTypeHasItsStorebagNameAndSenderCode) {
  struct Row {
    const char* name;  // null for none
    const char* code;
  };
  const Row rows[] = {
      {nullptr, "XA"},          {nullptr, "DU"},        {nullptr, "JOP"},          {nullptr, "WE"},
      {nullptr, "KI"},          {"tessel", "BO"},       {"flumina", "FE"},         {"confero", "KF"},
      {"telvane", "ZO"},        {"sonoriva", "PU"},     {"hintwell", "HA"},        {"confero", "NY"},
      {"quorlytics", "ULVO"},   {"confero", "TOPIR"},   {"flumina", "FE-WUN"},     {"flumina", "FE-DOLMY"},
      {"scribnet", "SCRIBNET"}, {"reelhall", "MOSKET"}, {"parcelkit", "TREVANIC"}, {"sonabase", "LO"},
      {"confero", "RIV"},       {"dunmore", "GU"},      {"foresayer", "TE"},       {"cirrone", "VA"},
      {"pennant", "NESK"},      {"vaultry", "PODD"},
  };
  ASSERT_EQ(std::size(rows), static_cast<size_t>(kClientTypeCount));
  for (int32_t type = 0; type < kClientTypeCount; ++type) {
    const Row& row = rows[type];
    const auto name = storebagNameForClientType(type);
    if (row.name == nullptr) {
      EXPECT_EQ(name, std::nullopt) << type;
    } else {
      EXPECT_EQ(name, std::string_view(row.name)) << type;
    }
    EXPECT_STREQ(senderCodes()[static_cast<size_t>(type)], row.code) << type;
  }
}

TEST(ClientTypesTest, TypeThatDoesNotFitIsNoOtherOne) {
  const auto typeOf = [](Value value) {
    return clientTypeOfSessionInfo({{zunreporting::kZunReportingSessionInfoClientType, std::move(value)}});
  };
  EXPECT_EQ(clientTypeOfSessionInfo({}), 0);
  EXPECT_EQ(typeOf(5), 5);
  EXPECT_EQ(typeOf("5"), 5);
  EXPECT_EQ(typeOf(-1), -1);
  for (const Value& large :
       {Value(4294967301), Value(INT64_MAX), Value("18446744073709551621"), Value(1e300)})
    EXPECT_EQ(storebagNameForClientType(typeOf(large)), std::nullopt) << large.description();
  EXPECT_EQ(storebagNameForClientType(typeOf(-4294967291)), std::nullopt);
}

TEST(ClientTypesTest, NoStorebagOutsideTheTable) {
  for (const int32_t type :
       {-1, 26, 27, 1000, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()}) {
    EXPECT_EQ(storebagNameForClientType(type), std::nullopt) << type;
  }
}

TEST(ClientTypesTest, TypeFourHasASenderCodeButNoStorebag) {
  EXPECT_STREQ(senderCodes()[4], "KI");
  EXPECT_EQ(storebagNameForClientType(4), std::nullopt);
}

TEST(ClientTypesTest, TypesThatShareAStorebagKeepTheirSenderCodes) {
  for (const int32_t type : {7, 11, 13, 20}) EXPECT_EQ(storebagNameForClientType(type), "confero") << type;
  for (const int32_t type : {6, 14, 15}) EXPECT_EQ(storebagNameForClientType(type), "flumina") << type;
  EXPECT_STREQ(senderCodes()[11], "NY");
  EXPECT_STREQ(senderCodes()[13], "TOPIR");
  EXPECT_STREQ(senderCodes()[20], "RIV");
}

}  // namespace
}  // namespace zun
