// SPDX-License-Identifier: Apache-2.0
#pragma once

/// While one exists, one call of libyaml goes wrong as scripted. Stands in front of libyaml for the whole
/// program. One object at a time.
class YamlFault {
 public:
  enum class Kind {
    kNoParser,         ///< yaml_parser_initialize fails, for want of memory
    kNoMemory,         ///< yaml_parser_parse fails, for want of memory
    kNoReason,         ///< yaml_parser_parse fails and does not say why
    kUnexpectedEvent,  ///< yaml_parser_parse returns an event that begins no node and ends none
  };

  /// `call` counts the calls of yaml_parser_parse, from 1. It does not matter for kNoParser.
  explicit YamlFault(Kind kind, int call = 1);
  ~YamlFault();
  YamlFault(const YamlFault&) = delete;
  YamlFault& operator=(const YamlFault&) = delete;

  static bool Fired();
};

/// Parsers and events of libyaml that were made and not deleted, in the whole program.
int LiveYamlObjects();
