// SPDX-License-Identifier: Apache-2.0
#include <exception>
#include <fstream>
#include <memory>
#include <string>

#include "check.h"
#include "ormis/ormis.h"

namespace conformance {

namespace {

constexpr const char* kDocument = R"(# a configuration
logMode: 6
logLevel: 4
runTimes: 40
word: some text
mixed: 12abc
empty:
CPU:
  Level: 10
VPC:
  Level: many
AIC:
  Level: 3
  File: ./models/network.bin
)";

Ormis::QetYamlNode Document() {
  {
    std::ofstream file("document.yaml");
    file << kDocument;
  }
  return Ormis::QetYamlNode("document.yaml");
}

void Children(Session&) {
  const Ormis::QetYamlNode root = Document();
  for (const char* const key : {"logMode", "logLevel", "runTimes", "word", "CPU", "VPC", "AIC"}) {
    Require(root.children.count(key) == 1, std::string("the root's children lack ") + key);
  }
  for (const char* const key : {"VENC", "cpu", "Level", ""}) {
    Require(root.children.count(key) == 0, std::string("the root's children have '") + key + "'");
  }
  const Ormis::QetYamlNode section = root["AIC"];
  Require(section.children.count("Level") == 1 && section.children.count("File") == 1,
          "the children of AIC lack Level or File");
  Require(section.children.count("logMode") == 0, "the children of AIC have logMode, which is none of them");
}

void LookUp(Session&) {
  auto root = std::make_unique<Ormis::QetYamlNode>(Document());
  const Ormis::QetYamlNode section = (*root)["CPU"];
  const Ormis::QetYamlNode other = (*root)["AIC"];
  root.reset();
  Require(section.children.count("Level") == 1 && section.children.count("File") == 0 &&
              other.children.count("File") == 1,
          "a child that outlives its parent has other children than in the file");
}

void GetString(Session&) {
  const Ormis::QetYamlNode root = Document();
  const Ormis::QetYamlNode section = root["AIC"];
  std::string text;
  Require(section.GetValue<std::string>("File", text), "GetValue of AIC/File returned false");
  Require(text == "./models/network.bin", "GetValue of AIC/File gave '" + text + "'");
  Require(root.GetValue<std::string>("word", text) && text == "some text",
          "GetValue of word returned false or gave '" + text + "'");
  Require(!section.GetValue<std::string>("none", text), "GetValue of a missing key returned true");
}

void GetUnsigned(Session&) {
  const Ormis::QetYamlNode root = Document();
  unsigned int number = 77;
  Require(root["CPU"].GetValue<unsigned int>("Level", number), "GetValue of CPU/Level returned false");
  Require(number == 10, "GetValue of CPU/Level gave " + std::to_string(number) + ", not 10");
  Require(!root["VPC"].GetValue<unsigned int>("Level", number),
          "GetValue of VPC/Level, which is a word, returned true");
  Require(!root["CPU"].GetValue<unsigned int>("none", number), "GetValue of a missing key returned true");
}

void AsIf(Session&) {
  const Ormis::QetYamlNode root = Document();
  unsigned int number = 0;
  root["runTimes"].AsIf(number);
  Require(number == 40, "AsIf of runTimes gave " + std::to_string(number) + ", not 40");
  root["logMode"].AsIf(number);
  Require(number == 6, "AsIf of logMode gave " + std::to_string(number) + ", not 6");
}

void AsIfLeavesItsTarget(Session&) {
  const Ormis::QetYamlNode root = Document();
  for (const char* const key : {"word", "mixed", "empty", "CPU"}) {
    unsigned int number = 4711;
    root[key].AsIf(number);
    Require(number == 4711,
            std::string("AsIf of ") + key + " changed its target to " + std::to_string(number));
  }
}

void MissingFile(Session&) {
  try {
    const Ormis::QetYamlNode node("missing.yaml");
  } catch (const std::exception&) {
    return;
  }
  throw Failure("the constructor came back without an exception");
}

}  // namespace

std::vector<Check> YamlChecks() {
  return {
      {"yaml.children",
       "QetYamlNode reads a file, and its children map counts 1 for a key that is there, else 0", Children},
      {"yaml.look-up", "operator[] returns the child of that key, which does not depend on its parent",
       LookUp},
      {"yaml.get-string", "GetValue<std::string> gives the child's text, and false for a missing key",
       GetString},
      {"yaml.get-unsigned",
       "GetValue<unsigned int> gives the child's number, and false for a missing key and for a word",
       GetUnsigned},
      {"yaml.as-if", "AsIf gives the node's number", AsIf},
      {"yaml.as-if-leaves-its-target", "AsIf does not change its target if the node is not a number",
       AsIfLeavesItsTarget},
      {"yaml.missing-file", "the constructor throws a std::exception for a file that is missing",
       MissingFile},
  };
}

}  // namespace conformance
