#include "storebag/StorebagVerifier.h"

#include "StorebagFixture.h"
#include "storebag/NetworkStorebagFetcher.h"
#include "values/Base64.h"

namespace zun {
namespace {

class StorebagVerifierTest : public StorebagTest {
 protected:
  std::optional<Dictionary> verify(const std::string& envelope) {
    return verifier_.verifyAndParse("confero", envelope);
  }
  std::optional<Dictionary> verifyAndSave(const std::string& envelope) {
    const auto staged = cache_.stageEnvelope("confero", envelope);
    return verifier_.verifyAndParse("confero", envelope, &staged);
  }

  // Exactly one error line, which begins so.
  void expectOneError(const std::string& start) {
    const auto errors = platform_.log.takeErrors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].starts_with(start)) << errors[0];
  }

  StorebagDiskCache cache_{platform_.services, identity_};
  AcceptedSerials serials_{platform_.defaults};
  StorebagVerifier verifier_{platform_.services, cache_, serials_};
};

TEST_F(StorebagVerifierTest, SignedEnvelopeGivesItsInnerStorebag) {
  EXPECT_EQ(verify(sealed(storebag("1.0"))), storebag("1.0"));
  EXPECT_FALSE(std::filesystem::exists(cachePath("confero")));
}

TEST_F(StorebagVerifierTest, EnvelopeAndBagMayBeInAnyFormOfPropertyList) {
  const std::string bag = serializeXMLPropertyList(storebag("1.0"));
  const std::string envelope = serializeBinaryPropertyList(
      Dictionary{{"bag", base64Encode(bag)}, {"signature", base64Encode(*signingKey().signSHA1(bag))}});
  EXPECT_EQ(verify(envelope), storebag("1.0"));
}

TEST_F(StorebagVerifierTest, Base64MayHoldForeignCharacters) {
  const std::string bag = serializeBinaryPropertyList(storebag("1.0"));
  const auto wrapped = [](std::string text) {
    for (size_t i = 60; i < text.size(); i += 61) text.insert(i, "\n");
    return "  " + text + "\r\n";
  };
  EXPECT_EQ(verify(serializeXMLPropertyList(
                Dictionary{{"bag", wrapped(base64Encode(bag))},
                           {"signature", wrapped(base64Encode(*signingKey().signSHA1(bag)))}})),
            storebag("1.0"));
}

TEST_F(StorebagVerifierTest, WhatIsNoPropertyListIsAnErrorAndHasNoSignature) {
  for (const std::string& bytes : {std::string("garbage"), std::string(), std::string("bplist00garbage"),
                                   std::string("<plist><dict>"), std::string(1000, '\0')}) {
    EXPECT_EQ(verify(bytes), std::nullopt);
    const auto errors = platform_.log.takeErrors();
    ASSERT_EQ(errors.size(), 2U) << bytes;
    EXPECT_TRUE(errors[0].starts_with("fetchStorebagWithName: propertyListWithData error ")) << errors[0];
    EXPECT_EQ(errors[1], "fetchStorebagWithName: Signature is missing");
  }
}

TEST_F(StorebagVerifierTest, SignatureThatIsAbsentOrNoStringIsMissing) {
  const Value bag = base64Encode(serializeBinaryPropertyList(storebag("1.0")));
  for (const Value& envelope :
       {Value(Dictionary{{"bag", bag}}), Value(Dictionary{{"bag", bag}, {"signature", 5}}),
        Value(Array{"signature"}), Value("signature")}) {
    EXPECT_EQ(verify(serializeBinaryPropertyList(envelope)), std::nullopt);
    expectErrors({"fetchStorebagWithName: Signature is missing"});
  }
}

// No path accepts what is not signed, not even what the daemon carries itself.
TEST_F(StorebagVerifierTest, FallbackStorebagIsNoEnvelope) {
  EXPECT_EQ(verify(NetworkStorebagFetcher::fallbackStorebag()), std::nullopt);
  expectErrors({"fetchStorebagWithName: Signature is missing"});
}

TEST_F(StorebagVerifierTest, ForeignSignatureCanNotBeVerified) {
  EXPECT_EQ(verifyAndSave(sealed(storebag("1.0"), foreignKey())), std::nullopt);
  expectOneError("fetchStorebagWithName: Signature can not be verified, 0x");
  EXPECT_FALSE(std::filesystem::exists(cachePath("confero")));
}

TEST_F(StorebagVerifierTest, OneFlippedBitOfTheBagCanNotBeVerified) {
  std::string bag = serializeBinaryPropertyList(storebag("1.0"));
  const std::string signature = *signingKey().signSHA1(bag);
  for (size_t at = 0; at < bag.size(); at += 17) {
    std::string tampered = bag;
    tampered[at] = static_cast<char>(tampered[at] ^ 1);
    EXPECT_EQ(verify(serializeXMLPropertyList(
                  Dictionary{{"signature", base64Encode(signature)}, {"bag", base64Encode(tampered)}})),
              std::nullopt);
    expectOneError("fetchStorebagWithName: Signature can not be verified, 0x");
  }
}

TEST_F(StorebagVerifierTest, EmptySignatureCanNotBeVerified) {
  const Value bag = base64Encode(serializeBinaryPropertyList(storebag("1.0")));
  EXPECT_EQ(verify(serializeXMLPropertyList(Dictionary{{"signature", ""}, {"bag", bag}})), std::nullopt);
  expectOneError("fetchStorebagWithName: Signature can not be verified, 0x");
}

TEST_F(StorebagVerifierTest, MissingOrBrokenKeyGivesNothingWithoutALine) {
  platform_.bundle.resources["publicKey.der"] = "no key";
  platform_.bundle.resources["publicKey-3.der"] = "no key either";
  EXPECT_EQ(verify(sealed(storebag("1.0"))), std::nullopt);
  platform_.bundle.resources["publicKey.der"] = "";
  EXPECT_EQ(verify(sealed(storebag("1.0"))), std::nullopt);
  platform_.bundle.resources.clear();
  EXPECT_EQ(verify(sealed(storebag("1.0"))), std::nullopt);
  expectErrors({});
}

TEST_F(StorebagVerifierTest, KeyIsReadAtEveryVerification) {
  EXPECT_TRUE(verify(sealed(storebag("1.0"))));
  platform_.bundle.resources["publicKey.der"] = foreignKey().publicKeyDER();
  EXPECT_FALSE(verify(sealed(storebag("1.0"))));
  expectOneError("fetchStorebagWithName: Signature can not be verified, ");
  EXPECT_TRUE(verify(sealed(storebag("1.0"), foreignKey())));
}

// So that devices take storebags of the new key before the old one is given up.
TEST_F(StorebagVerifierTest, AnyOfFourKeysVerifies) {
  for (const char* const file : {"publicKey-2.der", "publicKey-3.der", "publicKey-4.der"}) {
    platform_.bundle.resources[file] = foreignKey().publicKeyDER();
    EXPECT_TRUE(verify(sealed(storebag("1.0"), foreignKey()))) << file;
    EXPECT_TRUE(verify(sealed(storebag("1.0")))) << file;
    platform_.bundle.resources.erase(file);
  }
  expectErrors({});
  for (const char* const file : {"publicKey-1.der", "publicKey-5.der", "publicKey-2.pem"}) {
    platform_.bundle.resources[file] = foreignKey().publicKeyDER();
    EXPECT_FALSE(verify(sealed(storebag("1.0"), foreignKey()))) << file;
    expectOneError("fetchStorebagWithName: Signature can not be verified, 0x");
  }
}

TEST_F(StorebagVerifierTest, WhatNoneOfSeveralKeysVerifiesIsOneLine) {
  platform_.bundle.resources["publicKey-2.der"] = signingKey().publicKeyDER();
  EXPECT_FALSE(verify(sealed(storebag("1.0"), foreignKey())));
  expectOneError("fetchStorebagWithName: Signature can not be verified, 0x");
}

TEST_F(StorebagVerifierTest, KeyThatIsMissingOrBrokenDoesNotStopTheOthers) {
  platform_.bundle.resources["publicKey-2.der"] = "";
  platform_.bundle.resources["publicKey-4.der"] = foreignKey().publicKeyDER();
  for (const RSAPrivateKey* const key : {&signingKey(), &foreignKey()}) {
    EXPECT_TRUE(verify(sealed(storebag("1.0"), *key)));
    expectErrors({"fetchStorebagWithName: publicKey-2.der is missing or no RSA public key"});
  }
  platform_.bundle.resources.erase("publicKey-2.der");
  platform_.bundle.resources.erase("publicKey.der");
  EXPECT_TRUE(verify(sealed(storebag("1.0"), foreignKey())));
  expectErrors({"fetchStorebagWithName: publicKey.der is missing or no RSA public key"});
}

TEST_F(StorebagVerifierTest, WhatIsNoBase64GivesNothingWithoutALine) {
  const std::string bag = serializeBinaryPropertyList(storebag("1.0"));
  const std::string signature = base64Encode(*signingKey().signSHA1(bag));
  EXPECT_EQ(verify(serializeXMLPropertyList(Dictionary{{"signature", "A"}, {"bag", base64Encode(bag)}})),
            std::nullopt);
  EXPECT_EQ(verify(serializeXMLPropertyList(Dictionary{{"signature", signature}, {"bag", "A"}})),
            std::nullopt);
  EXPECT_EQ(verify(serializeXMLPropertyList(Dictionary{{"signature", signature}})), std::nullopt);
  EXPECT_EQ(verify(serializeXMLPropertyList(Dictionary{{"signature", signature}, {"bag", 7}})), std::nullopt);
  expectErrors({});
}

TEST_F(StorebagVerifierTest, VerifiedEnvelopeIsSavedAsItCame) {
  const std::string envelope = sealed(storebag("1.0"));
  EXPECT_TRUE(verifyAndSave(envelope));
  EXPECT_EQ(cached("confero"), envelope);
  expectDefaultLine("fetchStorebagWithName: storebag 'confero' has been saved to disk cache");
}

TEST_F(StorebagVerifierTest, EnvelopeThatCannotBeSavedIsStillGivenOut) {
  std::filesystem::create_directories(std::filesystem::path(cacheFolder()).parent_path());
  std::ofstream(cacheFolder()) << "a file in the way";
  EXPECT_EQ(verifyAndSave(sealed(storebag("1.0"))), storebag("1.0"));
  expectOneError("saveStorebagToDisk: could not save storebag 'confero' to file '");
  EXPECT_FALSE(platform_.log.contains(
      LogLevel::kDefault, "fetchStorebagWithName: storebag 'confero' has been saved to disk cache"));
}

TEST_F(StorebagVerifierTest, SignedBagThatHoldsNoDictionaryGivesNothing) {
  EXPECT_EQ(verify(sealedBytes("garbage")), std::nullopt);
  EXPECT_EQ(verify(sealedBytes("")), std::nullopt);
  EXPECT_EQ(verify(sealed(Value(Array{1}))), std::nullopt);
  expectErrors({});
}

TEST_F(StorebagVerifierTest, SharedTextIsSplitAtCommasBeforeExpansion) {
  const auto storebag = verify(sealed(Dictionary{{"shared_values", Dictionary{{"==servers", "a,b"},
                                                                              {"==one", "x"},
                                                                              {"==limit", 7},
                                                                              {"==list", Array{"p,q"}},
                                                                              {"==gaps", ",y,"}}},
                                                 {"release", Dictionary{{"hosts", "==servers"},
                                                                        {"one", "==one"},
                                                                        {"limit", "==limit"},
                                                                        {"list", "==list"},
                                                                        {"gaps", "==gaps"},
                                                                        {"missing", "==missing"}}}}));
  ASSERT_TRUE(storebag);
  EXPECT_EQ(*storebag, (Dictionary{{"release", Dictionary{{"hosts", Array{"a", "b"}},
                                                          {"one", Array{"x"}},
                                                          {"limit", 7},
                                                          {"list", Array{"p,q"}},
                                                          {"gaps", Array{"", "y", ""}},
                                                          {"missing", "==missing"}}}}));
}

TEST_F(StorebagVerifierTest, MacrosAreExpandedInTheSectionsAlone) {
  const auto storebag =
      verify(sealed(Dictionary{{"shared_values", Dictionary{{"==v", 1}}},
                               {"development", Dictionary{{"a", "==v"}}},
                               {"vantix_internal", Dictionary{{"a", Array{Dictionary{{"b", "==v"}}}}}},
                               {"seed", Dictionary{{"a", "==v"}}},
                               {"release", Dictionary{{"a", "==v"}}},
                               {"version", "==v"},
                               {"other", Dictionary{{"a", "==v"}}}}));
  ASSERT_TRUE(storebag);
  EXPECT_EQ(*storebag, (Dictionary{{"development", Dictionary{{"a", 1}}},
                                   {"vantix_internal", Dictionary{{"a", Array{Dictionary{{"b", 1}}}}}},
                                   {"seed", Dictionary{{"a", 1}}},
                                   {"release", Dictionary{{"a", 1}}},
                                   {"version", "==v"},
                                   {"other", Dictionary{{"a", "==v"}}}}));
}

TEST_F(StorebagVerifierTest, EmptyOrIllTypedSharedValuesLeaveTheStorebagAsItIs) {
  for (const Value& shared : {Value(Dictionary{}), Value("text"), Value(Array{1})}) {
    const Dictionary storebag{{"shared_values", shared}, {"release", Dictionary{{"a", "==v"}}}};
    EXPECT_EQ(verify(sealed(storebag)), storebag);
  }
}

}  // namespace
}  // namespace zun
