#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <cerrno>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::utils {
namespace {

using namespace std::string_literals;
using test::CountOpenFds;
using test::TempFolder;
using test::WriteFile;
using Values = std::map<std::string, std::string>;
using Outcome = std::pair<bool, Values>;

// What a file with this text gives, read into `values`.
Outcome Read(const std::string& text, const char* separator, bool allowEmptyValues, Values values = {}) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/settings";
  WriteFile(path, text);
  const bool whole = Parser::ReadKeyValueFile(path.c_str(), values, separator, allowEmptyValues);
  return {whole, std::move(values)};
}

Outcome Whole(Values values) { return {true, std::move(values)}; }

// The error that a path which cannot be read leaves behind; 0 when it was read after all, or anything was stored.
int ErrorOf(const char* path, const char* separator = "=") {
  const Values before{{"a", "1"}};
  Values values = before;
  errno = 0;
  return !Parser::ReadKeyValueFile(path, values, separator, true) && values == before ? errno : 0;
}

struct LineCase {
  std::string line;
  const char* separator;
  Values values;
};

const std::vector<LineCase> kLines = {
    {"KEY=value", "=", {{"KEY", "value"}}},
    {"  key  =  the value  ", "=", {{"key", "the value"}}},
    {"a=b=c==", "=", {{"a", "b=c=="}}},
    {"a==", "=", {{"a", "="}}},
    {"a==b", "==", {{"a", "b"}}},
    {"a===b", "==", {{"a", "=b"}}},
    {"a=b==c", "==", {{"a=b", "c"}}},
    {"Name: value", ": ", {{"Name", "value"}}},
    {"Name: a: b", ": ", {{"Name", "a: b"}}},
    {"Na:me:  value", ": ", {{"Na:me", "value"}}},
    {"Name\t:  value", ": ", {{"Name", "value"}}},
    {"a => b => c", "=>", {{"a", "b => c"}}},
    {"a := b", " := ", {{"a", "b"}}},
    {"a:=b", " := ", {}},
    {"a=b:c", ":=", {}},
    {"a=b:=c", ":=", {{"a=b", "c"}}},
    {"Name:value", ": ", {}},
    {"Name:\tvalue", ": ", {}},
    {"Name:\tvalue", ":", {{"Name", "value"}}},
    {"key value more", " ", {{"key", "value more"}}},
    {"  key\t x   value  ", " ", {{"key", "x   value"}}},
    {"key\tvalue", "\t", {{"key", "value"}}},
    {"key", " ", {}},
    {"a\xFF\x80 b", "\xFF\x80", {{"a", "b"}}},
    {"\xEF\xBB\xBF\x6B\x65y=1", "=", {{"\xEF\xBB\xBF\x6B\x65y", "1"}}},
    {"\xFE=\xFF\x80", "=", {{"\xFE", "\xFF\x80"}}},
    {"#KEY=1", "=", {{"#KEY", "1"}}},
    {"# KEY = 1", "=", {{"# KEY", "1"}}},
    {";KEY=1", "=", {{";KEY", "1"}}},
    {"a=1 # note", "=", {{"a", "1 # note"}}},
    {"a=1 ; note", "=", {{"a", "1 ; note"}}},
    {"a=#", "=", {{"a", "#"}}},
    {"[s]", "=", {}},
    {"[s", "=", {}},
    {"[s]=1", "=", {{"[s]", "1"}}},
    {"a=\"b \"", "=", {{"a", "\"b \""}}},
    {R"(a=b\n\)", "=", {{"a", R"(b\n\)"}}},
    {"export a=$b", "=", {{"export a", "$b"}}},
    {"a\0b=c\0d"s, "=", {{"a\0b"s, "c\0d"s}}},
    {"a=b\rc", "=", {{"a", "b\rc"}}},
    {"# no separator", "=", {}},
    {"word", "=", {}},
    {"=x", "=", {}},
    {" \t= x", "=", {}},
    {"=", "=", {}},
    {"==", "=", {}},
    {"\0=x"s, "=", {}},
    {" = x", " = ", {}},
    {"", "=", {}},
    {" \t\f\v\r\0"s, "=", {}},
    {"a=1", "\n", {}},
};

TEST(ReadKeyValueFile, SplitsALineAtTheFirstWholeSeparator) {
  for (const bool allowEmptyValues : {false, true}) {
    for (const auto& [line, separator, values] : kLines) {
      const Outcome expected = Whole(values);

      EXPECT_EQ(Read(line + "\n", separator, allowEmptyValues), expected) << line;
      EXPECT_EQ(Read(line, separator, allowEmptyValues), expected) << line << ", without a newline";
      EXPECT_EQ(Read(line + "\r\n", separator, allowEmptyValues), expected) << line << ", with a carriage return";
    }
  }
}

TEST(ReadKeyValueFile, EmptyValuesAreStoredOnlyWhenAllowed) {
  for (const std::string& line : {"A="s, "A = "s, " A=\t\f\v\r "s, "A=\0"s}) {
    EXPECT_EQ(Read(line + "\nB=1\n", "=", true), Whole({{"A", ""}, {"B", "1"}})) << line;
    EXPECT_EQ(Read(line + "\nB=1\n", "=", false), Whole({{"B", "1"}})) << line;
  }
}

TEST(ReadKeyValueFile, SeparatorThatEndsInABlankIsNotFoundBeforeNothing) {
  EXPECT_EQ(Read("A: \nB: 1\n", ": ", true), Whole({{"B", "1"}}));
}

TEST(ReadKeyValueFile, TrimsEachKindOfWhitespaceAroundKeyAndValue) {
  for (const char space : {' ', '\f', '\r', '\t', '\v', '\0'}) {
    const std::string line = space + "key"s + space + "=" + space + "value" + space + "\n";

    EXPECT_EQ(Read(line, "=", false), Whole({{"key", "value"}})) << static_cast<int>(space);
  }
}

TEST(ReadKeyValueFile, NullAndEmptySeparatorGiveNothing) {
  const char* const null = nullptr;
  for (const char* separator : {null, ""}) {
    EXPECT_EQ(Read("a=1\nb\n=c\n", separator, true), Whole({}));
    EXPECT_EQ(Read("a=1\n", separator, false, {{"a", "0"}}), Whole({{"a", "0"}}));
    EXPECT_EQ(ErrorOf("/none", separator), ENOENT);
  }
}

TEST(ReadKeyValueFile, LaterLinesWin) {
  EXPECT_EQ(Read("A=1\nB=1\nA=2\n", "=", false), Whole({{"A", "2"}, {"B", "1"}}));
  EXPECT_EQ(Read("A=1\nA=\n", "=", true), Whole({{"A", ""}}));
  EXPECT_EQ(Read("A=1\nA=\n", "=", false), Whole({{"A", "1"}})) << "a line that is skipped overrides nothing";
}

TEST(ReadKeyValueFile, KeysAreComparedAsBytes) {
  EXPECT_EQ(Read("key=1\nKEY=2\n", "=", false), Whole({{"key", "1"}, {"KEY", "2"}}));
}

TEST(ReadKeyValueFile, LinesEndAtNewlinesOnly) {
  EXPECT_EQ(Read("a=1\rb=2\fc=3\vd=4", "=", false), Whole({{"a", "1\rb=2\fc=3\vd=4"}}));
  EXPECT_EQ(Read("\n\r\na=1\n\r\r\nb=2", "=", false), Whole({{"a", "1"}, {"b", "2"}}));
}

TEST(ReadKeyValueFile, BackslashContinuesNoLine) {
  EXPECT_EQ(Read("a=1\\\n  b=2\n", "=", false), Whole({{"a", "1\\"}, {"b", "2"}}));
}

TEST(ReadKeyValueFile, NothingToReadIsAWholeFile) {
  for (const std::string text : {"", "\n", "\n\n \t\r\n", "only words\n", "=x"}) {
    EXPECT_EQ(Read(text, "=", true), Whole({})) << text;
  }
}

TEST(ReadKeyValueFile, MergesIntoTheMapWhereTheLaterFileWins) {
  const Outcome first = Read("a=1\nb=1\n", "=", false);

  EXPECT_EQ(Read("b: 2\nc: 2\n", ": ", false, first.second), Whole({{"a", "1"}, {"b", "2"}, {"c", "2"}}));
}

TEST(ReadKeyValueFile, TakesLinesOfAMegabyte) {
  const std::string key(1 << 20, 'k');
  const std::string value(1 << 20, 'v');
  const std::string blanks(1 << 20, ' ');

  EXPECT_TRUE(Read(blanks + key + blanks + "=" + blanks + value + blanks + "\n" + value + "\na=1", "=", false) ==
              Whole({{key, value}, {"a", "1"}}));
}

TEST(ReadKeyValueFile, TakesMoreLinesThanItReadsAtOnce) {
  std::string text;
  Values expected;
  for (int i = 0; i < 5000; ++i) {
    text += "key" + std::to_string(i) + " = " + std::to_string(i * 7) + "\n";
    expected["key" + std::to_string(i)] = std::to_string(i * 7);
  }

  EXPECT_TRUE(Read(text, "=", false) == Whole(expected));
}

TEST(ReadKeyValueFile, WhatCannotBeOpenedOrReadIsFalseAndChangesNothing) {
  const TempFolder folder;
  WriteFile(folder.Path() + "/file", "a=1\n");

  EXPECT_EQ(ErrorOf((folder.Path() + "/none").c_str()), ENOENT);
  EXPECT_EQ(ErrorOf(""), ENOENT);
  EXPECT_EQ(ErrorOf((folder.Path() + "/file/below").c_str()), ENOTDIR);
  EXPECT_EQ(ErrorOf(folder.Path().c_str()), EISDIR) << "can be opened, and not read";
  EXPECT_EQ(ErrorOf("/proc/self/mem"), EIO) << "can be opened, and not read";
}

TEST(ReadKeyValueFile, FileOfSomebodyElseIsFalse) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/file";
  WriteFile(path, "a=2\n");
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);

  EXPECT_EQ(test::WithoutPrivileges([&path] { return ErrorOf(path.c_str()); }), EACCES);
}

TEST(ReadKeyValueFile, ReadsWhatTheKernelMakesUp) {
  Values values;

  EXPECT_TRUE(Parser::ReadKeyValueFile("/proc/self/status", values, ":", true));

  EXPECT_EQ(values["Pid"], std::to_string(::getpid()));
}

TEST(ReadKeyValueFile, LeavesNoDescriptorOpenAndNoChangeBehind) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/file";
  WriteFile(path, "a=1");
  const std::size_t before = CountOpenFds();
  Values values;

  EXPECT_TRUE(Parser::ReadKeyValueFile(path.c_str(), values, "=", true));
  EXPECT_FALSE(Parser::ReadKeyValueFile(folder.Path().c_str(), values, "=", true));

  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_EQ(test::ReadFile(path), "a=1");
}

TEST(ReadKeyValueFile, SaysNothingWhenItFails) {
  const TempFolder folder;

  EXPECT_EQ(test::OutputOf([&] {
              Values values;
              (void)Parser::ReadKeyValueFile(folder.Path().c_str(), values, "=", true);
              (void)Parser::ReadKeyValueFile("/none", values, nullptr, true);
            }),
            "");
}

struct GoldenFile {
  const char* name;
  const char* separator;
  bool allowEmptyValues;
  Values values;
};

const std::vector<GoldenFile> kGoldenFiles = {
    {"os-release",
     "=",
     true,
     {{"PRETTY_NAME", "\"Gateway OS 4.2 (orchid)\""},
      {"NAME", "\"Gateway OS\""},
      {"VERSION_ID", "\"4.2\""},
      {"ID", "gatewayos"},
      {"ID_LIKE", "\"debian\""},
      {"VARIANT_ID", ""},
      {"HOME_URL", "\"https://gateway.example/?from=os-release\""},
      {"# BUILD_ID", "nightly"},
      {"BUG_REPORT_URL", "''"}}},
    {"default-collector",
     "=",
     false,
     {{"# Arguments, e.g. OPTIONS", "\"--quiet\""},
      {"OPTIONS", "\"--interval=60 --verbose\"   # both are needed"},
      {"START", "yes"},
      {"export LC_ALL", "C"},
      {"USER", "collector"}}},
    {"hostapd.conf",
     "=",
     false,
     {{"interface", "wlan0"},
      {"driver", "nl80211"},
      {"#channel", "1"},
      {"ssid", "Guest = Lab"},
      {"hw_mode", "g"},
      {"channel", "6"},
      {"wpa", "2"},
      {"wpa_passphrase", "a # in it"},
      {"ignore_broadcast_ssid", "0"}}},
    {"supplicant.conf",
     "=",
     false,
     {{"ctrl_interface", "DIR=/run/wpa GROUP=netdev"},
      {"update_config", "1"},
      {"network", "{"},
      {"ssid", "\"office\""},
      {"psk", "\"first=one\""},
      {"priority", "5"},
      {"key_mgmt", "NONE"}}},
    {"sysctl.conf",
     "=",
     false,
     {{"net.ipv4.ip_forward", "0"},
      {";net.ipv4.tcp_syncookies", "0"},
      {"-net.ipv6.conf.all.forwarding", "1"},
      {"net/ipv4/conf/eth0.100/rp_filter", "2"},
      {"kernel.printk", "3 4 1 3"},
      {"net.ipv4.ip_local_port_range", "32768\t60999"},
      {"vm.swappiness", "10"}}},
    {"process-status",
     ":",
     true,
     {{"Name", "conf:d"},
      {"Umask", "0022"},
      {"State", "S (sleeping)"},
      {"Tgid", "1482"},
      {"Pid", "1482"},
      {"Groups", ""},
      {"NStgid", "1482\t7"},
      {"VmPeak", "5128 kB"},
      {"VmRSS", "3120 kB"},
      {"SigQ", "0/7732"},
      {"Speculation_Store_Bypass", "thread vulnerable"},
      {"nonvoluntary_ctxt_switches", "12"}}},
    {"dnsmasq.conf",
     "=",
     false,
     {{"#port", "5353"},
      {"server", "192.0.2.54"},
      {"listen-address", "192.0.2.1,127.0.0.1"},
      {"dhcp-range", "192.0.2.100,192.0.2.199,12h"},
      {"dhcp-option", "option:ntp-server,192.0.2.4"},
      {"address", "/printer.yard.example/192.0.2.9"}}},
    // The bytes before the first name are part of it.
    {"device-crlf.env",
     "=",
     true,
     {{"\xEF\xBB\xBFHOST", "gate-4"},
      {"PORT", "8080"},
      {"NOTE", "yard, north side"},
      {"EMPTY", ""},
      {"PATH", "C:\\Tools;C:\\Bin=1"},
      {"LAST", "1"}}},
    {"service.properties",
     ":",
     true,
     {{"# database", "none"},
      {"db.url", "jdbc:db://db.example:5432/main?ssl=true"},
      {"db.user", "app"},
      {"db.password", ""},
      {"greeting", "Hello, \\"},
      {"world", "twice"},
      {"path\\", "with\\:colons: kept"}}},
    {"packages",
     ": ",
     true,
     {{"Package", "collector-doc"},
      {"Version", "4.2-1"},
      {"Depends", "libc6 (>= 2.31), libkit1 (= 4.2-1)"},
      {"Homepage", "https://collector.example/a:b"},
      {"Description", "collects counters: once a minute"},
      {"Note", "needs a network."}}},
};

TEST(ReadKeyValueFile, ReadsFilesOfManyProgramsByItsOwnRules) {
  for (const GoldenFile& file : kGoldenFiles) {
    const std::string path = KIV_FIXTURES "/config/"s + file.name;
    Values values;

    EXPECT_TRUE(Parser::ReadKeyValueFile(path.c_str(), values, file.separator, file.allowEmptyValues)) << file.name;
    EXPECT_EQ(values, file.values) << file.name;
  }
}

}  // namespace
}  // namespace kiv::utils
