// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "engine_test.h"
#include "networks.h"

/// A test with a folder of its own for model files.
class ModelTest : public EngineTest {
 protected:
  void SetUp() override {
    folder_ = std::filesystem::temp_directory_path() / ("model_test_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder_);
    EngineTest::SetUp();
  }

  void TearDown() override {
    EngineTest::TearDown();
    std::filesystem::remove_all(folder_);
  }

  std::string Write(const std::string& bytes) {
    std::string path = folder_ / "model.onnx";
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  std::string Write(const onnx_writer::Graph& graph) { return Write(onnx_writer::Serialize(graph)); }

  std::filesystem::path folder_;
};
