// SPDX-License-Identifier: Apache-2.0
#include "yaml_faults.h"

#include <dlfcn.h>
#include <yaml.h>

#include <optional>

namespace {

std::optional<YamlFault::Kind> scripted;
int callsLeft = 0;
bool fired = false;
int liveObjects = 0;

/// Whether the scripted fault belongs to this call of yaml_parser_parse.
bool IsThisCall() {
  if (!scripted.has_value() || *scripted == YamlFault::Kind::kNoParser || --callsLeft != 0) return false;
  fired = true;
  return true;
}

}  // namespace

YamlFault::YamlFault(Kind kind, int call) {
  scripted = kind;
  callsLeft = call;
  fired = false;
}

YamlFault::~YamlFault() {
  scripted.reset();
}

bool YamlFault::Fired() {
  return fired;
}

int LiveYamlObjects() {
  return liveObjects;
}

extern "C" __attribute__((visibility("default"))) void yaml_parser_delete(yaml_parser_t* parser) {
  static const auto real =
      reinterpret_cast<decltype(&yaml_parser_delete)>(dlsym(RTLD_NEXT, "yaml_parser_delete"));
  --liveObjects;
  real(parser);
}

extern "C" __attribute__((visibility("default"))) void yaml_event_delete(yaml_event_t* event) {
  static const auto real =
      reinterpret_cast<decltype(&yaml_event_delete)>(dlsym(RTLD_NEXT, "yaml_event_delete"));
  if (event->type != YAML_NO_EVENT) --liveObjects;
  real(event);
}

extern "C" __attribute__((visibility("default"))) int yaml_parser_initialize(yaml_parser_t* parser) {
  if (scripted == YamlFault::Kind::kNoParser) {
    fired = true;
    return 0;
  }
  static const auto real =
      reinterpret_cast<decltype(&yaml_parser_initialize)>(dlsym(RTLD_NEXT, "yaml_parser_initialize"));
  ++liveObjects;
  return real(parser);
}

/// Parses with libyaml, and counts the event.
static int ParseWell(yaml_parser_t* parser, yaml_event_t* event) {
  static const auto real =
      reinterpret_cast<decltype(&yaml_parser_parse)>(dlsym(RTLD_NEXT, "yaml_parser_parse"));
  const int result = real(parser, event);
  if (event->type != YAML_NO_EVENT) ++liveObjects;
  return result;
}

extern "C" __attribute__((visibility("default"))) int yaml_parser_parse(yaml_parser_t* parser,
                                                                        yaml_event_t* event) {
  if (!IsThisCall()) return ParseWell(parser, event);
  if (*scripted == YamlFault::Kind::kUnexpectedEvent) {
    const int result = ParseWell(parser, event);
    const yaml_mark_t start = event->start_mark;
    yaml_event_delete(event);  // leaves an event of no type
    event->start_mark = start;
    return result;
  }
  parser->error = *scripted == YamlFault::Kind::kNoMemory ? YAML_MEMORY_ERROR : YAML_PARSER_ERROR;
  return 0;
}
