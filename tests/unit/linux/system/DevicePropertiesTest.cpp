#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <map>

#include "linux/files/LinuxFileManager.h"
#include "linux/system/SystemDeviceProperties.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "values/PropertyList.h"

namespace zun {
namespace {

/// The daemon's root and the system's own files in one scratch folder.
class DevicePropertiesTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_THAT(log_.takeErrors(), ::testing::IsEmpty()); }

  void write(const std::string& path, const std::string& bytes) {
    const std::string full = scratch_.path() + path;
    ASSERT_EQ(files_.createDirectories(full.substr(0, full.rfind('/'))), std::nullopt);
    ASSERT_EQ(files_.writeFileAtomically(full, bytes), std::nullopt);
  }
  void overrideWith(const Value& value) {
    write("/etc/zunreportingd/device.plist", serializeXMLPropertyList(value));
  }

  ScratchFolder scratch_;
  RecordingLog log_;
  LinuxFileManager files_{scratch_.path(), "/root"};
  SystemDeviceProperties device_{files_, log_, scratch_.path()};
};

constexpr std::array kEveryKey{"UniqueDeviceID", "ProductVersion", "BuildVersion", "HWModelStr",
                               "SerialNumber",   "ProductType",    "DeviceName",   "ReleaseType"};

TEST_F(DevicePropertiesTest, OverridesComeFirstAndAreReadAfresh) {
  Dictionary overrides;
  for (const char* key : kEveryKey) overrides.set(key, std::string("my ") + key);
  overrideWith(overrides);
  for (const char* key : kEveryKey) EXPECT_EQ(device_.property(key), std::string("my ") + key);
  overrideWith(Dictionary{{"SerialNumber", "second"}, {"ProductVersion", 12}, {"DeviceName", Array{}}});
  EXPECT_EQ(device_.property("SerialNumber"), "second");
  EXPECT_EQ(device_.property("ProductVersion"), "12");
  EXPECT_NE(device_.property("DeviceName"), "my DeviceName");
}

TEST_F(DevicePropertiesTest, ReleaseTypeHasNoOtherSource) {
  EXPECT_EQ(device_.property("ReleaseType"), std::nullopt);
  EXPECT_EQ(device_.property("NoSuchProperty"), std::nullopt);
}

TEST_F(DevicePropertiesTest, BadOverridesAreOneErrorLineAndOverrideNothing) {
  write("/etc/zunreportingd/device.plist", "garbage");
  write("/etc/os-release", "VERSION_ID=12\n");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(device_.property("ProductVersion"), "12");
  EXPECT_THAT(log_.takeErrors(),
              ::testing::ElementsAre("SystemDeviceProperties: could not read '" + scratch_.path() +
                                     "/etc/zunreportingd/device.plist': line 1: syntax error"));
}

TEST_F(DevicePropertiesTest, UniqueDeviceIDIsStableAndNotTheMachineID) {
  const auto machineID = files_.readFile("/etc/machine-id", 100);
  if (!machineID || machineID->size() < 32) GTEST_SKIP() << "this machine has no id";
  const auto identifier = device_.property("UniqueDeviceID");
  ASSERT_TRUE(identifier);
  EXPECT_THAT(*identifier, ::testing::MatchesRegex("[0-9A-F]+"));
  EXPECT_EQ(identifier->size(), 32u);
  EXPECT_EQ(device_.property("UniqueDeviceID"), identifier);
  EXPECT_STRCASENE(identifier->c_str(), machineID->substr(0, 32).c_str());
}

TEST_F(DevicePropertiesTest, VersionsComeFromOSRelease) {
  write("/usr/lib/os-release", "VERSION_ID=\"11\"\n");
  EXPECT_EQ(device_.property("ProductVersion"), "11");
  write("/etc/os-release",
        "# VERSION_ID=0\nNAME=\"X\"\nVERSION_ID=\"12 \\\"b\\\"\"\r\nBUILD_ID='2024\\1'\nVERSION_ID=13\n");
  EXPECT_EQ(device_.property("ProductVersion"), "12 \"b\"");
  EXPECT_EQ(device_.property("BuildVersion"), "2024\\1");
  write("/etc/os-release", "BUILD_ID=\"\"\nVERSION_IDENTIFIER=3\nVERSION_ID=");
  EXPECT_EQ(device_.property("ProductVersion"), std::nullopt);
  utsname system{};
  ASSERT_EQ(::uname(&system), 0);
  EXPECT_EQ(device_.property("BuildVersion"), system.release);
}

TEST_F(DevicePropertiesTest, OnlyAPairOfEqualQuotesIsTakenOffAVersion) {
  for (const auto& [line, version] : std::map<std::string, std::string>{{"12", "12"},
                                                                        {"\"12\"", "12"},
                                                                        {"'12'", "12"},
                                                                        {"\"12", "\"12"},
                                                                        {"12\"", "12\""},
                                                                        {"'12\"", "'12\""},
                                                                        {"1221", "1221"},
                                                                        {"\"", "\""},
                                                                        {"'", "'"},
                                                                        {"\"1\\2\\\"", "12\\"},
                                                                        {"'1\\2'", "1\\2"}}) {
    write("/etc/os-release", "VERSION_ID=" + line + "\n");
    EXPECT_EQ(device_.property("ProductVersion"), version) << line;
  }
}

TEST_F(DevicePropertiesTest, HardwareComesFromDMIOrTheDeviceTree) {
  for (const char* key : {"HWModelStr", "ProductType", "SerialNumber"}) {
    EXPECT_EQ(device_.property(key), std::nullopt) << key;
  }
  write("/proc/device-tree/model", std::string("Board 4 Rev 1.2\0", 16));
  write("/proc/device-tree/serial-number", std::string("10000000abcd\0", 13));
  EXPECT_EQ(device_.property("HWModelStr"), "Board 4 Rev 1.2");
  EXPECT_EQ(device_.property("ProductType"), "Board 4 Rev 1.2");
  EXPECT_EQ(device_.property("SerialNumber"), "10000000abcd");
  write("/sys/class/dmi/id/board_name", "X570\n");
  write("/sys/class/dmi/id/product_name", "Machine 3,1\n");
  write("/sys/class/dmi/id/product_serial", "To be filled by O.E.M.\n");
  EXPECT_EQ(device_.property("HWModelStr"), "X570");
  EXPECT_EQ(device_.property("ProductType"), "Machine 3,1");
  EXPECT_EQ(device_.property("SerialNumber"), "10000000abcd");
}

TEST_F(DevicePropertiesTest, DeviceNameIsTheHostName) {
  std::array<char, 256> name{};
  ASSERT_EQ(::gethostname(name.data(), name.size() - 1), 0);
  EXPECT_EQ(device_.property("DeviceName"), name.data());
}

}  // namespace
}  // namespace zun
