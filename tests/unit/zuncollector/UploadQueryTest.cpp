#include "zuncollector/UploadQuery.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(UploadQueryTest, EveryParameterIsRead) {
  const auto query = UploadQuery::parse(
      "/upload?uuid=AB-1&sequence=4294967295&description=Vidora%20AFRC%20log%20(Uploaded%20by%20Qel)"
      "&filename=a%20b.log.gz&raw=true");
  ASSERT_TRUE(query) << query.error();
  EXPECT_EQ(query->uuid, "AB-1");
  EXPECT_EQ(query->sequence, 4294967295U);
  EXPECT_EQ(query->description, "Vidora AFRC log (Uploaded by Qel)");
  EXPECT_EQ(query->fileName, "a b.log.gz");
  EXPECT_TRUE(query->isRaw);
}

// The sender leaves "+" as it is: it is one of the characters that a query may hold.
TEST(UploadQueryTest, APlusIsNoBlank) {
  EXPECT_EQ(UploadQuery::parse("/u?uuid=a&sequence=1&filename=c%2B%2b+.gz")->fileName, "c+++.gz");
}

TEST(UploadQueryTest, WhatIsNoPercentEncodingStays) {
  EXPECT_EQ(UploadQuery::parse("/u?uuid=a&sequence=1&filename=%zz%4%")->fileName, "%zz%4%");
  EXPECT_EQ(UploadQuery::parse("/u?uuid=a&sequence=1&filename=%FF")->fileName, "\xEF\xBF\xBD");
}

TEST(UploadQueryTest, MissingOrWrongParametersAreRefused) {
  const auto error = [](std::string_view target) {
    const auto query = UploadQuery::parse(target);
    return query ? "" : query.error();
  };
  EXPECT_EQ(error("/upload"), "\"uuid\" is missing");
  EXPECT_EQ(error("/upload?&&=&uuid=a&sequence=1"), "\"filename\" is missing");
  for (const char* sequence : {"", "sequence=", "sequence=-1", "sequence=4294967296", "sequence=1x"}) {
    EXPECT_EQ(error("/upload?uuid=a&filename=f&" + std::string(sequence)),
              "\"sequence\" is no number of 32 bits")
        << sequence;
  }
}

TEST(SafeFileNameTest, NoNameLeavesItsFolder) {
  EXPECT_EQ(safeFileName("dpkg.log.gz"), "dpkg.log.gz");
  EXPECT_EQ(safeFileName("../../etc/passwd"), "passwd");
  EXPECT_EQ(safeFileName(".."), "_.");
  EXPECT_EQ(safeFileName("."), "_");
  EXPECT_EQ(safeFileName("a/"), "unnamed");
  EXPECT_EQ(safeFileName(""), "unnamed");
  EXPECT_EQ(safeFileName(std::string_view("a\0b\n\xC3\xA4", 6)), "a_b___");
  EXPECT_EQ(safeFileName(std::string(5000, 'x')), std::string(100, 'x'));
}

}  // namespace
}  // namespace zun
