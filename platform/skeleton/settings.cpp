// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <stdexcept>

#include "ormis/memcpy_s.h"
#include "ormis/qet_log.h"
#include "ormis/qet_yaml.h"
#include "unsupported.h"

namespace Ormis {

using skeleton::Unsupported;

// A constructor has no status, so it throws.
QetYamlNode::QetYamlNode(const std::string&) {
  throw std::runtime_error("QetYamlNode: not supported");
}

QetYamlNode::QetYamlNode() = default;
QetYamlNode::QetYamlNode(const QetYamlNode& other) = default;
QetYamlNode& QetYamlNode::operator=(const QetYamlNode& other) = default;
QetYamlNode::~QetYamlNode() = default;

QetYamlNode QetYamlNode::operator[](const std::string&) const {
  throw std::runtime_error("QetYamlNode::operator[]: not supported");
}

template <>
bool QetYamlNode::GetValue<std::string>(const std::string&, std::string&) const {
  (void)Unsupported("QetYamlNode::GetValue");
  return false;
}

template <>
bool QetYamlNode::GetValue<unsigned int>(const std::string&, unsigned int&) const {
  (void)Unsupported("QetYamlNode::GetValue");
  return false;
}

bool QetYamlNode::AsIf(unsigned int&) const {
  (void)Unsupported("QetYamlNode::AsIf");
  return false;
}

// No level or mode means "not supported". These let the messages of the other operations appear.
ara::log::LogLevel ParseLogLevel(QetLogLevelType) {
  (void)Unsupported("ParseLogLevel");
  return ara::log::LogLevel::kError;
}

ara::log::LogMode ParseLogMode(QetLogModeType) {
  (void)Unsupported("ParseLogMode");
  return ara::log::LogMode::kConsole;
}

}  // namespace Ormis

int memcpy_s(void*, std::size_t, const void*, std::size_t) {
  (void)Ormis::skeleton::Unsupported("memcpy_s");
  return ENOTSUP;
}
