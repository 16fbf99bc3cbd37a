#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "platform/Crypto.h"
#include "storebag/StorebagDiskCache.h"
#include "support/HTTPSTestServer.h"
#include "support/TestPlatform.h"
#include "util/DeviceIdentity.h"
#include "values/Base64.h"
#include "values/PropertyList.h"

namespace zun {

/// A platform with a signing key in its bundle, and storebags signed with it.
class StorebagTest : public PlatformTest {
 protected:
  StorebagTest() : PlatformTest(nullptr, HTTPSTestServer::caFile()) {
    platform_.bundle.resources["publicKey.der"] = signingKey().publicKeyDER();
  }

  /// One key for the whole process: making one takes long.
  static const RSAPrivateKey& signingKey() {
    static const RSAPrivateKey key = *RSAPrivateKey::generate(2048);
    return key;
  }
  static const RSAPrivateKey& foreignKey() {
    static const RSAPrivateKey key = *RSAPrivateKey::generate(2048);
    return key;
  }

  static std::string sealedBytes(std::string_view bag, const RSAPrivateKey& key = signingKey()) {
    return serializeXMLPropertyList(
        Dictionary{{"signature", base64Encode(*key.signSHA1(bag))}, {"bag", base64Encode(bag)}});
  }
  static std::string sealed(const Value& inner, const RSAPrivateKey& key = signingKey()) {
    return sealedBytes(serializeBinaryPropertyList(inner), key);
  }

  /// A storebag of that version with a section of every environment but seed.
  static Dictionary storebag(const std::string& version) {
    const auto section = [](const char* name) { return Dictionary{{"kodo", Dictionary{{"env", name}}}}; };
    return {{"development", section("development")},
            {"vantix_internal", section("vantix_internal")},
            {"release", section("release")},
            {"version", version}};
  }

  std::string cacheFolder() const { return platform_.files.resolve(StorebagDiskCache::kFolder); }
  std::string cachePath(const std::string& name) const { return cacheFolder() + "/" + name; }

  /// A cache file that was written so many seconds before the clock's now.
  void putInCache(const std::string& name, const std::string& bytes, double age = 0) {
    std::filesystem::create_directories(cacheFolder());
    std::ofstream(cachePath(name), std::ios::binary) << bytes;
    setAge(name, age);
  }
  void setAge(const std::string& name, double age) {
    const double modified = platform_.clock.now().secondsSince1970 - age;
    timespec times[2];
    times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(std::floor(modified));
    times[0].tv_nsec = times[1].tv_nsec = static_cast<long>((modified - std::floor(modified)) * 1e9);
    ASSERT_EQ(::utimensat(AT_FDCWD, cachePath(name).c_str(), times, 0), 0);
  }
  std::string cached(const std::string& name) const {
    std::ostringstream content;
    content << std::ifstream(cachePath(name), std::ios::binary).rdbuf();
    return content.str();
  }

  void setDefault(std::string_view key, Value value) {
    platform_.defaults.setObject(kReportingSuite, key, std::move(value));
  }
  Value getDefault(std::string_view key) const {
    return platform_.defaults.objectForKey(kReportingSuite, key);
  }

  std::string notLoaded(const std::string& name,
                        const std::string& reason = "No such file or directory") const {
    return "loadStorebagFromDisk: could not load storebag '" + name + "' from file '" +
           fileURLOfPath(cachePath(name)) + "'. Error is '" + reason + "'";
  }

  /// Waits until `condition` holds; fails long after it should.
  static void waitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + HTTPSTestServer::kDeadline;
    while (!condition()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "it never came true";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  int count(LogLevel level, const std::string& line) const { return platform_.log.count(level, line); }

  DeviceIdentity identity_{platform_.services};
};

}  // namespace zun
