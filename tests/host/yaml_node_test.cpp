// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>

#include "ormis/ormis.h"
#include "yaml_faults.h"

namespace Ormis::test {
namespace {

/// Makes a folder of its own the working directory, so that messages name the file "c.yaml".
class YamlNodeTest : public testing::Test {
 protected:
  YamlNodeTest() : home_(std::filesystem::current_path()) {
    std::string folder = (std::filesystem::temp_directory_path() / "yaml_node_test.XXXXXX").string();
    folder_ = mkdtemp(folder.data());
    std::filesystem::current_path(folder_);
  }
  ~YamlNodeTest() override {
    EXPECT_EQ(LiveYamlObjects(), 0);
    std::filesystem::current_path(home_);
    std::filesystem::remove_all(folder_);
  }

  static QetYamlNode Parse(const std::string& text) {
    std::ofstream("c.yaml", std::ios::binary) << text;
    return QetYamlNode("c.yaml");
  }

  static void ExpectError(const std::string& text, const std::string& message) {
    try {
      Parse(text);
      ADD_FAILURE() << "accepted: " << text.substr(0, 200);
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()), message) << text.substr(0, 200);
    }
  }

  static std::string Text(const QetYamlNode& node, const std::string& key) {
    std::string out = "unchanged";
    EXPECT_EQ(node.GetValue(key, out), out != "unchanged") << key;
    return out;
  }

  /// Start and end of stream, document and mapping, key and value.
  static constexpr int kEventsOfOneKey = 8;

 private:
  std::filesystem::path home_;
  std::filesystem::path folder_;
};

TEST_F(YamlNodeTest, AConfigurationOfAllSections) {
  const QetYamlNode root = Parse(
      "# every stress\n"
      "logMode: 6\n"
      "logLevel: 4\n"
      "runTimes: 40\n"
      "VPC: {Level: 1}\n"
      "VENC:\n"
      "  Level: 2\n"
      "CPU:\n"
      "  'Level': \"3\"\n"
      "AIC:\n"
      "  Level: 0x4\n"
      "  File: build/network.onnx # made by the set-up\n"
      "unknown: [1, {a: b}, [c]]\n");
  EXPECT_EQ(root.children.size(), 8U);
  EXPECT_EQ(root.children.count("VPC"), 1U);
  EXPECT_EQ(root.children.count("vpc"), 0U);
  unsigned int number = 0;
  EXPECT_TRUE(root["runTimes"].AsIf(number));
  EXPECT_EQ(number, 40U);
  for (const auto& [section, level] : {std::pair{"VPC", 1U}, {"VENC", 2U}, {"CPU", 3U}, {"AIC", 4U}}) {
    EXPECT_TRUE(root[section].GetValue("Level", number)) << section;
    EXPECT_EQ(number, level) << section;
  }
  EXPECT_EQ(Text(root["AIC"], "File"), "build/network.onnx");
  EXPECT_TRUE(root["unknown"].children.empty());
}

TEST_F(YamlNodeTest, AnEmptyDocumentHasNoChildren) {
  for (const char* const text : {"", "\n\n", "# only a comment\n", "---\n", "---\n...\n", "~\n", "null\n",
                                 "\xEF\xBB\xBF", "{}\n", "%YAML 1.1\n---\n"}) {
    EXPECT_TRUE(Parse(text).children.empty()) << text;
  }
}

TEST_F(YamlNodeTest, ATopLevelThatIsNoMappingIsAnError) {
  ExpectError("hello\n", "c.yaml:1:1: the top level is a scalar, expected a mapping");
  ExpectError("\n  'null'\n", "c.yaml:2:3: the top level is a scalar, expected a mapping");
  ExpectError("''", "c.yaml:1:1: the top level is a scalar, expected a mapping");
  ExpectError("# list\n- a\n- b\n", "c.yaml:2:1: the top level is a sequence, expected a mapping");
  ExpectError("[]", "c.yaml:1:1: the top level is a sequence, expected a mapping");
}

TEST_F(YamlNodeTest, SyntaxErrorsCarryLineAndColumn) {
  ExpectError("CPU:\n  Level: [1, 2\n",
              "c.yaml:3:1: did not find expected ',' or ']' while parsing a flow sequence");
  ExpectError("CPU: 'abc\n", "c.yaml:2:1: found unexpected end of stream while scanning a quoted scalar");
  ExpectError("CPU:\n\tLevel: 1\n",
              "c.yaml:2:1: found character that cannot start any token while scanning for the next token");
  ExpectError("a: b: c\n", "c.yaml:1:5: mapping values are not allowed in this context");
  ExpectError("a: 1\n b: 2\n", "c.yaml:2:3: mapping values are not allowed in this context");
  ExpectError("a: \"\\q\"\n", "c.yaml:1:5: found unknown escape character while parsing a quoted scalar");
  ExpectError("a: }\n", "c.yaml:1:4: did not find expected node content while parsing a block node");
  ExpectError("%YAML 2.0\n---\na: 1\n", "c.yaml:1:1: found incompatible YAML document");
}

TEST_F(YamlNodeTest, BytesThatAreNoTextCarryLineAndColumn) {
  ExpectError(std::string("a: 1\nb: \0\n", 10), "c.yaml:2:4: control characters are not allowed");
  ExpectError("a: 1\nb: 2\nc: x\xff\n", "c.yaml:3:5: invalid leading UTF-8 octet");
  ExpectError("a: \x01\n", "c.yaml:1:4: control characters are not allowed");
  ExpectError("\n\x01\n", "c.yaml:2:1: control characters are not allowed");
  ExpectError(
      "\x7f"
      "ELF\x02\x01\x01",
      "c.yaml:1:1: control characters are not allowed");
}

TEST_F(YamlNodeTest, ASecondDocumentIsAnError) {
  ExpectError("a: 1\n---\nb: 2\n", "c.yaml:2:1: a second document, expected one");
  ExpectError("---\n---\n", "c.yaml:2:1: a second document, expected one");
  EXPECT_EQ(Parse("---\na: 1\n...\n").children.size(), 1U);
}

TEST_F(YamlNodeTest, DuplicateKeysAreErrors) {
  ExpectError("CPU: 1\nVPC: 2\nCPU: 3\n", "c.yaml:3:1: duplicate key 'CPU'");
  ExpectError("a: {b: 1, 'b': 2}\n", "c.yaml:1:11: duplicate key 'b'");
  EXPECT_EQ(Parse("a: {b: 1}\nc: {b: 2}\n").children.size(), 2U);
}

TEST_F(YamlNodeTest, KeysThatAreNoScalarsAreErrors) {
  ExpectError("? [a, b]\n: 1\n", "c.yaml:1:3: a key that is not a scalar");
  ExpectError("{a: 1, {b: 2}: 3}\n", "c.yaml:1:8: a key that is not a scalar");
  ExpectError("x: &x [1]\n? *x\n: 2\n", "c.yaml:2:3: a key that is not a scalar");
}

TEST_F(YamlNodeTest, AliasesStandForWhatTheyName) {
  const QetYamlNode root = Parse(
      "VPC: &level {Level: 3, deep: {deeper: x}}\n"
      "VENC: *level\n"
      "file: &file net.onnx\n"
      "AIC: {File: *file}\n"
      "&key Name: 1\n"
      "again: *key\n");
  unsigned int number = 0;
  EXPECT_TRUE(root["VENC"].GetValue("Level", number));
  EXPECT_EQ(number, 3U);
  EXPECT_EQ(Text(root["VENC"]["deep"], "deeper"), "x");
  EXPECT_EQ(Text(root["AIC"], "File"), "net.onnx");
  EXPECT_EQ(Text(root, "again"), "Name");
  EXPECT_EQ(Text(Parse("a: &x 1\nb: &x 2\nc: *x\n"), "c"), "2");
  EXPECT_EQ(Text(Parse("a: &x k\n*x : 2\n"), "k"), "2");
}

TEST_F(YamlNodeTest, UndefinedAndSelfReferencingAliasesAreErrors) {
  ExpectError("a: *nowhere\n", "c.yaml:1:4: undefined alias 'nowhere'");
  ExpectError("a: *later\nb: &later 1\n", "c.yaml:1:4: undefined alias 'later'");
  ExpectError("a: &a\n  b: *a\n", "c.yaml:2:6: alias 'a' inside the node that it names");
  ExpectError("a: &a [1, [*a]]\n", "c.yaml:1:12: alias 'a' inside the node that it names");
  ExpectError("&top\na: *top\n", "c.yaml:2:4: alias 'top' inside the node that it names");
}

/// `levels` mappings inside each other. The scalar in the last one is one level more.
std::string Nested(int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += "{a: ";
  text += "x";
  text.append(static_cast<std::size_t>(levels), '}');
  return text;
}

TEST_F(YamlNodeTest, DepthIsLimitedTo64) {
  EXPECT_EQ(Parse(Nested(63)).children.size(), 1U);
  ExpectError(Nested(64), "c.yaml:1:254: more than 64 levels deep");
  ExpectError("a: " + std::string(100'000, '['), "c.yaml:1:67: more than 64 levels deep");
  ExpectError(std::string(100'000, '{'), "c.yaml:1:65: more than 64 levels deep");
  std::string dashes = "a:\n";
  for (int i = 0; i < 100; ++i) dashes += "- ";
  ExpectError(dashes, "c.yaml:2:127: more than 64 levels deep");
}

TEST_F(YamlNodeTest, DepthCountsThroughAliases) {
  EXPECT_EQ(Parse("a: &x " + Nested(40) + "\nb: {b: *x}\n").children.size(), 2U);
  std::string text = "a0: &a0 " + Nested(10) + "\n";
  for (int i = 1; i < 60; ++i) {
    const std::string name = "a" + std::to_string(i);
    text.append(name).append(": &").append(name).append(" {k: *a");
    text.append(std::to_string(i - 1)).append("}\n");
  }
  // a<i> is 11 + i levels deep, below the top level.
  ExpectError(text, "c.yaml:54:15: more than 64 levels deep");
}

TEST_F(YamlNodeTest, NodesAreLimitedTo10000) {
  // The mapping, its key and the sequence are three more nodes.
  const auto list = [](int items) {
    std::string text = "a: [";
    for (int i = 0; i < items; ++i) text += "x,";
    return text + "]\n";
  };
  EXPECT_EQ(Parse(list(9'997)).children.size(), 1U);
  ExpectError(list(9'998), "c.yaml:1:19999: more than 10000 nodes");
  std::string keys;
  for (int i = 0; i < 5'000; ++i) keys += "k" + std::to_string(i) + ": 1\n";
  ExpectError(keys, "c.yaml:5000:8: more than 10000 nodes");
}

TEST_F(YamlNodeTest, AliasesCountWithAllTheyNameAgainstABillionLaughs) {
  std::string text = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
  for (int i = 1; i < 10; ++i) {
    const std::string before = "*a" + std::to_string(i - 1);
    text += "a" + std::to_string(i) + ": &a" + std::to_string(i) + " [";
    for (int item = 0; item < 10; ++item) text += (item == 0 ? "" : ", ") + before;
    text += "]\n";
  }
  ExpectError(text, "c.yaml:4:45: more than 10000 nodes");
}

TEST_F(YamlNodeTest, AliasesOfMappingsCountWithTheirKeys) {
  const auto five = [](int pairs) {
    std::string text = "a: &a {";
    for (int i = 0; i < pairs; ++i) text += "k" + std::to_string(i) + ": 1, ";
    return text + "}\n" + "b: *a\n" + "c: *a\n" + "d: *a\n" + "e: *a\n";
  };
  EXPECT_EQ(Parse(five(998)).children.size(), 5U);
  ExpectError(five(999), "c.yaml:5:4: more than 10000 nodes");
}

TEST_F(YamlNodeTest, FilesAreLimitedToOneMebibyte) {
  const std::string text = "a: 1\n";
  EXPECT_EQ(Parse(text + std::string((1U << 20) - text.size(), '#')).children.size(), 1U);
  ExpectError(text + std::string((1U << 20) - text.size() + 1, '#'),
              "c.yaml: larger than 1 MiB, expected a configuration file");
  EXPECT_THROW(QetYamlNode("/dev/zero"), std::runtime_error);
}

TEST_F(YamlNodeTest, FilesThatCannotBeReadNamePathAndReason) {
  const auto message = [](const std::string& path) -> std::string {
    try {
      const QetYamlNode node(path);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "accepted";
  };
  EXPECT_EQ(message("none.yaml"), "cannot read none.yaml: No such file or directory");
  EXPECT_EQ(message(""), "cannot read : No such file or directory");
  EXPECT_EQ(message("."), "cannot read .: Is a directory");
  EXPECT_EQ(message("/dev/null/x"), "cannot read /dev/null/x: Not a directory");
  if (geteuid() != 0) {  // for root every file is readable
    std::ofstream("closed.yaml") << "a: 1\n";
    ASSERT_EQ(chmod("closed.yaml", 0), 0);
    EXPECT_EQ(message("closed.yaml"), "cannot read closed.yaml: Permission denied");
  }
  EXPECT_EQ(message("/proc/self/mem"), "cannot read /proc/self/mem: Input/output error");
}

TEST_F(YamlNodeTest, WantOfMemoryInTheParserIsBadAlloc) {
  {
    const YamlFault fault(YamlFault::Kind::kNoParser);
    EXPECT_THROW(Parse("a: 1\n"), std::bad_alloc);
    EXPECT_TRUE(YamlFault::Fired());
  }
  for (int call = 1; call <= kEventsOfOneKey; ++call) {
    const YamlFault fault(YamlFault::Kind::kNoMemory, call);
    EXPECT_THROW(Parse("a: 1\n"), std::bad_alloc) << call;
    EXPECT_TRUE(YamlFault::Fired()) << call;
  }
}

TEST_F(YamlNodeTest, AParserThatFailsWithoutAReasonIsAnError) {
  const YamlFault fault(YamlFault::Kind::kNoReason, 3);
  ExpectError("a: 1\n", "c.yaml:1:1: not YAML");
  EXPECT_TRUE(YamlFault::Fired());
}

TEST_F(YamlNodeTest, AnEventInTheWrongPlaceIsAnError) {
  // The stream's start, the mapping, key and value, the mapping's end, the document's end.
  for (const auto& [call, place] :
       {std::pair{1, "1:1"}, {3, "1:1"}, {4, "1:1"}, {5, "1:4"}, {6, "2:1"}, {7, "2:1"}}) {
    const YamlFault fault(YamlFault::Kind::kUnexpectedEvent, call);
    ExpectError("a: 1\n", std::string("c.yaml:") + place + ": unexpected structure");
    EXPECT_TRUE(YamlFault::Fired()) << call;
  }
}

TEST_F(YamlNodeTest, AMissingKeyThrowsItsName) {
  const QetYamlNode root = Parse("CPU: {Level: 1}\n");
  try {
    root["CPU"]["Levle"];
    FAIL() << "found";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), "no key 'Levle'");
  }
}

TEST_F(YamlNodeTest, NumbersThatConvert) {
  struct Row {
    const char* text;
    unsigned int number;
  };
  for (const Row& row :
       {Row{"0", 0}, Row{"10", 10}, Row{"010", 10}, Row{"+7", 7}, Row{"'8'", 8}, Row{"\"9\"", 9},
        Row{"4294967295", 4294967295U}, Row{"0x10", 16}, Row{"0xFFffFFff", 4294967295U}, Row{"0o17", 15},
        Row{"+0x1f", 31}, Row{"'0x1F'", 31}, Row{"!!int 5", 5}, Row{"!!str 6", 6}, Row{"5 # five", 5},
        Row{"00000000000000000001", 1}}) {
    const QetYamlNode root = Parse(std::string("n: ") + row.text + "\n");
    unsigned int byKey = 77;
    unsigned int own = 77;
    EXPECT_TRUE(root.GetValue("n", byKey)) << row.text;
    EXPECT_TRUE(root["n"].AsIf(own)) << row.text;
    EXPECT_EQ(byKey, row.number) << row.text;
    EXPECT_EQ(own, row.number) << row.text;
  }
}

TEST_F(YamlNodeTest, WhatDoesNotConvertLeavesTheTargetUnchanged) {
  for (const char* const text :
       {"-1",          "-0",    "1.0",  "1e3",  "ten",  "4294967296", "99999999999999999999",
        "0x100000000", "0x",    "0o",   "0o8",  "0xg",  "0X10",       "0b1",
        "++1",         "+-1",   "+",    "''",   "' 5'", "'5 '",       "5 6",
        "1_000",       "1,000", "0x-1", "0x+1", "",     "~",          "null",
        "Null",        "NULL",  "true", "[1]",  "[]",   "{a: 1}",     "|\n  5\n",
        "!!null 5"}) {
    const QetYamlNode root = Parse(std::string("n: ") + text + "\n");
    unsigned int byKey = 77;
    unsigned int own = 77;
    EXPECT_FALSE(root.GetValue("n", byKey)) << text;
    EXPECT_FALSE(root["n"].AsIf(own)) << text;
    EXPECT_EQ(byKey, 77U) << text;
    EXPECT_EQ(own, 77U) << text;
  }
  unsigned int number = 77;
  EXPECT_FALSE(Parse("n: 1\n").GetValue("m", number));
  EXPECT_FALSE(Parse("n: 1\n").AsIf(number));
  EXPECT_FALSE(QetYamlNode().AsIf(number));
  EXPECT_EQ(number, 77U);
}

TEST_F(YamlNodeTest, TextThatConverts) {
  struct Row {
    const char* text;
    const char* value;
  };
  for (const Row& row :
       {Row{"a b", "a b"}, Row{"'it''s'", "it's"}, Row{"\"a\\tb\"", "a\tb"}, Row{"12", "12"},
        Row{"true", "true"}, Row{"''", ""}, Row{"\"\"", ""}, Row{"'null'", "null"}, Row{"\"~\"", "~"},
        Row{"!!str null", "null"}, Row{"! 'null'", "null"}, Row{"nUll", "nUll"},
        Row{"|\n  two\n  lines\n", "two\nlines\n"}, Row{">-\n  a\n  b\n", "a b"},
        Row{"\"\\u00e9\"", "\xc3\xa9"}, Row{"/a/b c.onnx", "/a/b c.onnx"}}) {
    EXPECT_EQ(Text(Parse(std::string("s: ") + row.text + "\n"), "s"), row.value) << row.text;
  }
}

TEST_F(YamlNodeTest, WhatIsNoTextLeavesTheTargetUnchanged) {
  for (const char* const text : {"", "~", "null", "Null", "NULL", "!!null ''", "[a]", "{a: b}"}) {
    EXPECT_EQ(Text(Parse(std::string("s: ") + text + "\n"), "s"), "unchanged") << text;
  }
  EXPECT_EQ(Text(Parse("s: x\n"), "t"), "unchanged");
}

TEST_F(YamlNodeTest, CopiesAreIndependent) {
  QetYamlNode root = Parse("a: {b: 1}\n");
  const QetYamlNode copy = root;
  QetYamlNode child = root["a"];
  root.children.clear();
  child.children.clear();
  EXPECT_EQ(Text(copy["a"], "b"), "1");
  root = copy;
  EXPECT_EQ(Text(root["a"], "b"), "1");
}

TEST_F(YamlNodeTest, ANodeMayBecomeItsOwnChild) {
  const std::string longText(1000, 'x');
  QetYamlNode node = Parse("AIC:\n  File: {path: " + longText + ", number: 7}\n  Level: 1\nCPU: 2\n");
  node = node.children.at("AIC");
  EXPECT_EQ(node.children.size(), 2U);
  node = node.children.at("File");
  EXPECT_EQ(node.children.size(), 2U);
  EXPECT_EQ(Text(node, "path"), longText);
  node = node.children.at("number");
  unsigned int number = 0;
  EXPECT_TRUE(node.AsIf(number));
  EXPECT_EQ(number, 7U);
  EXPECT_TRUE(node.children.empty());
  QetYamlNode& same = node;
  node = same;
  EXPECT_TRUE(node.AsIf(number));
}

}  // namespace
}  // namespace Ormis::test
