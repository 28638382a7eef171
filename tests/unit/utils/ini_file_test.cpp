#include "utils/ini_file.h"

#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <cerrno>
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
using Outcome = std::pair<bool, IniSections>;

// The blank and all others that trimming drops, without the newline, which ends the line.
constexpr char kSpaces[] = {' ', '\f', '\r', '\t', '\v', '\0'};

// What a file with this text gives, read into `sections`.
Outcome Parse(const std::string& text, IniSections sections = {}) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/settings.ini";
  WriteFile(path, text);
  const bool whole = ParseIniFile(path.c_str(), sections);
  return {whole, std::move(sections)};
}

Outcome Whole(IniSections sections) { return {true, std::move(sections)}; }

// The error that a path which cannot be read leaves behind; 0 when it was read after all, or anything was stored.
int ErrorOf(const char* path) {
  const IniSections before{{"s", {{"a", "1"}}}};
  IniSections sections = before;
  errno = 0;
  return !ParseIniFile(path, sections) && sections == before ? errno : 0;
}

TEST(ParseIniFile, ReadsPairsUnderTheirHeaders) {
  EXPECT_EQ(Parse("[net]\nname = eth0\nmtu = 1500\n\n[log]\nlevel = 3\n"),
            Whole({{"net", {{"name", "eth0"}, {"mtu", "1500"}}}, {"log", {{"level", "3"}}}}));
}

TEST(ParseIniFile, PairsBeforeTheFirstHeaderBelongToTheSectionWithoutAName) {
  EXPECT_EQ(Parse("a=1\n[s]\na=2\n"), Whole({{"", {{"a", "1"}}}, {"s", {{"a", "2"}}}}));
}

TEST(ParseIniFile, NothingToReadIsAWholeFileWithoutSections) {
  for (const std::string text : {"", "\n", "\n\n \t\r\n", "# only\n; comments\n", "only words\n", "=x"}) {
    EXPECT_EQ(Parse(text), Whole({})) << text;
  }
}

struct PairCase {
  std::string line;
  std::string key;
  std::string value;
};

const std::vector<PairCase> kPairs = {
    {"a=1", "a", "1"},
    {"  a  =  1  ", "a", "1"},
    {"a b = c d", "a b", "c d"},
    {"x=1=2", "x", "1=2"},
    {"x==", "x", "="},
    {"x= = y =", "x", "= y ="},
    {"x=", "x", ""},
    {"x = \t", "x", ""},
    {"key = value ; note", "key", "value ; note"},
    {"key = value # note", "key", "value # note"},
    {"key = ;", "key", ";"},
    {"key = #", "key", "#"},
    {"a;b=c", "a;b", "c"},
    {"a#b=c", "a#b", "c"},
    {"a[0]=b", "a[0]", "b"},
    {"]=b", "]", "b"},
    {"a=[b]", "a", "[b]"},
    {"a: b=c", "a: b", "c"},
    {"\"a\" = \"b\"", "\"a\"", "\"b\""},
    {"a = 'b '", "a", "'b '"},
    {R"(a = b\n\t\\)", "a", R"(b\n\t\\)"},
    {"a = $HOME ${b} %(c)s %d", "a", "$HOME ${b} %(c)s %d"},
    {"Key=Value", "Key", "Value"},
    {"gr\xF6\xDF\x65 = \xFF\x80\x7F", "gr\xF6\xDF\x65", "\xFF\x80\x7F"},
    {"\xA0 a = b \xA0", "\xA0 a", "b \xA0"},
    {"a\0b = c\0d"s, "a\0b"s, "c\0d"s},
    {"a = b\rc", "a", "b\rc"},
};

TEST(ParseIniFile, SplitsALineAtTheFirstEqualsSign) {
  for (const PairCase& pair : kPairs) {
    const Outcome expected = Whole({{"s", {{pair.key, pair.value}}}});

    EXPECT_EQ(Parse("[s]\n" + pair.line + "\n"), expected) << pair.line;
    EXPECT_EQ(Parse("[s]\n" + pair.line), expected) << pair.line << ", without a newline";
    EXPECT_EQ(Parse("[s]\r\n" + pair.line + "\r\n"), expected) << pair.line << ", with a carriage return";
  }
}

TEST(ParseIniFile, TrimsEachKindOfWhitespaceAroundKeyValueAndName) {
  for (const char space : kSpaces) {
    const std::string line = space + "key"s + space + "=" + space + "value" + space + "\n";
    const std::string header = space + "["s + space + "name" + space + "]" + space + "\n";

    EXPECT_EQ(Parse(header + line), Whole({{"name", {{"key", "value"}}}})) << static_cast<int>(space);
  }
}

TEST(ParseIniFile, LinesThatAreNeitherPairsNorHeadersAreIgnored) {
  for (const std::string& line :
       {""s, " \t\f\v\r"s, "\0\0"s, "word"s, "two words"s, "key: value"s, "="s, "=x"s, " = x"s, "=="s, "\0=x"s, "]"s,
        "a]"s, "x [s]"s, "<s>"s, "\\[s]"s, "\xEF\xBB\xBF[s]"s}) {
    EXPECT_EQ(Parse("a=1\n" + line + "\nb=2\n"), Whole({{"", {{"a", "1"}, {"b", "2"}}}})) << line;
  }
}

TEST(ParseIniFile, CommentsFillWholeLinesOnly) {
  for (const std::string& line : {"#"s, ";"s, "#c=1"s, ";c=1"s, "# c = 1"s, " \t# c=1"s, "\v;c=1"s, "\0#c=1"s, "#[s]"s,
                                  ";[s"s, "#[]"s, ";=x"s, "##"s, ";#c=1"s}) {
    EXPECT_EQ(Parse("a=1\n" + line + "\nb=2\n"), Whole({{"", {{"a", "1"}, {"b", "2"}}}})) << line;
  }
}

const std::vector<std::pair<std::string, std::string>> kHeaders = {
    {"[net]", "net"},
    {"[ net ]", "net"},
    {"\t[\tnet\t]", "net"},
    {"[net] trailing", "net"},
    {"[net]trailing=1", "net"},
    {"[net] = b", "net"},
    {"[net] # note", "net"},
    {"[net][log]", "net"},
    {"[net]]", "net"},
    {"[a]b]", "a"},
    {"[[a]", "[a"},
    {"[[]", "["},
    {"[[a]]", "[a"},
    {"[a b  c]", "a b  c"},
    {"[a=b]", "a=b"},
    {"[=]", "="},
    {"[#]", "#"},
    {"[;a]", ";a"},
    {"[a.b:c/d]", "a.b:c/d"},
    {"[a \"b\"]", "a \"b\""},
    {"[Net]", "Net"},
    {"[\xFF\x80]", "\xFF\x80"},
    {"[\xA0]", "\xA0"},
    {"[a\0b]"s, "a\0b"s},
    {"[\0a\0]"s, "a"},
};

TEST(ParseIniFile, HeaderNamesWhatStandsBeforeItsFirstClosingBracket) {
  for (const auto& [header, name] : kHeaders) {
    EXPECT_EQ(Parse(header + "\nk=v\n"), Whole({{name, {{"k", "v"}}}})) << header;
  }
}

TEST(ParseIniFile, HeaderWithoutPairsIsAnEmptySection) {
  EXPECT_EQ(Parse("[s]"), Whole({{"s", {}}}));
  EXPECT_EQ(Parse("[s]\n[t]\nno pair\n=x\n[u]\na=1\n"), Whole({{"s", {}}, {"t", {}}, {"u", {{"a", "1"}}}}));
}

const std::vector<std::string> kMalformedHeaders = {
    "[",      "[]",       "[ ]",     "[\t\f\v]", "[\0]"s, "[\0 \0]"s, "[net",     "[ net", "[]]",  "[]net]",
    "[] net", "[ ]]",     "[ ]net]", "[[",       "[=",    "[a=1",     "[a = b",   "[#",    "[;",   "[ # ",
    " [",     "\t[ net ", "\0["s,    "[\0"s,     "[\r",   "[(net)",   "[net\xFF", "[net}", "[]=1",
};

TEST(ParseIniFile, MalformedHeaderEndsItAtOnceAndKeepsWhatCameBefore) {
  const Outcome expected{false, {{"", {{"a", "1"}}}, {"s", {{"b", "2"}}}}};
  for (const std::string& header : kMalformedHeaders) {
    EXPECT_EQ(Parse("a=1\n[s]\nb=2\n" + header + "\nc=3\n[t]\nd=4\n"), expected) << header;
    EXPECT_EQ(Parse("a=1\n[s]\nb=2\n" + header), expected) << header << ", at the end";
    EXPECT_EQ(Parse("a=1\r\n[s]\r\nb=2\r\n" + header + "\r\nc=3\r\n"), expected) << header << ", with returns";
  }
}

TEST(ParseIniFile, HeaderDoesNotGoOnInTheNextLine) {
  EXPECT_EQ(Parse("[a\nb]\nc=1\n"), (Outcome{false, {}}));
  EXPECT_EQ(Parse("[\n]\n"), (Outcome{false, {}}));
}

TEST(ParseIniFile, LaterValueOfAKeyWins) {
  EXPECT_EQ(Parse("[s]\na=1\nb=1\na=2\n"), Whole({{"s", {{"a", "2"}, {"b", "1"}}}}));
  EXPECT_EQ(Parse("[s]\na=1\na=\n"), Whole({{"s", {{"a", ""}}}})) << "also an empty one";
}

TEST(ParseIniFile, RepeatedHeaderContinuesItsSection) {
  EXPECT_EQ(Parse("[s]\na=1\nb=1\n[t]\na=5\n[ s ] again\nb=2\nc=2\n"),
            Whole({{"s", {{"a", "1"}, {"b", "2"}, {"c", "2"}}}, {"t", {{"a", "5"}}}}));
}

TEST(ParseIniFile, NamesAreComparedAsBytes) {
  EXPECT_EQ(Parse("[s]\nkey=1\nKey=2\n[S]\nkey=3\n"),
            Whole({{"s", {{"key", "1"}, {"Key", "2"}}}, {"S", {{"key", "3"}}}}));
}

TEST(ParseIniFile, LinesEndAtNewlinesOnly) {
  EXPECT_EQ(Parse("a=1\rb=2\fc=3\vd=4"), Whole({{"", {{"a", "1\rb=2\fc=3\vd=4"}}}}));
  EXPECT_EQ(Parse("\n\r\na=1\n\r\r\nb=2"), Whole({{"", {{"a", "1"}, {"b", "2"}}}}));
}

TEST(ParseIniFile, BackslashContinuesNoLine) {
  EXPECT_EQ(Parse("a=1\\\n  b=2\\\nc\\\n=d\n"), Whole({{"", {{"a", "1\\"}, {"b", "2\\"}}}}));
}

TEST(ParseIniFile, TakesLinesOfAMegabyte) {
  const std::string name(1 << 20, 'n');
  const std::string key(1 << 20, 'k');
  const std::string value(1 << 20, 'v');
  const std::string blanks(1 << 20, ' ');

  EXPECT_TRUE(Parse("[" + name + blanks + "]\n" + key + "=" + value + "\n#" + value + "\n" + blanks + "a=1") ==
              Whole({{name, {{key, value}, {"a", "1"}}}}));
  EXPECT_TRUE(Parse("a=1\n[" + name) == Outcome(false, {{"", {{"a", "1"}}}}));
}

TEST(ParseIniFile, TakesMorePairsThanItReadsAtOnce) {
  std::string text = "[s]\n";
  Values expected;
  for (int i = 0; i < 5000; ++i) {
    text += "key" + std::to_string(i) + " = " + std::to_string(i * 7) + "\n";
    expected["key" + std::to_string(i)] = std::to_string(i * 7);
  }

  EXPECT_TRUE(Parse(text) == Whole({{"s", expected}}));
}

TEST(ParseIniFile, MergesIntoTheMapWhereTheLaterFileWins) {
  const Outcome first = Parse("z=1\n[s]\na=1\nb=1\n[empty]\n");

  EXPECT_EQ(
      Parse("[t]\na=2\n[s]\nb=2\nc=2\n[empty]\n", first.second),
      Whole({{"", {{"z", "1"}}}, {"s", {{"a", "1"}, {"b", "2"}, {"c", "2"}}}, {"t", {{"a", "2"}}}, {"empty", {}}}));
}

TEST(ParseIniFile, HeaderOfASectionThatIsThereKeepsItsPairs) {
  EXPECT_EQ(Parse("[s]\n", {{"s", {{"a", "1"}}}}), Whole({{"s", {{"a", "1"}}}}));
}

TEST(ParseIniFile, EachCallBeginsInTheSectionWithoutAName) {
  const Outcome first = Parse("[s]\na=1\n");

  EXPECT_EQ(Parse("a=2\n", first.second), Whole({{"", {{"a", "2"}}}, {"s", {{"a", "1"}}}}));
}

TEST(ParseIniFile, WhatCannotBeOpenedOrReadIsFalseAndChangesNothing) {
  const TempFolder folder;
  WriteFile(folder.Path() + "/file", "a=1\n");

  EXPECT_EQ(ErrorOf((folder.Path() + "/none").c_str()), ENOENT);
  EXPECT_EQ(ErrorOf(""), ENOENT);
  EXPECT_EQ(ErrorOf((folder.Path() + "/file/below").c_str()), ENOTDIR);
  EXPECT_EQ(ErrorOf(folder.Path().c_str()), EISDIR) << "can be opened, and not read";
  EXPECT_EQ(ErrorOf("/proc/self/mem"), EIO) << "can be opened, and not read";
}

TEST(ParseIniFile, FileOfSomebodyElseIsFalse) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/file";
  WriteFile(path, "a=1\n");
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);

  EXPECT_EQ(test::WithoutPrivileges([&path] { return ErrorOf(path.c_str()); }), EACCES);
}

TEST(ParseIniFile, ReadsWhatIsNoRegularFile) {
  IniSections sections;

  EXPECT_TRUE(ParseIniFile("/dev/null", sections));

  EXPECT_EQ(sections, IniSections{});
}

TEST(ParseIniFile, LeavesNoDescriptorOpenAndNoChangeBehind) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/file";
  WriteFile(path, "a=1\n[");
  const std::size_t before = CountOpenFds();
  IniSections sections;

  EXPECT_FALSE(ParseIniFile(path.c_str(), sections));
  EXPECT_FALSE(ParseIniFile(folder.Path().c_str(), sections));

  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_EQ(test::ReadFile(path), "a=1\n[");
}

TEST(ParseIniFile, SaysNothingWhenItFails) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/file";
  WriteFile(path, "[");

  EXPECT_EQ(test::OutputOf([&] {
              IniSections sections;
              (void)ParseIniFile(path.c_str(), sections);
              (void)ParseIniFile(folder.Path().c_str(), sections);
              (void)ParseIniFile("/none", sections);
            }),
            "");
}

TEST(IniParserAddLine, OnlyAMalformedHeaderIsRefused) {
  IniSections sections;
  IniParser parser(sections);

  EXPECT_TRUE(parser.AddLine(""));
  EXPECT_TRUE(parser.AddLine(StringView()));
  EXPECT_TRUE(parser.AddLine("# [x"));
  EXPECT_TRUE(parser.AddLine("no pair"));
  EXPECT_TRUE(parser.AddLine("[s]\n"));
  EXPECT_TRUE(parser.AddLine("a=1\n"));
  EXPECT_FALSE(parser.AddLine("[x"));

  EXPECT_EQ(sections, (IniSections{{"s", {{"a", "1"}}}}));
}

TEST(IniParserAddLine, LooksNoFurtherThanTheLine) {
  IniSections sections;
  IniParser parser(sections);
  const std::string text = "[net]a=1";

  EXPECT_FALSE(parser.AddLine(StringView(text.data(), 1)));
  EXPECT_FALSE(parser.AddLine(StringView(text.data(), 4)));
  EXPECT_TRUE(parser.AddLine(StringView(text.data(), 5)));
  EXPECT_TRUE(parser.AddLine(StringView(text.data() + 5, 1)));
  EXPECT_TRUE(parser.AddLine(StringView(text.data() + 5, 2)));

  EXPECT_EQ(sections, (IniSections{{"net", {{"a", ""}}}}));
}

struct GoldenFile {
  const char* name;
  bool whole;
  IniSections sections;
};

const std::vector<GoldenFile> kGoldenFiles = {
    {"collector.service",
     true,
     {{"Unit",
       {{"Description", "Counter collector (rack %i)"},
        {"After", "network-online.target time-sync.target"},
        {"Wants", "network-online.target"}}},
      {"Service",
       {{"Type", "notify"},
        {"Environment", ""},
        {"ExecStartPre", "-/usr/bin/rm -f /run/collector/old"},
        {"ExecStart", "/usr/sbin/collector --foreground \\"},
        {"--interval", "60 \\"},
        {"Restart", "on-failure"},
        {"StartLimitBurst", "5"}}},
      {"Install", {{"WantedBy", "multi-user.target"}}}}},
    {"uplink.nmconnection",
     true,
     {{"connection",
       {{"id", "Uplink port 1"},
        {"uuid", "6f1f4c1e-0b7e-4c52-9d0a-2f7c1d3e9a10"},
        {"type", "ethernet"},
        {"interface-name", "eth1"}}},
      {"ethernet", {}},
      {"ipv4",
       {{"address1", "192.0.2.10/24,192.0.2.1"},
        {"dns", "192.0.2.53;198.51.100.53;"},
        {"dns-search", "lab.example;"},
        {"method", "manual"}}},
      {"ipv6", {{"addr-gen-mode", "default"}, {"method", "disabled"}}},
      {"proxy", {}}}},
    {"shares.conf",
     true,
     {{"global",
       {{"workgroup", "LAB"},
        {"server string", "%h (files, printers)"},
        {"log file", "/var/log/files/log.%m"},
        {"passdb backend", "tdbsam   ; local users"}}},
      {"homes", {{"comment", "Home folders"}, {"read only", "no"}, {"valid users", "%S"}}},
      {"printers", {{"path", "/var/spool/print"}, {"browseable", "no"}}}}},
    {"database.cnf",
     true,
     {{"client", {{"port", "3306"}, {"socket", "/run/database/server.sock"}}},
      {"server-base",
       {{"bind-address", "127.0.0.1 # not the world"},
        {"max_allowed_packet", "16M"},
        {"sql_mode", "\"STRICT,NO_ZERO_DATE\""},
        {"init_connect", "'SET NAMES = utf8'"}}},
      {"server-base-10.11", {}}}},
    {"interpreter.ini",
     true,
     {{"", {{"engine", "On"}}},
      {"Core",
       {{"short_open_tag", "Off"},
        {"error_reporting", "E_ALL & ~E_NOTICE"},
        {"memory_limit", "128M"},
        {"include_path", "\".:/usr/share/scripts\""},
        {"date.timezone", ""},
        {"extension", "gd"}}},
      {"Session", {{"session.name", "\"SID\""}, {"session.gc_probability", "1 ; of a hundred"}}},
      {"HOST=www.example", {{"memory_limit", "256M"}}}}},
    {"repository.gitconfig",
     true,
     {{"core", {{"repositoryformatversion", "0"}, {"bare", "false"}}},
      {"remote \"origin\"",
       {{"url", "https://code.example/team/tool.git?depth=1"}, {"fetch", "+refs/tags/*:refs/tags/*"}}},
      {"branch \"fix[1", {{"remote", "origin"}}},
      {"alias", {{"last", "log -1 --format=%h # the newest"}, {"long", "\"!f() { \\"}, {"echo a", "1; \\"}}}}},
    {"settings.desktop",
     true,
     {{"Desktop Entry",
       {{"Type", "Application"},
        {"Name", "Device settings"},
        {"Name[de]", "Ger\xC3\xA4teeinstellungen"},
        {"Name[ja]", "\xE3\x83\x87\xE3\x83\x90\xE3\x82\xA4\xE3\x82\xB9"},
        {"Exec", "settings --page=%u"},
        {"Icon", "settings"},
        {"Categories", "Settings;HardwareSettings;"},
        {"Actions", "reset;"}}},
      {"Desktop Action reset", {{"Name", "Reset"}, {"Exec", "settings --reset"}}}}},
    {"jail.local",
     true,
     {{"INCLUDES", {{"before", "paths.conf"}}},
      {"DEFAULT",
       {{"ignoreip", "127.0.0.1/8 ::1"},
        {"bantime", "10m"},
        {"findtime", "10m"},
        {"action", "%(action_mail)s[name=%(__name__)s, port=\"22\"]"},
        {"log[level", "INFO]"}}},
      {"sshd", {{"enabled", "true"}, {"logpath", "%(sshd_log)s"}}},
      {"web-auth", {{"enabled", "false"}}}}},
    {"tunnel.conf",
     true,
     {{"Interface",
       {{"PrivateKey", "c2VjcmV0LW9mLXRoaXMtZXhhbXBsZS1ub3QtcmVhbCE="},
        {"Address", "10.9.0.2/24, fd00:9::2/64"},
        {"ListenPort", "51820"}}},
      {"Peer",
       {{"PublicKey", "YmFja3VwLXB1YmxpYy1rZXktb2YtdGhlIGV4YW1wbGU="},
        {"AllowedIPs", "10.9.1.0/24"},
        {"Endpoint", "hub.example:51820"}}}}},
    // The bytes before the first bracket make that line no header.
    {"device-crlf.ini",
     true,
     {{"", {{"Name", "Gate 4"}}},
      {"Serial", {{"Port", "COM3"}, {"Baud", "115200"}, {"Label", "K\xFC\x63he"}}},
      {"Empty", {}}}},
    {"cut-header.ini", false, {{"display", {{"language", "de"}, {"brightness", "70"}}}}},
};

TEST(ParseIniFile, ReadsFilesOfManyProgramsByItsOwnRules) {
  for (const GoldenFile& file : kGoldenFiles) {
    IniSections sections;

    EXPECT_EQ(ParseIniFile((KIV_FIXTURES "/config/"s + file.name).c_str(), sections), file.whole) << file.name;
    EXPECT_EQ(sections, file.sections) << file.name;
  }
}

}  // namespace
}  // namespace kiv::utils
