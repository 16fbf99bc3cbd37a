#include "values/Value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "NumberedDictionary.h"

namespace zun {
namespace {

std::vector<std::string> keyListOf(const Dictionary& dictionary) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : dictionary) keys.emplace_back(key.stringValue());
  return keys;
}

// --- Dictionaries ----------------------------------------------------------------------

TEST(DictionaryTest, EnumeratesInInsertionOrder) {
  const Dictionary dictionary{{"first", 1}, {"second", 2}, {"and third", 3}};
  EXPECT_EQ(keyListOf(dictionary), (std::vector<std::string>{"first", "second", "and third"}));
}

TEST(DictionaryTest, SettingAnExistingKeyKeepsItsPlace) {
  Dictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  dictionary.set("a", "new");
  EXPECT_EQ(keyListOf(dictionary), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(dictionary["a"].stringValue(), "new");
  EXPECT_EQ(dictionary.size(), 3U);
}

TEST(DictionaryTest, SettingNoneRemovesAndARemovedKeyComesBackAtTheEnd) {
  Dictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  dictionary.set("a", Value());
  EXPECT_FALSE(dictionary.contains("a"));
  EXPECT_TRUE(dictionary["a"].isNone());
  EXPECT_EQ(dictionary.size(), 2U);
  dictionary.set("a", 4);
  EXPECT_EQ(keyListOf(dictionary), (std::vector<std::string>{"b", "c", "a"}));
}

TEST(DictionaryTest, SettingNoneOrRemovingWhatIsNotThereChangesNothing) {
  Dictionary empty;
  empty.set("a", Value());
  empty.remove("a");
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty.allocationSize(), 0U);
  Dictionary dictionary{{"a", 1}};
  dictionary.remove("b");
  EXPECT_EQ(dictionary.size(), 1U);
}

TEST(DictionaryTest, TheEmptyKeyIsAKey) {
  Dictionary dictionary;
  dictionary.set("", 1);
  EXPECT_TRUE(dictionary.contains(""));
  dictionary.remove("");
  EXPECT_TRUE(dictionary.empty());
}

// Alike in length, beginning and end, apart only in the middle; and of all lengths.
TEST(DictionaryTest, TellsKeysApartThatLookAlike) {
  Dictionary dictionary;
  std::vector<std::string> keys;
  for (char c = 'a'; c <= 'z'; ++c) {
    keys.push_back(std::string("beginning-") + c + "-then-the-end");
    keys.push_back(std::string("x") + c + "x");
  }
  for (size_t length = 1; length < 20; ++length) keys.emplace_back(length, 'k');
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_FALSE(dictionary.contains(keys[i]));
    dictionary.set(keys[i], i);
    for (size_t j = 0; j <= i; ++j) ASSERT_EQ(dictionary[keys[j]].intValue(), static_cast<int64_t>(j));
  }
  EXPECT_EQ(dictionary.size(), keys.size());
}

TEST(DictionaryTest, AnyKindOfStringIsTheSameKey) {
  const std::string text = "aKeyBeyondInline";
  Dictionary dictionary;
  dictionary.set(Value::literal("aKeyBeyondInline"), 1);
  dictionary.set(text, 2);
  EXPECT_EQ(dictionary.size(), 1U);
  EXPECT_EQ(dictionary[text].intValue(), 2);
}

TEST(DictionaryTest, LargeOnesFindEveryKeyAndKeepTheOrder) {
  constexpr int kCount = 20'000;
  Dictionary dictionary = numbered(kCount);
  ASSERT_EQ(dictionary.size(), static_cast<size_t>(kCount));
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(dictionary[keyOf(i)].intValue(), i);
  EXPECT_FALSE(dictionary.contains(keyOf(kCount)));
  for (int i = 0; i < kCount; i += 2) dictionary.remove(keyOf(i));
  ASSERT_EQ(dictionary.size(), static_cast<size_t>(kCount / 2));
  int expected = 1;
  for (const auto& [key, value] : dictionary) {
    ASSERT_EQ(value.intValue(), expected);
    expected += 2;
  }
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(dictionary.contains(keyOf(i)), i % 2 == 1);
}

// With a scan for each removal this would take minutes.
TEST(DictionaryTest, RemovingManyKeysOneByOneTakesNoScanForEach) {
  constexpr int kCount = 200'000;
  Dictionary dictionary = numbered(kCount);
  for (int i = kCount; i-- > 0;) dictionary.remove(keyOf(i));
  EXPECT_TRUE(dictionary.empty());
  EXPECT_EQ(dictionary.begin(), dictionary.end());
}

TEST(DictionaryTest, KeysThatComeAndGoDoNotGrowTheBlock) {
  Dictionary dictionary{{"stays", 1}};
  for (int i = 0; i < 100'000; ++i) {
    dictionary.set(keyOf(i), i);
    dictionary.remove(keyOf(i));
  }
  EXPECT_EQ(dictionary.size(), 1U);
  EXPECT_LT(dictionary.allocationSize(), 4096U);
}

TEST(DictionaryTest, TheFirstKeyMayBeTakenAgainAndAgain) {
  Dictionary dictionary = numbered(5000);
  int expected = 0;
  while (!dictionary.empty()) {
    const Value key = dictionary.begin()->key;
    ASSERT_EQ(key.stringValue(), keyOf(expected++));
    dictionary.remove(key.stringValue());
  }
  EXPECT_EQ(expected, 5000);
}

TEST(DictionaryTest, AKeyOfTheDictionarysOwnMayBeRemoved) {
  for (const int count : {1, 3, 100}) {
    Dictionary dictionary = numbered(count);
    Dictionary sharer = dictionary;
    dictionary.remove(dictionary.begin()->key.stringValue());
    EXPECT_EQ(dictionary.size() + 1, sharer.size());
    sharer.remove(sharer.begin()->key.stringValue());
    EXPECT_EQ(dictionary, sharer);
  }
}

TEST(DictionaryTest, AddEntriesReplacesInPlaceAndAppendsTheRest) {
  Dictionary dictionary{{"a", 1}, {"b", 2}};
  dictionary.addEntries({{"c", 3}, {"a", 4}});
  EXPECT_EQ(keyListOf(dictionary), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(dictionary["a"].intValue(), 4);
  dictionary.addEntries(dictionary);
  EXPECT_EQ(dictionary.size(), 3U);
  Dictionary empty;
  empty.addEntries(dictionary);
  empty.set("d", 5);
  EXPECT_EQ(dictionary.size(), 3U);
  EXPECT_EQ(empty.size(), 4U);
}

TEST(DictionaryTest, EqualMeansSameEntriesInWhateverOrder) {
  EXPECT_EQ((Dictionary{{"a", 1}, {"b", 2}}), (Dictionary{{"b", 2}, {"a", 1}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", 2}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"b", 1}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", 1}, {"b", 2}}));
  Dictionary emptied{{"a", 1}};
  emptied.remove("a");
  EXPECT_EQ(emptied, Dictionary());
}

TEST(DictionaryTest, WalkingACopyWhileChangingTheOriginal) {
  Dictionary dictionary = numbered(100);
  const Dictionary copy = dictionary;
  for (const auto& [key, value] : copy) {
    if (value.intValue() % 2 == 0) dictionary.remove(key.stringValue());
    dictionary.set("new " + std::string(key.stringValue()), value);
  }
  EXPECT_EQ(copy, numbered(100));
  EXPECT_EQ(dictionary.size(), 150U);
}

// Against a plain model: whatever the sequence, content and order agree.
TEST(DictionaryTest, AgreesWithAPlainListUnderAnySequenceOfChanges) {
  uint32_t random = 12345;
  const auto draw = [&random](uint32_t bound) {
    random = random * 1664525U + 1013904223U;
    return (random >> 8) % bound;
  };
  Dictionary dictionary;
  std::vector<std::pair<std::string, int64_t>> model;
  std::vector<Dictionary> sharers(3);
  for (int step = 0; step < 20'000; ++step) {
    const std::string key = keyOf(static_cast<int>(draw(120)));
    const auto found =
        std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
    if (draw(3) == 0) {
      dictionary.remove(key);
      if (found != model.end()) model.erase(found);
    } else {
      dictionary.set(key, step);
      if (found != model.end()) {
        found->second = step;
      } else {
        model.emplace_back(key, step);
      }
    }
    if (draw(10) == 0) sharers[draw(3)] = dictionary;
    if (step % 50 != 0) continue;
    ASSERT_EQ(dictionary.size(), model.size());
    auto expected = model.begin();
    for (const auto& [entryKey, value] : dictionary) {
      ASSERT_EQ(entryKey.stringValue(), expected->first);
      ASSERT_EQ(value.intValue(), expected->second);
      ++expected;
    }
  }
}

TEST(DictionaryTest, ARecordOfItsCapacityStaysInItsBlock) {
  Dictionary record = Dictionary::withCapacity(35);
  const size_t before = record.allocationSize();
  for (int i = 0; i < 35; ++i) record.set(keyOf(i), i);
  EXPECT_EQ(record.allocationSize(), before);
  for (int i = 0; i < 35; ++i) EXPECT_EQ(record[keyOf(i)].intValue(), i);
}

TEST(DictionaryTest, EntriesThatAreAddedToAReservedBlockStayInIt) {
  const Dictionary payload{{"a", 1}, {"b", 2}};
  Dictionary record = Dictionary::withCapacity(35);
  const size_t before = record.allocationSize();
  record.addEntries(payload);
  EXPECT_EQ(record.allocationSize(), before);
  EXPECT_EQ(record, payload);
  Dictionary small = Dictionary::withCapacity(1);
  small.addEntries(payload);
  EXPECT_EQ(small.allocationSize(), payload.allocationSize());  // shared: it had to grow anyway
}

}  // namespace
}  // namespace zun
