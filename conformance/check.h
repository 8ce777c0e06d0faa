// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace conformance {

/// What the platform under test does for interpolation 1. This decides which values the pixels of a resized
/// picture may have.
enum class Interpolation { kAny, kNearest, kBilinear, kArea };

/// The settings of a run; all its checks use the same.
struct Settings {
  std::string modelFile;  ///< absolute path of a model that the platform loads; empty: none was given
  unsigned int rounds = 1000;
  Interpolation interpolation = Interpolation::kAny;
  unsigned int rowAlignment = 1;  ///< bytes to which the platform pads the rows of a packed image
};

/// The contract does not hold. The text says what was found.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The check cannot be made on this machine. The text is the reason.
class Skip : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A running check. It has its own process, and its working directory is an empty folder.
struct Session {
  const Settings& settings;
  std::string note;  ///< a remark on a passed check; may be empty
};

/// The model to work with; throws Skip without one.
inline const std::string& ModelFile(const Session& session) {
  if (session.settings.modelFile.empty()) throw Skip("no model: give one with --model FILE");
  return session.settings.modelFile;
}

/// One contract of the platform.
struct Check {
  const char* name;               ///< group and contract, "image.data-filled"
  const char* expected;           ///< the contract, one sentence
  void (*run)(Session& session);  ///< throws Failure or Skip; any other exception is a failure, too
};

// Each group of checks is a file of its own.
std::vector<Check> InterfaceChecks();
std::vector<Check> ProcessChecks();
std::vector<Check> ChannelChecks();
std::vector<Check> ImageChecks();
std::vector<Check> ResizeChecks();
std::vector<Check> EncoderChecks();
std::vector<Check> ModelChecks();
std::vector<Check> YamlChecks();
std::vector<Check> LogChecks();
std::vector<Check> MemoryChecks();
std::vector<Check> ConcurrencyChecks();
std::vector<Check> GrowthChecks();

/// Every check, in the order in which to build a port.
std::vector<Check> AllChecks();

/// Throws Failure with `found` unless `holds`.
void Require(bool holds, const std::string& found);

/// Requires status 0 of `call`.
void RequireOk(std::int32_t status, const char* call);

/// Requires a status other than 0 of `call`. `when` describes the circumstances.
void RequireFailure(std::int32_t status, const char* call, const char* when);

}  // namespace conformance
